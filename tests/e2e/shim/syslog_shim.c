/* syslog_shim - preloaded into the daemon under test: its system log becomes a file.
 *
 * RTLS_SYSLOG_FILE names the file. Each record that the log mask admits becomes a line
 * "<priority> <ident>: <text>", written with one write so that threads do not mix. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

static const char* ident = "";
static int log_mask = 0xFF;

void openlog(const char* new_ident, int option, int facility)
{
    (void)option;
    (void)facility;
    ident = new_ident ? new_ident : "";
}

void closelog(void) {}

int setlogmask(int mask)
{
    const int old = log_mask;
    if (mask)
        log_mask = mask;
    return old;
}

void vsyslog(int priority, const char* format, va_list arguments)
{
    if (!(log_mask & LOG_MASK(LOG_PRI(priority))))
        return;
    const char* path = getenv("RTLS_SYSLOG_FILE");
    if (!path)
        return;
    char* text = NULL;
    char* line = NULL;
    if (vasprintf(&text, format, arguments) < 0)
        return;
    const int length = asprintf(&line, "%d %s: %s\n", LOG_PRI(priority), ident, text);
    free(text);
    if (length < 0)
        return;
    const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (fd >= 0) {
        if (write(fd, line, (size_t)length) < 0)
            perror("syslog_shim");
        close(fd);
    }
    free(line);
}

void syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vsyslog(priority, format, arguments);
    va_end(arguments);
}

void __vsyslog_chk(int priority, int flag, const char* format, va_list arguments)
{
    (void)flag;
    vsyslog(priority, format, arguments);
}

void __syslog_chk(int priority, int flag, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    __vsyslog_chk(priority, flag, format, arguments);
    va_end(arguments);
}
