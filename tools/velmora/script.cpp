#include "tools/velmora/script.h"

#include "core/json/jsontext.h"

#include <stdexcept>

namespace velmora::tool {
namespace {

uint64_t readNumber(const JsonValue& value, const std::string& name, uint64_t limit) {
    if (!value.IsUint64() || value.GetUint64() > limit) throw std::invalid_argument("bad number for " + name);
    return value.GetUint64();
}

bool readFlag(const JsonValue& value, const std::string& name) {
    if (!value.IsBool()) throw std::invalid_argument("bad flag for " + name);
    return value.GetBool();
}

void readMember(const std::string& name, const JsonValue& value, ScriptOrder& order) {
    constexpr uint64_t kDay = 86400;
    ScriptStep& step = order.step;
    if (name == "fail") {
        order.count = readNumber(value, name, UINT32_MAX);
    } else if (name == "status") {
        step.status = static_cast<int>(readNumber(value, name, 599));
        if (step.status < 200) throw std::invalid_argument("bad number for status");
    } else if (name == "retryAfter") {
        step.retryAfter = static_cast<uint32_t>(readNumber(value, name, kDay));
    } else if (name == "delayMs") {
        step.delay = std::chrono::milliseconds(readNumber(value, name, kDay * 1000));
    } else if (name == "drop") {
        step.drop = readFlag(value, name);
    } else if (name == "lateAnswer") {
        step.lateAnswer = readFlag(value, name);
    } else {
        throw std::invalid_argument("unknown member " + name);
    }
}

}  // namespace

ScriptOrder parseScript(const std::string& json) {
    JsonDocument document;
    if (parseValue(document, json).IsError() || !document.IsObject()) throw std::invalid_argument("no JSON object");
    ScriptOrder order;
    for (const auto& member : document.GetObject()) readMember(member.name.GetString(), member.value, order);
    const ScriptStep& step = order.step;
    const bool isOtherwiseIdle = step.delay.count() == 0 && !step.drop && !step.lateAnswer;
    if (step.status == 0 && isOtherwiseIdle) order.step.status = 503;
    return order;
}

void Script::play(const ScriptOrder& order) {
    const MutexLock lock(mutex_);
    order_ = order;
}

std::optional<ScriptStep> Script::next() {
    const MutexLock lock(mutex_);
    if (order_.count == 0) return std::nullopt;
    --order_.count;
    return order_.step;
}

}  // namespace velmora::tool
