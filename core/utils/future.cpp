#include "core/utils/future.h"

namespace velmora {

const char* future_error::what() const noexcept {
    switch (code_) {
        case FutureErrorCode::broken_promise:
            return "broken promise";
        case FutureErrorCode::reduction_failed:
            return "reduction failed";
        case FutureErrorCode::no_state:
            return "no state";
    }
    return nullptr;
}

}  // namespace velmora
