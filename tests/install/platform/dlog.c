/* A platform's own log, as the test of a build against one pretends it: its lines are told from the stand-in's. */
#include <dlog.h>
#include <stdarg.h>
#include <stdio.h>

int __dlog_print(log_id_t id, int priority, const char* tag, const char* format, ...) {
    va_list arguments;
    (void)id;
    (void)tag;
    fprintf(stderr, "platform %d ", priority);
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fputc('\n', stderr);
    return 0;
}
