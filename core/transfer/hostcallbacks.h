// The host's HTTP callbacks, as the setters of velmora/http.h leave them.
#pragma once

#include <atomic>

#include "velmora/http.h"

namespace velmora::transfer {

// Exchanged by the host at any time; a change acts on the next use. Null means that there is none.
struct HostCallbacks {
    std::atomic<velmora_http_new_session_callback> newSession = nullptr;
    std::atomic<velmora_http_delete_session_callback> deleteSession = nullptr;
    std::atomic<velmora_http_send_request_callback> sendRequest = nullptr;
    std::atomic<velmora_http_cancel_request_callback> cancelRequest = nullptr;
};

inline constinit HostCallbacks hostCallbacks;

}  // namespace velmora::transfer
