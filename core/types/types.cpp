#include "core/types/types.h"

#include <array>
#include <string_view>

#include "core/types/logger.h"
#include "core/types/text.h"

namespace velmora {
namespace {

// The position in the table is the enumeration's value.
template <typename Enum, size_t N>
Enum fromString(const std::array<std::string_view, N>& names, const std::string& text, Enum fallback, const char* what,
                const char* fallbackName) {
    for (size_t i = 0; i < N; ++i) {
        if (equalsIgnoringCase(names[i], text)) return static_cast<Enum>(i);
    }
    VELMORA_LOG(warn, "types") << "unknown " << what << ": " << text << " defaulting to " << fallbackName;
    return fallback;
}

template <typename Enum, size_t N>
std::string toString(const std::array<std::string_view, N>& names, Enum value, std::string_view unknown) {
    const auto index = static_cast<int64_t>(value);
    return std::string(index >= 0 && index < static_cast<int64_t>(N) ? names[static_cast<size_t>(index)] : unknown);
}

constexpr std::array<std::string_view, 2> kEnvironments{"prod", "stage"};
constexpr std::array<std::string_view, 7> kLogLevels{"off", "always", "error", "warn", "info", "debug", "trace"};
constexpr std::array<std::string_view, 2> kSourceTypes{"host", "component"};
constexpr std::array<std::string_view, 3> kConsents{"default", "true", "false"};
constexpr std::array<std::string_view, 5> kSourceCategories{"DESKTOP", "MOBILE", "WEB", "SERVICE", "UNKNOWN"};

}  // namespace

Environment environmentFromString(const std::string& text) {
    return fromString(kEnvironments, text, Environment::stage, "environment", "stage");
}

LogLevel logLevelFromString(const std::string& text) {
    return fromString(kLogLevels, text, LogLevel::error, "loglevel", "error");
}

SourceType sourceTypeFromString(const std::string& text) {
    return fromString(kSourceTypes, text, SourceType::component, "source type", "component");
}

SourceCategory sourceCategoryFromString(const std::string& text) {
    return fromString(kSourceCategories, text, SourceCategory::unknown, "source category", "UNKNOWN");
}

Consent consentFromString(const std::string& text) {
    return fromString(kConsents, text, Consent::byDefault, "consent", "default");
}

std::string environmentToString(Environment value) { return toString(kEnvironments, value, "unknown"); }

std::string logLevelToString(LogLevel value) { return toString(kLogLevels, value, "unknown"); }

std::string sourceCategoryToString(SourceCategory value) { return toString(kSourceCategories, value, "UNKNOWN"); }

}  // namespace velmora
