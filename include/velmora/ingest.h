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
 * the handle of the running instance; commonData and errorCallback are then ignored. Opens files; other instances go
 * on meanwhile. While the same config is being stopped it waits for the stop, for at most five seconds, and then works
 * in a new folder. Errors: VELMORA_ERROR_INVALID_JSON (2) commonData is not a JSON object,
 * VELMORA_ERROR_INVALID_ARGUMENT (4), VELMORA_ERROR_CACHE_LOCK_ERROR (16) no folder could be locked,
 * VELMORA_ERROR_PRECONDITION_FAILED (18) in a callback of the instance that is being stopped, VELMORA_ERROR_UNKNOWN (1)
 * the queue can't be opened. */
VELMORA_API int32_t velmora_ingest_start(const char* config, const char* commonData,
                                         velmora_ingest_error_callback errorCallback,
                                         velmora_ingest_instance* pInstance);

/* Stops an instance and waits until it is gone. Calls on the instance that are under way end first; from then on its
 * handle is answered with 14, and other instances go on as usual. Events not yet delivered stay on disk for the next
 * start. An exchange under way is cancelled; a host that ignores that is waited for, but for at most five seconds.
 * Errors: VELMORA_ERROR_INVALID_ARGUMENT (4) null handle, VELMORA_ERROR_INGEST_INSTANCE_NOT_FOUND (14) not alive, or
 * being stopped already, VELMORA_ERROR_PRECONDITION_FAILED (18) in a callback of the instance; nothing has happened
 * then. */
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
 * arrives there; without one it returns when all is delivered or a batch has failed. Holds up no other call. A stop of
 * the instance, or the end of the process, ends it after the exchange under way, with 18.
 * Errors: VELMORA_ERROR_INVALID_ARGUMENT (4), VELMORA_ERROR_INGEST_INSTANCE_NOT_FOUND (14),
 * VELMORA_ERROR_PRECONDITION_FAILED (18) sending is off, a retry or a pause waits while events are queued, or the call
 * is made without a callback inside a callback of the instance, VELMORA_ERROR_HTTP_CALLBACK_NOT_SET (7) or
 * VELMORA_ERROR_HTTP_SESSION_CREATION_FAILED (8), VELMORA_ERROR_UNKNOWN (1) a batch could not be delivered (its events
 * stay queued). */
VELMORA_API int32_t velmora_ingest_flush(velmora_ingest_instance instance,
                                         velmora_ingest_completion_callback completionCallback, void* userData);

#ifdef __cplusplus
}
#endif
