#include "core/http/message.h"

#include <algorithm>
#include <ostream>

#include "core/types/logger.h"
#include "core/types/text.h"
#include "core/utils/strings.h"

namespace velmora::http {
std::ostream& operator<<(std::ostream& out, Verb verb) {
    switch (verb) {
        case Verb::GET:
            return out << "GET";
        case Verb::POST:
            return out << "POST";
    }
    return out;
}

bool ci_map_traits::comp::operator()(const std::string& a, const std::string& b) const {
    const auto isLess = [](char x, char y) {
        return static_cast<unsigned char>(toLower(x)) < static_cast<unsigned char>(toLower(y));
    };
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), isLess);
}

void Response::setStatus(int value) {
    status = value;
    if (value >= 400 && value <= 599) error = static_cast<Status>(value);
}

void Response::addBodyChunk(uint64_t offset, const char* data, uint64_t length) {
    if (offset > body.size()) {
        VELMORA_LOG(error, "http") << "Missing chunk of the response body. Asked to insert '"
                                   << std::string_view(data, length) << "' at offset " << offset
                                   << ", but our body only has length " << body.size();
        return;
    }
    body.insert(offset, data, length);
}

int Response::getRetryAfter() const {
    const auto found = headers.find("retry-after");
    return found == headers.end() ? 0 : velmora::stoi(found->second);
}

std::string joinUrl(const std::string& base, const std::string& path) {
    const bool closed = !base.empty() && base.back() == '/';
    const bool opened = !path.empty() && path.front() == '/';
    return base + (closed ? "" : "/") + (opened ? path.substr(1) : path);
}

}  // namespace velmora::http
