/* one_thread - ends a test program that starts a thread although it is listed as one that does not.
 *
 * Preloaded into the programs that stand outside of THREADS in a CMakeLists.txt: CI does not run them under the
 * thread sanitizer. libzmq's own threads do not count (the sanitizer can't look into them), nor does the log's,
 * which the logging library's tests are about; that one is started by the program itself.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef int (*create_function)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument)
{
    Dl_info caller;
    if (dladdr(__builtin_return_address(0), &caller) != 0 &&
        (strstr(caller.dli_fname, "libstdc++") || strstr(caller.dli_fname, "libczmq"))) {
        (void)fputs("This program starts a thread: list it below THREADS, so that the thread sanitizer sees it.\n", stderr);
        abort();
    }
    return ((create_function)dlsym(RTLD_NEXT, "pthread_create"))(thread, attributes, body, argument);
}
