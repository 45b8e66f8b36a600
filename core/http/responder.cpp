#include "core/http/responder.h"

#include "core/types/log.h"

namespace velmora::http {

void BasicResponder::onFailure(std::error_code error) {
    response_.error = error;
    onError_(error, "", 0);
}

void logUnexpectedStatus(int status) {
    VELMORA_LOG_AT(error, "http", "velmora::http::JsonResponder::onSuccess")
        << "HTTP status " << static_cast<Status>(status) << " was neither success nor failure. "
        << "We expect redirection to be handled transparently by the HTTP library";
}

}  // namespace velmora::http
