#include "core/utils/strings.h"

#include <algorithm>
#include <charconv>
#include <string_view>

#include "core/platform/process.h"
#include "core/types/logger.h"

namespace velmora {

int stoi(const std::string& text) {
    std::string_view number(text);
    number.remove_prefix(std::min(number.find_first_not_of(kBlanks), number.size()));
    // std::from_chars takes no plus sign, and a second sign is no number.
    if (number.starts_with('+')) {
        number.remove_prefix(1);
        if (number.starts_with('-')) return -1;
    }
    int value = -1;
    const auto result = std::from_chars(number.data(), number.data() + number.size(), value);
    return result.ec == std::errc() ? value : -1;
}

std::vector<std::string> tokenize(const std::string& text, char delimiter, char escape) {
    std::vector<std::string> tokens;
    std::string token;
    bool escaped = false;
    for (const char c : text) {
        if (escaped) {
            escaped = false;
            token += c;
        } else if (c == escape) {
            escaped = true;
        } else if (c == delimiter) {
            tokens.push_back(std::move(token));
            token.clear();
        } else {
            token += c;
        }
    }
    if (escaped) VELMORA_LOG(warn, "string.utils") << "Invalid terminal escape";
    tokens.push_back(std::move(token));
    return tokens;
}

bool getEnvironmentVariable(const std::string& name, std::string& value) {
    return platform::environmentVariable(name, value);
}

std::string makeGuid() { return formatGuid(platform::randomGuidBytes()); }

}  // namespace velmora
