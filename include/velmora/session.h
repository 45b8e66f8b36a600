/* Session: what all instances of a process share. It comes up with the first function that needs it and lives until
 * the process ends.
 *
 * All functions may be called from any thread and return a velmora_result; strings are zero-terminated UTF-8 and are
 * copied before the function returns. velmora_setLogCallback is the exception: call it once, before anything else. */
#pragma once

#include "velmora/export.h"
#include "velmora/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Brings the session up, offline. Not needed before other functions, but it makes the moment explicit. */
VELMORA_API int32_t velmora_init(void);

/* Writes a log record and nothing else: the session ends with the process. See hosting.md for the end of a process. */
VELMORA_API int32_t velmora_exit(void);

/* Allows or forbids all sending. A session begins offline. velmora_offline returns when no send callback is running;
 * requests that the host has accepted go on. */
VELMORA_API int32_t velmora_online(void);
VELMORA_API int32_t velmora_offline(void);

/* Replaces the session's guid, which every event carries, for running instances too. Error: 4 null or empty. */
VELMORA_API int32_t velmora_setSession(const char* guid);

/* Writes at most 36 characters of the session's guid and a terminating zero to sessionGuid, a buffer of at least 37
 * bytes. Error: 4 null. */
VELMORA_API int32_t velmora_getSession(char* sessionGuid);

/* Sets the access token of the signed-in user; the empty text signs out. Never logged. Error: 4 null. */
VELMORA_API int32_t velmora_setAccessToken(const char* accessToken);

/* Sets the profile that events of a signed-in user carry as entity.lorne: a JSON object; only its string members
 * count. Errors: 2 no JSON object, 4 null. */
VELMORA_API int32_t velmora_setLorneProfile(const char* lorneProfile);

/* Settings for velmora_setConfig. Keys up to 14 belong to the session and ignore configGuid, the others to one
 * configuration. Times are milliseconds, sizes bytes. */
enum velmora_config_key {
    VELMORA_CONFIG_NETWORK_POLL_INTERVAL = 0,
    VELMORA_CONFIG_LOG_PREFIX = 1,
    VELMORA_CONFIG_LOG_LEVEL = 2,      /* off, always, error, warn, info, debug or trace */
    VELMORA_CONFIG_RETRY_INTERVAL = 3, /* JSON array of waits; the last one repeats */
    VELMORA_CONFIG_LOG_FILE_ROTATION_SIZE = 4,
    VELMORA_CONFIG_LOG_FILE_RETENTION_PERIOD = 5,
    VELMORA_CONFIG_LOG_FOLDER_SIZE = 6,
    VELMORA_CONFIG_PERMISSION_STAGE_URN = 7, /* host name, or a base URL with its scheme */
    VELMORA_CONFIG_PERMISSION_STAGE_TTL = 8,
    VELMORA_CONFIG_PERMISSION_PROD_URN = 9,
    VELMORA_CONFIG_PERMISSION_PROD_TTL = 10,
    VELMORA_CONFIG_IDENTITY_STAGE_URN = 11,
    VELMORA_CONFIG_IDENTITY_STAGE_TTL = 12,
    VELMORA_CONFIG_IDENTITY_PROD_URN = 13,
    VELMORA_CONFIG_IDENTITY_PROD_TTL = 14,
    VELMORA_CONFIG_PROJECT = 15,
    VELMORA_CONFIG_API_KEY = 16,
    VELMORA_CONFIG_ENVIRONMENT = 17,      /* prod or stage */
    VELMORA_CONFIG_SOURCE_TYPE = 18,      /* host or component */
    VELMORA_CONFIG_SOURCE_CATEGORY = 19,  /* DESKTOP, MOBILE, WEB, SERVICE or UNKNOWN */
    VELMORA_CONFIG_CONSENT = 20,          /* default, true or false */
    VELMORA_CONFIG_VALIDATION_FLAG = 21,  /* true or false */
    VELMORA_CONFIG_VALIDATION_RULES = 22, /* JSON object; adds rules, never replaces one */
    VELMORA_CONFIG_STANDARD_KEY_PREFIXES = 23,
    VELMORA_CONFIG_BATCH_SIZE = 24,
    VELMORA_CONFIG_BATCH_INTERVAL = 25,
    VELMORA_CONFIG_PAUSE_INTERVAL = 26,
    VELMORA_CONFIG_EVENT_FILE_ROTATION_SIZE = 27,
    VELMORA_CONFIG_EVENT_FILE_RETENTION_PERIOD = 28,
    VELMORA_CONFIG_EVENT_FOLDER_SIZE = 29,
    VELMORA_CONFIG_INVALID_EVENT_FILE_ROTATION_SIZE = 30,
    VELMORA_CONFIG_INVALID_EVENT_FILE_RETENTION_PERIOD = 31,
    VELMORA_CONFIG_INVALID_EVENT_FOLDER_SIZE = 32,
    VELMORA_CONFIG_HEARTBEAT_INTERVAL = 33,
    VELMORA_CONFIG_ORPHAN_INSTANCE_ENABLED = 34,
    VELMORA_CONFIG_FLUSH_ON_STOP_ENABLED = 35
};

/* Sets one value. The text is taken as JSON if it is JSON, else as a string. A session setting acts at once; a running
 * instance sees a changed setting at its next refresh, a fresh instance at its start. A value of the wrong type, and a
 * 0 for a rotation size, a batch size or the interval of something that repeats, is logged and ignored.
 *   configGuid  the configuration; null is allowed and, for keys above 14, has no effect
 * Errors: 4 null or empty value, unknown key. */
VELMORA_API int32_t velmora_setConfig(const char* configGuid, int32_t key, const char* value);

/* Sets the six values that every configuration needs; see the enumerations in types.h.
 * Errors: 4 configGuid, project or apiKey null or empty. */
VELMORA_API int32_t velmora_setIngestConfig(const char* configGuid, int32_t environment, const char* project,
                                            const char* apiKey, int32_t sourceType, int32_t sourceCategory,
                                            int32_t consent);

/* Replaces the table by which legacy events of a configuration are converted: the text of a CSV file.
 * Errors: 4 null or empty, 10 the file can't be written, 11 or 12 the table is bad; it then stays as it was. */
VELMORA_API int32_t velmora_setIaasMapping(const char* configGuid, const char* iaasCsv);

/* Converts one legacy event, a flat JSON object, by the table of a configuration.
 *   pOutputJson  receives a new string for the results 0 and 13, to be given back to velmora_release; else null
 * Errors: 2 inputJson is no JSON object, 4 null argument, 10, 11, 12 the table can't be used, 13 no rule matched. */
VELMORA_API int32_t velmora_iaasToIngestSDM(const char* configGuid, const char* inputJson, char** pOutputJson);

/* Converts a CSV file of legacy events into a CSV file that shows, per event, which rules matched and what came out.
 * Errors: 4 a null path or a file that can't be opened, 10, 11, 12. */
VELMORA_API int32_t velmora_iaasBatchToIngestSDM(const char* configGuid, const char* inCsvPath, const char* outCsvPath);

/* Hands out the tracking service's last answer as a new string, to be given back to velmora_release. Error: 4 null. */
VELMORA_API int32_t velmora_getSELBYData(char** pSelbyJson);

/* Frees a string that the library has handed out; null is harmless. */
VELMORA_API int32_t velmora_release(void* buffer);

/* Sends log lines to the host instead of to the library's own files; null drops them. Call it before anything else. */
VELMORA_API int32_t velmora_setLogCallback(velmora_log_callback callback);

/* Sets the log level, a velmora_log_level. The environment variable VELMORA_CONFIG_RESERVED_LOG_LEVEL overrides it. */
VELMORA_API int32_t velmora_setLogLevel(int32_t level);

#ifdef __cplusplus
}
#endif
