/* A host in pure C that loads the library by hand, delivers events through an HTTP stack of its own, stops, unloads and
 * loads again. Its argument is the library's path. Exit code 0 means that all went as it should. */
#include "tests/border/deliveringhost.h"

static volatile int compressedBodies;

static void dropLine(int32_t level, const char* channel, const char* line) {
    (void)level;
    (void)channel;
    (void)line;
}

static int32_t cancelRequest(void* session, uint32_t requestId) {
    (void)session;
    (void)requestId;
    return VELMORA_HTTP_CANCEL_IGNORED;
}

static int isCompressed(void* session, void* context) {
    static velmora_http_header headers[64];
    uint32_t count = 0, i;
    lib.velmora_http_onRequestHeaders(session, headers, 64, &count, context);
    for (i = 0; i < count; ++i)
        if (strcmp(headers[i].value, "gzip") == 0) return 1;
    return 0;
}

static uint64_t readBody(void* session, void* context) {
    static char chunk[512];
    uint64_t offset = 0, written = 0;
    do {
        lib.velmora_http_onRequestBody(session, offset, chunk, &written, sizeof chunk, context);
        offset += written;
    } while (written > 0);
    return offset;
}

/* The whole exchange within the send callback, which the interface allows. */
static int32_t sendRequest(void* session, int32_t verb, const char* url, int32_t version, void* context,
                           uint32_t* requestId) {
    static const char answer[] = "{}";
    uint64_t length = 0;
    (void)url;
    (void)version;
    *requestId = 1;
    lib.velmora_http_onRequestBodyLength(session, &length, context);
    if (verb == VELMORA_HTTP_POST && isCompressed(session, context) && length > 0 &&
        readBody(session, context) == length)
        ++compressedBodies;
    lib.velmora_http_onResponseStatus(session, "HTTP/1.1", 200, "OK", context);
    lib.velmora_http_onResponseBody(session, 0, answer, sizeof answer - 1, context);
    lib.velmora_http_onCompletion(session, VELMORA_HTTP_OK, "", context);
    return 0;
}

static int deliver(void) {
    velmora_ingest_instance ingest = NULL;
    int32_t flushed = VELMORA_ERROR_PRECONDITION_FAILED;
    int i;

    CHECK(lib.velmora_setLogCallback(dropLine) == VELMORA_OK);
    if (startDelivering(sendRequest, cancelRequest, 3, &ingest) != 0) return 1;
    /* Sending is off until the network's state is known. */
    for (i = 0; i < 1000 && flushed == VELMORA_ERROR_PRECONDITION_FAILED; ++i) {
        flushed = lib.velmora_ingest_flush(ingest, NULL, NULL);
        if (flushed != VELMORA_OK) waitAMoment();
    }
    CHECK(flushed == VELMORA_OK);
    CHECK(compressedBodies > 0);
    CHECK(lib.velmora_ingest_stop(ingest) == VELMORA_OK);
    CHECK(lib.velmora_ingest_stop(ingest) == VELMORA_ERROR_INGEST_INSTANCE_NOT_FOUND);
    CHECK(lib.velmora_exit() == VELMORA_OK);
    return 0;
}

int main(int argc, char** argv) {
    int round;
    CHECK(argc == 2);
    for (round = 0; round < 2; ++round) {
        library_handle library = openLibrary(argv[1]);
        CHECK(library != NULL);
        compressedBodies = 0;
        if (loadFunctions(library) != 0 || deliver() != 0) return 1;
        CHECK(closeLibrary(library));
    }
    return 0;
}
