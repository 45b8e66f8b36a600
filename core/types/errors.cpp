#include "core/types/errors.h"

#include <array>
#include <span>
#include <string_view>

#include "core/types/logger.h"

namespace velmora {
namespace {

std::string messageOf(std::span<const std::string_view> names, int value, std::string_view unrecognized) {
    if (value >= 0 && static_cast<size_t>(value) < names.size()) return std::string(names[static_cast<size_t>(value)]);
    return std::string(unrecognized) + std::to_string(value);
}

constexpr std::string_view kUnrecognized = "Unrecognized error code: ";

constexpr std::array<std::string_view, 23> kVelmoraMessages{
    "none",
    "unknown",
    "invalid_json",
    "invalid_event_format",
    "invalid_argument",
    "oswin_unauthorized",
    "disk_full",
    "http_callback_not_set",
    "http_session_creation_failed",
    "http_session_request_failed",
    "iaas_file_not_found_or_not_readable",
    "iaas_file_empty",
    "iaas_file_invalid_format",
    "iaas_no_rule_matched",
    "ingest_instance_not_found",
    "event_too_big",
    "cache_lock_error",
    "timeout",
    "precondition_failed",
    "oswin_error",
    "selby_bad_request",
    "selby_error",
    "opt_out",
};

constexpr std::array<std::string_view, 8> kVelmoraHttpMessages{
    "none", "unknown", "invalid_input", "cancel_ignored", "cancelled", "retriable", "non_retriable", "offline",
};

constexpr std::array<std::string_view, 4> kFQMessages{"none", "file_open_failed", "file_limit_exceeded",
                                                      "file_corrupt"};

constexpr std::array<std::string_view, 19> kJsonMessages{
    "Success",
    "The document is empty.",
    "The document root must not follow by other values.",
    "Invalid value.",
    "Missing a name for object member.",
    "Missing a colon after a name of object member.",
    "Missing a comma or '}' after an object member.",
    "Missing a comma or ']' after an array element.",
    "Incorrect hex digit after \\u escape in string.",
    "The surrogate pair in string is invalid.",
    "Invalid escape character in string.",
    "Missing a closing quotation mark in string.",
    "Invalid encoding in string.",
    "Number too big to be stored in double.",
    "Miss fraction part in number.",
    "Miss exponent in number.",
    "Parsing was terminated.",
    "Unspecific syntax error.",
    "ExceptionThrown",
};

class VelmoraErrorCategoryImpl final : public std::error_category {
public:
    const char* name() const noexcept override { return "velmora_error"; }
    std::string message(int value) const override { return messageOf(kVelmoraMessages, value, kUnrecognized); }
};

class VelmoraHttpErrorCategoryImpl final : public std::error_category {
public:
    const char* name() const noexcept override { return "velmora_http_error"; }
    std::string message(int value) const override { return messageOf(kVelmoraHttpMessages, value, kUnrecognized); }
};

class FQErrorCategoryImpl final : public std::error_category {
public:
    const char* name() const noexcept override { return "fq_error"; }
    std::string message(int value) const override { return messageOf(kFQMessages, value, kUnrecognized); }
};

class JsonErrorCategoryImpl final : public std::error_category {
public:
    const char* name() const noexcept override { return "json_error"; }
    std::string message(int value) const override {
        return messageOf(kJsonMessages, value, "Unrecognized JSON error code ");
    }
};

// A velmora code goes out as it is. The "no error" of any other domain would pass for success, which it is not.
std::error_code failureOf(const std::system_error& e) {
    const bool isTelling = e.code() || e.code().category() == velmoraCategory();
    return isTelling ? e.code() : std::error_code(VelmoraError::unknown);
}

std::error_code logCurrentException(const char* channel, const char* function) {
    const LogSite site{channel, function, __FILE__, __LINE__};
    const auto log = [&site](const std::string& text) {
        if (logs(LogLevel::error)) {
            LogStatement(LogLevel::error, site.channel, site.function, site.file, site.line).stream() << text;
        }
    };
    try {
        throw;
    } catch (const std::system_error& e) {
        log(std::string("exception ") + e.what() + " " + toString(e.code()));
        return failureOf(e);
    } catch (const std::exception& e) {
        log(std::string("exception ") + e.what());
    } catch (...) {
        log("unknown exception");
    }
    return VelmoraError::unknown;
}

std::error_code codeOfCurrentException() noexcept {
    try {
        throw;
    } catch (const std::system_error& e) {
        return failureOf(e);
    } catch (...) {
        return VelmoraError::unknown;
    }
}

}  // namespace

// The categories are never destroyed: codes may be compared while other static objects are torn down.
const std::error_category& velmoraCategory() noexcept {
    static const auto& category = *new VelmoraErrorCategoryImpl;
    return category;
}

const std::error_category& velmoraHttpCategory() noexcept {
    static const auto& category = *new VelmoraHttpErrorCategoryImpl;
    return category;
}

const std::error_category& fqCategory() noexcept {
    static const auto& category = *new FQErrorCategoryImpl;
    return category;
}

const std::error_category& jsonCategory() noexcept {
    static const auto& category = *new JsonErrorCategoryImpl;
    return category;
}

std::string toString(const std::error_code& code) {
    return std::string(code.category().name()) + ":" + std::to_string(code.value());
}

std::error_code currentExceptionToErrorCode(const char* channel, const char* function) noexcept {
    try {
        return logCurrentException(channel, function);
    } catch (...) {
        // The line could not be built, for lack of memory perhaps; what failed is told all the same.
    }
    return codeOfCurrentException();
}

int toVelmoraError(const std::error_code& code) noexcept {
    if (!code) return 0;
    return code.category() == velmoraCategory() ? code.value() : static_cast<int>(VelmoraError::unknown);
}

int reportCurrentException(const char* function) noexcept {
    return toVelmoraError(currentExceptionToErrorCode("utils", function));
}

}  // namespace velmora
