/* velmora: embeddable telemetry. A host hands it events as JSON; it checks and enriches them, keeps them enciphered
 * in a queue on disk and delivers them in compressed batches through the host's HTTP stack.
 *
 * Rules that hold everywhere:
 *   - Functions return int32_t, a velmora_result, 0 for success; no exception crosses the interface.
 *   - Text is zero-terminated UTF-8. Arguments are copied before a function returns.
 *   - A string that the library hands out belongs to the host until it is passed to velmora_release.
 *   - Any thread may call, unless a function says otherwise. Callbacks come on threads of the library's pools, never
 *     under one of its locks.
 *   - A null callback means "not wanted", and for completion callbacks "run synchronously".
 *   - Times are milliseconds, sizes bytes.
 *   - Stop every instance before the library is unloaded; see hosting.md.
 *
 *     #include <velmora/velmora.h>
 *
 *     velmora_http_setNewSessionCallback(newSession);    // or velmora_httpstack_install, see httpstack.h
 *     velmora_http_setDeleteSessionCallback(deleteSession);
 *     velmora_http_setSendRequestCallback(sendRequest);
 *     velmora_http_setCancelRequestCallback(cancelRequest);
 *     velmora_init();
 *     velmora_setIngestConfig(guid, VELMORA_ENVIRONMENT_PROD, "my-project", "my-key", VELMORA_SOURCE_HOST,
 *                             VELMORA_CATEGORY_DESKTOP, VELMORA_CONSENT_DEFAULT);
 *     velmora_online();
 *     velmora_ingest_start(guid, NULL, NULL, &ingest);
 *     velmora_ingest_submitAnonEvent(ingest, "{\"event.workflow\":\"Export\",\"event.type\":\"success\"}", 1);
 *     velmora_ingest_flush(ingest, NULL, NULL);
 *     velmora_ingest_stop(ingest);
 */
#pragma once

#include "velmora/export.h"
#include "velmora/http.h"
#include "velmora/ingest.h"
#include "velmora/session.h"
#include "velmora/types.h"
