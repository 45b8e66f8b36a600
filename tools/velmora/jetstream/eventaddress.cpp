#include "tools/velmora/jetstream/eventaddress.h"

#include <stdexcept>

#include "core/platform/cipher.h"

namespace velmora::tool {
namespace {

constexpr size_t kMaxPlainToken = 64;
constexpr char kHexDigits[] = "0123456789ABCDEF";

bool isPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

void appendHex(std::string& out, char c) {
    const auto byte = static_cast<unsigned char>(c);
    out += kHexDigits[byte >> 4];
    out += kHexDigits[byte & 15];
}

}  // namespace

std::string sha256Hex(const std::string& text) {
    std::string digest;
    if (platform::hashSha256(text, digest).failedStep != platform::CipherStep::none)
        throw std::runtime_error("the system's SHA-256 fails");
    std::string hex;
    for (const char c : digest) appendHex(hex, c);
    return hex;
}

std::string subjectToken(std::string_view text) {
    if (text.empty()) return "%";
    if (text.size() > kMaxPlainToken) return "%~" + sha256Hex(std::string(text));
    std::string token;
    token.reserve(text.size());
    for (const char c : text) {
        if (isPlain(c)) {
            token += c;
        } else {
            token += '%';
            appendHex(token, c);
        }
    }
    return token;
}

std::string eventSubject(std::string_view project, std::string_view environment, bool isAuthenticated) {
    return "velmora." + subjectToken(project) + "." + subjectToken(environment) + (isAuthenticated ? ".auth" : ".anon");
}

std::string messageId(std::string_view project, std::string_view guid, const std::string& text) {
    return subjectToken(project) + "/" + (guid.empty() ? "%~" + sha256Hex(text) : subjectToken(guid));
}

}  // namespace velmora::tool
