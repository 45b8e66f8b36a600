/* Values shared by all velmora headers: result codes, enumerations and callback types.
 *
 * Every enumeration is passed as int32_t, so that its width is the same for every compiler. The numbers are part of
 * the interface: they are never reused and never change their meaning. */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Version of these headers; velmora_version tells that of the library. Within a major number functions, fields at the
 * end of a struct and values of an enumeration are only ever added. */
#define VELMORA_VERSION_MAJOR 1
#define VELMORA_VERSION_MINOR 36
#define VELMORA_VERSION_PATCH 0

/* For time limits in milliseconds. */
#define VELMORA_NO_TIME_LIMIT 0xFFFFFFFFu

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

/* The lines of an instance: each is a queue on disk of its own, sent in batches of its own. The lines of invalid events
 * keep what could not be read back, and are never sent. */
enum velmora_line {
    VELMORA_LINE_ALL = -1,
    VELMORA_LINE_META = 0, /* events of the library about itself */
    VELMORA_LINE_AUTH_INVALID = 1,
    VELMORA_LINE_AUTH = 2, /* events of the signed-in user */
    VELMORA_LINE_ANON_INVALID = 3,
    VELMORA_LINE_ANON = 4
};

/* What a line does. */
enum velmora_line_state {
    VELMORA_LINE_OFF = 0,       /* refuses events: the user has opted out */
    VELMORA_LINE_SAVE_ONLY = 1, /* keeps events and sends nothing */
    VELMORA_LINE_ON = 2         /* keeps events and sends them */
};

/* Why a line does not send; bits, 0 for none. Unknown bits are to be ignored. */
enum velmora_hold {
    VELMORA_HOLD_OFFLINE = 1, /* velmora_online has not been called */
    VELMORA_HOLD_NO_NETWORK = 2,
    VELMORA_HOLD_NO_CONSENT = 4,
    VELMORA_HOLD_NO_TOKEN = 8,          /* nobody has signed in */
    VELMORA_HOLD_IDENTITY_PENDING = 16, /* the identity service has not answered yet */
    VELMORA_HOLD_NOT_TRACKED = 32,      /* the tracking service does not allow it */
    VELMORA_HOLD_PAUSED = 64,           /* the service has asked for a pause */
    VELMORA_HOLD_RETRY = 128,           /* a failed batch waits for its retry */
    VELMORA_HOLD_KEY_REFUSED = 256,     /* the service has refused the API key */
    VELMORA_HOLD_NO_HTTP = 512,         /* callbacks of http.h are missing */
    VELMORA_HOLD_NEVER_SENT = 1024      /* a line of invalid events */
};

/* Counts since the start of the instance, each in events. At any moment
 *     accepted + found = delivered + stored + direct + the six that begin with dropped. */
typedef struct velmora_ingest_statistics {
    uint32_t size;          /* in: sizeof; out: bytes that the library has filled in */
    int32_t state;          /* velmora_line_state; of VELMORA_LINE_ALL the largest */
    uint32_t holds;         /* bits of velmora_hold */
    int32_t lastStatus;     /* HTTP status of the last answer, 0 for none */
    int64_t lastAnswerTime; /* milliseconds since 1970 UTC, 0 for never */
    int64_t resumeTime;     /* the same, when a pause or the wait for a retry ends; 0 for none */
    uint64_t accepted;      /* submits answered with 0 */
    uint64_t found;         /* on disk at the start, and in folders adopted since */
    uint64_t rejected;      /* submits answered otherwise */
    uint64_t stored;        /* on disk now, adopted folders included */
    uint64_t direct;        /* posted directly and not answered yet */
    uint64_t delivered;
    uint64_t repeated;          /* sent again after an unclear outcome; part of no sum */
    uint64_t droppedOptOut;     /* the user has opted out, or velmora_ingest_forget */
    uint64_t droppedExpired;    /* older than the retention period */
    uint64_t droppedOverflow;   /* over the folder's size */
    uint64_t droppedRefused;    /* refused by the service for good */
    uint64_t droppedDamaged;    /* in files that are damaged */
    uint64_t droppedUnstorable; /* could not be moved or kept */
    uint64_t partsLeftOut;      /* files that could not be read in this life; their events are in no count */
} velmora_ingest_statistics;

/* A running ingest instance. Opaque, never null, and never given twice in a process: one that is no longer alive is
 * recognised and answered with VELMORA_ERROR_INGEST_INSTANCE_NOT_FOUND (14). */
typedef struct velmora_ingest_instance_s* velmora_ingest_instance;

/* Reports the end of an asynchronous stop or flush.
 *   instance  the handle that was passed in, for comparison only after a stop
 *   result    a velmora_result
 *   userData  what the host passed in
 * Runs on a pool thread of the library, and without its locks. In it, and in every other callback of the instance, a
 * stop or flush of that instance without a callback is answered with VELMORA_ERROR_PRECONDITION_FAILED (18). */
typedef void (*velmora_ingest_completion_callback)(velmora_ingest_instance instance, int32_t result, void* userData);

/* Reports a failure that belongs to no call, such as a refused access token: codes 5, 19, 20 and 21. Runs on a pool
 * thread of the library; it must return soon. */
typedef void (*velmora_ingest_error_callback)(int32_t error);

/* Receives one log line, without a line end, on whichever thread logs; calls may overlap. The strings live as long as
 * the call. Unlike the other callbacks it may run while the library holds locks: it must not call into the library,
 * and must not wait for a thread that is inside the library. */
typedef void (*velmora_log_callback)(int32_t level, const char* channel, const char* line);

#ifdef __cplusplus
}
#endif
