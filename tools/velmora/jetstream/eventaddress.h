// Where an event goes in the log: its subject, and the id by which the log tells a repeat.
#pragma once

#include <string>
#include <string_view>

namespace velmora::tool {

// Every stream of events takes these subjects.
inline constexpr char kAllSubjects[] = "velmora.>";

// Any text as one token of a subject: letters, digits, dash and underscore stay, every other byte becomes %XX. Distinct
// texts give distinct tokens, never longer than 3 * 64 characters: a longer text is named by its SHA-256, "%~" and 64
// digits. The empty text is "%".
[[nodiscard]] std::string subjectToken(std::string_view text);

// "velmora.PROJECT.ENVIRONMENT.auth", or ".anon".
[[nodiscard]] std::string eventSubject(std::string_view project, std::string_view environment, bool isAuthenticated);

// "PROJECT/GUID" in tokens; an event without a guid is told by the SHA-256 of its text.
[[nodiscard]] std::string messageId(std::string_view project, std::string_view guid, const std::string& text);

// 64 hexadecimal digits. Throws std::runtime_error if the system's hash fails.
[[nodiscard]] std::string sha256Hex(const std::string& text);

}  // namespace velmora::tool
