/* Ingest: an instance takes events of one configuration, keeps them on disk and delivers them in batches.
 *
 *     velmora_ingest_instance ingest = NULL;
 *     if (velmora_ingest_start("3f2c9d5e-8f7a-4f0b-9f53-0d7f8f1f2a11", NULL, NULL, &ingest) == VELMORA_OK) {
 *         velmora_ingest_submitAnonEvent(ingest, "{\"event.workflow\":\"Export\",\"event.type\":\"success\"}", 1);
 *         velmora_ingest_stop(ingest);
 *     }
 *
 * All functions may be called from any thread at any time and return a velmora_result. Strings are zero-terminated
 * UTF-8 and are copied before the function returns. */
#pragma once

#include "velmora/export.h"
#include "velmora/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Starts the instance of a configuration.
 *   config         name of the configuration, usually a guid; also the name of its folder on disk. Not empty.
 *   commonData     JSON object of strings that every event of this instance carries; null for none
 *   errorCallback  may be null
 *   pInstance      receives the handle, valid until it is stopped
 * Takes over the queue of an earlier process that ended with events left. A second start with the same config gives
 * the handle of the running instance; commonData and errorCallback are then ignored. Opens files; other calls on any
 * instance wait meanwhile.
 * Errors: 2 commonData is no JSON object, 4 bad argument, 16 no folder could be locked, 1 the queue can't be opened. */
VELMORA_API int32_t velmora_ingest_start(const char* config, const char* commonData,
                                         velmora_ingest_error_callback errorCallback,
                                         velmora_ingest_instance* pInstance);

/* Stops an instance and waits until it is gone. Calls on the instance that are under way end first; from then on its
 * handle is answered with 14, and other instances go on as usual. Events not yet delivered stay on disk for the next
 * start. A start of the same config before the stop is through works in a new folder and adopts the old one later.
 * Errors: 4 null handle, 14 not alive, or being stopped already. */
VELMORA_API int32_t velmora_ingest_stop(velmora_ingest_instance instance);

/* The same; with a callback it returns at once, and the result, code 14 included, arrives in the callback alone. */
VELMORA_API int32_t velmora_ingest_stop_v2(velmora_ingest_instance instance,
                                           velmora_ingest_completion_callback completionCallback, void* userData);

/* Adds an attribute to every later event of the instance, replacing an earlier one of that key.
 * Key and value must not be empty and must not need escaping in JSON. Errors: 4, 14. */
VELMORA_API int32_t velmora_ingest_addCommonAttribute(velmora_ingest_instance instance, const char* key,
                                                      const char* value);

/* Removes an attribute again; a key that is not there is no error. Errors: 4, 14. */
VELMORA_API int32_t velmora_ingest_removeCommonAttribute(velmora_ingest_instance instance, const char* key);

/* Hands over one event. When the call returns 0 the event is in the queue on disk, or, for batch 0 while sending is
 * on, on its way.
 *   json      a JSON object of dotted keys, for example {"event.workflow":"Export"}
 *   batch     non-zero: the event may wait for the next batch; zero: send it at once
 *   auth      non-zero: the event belongs to the signed-in user and carries the identity when it is sent
 *   validate  a velmora_validate
 * Neither waits for the network nor for other threads' deliveries.
 * Errors: 2 not a JSON object, 3 a rule is violated, 4 bad argument, 14 not alive, 15 too big, 22 the user has opted
 * out, 1 the queue failed. */
VELMORA_API int32_t velmora_ingest_submitEvent(velmora_ingest_instance instance, const char* json, int32_t batch,
                                               int32_t auth, int32_t validate);

/* velmora_ingest_submitEvent with auth 1 and validate -1. */
VELMORA_API int32_t velmora_ingest_submitAuthEvent(velmora_ingest_instance instance, const char* json, int32_t batch);

/* velmora_ingest_submitEvent with auth 0 and validate -1. */
VELMORA_API int32_t velmora_ingest_submitAnonEvent(velmora_ingest_instance instance, const char* json, int32_t batch);

/* Delivers what is queued now, without waiting for full batches. With a callback it returns at once and the result
 * arrives there; without one it returns when all is delivered or a batch has failed. Not to be called synchronously
 * from a completion callback. While a flush without a callback runs, starts and stops on other threads wait for it, and
 * calls of velmora_ingest_ functions wait for them: where that can be, the HTTP callbacks must not make such calls.
 * Errors: 4, 14, 18 sending is off or a retry waits while events are queued, 7 or 8 the HTTP callbacks are missing or
 * failed, 1 a batch could not be delivered (its events stay queued). */
VELMORA_API int32_t velmora_ingest_flush(velmora_ingest_instance instance,
                                         velmora_ingest_completion_callback completionCallback, void* userData);

#ifdef __cplusplus
}
#endif
