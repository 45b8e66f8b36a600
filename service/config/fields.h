// What the parsers of the two configuration records share.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <utility>

#include "core/json/jsonparser.h"

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
