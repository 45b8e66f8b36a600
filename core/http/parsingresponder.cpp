#include "core/http/parsingresponder.h"

#include "core/types/logger.h"

namespace velmora::http {

void logUnexpectedStatus(int status) {
    VELMORA_LOG_AT(error, "http", "velmora::http::JsonResponder::onSuccess")
        << "HTTP status " << static_cast<Status>(status) << " was neither success nor failure. "
        << "We expect redirection to be handled transparently by the HTTP library";
}

}  // namespace velmora::http
