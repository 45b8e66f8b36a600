/* A complete host in C: sends a few events to a service and reports whether all of them were delivered.
 *
 *     example_c http://127.0.0.1:8080
 */
#include <stdio.h>
#include <velmora/httpstack.h>
#include <velmora/velmora.h>

#define CONFIG_GUID "3f2c9d5e-8f7a-4f0b-9f53-0d7f8f1f2a11"
#define INGEST_HOST "https://ingest.velmora.orvane.example"

static void onServiceError(int32_t error) { fprintf(stderr, "a service reported error %d\n", (int)error); }

static int32_t submitEvents(velmora_ingest_instance ingest) {
    char json[160];
    for (int number = 1; number <= 100; ++number) {
        snprintf(json, sizeof json,
                 "{\"event.workflow\":\"Export\",\"event.type\":\"success\",\"event.value\":\"document %d\"}", number);
        const int32_t result = velmora_ingest_submitAnonEvent(ingest, json, 1);
        if (result != VELMORA_OK) return result;
    }
    return VELMORA_OK;
}

/* Sending begins a moment after the start, once the library knows the state of the network: a flush is refused before.
 * Each takes about fifty milliseconds. */
static int32_t waitForDelivery(velmora_ingest_instance ingest) {
    int32_t result = VELMORA_ERROR_PRECONDITION_FAILED;
    for (int tries = 0; tries < 40 && result == VELMORA_ERROR_PRECONDITION_FAILED; ++tries)
        result = velmora_ingest_flush(ingest, NULL, NULL);
    return result;
}

static int32_t run(void) {
    velmora_ingest_instance ingest = NULL;
    int32_t result = velmora_setIngestConfig(CONFIG_GUID, VELMORA_ENVIRONMENT_PROD, "example-c", "example-key",
                                             VELMORA_SOURCE_HOST, VELMORA_CATEGORY_DESKTOP, VELMORA_CONSENT_DEFAULT);
    if (result == VELMORA_OK) result = velmora_online();
    if (result == VELMORA_OK) result = velmora_ingest_start(CONFIG_GUID, NULL, onServiceError, &ingest);
    if (result != VELMORA_OK) return result;
    result = submitEvents(ingest);
    if (result == VELMORA_OK) result = waitForDelivery(ingest);
    velmora_ingest_stop(ingest); /* what is left stays on disk */
    return result;
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s URL\n", argv[0]);
        return 2;
    }
    velmora_httpstack_route route = {INGEST_HOST, argv[1]};
    velmora_httpstack_options options;
    velmora_httpstack_defaults(&options);
    options.proxy = "";
    options.routes = &route;
    options.routeCount = 1;
    if (velmora_httpstack_install(&options) != VELMORA_OK) return 1;

    const int32_t result = run();
    velmora_httpstack_uninstall();
    printf("%s, result %d\n", result == VELMORA_OK ? "delivered" : "not delivered", (int)result);
    return result == VELMORA_OK ? 0 : 1;
}
