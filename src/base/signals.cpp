#include "base/signals.h"

#include <czmq.h>
#include <pthread.h>

#include <csignal>

namespace rtls {

static sigset_t stop_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    return signals;
}

void block_all_signals()
{
    sigset_t signals;
    sigfillset(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void stop_on_hangup()
{
    struct sigaction action = {};
    sigaction(SIGHUP, nullptr, &action);
    if (action.sa_handler == SIG_IGN)
        return;
    action = {};
    action.sa_handler = [](int) { request_stop(); };
    sigaction(SIGHUP, &action, nullptr);
}

void block_stop_signals()
{
    const sigset_t signals = stop_signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void sleep_open_to_stop_signals(int timeout_ms)
{
    const sigset_t signals = stop_signals();
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    // A signal that was waiting has been taken by now: do not sleep on top of it.
    if (!is_stop_requested())
        zclock_sleep(timeout_ms);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void request_stop()
{
    __atomic_store_n(&zsys_interrupted, 1, __ATOMIC_RELAXED);
}

bool is_stop_requested()
{
    return __atomic_load_n(&zsys_interrupted, __ATOMIC_RELAXED) != 0;
}

} // namespace rtls
