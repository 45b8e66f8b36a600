#include "core/http/responder.h"

namespace velmora::http {

void BasicResponder::onFailure(std::error_code error) {
    response_.error = error;
    onError_(error, "", 0);
}

}  // namespace velmora::http
