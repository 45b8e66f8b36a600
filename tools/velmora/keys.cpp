#include "tools/velmora/keys.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace velmora::tool {
namespace {

constexpr double kBurstSeconds = 10;

KeyRule readRule(const nlohmann::json& entry) {
    KeyRule rule;
    for (const auto& [name, value] : entry.items()) {
        if (name == "project")
            rule.project = value.get<std::string>();
        else if (name == "rate")
            rule.rate = value.get<double>();
        else if (name == "environments")
            rule.environments = value.get<std::vector<std::string>>();
        else if (name != "key")
            throw std::invalid_argument("unknown member " + name);
    }
    if (rule.rate < 0) throw std::invalid_argument("rate is negative");
    return rule;
}

}  // namespace

std::map<std::string, KeyRule> parseKeys(const std::string& json) {
    std::map<std::string, KeyRule> rules;
    size_t number = 0;
    try {
        const nlohmann::json document = nlohmann::json::parse(json);
        for (const auto& entry : document.at("keys")) {
            ++number;
            const auto key = entry.at("key").get<std::string>();
            if (key.empty() || !rules.emplace(key, readRule(entry)).second)
                throw std::invalid_argument("the key is empty or stands there twice");
        }
    } catch (const std::exception& error) {
        throw std::invalid_argument((number ? "key " + std::to_string(number) + ": " : "") + error.what());
    }
    return rules;
}

void KeyRing::replace(std::map<std::string, KeyRule> rules) {
    const MutexLock lock(mutex_);
    std::map<std::string, Entry> entries;
    for (auto& [key, rule] : rules) {
        const auto known = entries_.find(key);
        Entry entry{rule, rule.rate * kBurstSeconds, Clock::now()};
        if (known != entries_.end()) {
            entry.credit = std::min(entry.credit, known->second.credit);
            entry.at = known->second.at;
        }
        entries.emplace(key, std::move(entry));
    }
    entries_.swap(entries);
    isOpen_ = false;
}

KeyRing::Verdict KeyRing::admit(const std::string& key, Clock::time_point now) {
    const MutexLock lock(mutex_);
    if (isOpen_) return Verdict::accepted;
    const auto found = entries_.find(key);
    if (found == entries_.end()) return Verdict::unknown;
    Entry& entry = found->second;
    if (entry.rule.rate == 0) return Verdict::accepted;
    const double seconds = std::chrono::duration<double>(now - entry.at).count();
    entry.credit = std::min(entry.credit + seconds * entry.rule.rate, entry.rule.rate * kBurstSeconds);
    entry.at = now;
    return entry.credit > 0 ? Verdict::accepted : Verdict::exhausted;
}

std::optional<std::string> KeyRing::charge(const std::string& key, const Batch& batch) {
    const MutexLock lock(mutex_);
    const auto found = entries_.find(key);
    if (isOpen_ || found == entries_.end()) return std::nullopt;
    const KeyRule& rule = found->second.rule;
    for (const ReceivedEvent& event : batch.events) {
        if (!rule.project.empty() && event.project != rule.project)
            return "the key is not for project " + event.project;
        const auto& allowed = rule.environments;
        if (!allowed.empty() && std::find(allowed.begin(), allowed.end(), event.environment) == allowed.end())
            return "the key is not for environment " + event.environment;
    }
    found->second.credit -= static_cast<double>(batch.events.size());
    return std::nullopt;
}

}  // namespace velmora::tool
