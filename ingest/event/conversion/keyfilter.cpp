#include "ingest/event/conversion/keyfilter.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "core/json/jsontext.h"
#include "core/json/mergejson.h"

namespace velmora {
namespace {

constexpr std::array<std::string_view, 7> kPrefixes = {"context.", "env.",  "event.", "exp.",
                                                       "source.",  "user.", "entity."};

int nestingOf(const JsonValue& value) {
    int deepest = 0;
    if (value.IsObject()) {
        for (const auto& member : value.GetObject()) deepest = std::max(deepest, nestingOf(member.value));
    } else if (value.IsArray()) {
        for (const auto& element : value.GetArray()) deepest = std::max(deepest, nestingOf(element));
    } else {
        return 0;
    }
    return deepest + 1;
}

void mergeInto(JsonValue& document, const std::string& key, const JsonValue& extra,
               TransformRule::Allocator& allocator) {
    const auto member = document.FindMember(key);
    if (member == document.MemberEnd()) {
        document.AddMember(JsonValue(key, allocator), JsonValue(extra, allocator), allocator);
    } else if (member->value.IsObject()) {
        mergeObjects(member->value, extra, allocator);
    } else {
        member->value.CopyFrom(extra, allocator);
    }
}

}  // namespace

KeyFilter::KeyFilter(const service::ingest::Rule& rule, std::shared_ptr<const KeySet> outKeys)
    : outKeys_(std::move(outKeys)) {
    const std::string& action = *findOption(rule, "non-standard-keys");
    excludes_ = action == "exclude";
    includes_ = action == "include";
    for (const auto& [key, format] : rule.out) targets_.push_back(key);
}

bool KeyFilter::apply(JsonValue& document, Allocator& allocator, RuleRun&) const {
    if (excludes_) return exclude(document);
    return includes_ && include(document, allocator);
}

bool KeyFilter::isStandard(std::string_view key) const {
    return outKeys_->contains(key) ||
           std::any_of(kPrefixes.begin(), kPrefixes.end(), [&](std::string_view p) { return key.starts_with(p); });
}

bool KeyFilter::exclude(JsonValue& document) const {
    bool matched = false;
    for (auto member = document.MemberBegin(); member != document.MemberEnd();) {
        const bool stays = isStandard(viewOf(member->name));
        matched = matched || !stays;
        member = stays ? member + 1 : document.EraseMember(member);
    }
    return matched;
}

bool KeyFilter::include(JsonValue& document, Allocator& allocator) const {
    JsonValue extra(rapidjson::kObjectType);
    for (const auto& [name, value] : document.GetObject()) {
        if (isStandard(viewOf(name))) continue;
        extra.AddMember(JsonValue(name, allocator), JsonValue(value, allocator), allocator);
    }
    if (extra.ObjectEmpty() || targets_.empty()) return false;
    if (nestingOf(extra) >= kMaxNesting) throw std::length_error("included keys nested too deeply");
    for (const std::string& target : targets_) mergeInto(document, target, extra, allocator);
    return true;
}

}  // namespace velmora
