/* velmora_httpstack: a ready HTTP stack for hosts that have none. Link velmora_httpstack beside velmora, and install
 * it before the first velmora call that sends:
 *
 *     velmora_httpstack_options options;
 *     velmora_httpstack_defaults(&options);
 *     options.totalTimeoutMs = 20000;
 *     if (velmora_httpstack_install(&options) != 0) { ... }
 *     ...
 *     velmora_httpstack_uninstall();  // after the last instance has stopped
 *
 * One thread of its own runs all exchanges at the same time. Redirects are followed within the origin (scheme, host and
 * port) that the request was made for, and nowhere else: body and headers are meant for that one. A request that is
 * refused, redirected elsewhere, cut off, too slow, answered by a proxy (407) or by nothing final (1xx, 3xx) ends with
 * an error, which the library retries. A request header with a line break fails its exchange. */
#pragma once

#include <stdint.h>

#include "velmora/export.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(VELMORA_HTTPSTACK_SHARED)
#    define VELMORA_HTTPSTACK_API VELMORA_API
#else
#    define VELMORA_HTTPSTACK_API
#endif

/* Sends requests whose URL begins with `from` to `to` instead, the rest of the URL kept. The first that fits counts.
 * For example from "https://ingest.example" to "http://127.0.0.1:8080". */
typedef struct velmora_httpstack_route {
    const char* from;
    const char* to;
} velmora_httpstack_route;

/* All strings are zero-terminated UTF-8 and are copied by velmora_httpstack_install. */
typedef struct velmora_httpstack_options {
    uint32_t size;             /* bytes that count; velmora_httpstack_defaults: those up to routeCount */
    uint32_t connectTimeoutMs; /* 10000; 0 for no limit but the total one */
    uint32_t totalTimeoutMs;   /* 60000, from the start of the exchange to its end; 0 for no limit */
    uint32_t maxRedirects;     /* 5 */
    const char* proxy;         /* URL of a proxy; null: as the system or the environment says; "": none */
    const char* caBundle;      /* file of the only trusted certificates, PEM, not on Windows; null: the system's */
    const char* userAgent;     /* null for "velmora-httpstack" */
    const velmora_httpstack_route* routes;
    uint32_t routeCount;
    /* Since 1.36. They count if size reaches over them: zero the struct, and set size to its sizeof. */
    uint32_t stallTimeoutMs;   /* without a byte moved, once connected; 0 for 30000 */
    uint32_t maxResponseBytes; /* of one response's body; 0 for 8 MiB */
} velmora_httpstack_options;

/* Fills in the defaults of the fields up to routeCount, and touches none behind them. */
VELMORA_HTTPSTACK_API void velmora_httpstack_defaults(velmora_httpstack_options* options);

/* Starts the thread and sets the four callbacks of http.h. A null pointer means the defaults.
 * Returns 0; 4 for a bad option (a route whose texts are no http or https URLs, a size that is not known, a proxy that
 * is no URL, a caBundle that can't be read, on Windows any caBundle); 18 if the stack is installed already; 1 if the
 * thread or the transport can't be started. */
VELMORA_HTTPSTACK_API int32_t velmora_httpstack_install(const velmora_httpstack_options* options);

/* Removes the callbacks, cancels what is under way, reports its completion and ends the thread. Without an installed
 * stack it does nothing. Call it when no instance runs. */
VELMORA_HTTPSTACK_API void velmora_httpstack_uninstall(void);

#ifdef __cplusplus
}
#endif
