#include "core/types/exceptions.h"

#include "core/types/errors.h"
#include "core/types/log.h"

namespace velmora {
namespace {

constexpr int kUnknown = static_cast<int>(VelmoraError::unknown);

int logCurrentException(const char* function) {
    try {
        throw;
    } catch (const std::system_error& e) {
        VELMORA_LOG_AT(error, "utils", function) << "exception " << e.what() << " " << toString(e.code());
        return e.code().category() == velmoraCategory() ? e.code().value() : kUnknown;
    } catch (const std::exception& e) {
        VELMORA_LOG_AT(error, "utils", function) << "exception " << e.what();
    } catch (...) {
        VELMORA_LOG_AT(error, "utils", function) << "unknown exception";
    }
    return kUnknown;
}

}  // namespace

int reportCurrentException(const char* function) noexcept {
    try {
        return logCurrentException(function);
    } catch (...) {
        return kUnknown;  // not even the log line could be built
    }
}

}  // namespace velmora
