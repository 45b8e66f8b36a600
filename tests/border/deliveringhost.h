/* What hosts in pure C have in common that load the library by hand and stand ready to deliver. */
#pragma once

#include <stdio.h>
#include <string.h>
#include <velmora/velmora.h>

#include "tests/support/loader.h"

#define FUNCTIONS(X)                         \
    X(velmora_http_setNewSessionCallback)    \
    X(velmora_http_setDeleteSessionCallback) \
    X(velmora_http_setSendRequestCallback)   \
    X(velmora_http_setCancelRequestCallback) \
    X(velmora_http_onRequestHeaders)         \
    X(velmora_http_onRequestBodyLength)      \
    X(velmora_http_onRequestBody)            \
    X(velmora_http_onResponseStatus)         \
    X(velmora_http_onResponseBody)           \
    X(velmora_http_onCompletion)             \
    X(velmora_init)                          \
    X(velmora_exit)                          \
    X(velmora_online)                        \
    X(velmora_setLogCallback)                \
    X(velmora_setIngestConfig)               \
    X(velmora_ingest_start)                  \
    X(velmora_ingest_stop)                   \
    X(velmora_ingest_flush)                  \
    X(velmora_ingest_submitAnonEvent)

/* Pointers of the types that the headers declare: a call that does not fit its declaration does not compile. */
#define DECLARE_POINTER(name) __typeof__(name)* name;
static struct { FUNCTIONS(DECLARE_POINTER) } lib;

#define CHECK(condition)                                            \
    do {                                                            \
        if (!(condition)) {                                         \
            fprintf(stderr, "line %d: %s\n", __LINE__, #condition); \
            return 1;                                               \
        }                                                           \
    } while (0)

static int loadFunctions(library_handle library) {
    void* found;
#define LOAD_POINTER(name)                \
    found = findFunction(library, #name); \
    CHECK(found != NULL);                 \
    memcpy(&lib.name, &found, sizeof found);
    FUNCTIONS(LOAD_POINTER)
    return 0;
}

static int hostSession;
static void* newSession(void) { return &hostSession; }
static void deleteSession(void* session) { (void)session; }

/* Online, with an instance that holds so many events. */
static int startDelivering(velmora_http_send_request_callback send, velmora_http_cancel_request_callback cancel,
                           int events, velmora_ingest_instance* ingest) {
    static const char guid[] = "5b1d6c52-6f0e-4b5e-9d0f-7f4f6f6a0c01";
    static const char event[] = "{\"event.workflow\":\"Border\",\"event.type\":\"success\"}";

    lib.velmora_http_setNewSessionCallback(newSession);
    lib.velmora_http_setDeleteSessionCallback(deleteSession);
    lib.velmora_http_setSendRequestCallback(send);
    lib.velmora_http_setCancelRequestCallback(cancel);
    CHECK(lib.velmora_init() == VELMORA_OK);
    CHECK(lib.velmora_setIngestConfig(guid, VELMORA_ENVIRONMENT_STAGE, "project", "key", VELMORA_SOURCE_HOST,
                                      VELMORA_CATEGORY_DESKTOP, VELMORA_CONSENT_DEFAULT) == VELMORA_OK);
    CHECK(lib.velmora_online() == VELMORA_OK);
    CHECK(lib.velmora_ingest_start(guid, NULL, NULL, ingest) == VELMORA_OK);
    for (; events > 0; --events) CHECK(lib.velmora_ingest_submitAnonEvent(*ingest, event, 1) == VELMORA_OK);
    return 0;
}
