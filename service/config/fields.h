// What the parsers of the two configuration records share.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <utility>

#include "core/json/jsonparser.h"
#include "core/types/logger.h"

namespace velmora::service::config {

template <typename T>
using Fields = std::initializer_list<std::pair<std::string_view, T*>>;

// Assigns to the field of that name, if there is one.
template <typename T>
void assign(std::string_view name, const T& value, Fields<T> fields) {
    for (const auto& [key, target] : fields) {
        if (key == name) *target = value;
    }
}

// The same for settings that have to be above 0, as intervals of what repeats and sizes of what fills up: a 0 is
// refused with a warning, and the field keeps its value.
inline void assignAboveZero(const char* channel, std::string_view name, uint64_t value, Fields<uint64_t> fields) {
    for (const auto& [key, target] : fields) {
        if (key != name) continue;
        if (value != 0) {
            *target = value;
        } else {
            VELMORA_LOG(warn, channel) << "ignored, has to be above 0: " << name << "=0";
        }
    }
}

// A parser that fills a part of a record.
template <typename Config>
class SectionParser : public JsonDefaultParser {
public:
    explicit SectionParser(Config& config) : config_(config) {}

protected:
    Config& config_;
};

// A remote document or service: where it is and how long an answer holds.
class ServiceParser : public JsonDefaultParser {
public:
    ServiceParser(std::string& urn, uint64_t& ttl) : urn_(urn), ttl_(ttl) {}
    void onString(const std::string& name, const std::string& value) override { assign(name, value, {{"urn", &urn_}}); }
    void onUint(const std::string& name, uint64_t value) override { assign(name, value, {{"ttl", &ttl_}}); }

private:
    std::string& urn_;
    uint64_t& ttl_;
};

}  // namespace velmora::service::config
