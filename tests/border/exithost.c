/* A host in pure C that ends badly. Its arguments are the library's path, how it ends ("return" from main, "exit" of
 * the process, "unload" of the library, "callback": exit within the completion callback of a flush) and what is going
 * on then ("idle": all stopped; "running": an instance with events; "flight": a batch that is answered by nothing but
 * its cancel; "logging": an instance whose every log line goes to the host). That it ends at all, with exit code 0, is
 * the test. */
#include <stdatomic.h>

#include "tests/border/deliveringhost.h"

static velmora_ingest_instance ingest;
/* The library's threads call in beside the main one. */
static atomic_int answers = 1;
static void* _Atomic unanswered[64]; /* the contexts of the batches in flight, by request */
static atomic_int requests;
static atomic_int lines;

static void countLine(int32_t level, const char* channel, const char* line) {
    (void)level;
    (void)channel;
    if (line[0] != '\0') ++lines;
}

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

static int reach(const char* state) {
    int i;

    answers = strcmp(state, "flight") != 0;
    if (strcmp(state, "logging") == 0) CHECK(lib.velmora_setLogCallback(countLine) == VELMORA_OK);
    if (startDelivering(sendRequest, cancelRequest, 200, &ingest) != 0) return 1;
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
