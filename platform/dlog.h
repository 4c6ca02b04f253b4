#ifndef VANTRY_PLATFORM_DLOG_H
#define VANTRY_PLATFORM_DLOG_H

/* The platform's log service, for machines that do not have it. */

#ifdef __cplusplus
extern "C" {
#endif

/** Log buffers. The stand-in writes all of them to standard error. */
typedef enum { LOG_ID_MAIN = 0, LOG_ID_RADIO, LOG_ID_SYSTEM, LOG_ID_APPS } log_id_t;

/** Priorities, least first. */
typedef enum {
    DLOG_UNKNOWN = 0,
    DLOG_DEFAULT,
    DLOG_VERBOSE,
    DLOG_DEBUG,
    DLOG_INFO,
    DLOG_WARN,
    DLOG_ERROR,
    DLOG_FATAL,
    DLOG_SILENT
} log_priority;

/**
 * Writes one line to standard error, in one write: priority letter, tag, process id, text. Control characters
 * in the text are written as escapes, so that a call never makes two lines.
 *
 * Lines below the priority of the environment variable DLOG_LEVEL are dropped. It holds a letter or a name
 * (verbose, debug, info, warn, error, fatal, silent), or the priority's number, and is read at the first
 * call; without it the level is info.
 *
 * Threads: may be called from many at once; lines do not mix.
 *
 * @param tag  may be null.
 * @return the bytes written; 0 for a dropped line; negative when the line could not be made or written.
 */
// NOLINTNEXTLINE(bugprone-reserved-identifier): the platform's name
int __dlog_print(log_id_t log_id, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5), visibility("default")));

#ifdef __cplusplus
}
#endif

#endif
