// The small enumerations of the library. Their numbers are those of the C interface; their strings are those of
// configuration documents, events and the log.
//
// A ...FromString function compares without regard to case, logs a warning on channel "types" for a text it does not
// know, and returns the fallback named beside it: it never fails. A ...ToString function prints a number outside the
// enumeration as "unknown" ("UNKNOWN" for the source category).
#pragma once

#include <cstdint>
#include <string>

namespace velmora {

enum class Environment : int32_t { prod = 0, stage = 1 };
enum class LogLevel : int32_t { off = 0, always = 1, error = 2, warn = 3, info = 4, debug = 5, trace = 6 };
enum class SourceType : int32_t { host = 0, component = 1 };
enum class SourceCategory : int32_t { desktop = 0, mobile = 1, web = 2, service = 3, unknown = 4 };
enum class Consent : int32_t { byDefault = 0, granted = 1, denied = 2 };

[[nodiscard]] Environment environmentFromString(const std::string& text);        // falls back to stage, never to prod
[[nodiscard]] LogLevel logLevelFromString(const std::string& text);              // falls back to error
[[nodiscard]] SourceType sourceTypeFromString(const std::string& text);          // falls back to component
[[nodiscard]] SourceCategory sourceCategoryFromString(const std::string& text);  // falls back to unknown
[[nodiscard]] Consent consentFromString(const std::string& text);                // falls back to byDefault

[[nodiscard]] std::string environmentToString(Environment value);
[[nodiscard]] std::string logLevelToString(LogLevel value);
[[nodiscard]] std::string sourceCategoryToString(SourceCategory value);

}  // namespace velmora
