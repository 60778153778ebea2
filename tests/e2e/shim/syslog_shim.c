/* syslog_shim - preloaded into the daemon under test: its system log becomes a file, and its start can be held up.
 *
 * RTLS_SYSLOG_FILE names the file. Each record that the log mask admits becomes a line
 * "<priority> <ident>: <text>", written with one write so that threads do not mix.
 * RTLS_SYSLOG_UNREAD names another file: while it exists, nobody reads the log. Then whoever writes to it
 * waits, and so do the others who call a function of the log, as in libc.
 * RTLS_HELD_PORT is the number of a port, RTLS_HELD_FILE a file: while it exists, whoever binds the port waits. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

static pthread_mutex_t log_mutex = PTHREAD_MUTEX_INITIALIZER;
static const char* ident = "";
static int log_mask = 0xFF;

int bind(int fd, const struct sockaddr* address, socklen_t size)
{
    const char* held = getenv("RTLS_HELD_PORT");
    const char* file = getenv("RTLS_HELD_FILE");
    if (held && file && address->sa_family == AF_INET &&
        ntohs(((const struct sockaddr_in*)(const void*)address)->sin_port) == atoi(held))
        while (access(file, F_OK) == 0)
            usleep(1000);
    int (*next)(int, const struct sockaddr*, socklen_t) = NULL;
    *(void**)&next = dlsym(RTLD_NEXT, "bind");
    return next(fd, address, size);
}

void openlog(const char* new_ident, int option, int facility)
{
    (void)option;
    (void)facility;
    pthread_mutex_lock(&log_mutex);
    ident = new_ident ? new_ident : "";
    pthread_mutex_unlock(&log_mutex);
}

void closelog(void)
{
    pthread_mutex_lock(&log_mutex);
    pthread_mutex_unlock(&log_mutex);
}

int setlogmask(int mask)
{
    pthread_mutex_lock(&log_mutex);
    const int old = log_mask;
    if (mask)
        log_mask = mask;
    pthread_mutex_unlock(&log_mutex);
    return old;
}

static void wait_for_a_reader(void)
{
    const char* unread = getenv("RTLS_SYSLOG_UNREAD");
    while (unread && access(unread, F_OK) == 0)
        usleep(10000); /* like libc's send, a place where the thread can be cancelled */
}

static void write_line(int priority, const char* path, const char* format, va_list arguments)
{
    char* text = NULL;
    char* line = NULL;
    if (vasprintf(&text, format, arguments) < 0)
        return;
    const int length = asprintf(&line, "%d %s: %s\n", LOG_PRI(priority), ident, text);
    free(text);
    if (length < 0)
        return;
    /* Kept, as libc keeps its connection: a line gets through when no descriptor is left. */
    static int file = -1;
    if (file < 0)
        file = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file >= 0 && write(file, line, (size_t)length) < 0)
        perror("syslog_shim");
    free(line);
}

static void unlock(void* mutex)
{
    pthread_mutex_unlock(mutex);
}

void vsyslog(int priority, const char* format, va_list arguments)
{
    const char* path = getenv("RTLS_SYSLOG_FILE");
    if (!path)
        return;
    pthread_mutex_lock(&log_mutex);
    pthread_cleanup_push(unlock, &log_mutex);
    if (log_mask & LOG_MASK(LOG_PRI(priority))) {
        wait_for_a_reader();
        write_line(priority, path, format, arguments);
    }
    pthread_cleanup_pop(1);
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
