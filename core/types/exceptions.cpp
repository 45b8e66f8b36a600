#include "core/types/exceptions.h"

#include "core/types/errors.h"
#include "core/types/log.h"

namespace velmora {
namespace {

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
