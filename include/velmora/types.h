/* Values shared by all velmora headers: result codes, enumerations and callback types.
 *
 * Every enumeration is passed as int32_t, so that its width is the same for every compiler. The numbers are part of
 * the interface: they are never reused and never change their meaning. */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Result of every function that returns int32_t, and of every completion callback. */
enum velmora_result {
    VELMORA_OK = 0,
    VELMORA_ERROR_UNKNOWN = 1,              /* a failure that has no code of its own; the log tells more */
    VELMORA_ERROR_INVALID_JSON = 2,         /* a text that has to be a JSON object is not */
    VELMORA_ERROR_INVALID_EVENT_FORMAT = 3, /* an event attribute violates a validation rule */
    VELMORA_ERROR_INVALID_ARGUMENT = 4,     /* a null, empty or out-of-range argument */
    VELMORA_ERROR_OSWIN_UNAUTHORIZED = 5,   /* the identity service refused the access token */
    VELMORA_ERROR_DISK_FULL = 6,
    VELMORA_ERROR_HTTP_CALLBACK_NOT_SET = 7, /* a callback of http.h is missing */
    VELMORA_ERROR_HTTP_SESSION_CREATION_FAILED = 8,
    VELMORA_ERROR_HTTP_SESSION_REQUEST_FAILED = 9,
    VELMORA_ERROR_IAAS_FILE_NOT_FOUND_OR_NOT_READABLE = 10,
    VELMORA_ERROR_IAAS_FILE_EMPTY = 11,
    VELMORA_ERROR_IAAS_FILE_INVALID_FORMAT = 12,
    VELMORA_ERROR_IAAS_NO_RULE_MATCHED = 13,      /* converted nothing; the output string is delivered all the same */
    VELMORA_ERROR_INGEST_INSTANCE_NOT_FOUND = 14, /* the handle is not, or no longer, that of a live instance */
    VELMORA_ERROR_EVENT_TOO_BIG = 15,             /* larger than one queue file can hold */
    VELMORA_ERROR_CACHE_LOCK_ERROR = 16,          /* no folder for the instance could be locked */
    VELMORA_ERROR_TIMEOUT = 17,
    VELMORA_ERROR_PRECONDITION_FAILED = 18, /* a flush while sending is off or a retry waits */
    VELMORA_ERROR_OSWIN_ERROR = 19,         /* the identity service failed for good */
    VELMORA_ERROR_SELBY_BAD_REQUEST = 20,   /* the tracking service refused the request */
    VELMORA_ERROR_SELBY_ERROR = 21,         /* the tracking service failed for good */
    VELMORA_ERROR_OPT_OUT = 22              /* the user does not want this event to be collected */
};

/* Deployment that an instance talks to. */
enum velmora_environment { VELMORA_ENVIRONMENT_PROD = 0, VELMORA_ENVIRONMENT_STAGE = 1 };

/* Who starts the instance: the application itself, or a component that runs inside it. */
enum velmora_source_type { VELMORA_SOURCE_HOST = 0, VELMORA_SOURCE_COMPONENT = 1 };

enum velmora_source_category {
    VELMORA_CATEGORY_DESKTOP = 0,
    VELMORA_CATEGORY_MOBILE = 1,
    VELMORA_CATEGORY_WEB = 2,
    VELMORA_CATEGORY_SERVICE = 3,
    VELMORA_CATEGORY_UNKNOWN = 4
};

/* What the user has agreed to. DEFAULT asks the tracking service, GRANTED and DENIED do not. */
enum velmora_consent { VELMORA_CONSENT_DEFAULT = 0, VELMORA_CONSENT_GRANTED = 1, VELMORA_CONSENT_DENIED = 2 };

/* A line of level L is written if the level in force is at least L. */
enum velmora_log_level {
    VELMORA_LOG_OFF = 0,
    VELMORA_LOG_ALWAYS = 1,
    VELMORA_LOG_ERROR = 2,
    VELMORA_LOG_WARN = 3,
    VELMORA_LOG_INFO = 4,
    VELMORA_LOG_DEBUG = 5,
    VELMORA_LOG_TRACE = 6
};

/* How an event is checked; see velmora_ingest_submitEvent. */
enum velmora_validate {
    VELMORA_VALIDATE_CONFIGURED = -1, /* as the setting reserved.validation.flag says */
    VELMORA_VALIDATE_NONE = 0,        /* only that the text is a JSON object */
    VELMORA_VALIDATE_ALWAYS = 1
};

/* A running ingest instance. Opaque; a handle that is no longer alive is recognised and answered with code 14. */
typedef struct velmora_ingest_instance_s* velmora_ingest_instance;

/* Reports the end of an asynchronous stop or flush.
 *   instance  the handle that was passed in, for comparison only after a stop
 *   result    a velmora_result
 *   userData  what the host passed in
 * Runs on a pool thread of the library, and without its locks. It must not stop or flush the same instance
 * synchronously. */
typedef void (*velmora_ingest_completion_callback)(velmora_ingest_instance instance, int32_t result, void* userData);

/* Reports a failure that belongs to no call, such as a refused access token: codes 5, 19, 20 and 21. Runs on a pool
 * thread of the library; it must return soon, and the rule of the completion callback holds for it, too. */
typedef void (*velmora_ingest_error_callback)(int32_t error);

/* Receives one log line, without a line end, on whichever thread logs; calls may overlap. The strings live as long as
 * the call. Unlike the other callbacks it may run while the library holds locks: it must not call into the library,
 * and must not wait for a thread that is inside the library. */
typedef void (*velmora_log_callback)(int32_t level, const char* channel, const char* line);

#ifdef __cplusplus
}
#endif
