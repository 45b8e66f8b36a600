/* A host in pure C that ends badly. Its arguments are the library's path, how it ends ("return" from main, "exit" of
 * the process, "unload" of the library, "callback": exit within the completion callback of a flush) and what is going
 * on then ("idle": all stopped; "running": an instance with events; "flight": a batch that is answered by nothing but
 * its cancel; "logging": an instance whose every log line goes to the host). That it ends at all, with exit code 0, is
 * the test. */
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <velmora/velmora.h>

#include "tests/support/loader.h"

#define FUNCTIONS(X)                         \
    X(velmora_http_setNewSessionCallback)    \
    X(velmora_http_setDeleteSessionCallback) \
    X(velmora_http_setSendRequestCallback)   \
    X(velmora_http_setCancelRequestCallback) \
    X(velmora_http_onResponseStatus)         \
    X(velmora_http_onCompletion)             \
    X(velmora_init)                          \
    X(velmora_online)                        \
    X(velmora_setLogCallback)                \
    X(velmora_setIngestConfig)               \
    X(velmora_ingest_start)                  \
    X(velmora_ingest_stop)                   \
    X(velmora_ingest_flush)                  \
    X(velmora_ingest_submitAnonEvent)

#define DECLARE_POINTER(name) __typeof__(name)* name;
static struct { FUNCTIONS(DECLARE_POINTER) } lib;

static int hostSession;
static velmora_ingest_instance ingest;
/* The library's threads call in beside the main one. */
static atomic_int answers = 1;
static void* _Atomic unanswered[64]; /* the contexts of the batches in flight, by request */
static atomic_int requests;
static atomic_int lines;

#define CHECK(condition)                                            \
    do {                                                            \
        if (!(condition)) {                                         \
            fprintf(stderr, "line %d: %s\n", __LINE__, #condition); \
            return 1;                                               \
        }                                                           \
    } while (0)

static void countLine(int32_t level, const char* channel, const char* line) {
    (void)level;
    (void)channel;
    if (line[0] != '\0') ++lines;
}

static void* newSession(void) { return &hostSession; }
static void deleteSession(void* session) { (void)session; }
static int32_t cancelRequest(void* session, uint32_t requestId) {
    void* const context = unanswered[requestId % 64];
    if (context == NULL) return VELMORA_HTTP_CANCEL_IGNORED;
    unanswered[requestId % 64] = NULL;
    lib.velmora_http_onCompletion(session, VELMORA_HTTP_CANCELLED, "", context);
    return VELMORA_HTTP_OK;
}

static int32_t sendRequest(void* session, int32_t verb, const char* url, int32_t version, void* context,
                           uint32_t* requestId) {
    (void)verb;
    (void)url;
    (void)version;
    *requestId = (uint32_t)++requests;
    if (answers) {
        lib.velmora_http_onResponseStatus(session, "HTTP/1.1", 200, "OK", context);
        lib.velmora_http_onCompletion(session, VELMORA_HTTP_OK, "", context);
    } else {
        unanswered[*requestId % 64] = context;
    }
    return 0;
}

static int loadFunctions(library_handle library) {
    void* found;
#define LOAD_POINTER(name)                \
    found = findFunction(library, #name); \
    CHECK(found != NULL);                 \
    memcpy(&lib.name, &found, sizeof found);
    FUNCTIONS(LOAD_POINTER)
    return 0;
}

static int reach(const char* state) {
    static const char guid[] = "5b1d6c52-6f0e-4b5e-9d0f-7f4f6f6a0c02";
    int i;

    answers = strcmp(state, "flight") != 0;
    if (strcmp(state, "logging") == 0) CHECK(lib.velmora_setLogCallback(countLine) == VELMORA_OK);
    lib.velmora_http_setNewSessionCallback(newSession);
    lib.velmora_http_setDeleteSessionCallback(deleteSession);
    lib.velmora_http_setSendRequestCallback(sendRequest);
    lib.velmora_http_setCancelRequestCallback(cancelRequest);
    CHECK(lib.velmora_init() == VELMORA_OK);
    CHECK(lib.velmora_setIngestConfig(guid, VELMORA_ENVIRONMENT_STAGE, "project", "key", VELMORA_SOURCE_HOST,
                                      VELMORA_CATEGORY_DESKTOP, VELMORA_CONSENT_DEFAULT) == VELMORA_OK);
    CHECK(lib.velmora_online() == VELMORA_OK);
    CHECK(lib.velmora_ingest_start(guid, NULL, NULL, &ingest) == VELMORA_OK);
    for (i = 0; i < 200; ++i)
        CHECK(lib.velmora_ingest_submitAnonEvent(ingest, "{\"event.workflow\":\"Border\",\"event.type\":\"success\"}",
                                                 1) == VELMORA_OK);
    for (i = 0; i < 1000 && requests == 0; ++i) waitAMoment();
    CHECK(requests > 0);
    if (strcmp(state, "idle") == 0) CHECK(lib.velmora_ingest_stop(ingest) == VELMORA_OK);
    if (strcmp(state, "logging") == 0) CHECK(lines > 0);
    return 0;
}

static void endInCallback(velmora_ingest_instance instance, int32_t result, void* userData) {
    (void)instance;
    (void)result;
    (void)userData;
    endProcess(0);
}

int main(int argc, char** argv) {
    library_handle library;
    CHECK(argc == 4);
    library = openLibrary(argv[1]);
    CHECK(library != NULL);
    if (loadFunctions(library) != 0 || reach(argv[3]) != 0) return 1;
    if (strcmp(argv[2], "exit") == 0) endProcess(0);
    if (strcmp(argv[2], "callback") == 0) {
        CHECK(lib.velmora_ingest_flush(ingest, endInCallback, NULL) == VELMORA_OK);
        for (;;) waitAMoment();
    }
    if (strcmp(argv[2], "unload") == 0) {
        CHECK(closeLibrary(library));
        waitAMoment();
    }
    return 0;
}
