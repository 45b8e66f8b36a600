/* The bridge to the host's HTTP stack. The library makes no network call of its own: it asks the host to send, and
 * the host reports progress. velmora/httpstack.h offers a ready stack for hosts that have none.
 *
 * One exchange, in order:
 *   1. The library calls the send callback on one of its pool threads. The host takes the request over, stores a
 *      number other than 0 in *requestId and returns 0.
 *   2. From then on, also from within the send callback and on any thread: velmora_http_onRequestHeaders,
 *      velmora_http_onRequestBodyLength, velmora_http_onRequestBody with growing offsets until *written is 0.
 *   3. velmora_http_onResponseStatus, velmora_http_onResponseHeaders, velmora_http_onResponseBody.
 *   4. Exactly one velmora_http_onCompletion. The context is gone after it.
 * A send callback that returns non-zero ends the exchange: nothing may be reported for it. Redirects are followed by
 * the host, and the host limits how long an exchange may take: the library never times one out.
 *
 * Notifications may come from any thread, at the same time for different requests. They return 0, also for a context
 * that is refused; 1 for a failure inside the library.
 *
 * Callbacks run without the library's locks and may call in. A velmora_ingest_ function called for an instance that is
 * just being stopped answers 14; one that would wait for the callback it is called in answers 18. */
#pragma once

#include "velmora/export.h"
#include "velmora/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Result of an exchange, and of the send and cancel callbacks. */
enum velmora_http_result {
    VELMORA_HTTP_OK = 0,
    VELMORA_HTTP_UNKNOWN = 1,
    VELMORA_HTTP_INVALID_INPUT = 2,  /* from cancel: this id is not known, and no completion will follow */
    VELMORA_HTTP_CANCEL_IGNORED = 3, /* from cancel: too late, the completion follows as usual */
    VELMORA_HTTP_CANCELLED = 4,
    VELMORA_HTTP_RETRIABLE = 5,
    VELMORA_HTTP_NON_RETRIABLE = 6,
    VELMORA_HTTP_OFFLINE = 7
};

enum velmora_http_verb { VELMORA_HTTP_POST = 1, VELMORA_HTTP_GET = 2 };

/* Makes the host's session, once per process. Null means failure. */
typedef void* (*velmora_http_new_session_callback)(void);

/* Ends the session: the last HTTP call of the library, on the thread that ends the process or unloads the library. No
 * notification is under way then. */
typedef void (*velmora_http_delete_session_callback)(void* session);

/* Starts a request and returns without waiting for its end.
 *   verb       a velmora_http_verb
 *   url        valid during the call
 *   version    always 2
 *   context    names the exchange in every notification
 *   requestId  receives a number other than 0 that names the exchange for cancel
 * Returns a velmora_http_result, 0 if the host has taken the request over. */
typedef int32_t (*velmora_http_send_request_callback)(void* session, int32_t verb, const char* url, int32_t version,
                                                      void* context, uint32_t* requestId);

/* Asks for the end of a request. Returns 0 or 3 if a completion follows (4 as its result if the cancel succeeded), 2
 * if the id is not known. */
typedef int32_t (*velmora_http_cancel_request_callback)(void* session, uint32_t requestId);

/* Install or, with null, remove a callback. The change acts on the next use. All return 0. */
VELMORA_API int32_t velmora_http_setNewSessionCallback(velmora_http_new_session_callback callback);
VELMORA_API int32_t velmora_http_setDeleteSessionCallback(velmora_http_delete_session_callback callback);
VELMORA_API int32_t velmora_http_setSendRequestCallback(velmora_http_send_request_callback callback);
VELMORA_API int32_t velmora_http_setCancelRequestCallback(velmora_http_cancel_request_callback callback);

/* One request header; both texts are zero-terminated. */
typedef struct velmora_http_header {
    char key[1024];
    char value[8192];
} velmora_http_header;

/* Copies the request's headers to buffer, which has room for capacity records, and their number to *count. If there
 * are more headers than capacity, none is copied and *count is 0. A header that does not fit its record is left out. */
VELMORA_API int32_t velmora_http_onRequestHeaders(void* session, velmora_http_header* buffer, uint32_t capacity,
                                                  uint32_t* count, void* context);

/* Writes the number of body bytes to *length. */
VELMORA_API int32_t velmora_http_onRequestBodyLength(void* session, uint64_t* length, void* context);

/* Copies at most capacity body bytes from offset on to buffer, and their number to *written: 0 at the end. */
VELMORA_API int32_t velmora_http_onRequestBody(void* session, uint64_t offset, char* buffer, uint64_t* written,
                                               uint64_t capacity, void* context);

/* Reports the status line. protocol and reason are carried through uninterpreted and may be empty. */
VELMORA_API int32_t velmora_http_onResponseStatus(void* session, const char* protocol, uint32_t status,
                                                  const char* reason, void* context);

/* Reports the response headers: count pairs of pointers, key and then value. */
VELMORA_API int32_t velmora_http_onResponseHeaders(void* session, const char** pairs, uint32_t count, void* context);

/* Reports length body bytes that stand at offset. Chunks may come in any order. */
VELMORA_API int32_t velmora_http_onResponseBody(void* session, uint64_t offset, const char* data, uint64_t length,
                                                void* context);

/* Ends the exchange with a velmora_http_result; message explains an error and may be empty. */
VELMORA_API int32_t velmora_http_onCompletion(void* session, uint32_t result, const char* message, void* context);

#ifdef __cplusplus
}
#endif
