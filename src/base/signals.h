// signals - which thread takes which signals, and the flag by which everybody learns of the end.
//
// Only the main thread takes signals, and the three that stop the daemon (SIGINT, SIGTERM, SIGHUP) only
// while it sleeps: a handler that runs in an actor's thread ends the actor's loop with EINTR, and one that
// runs while an actor is created or destroyed makes CZMQ lose track of it and free its record while it
// still runs.
// Threads    The stop flag: any. The rest: the thread whose signals are meant.
// Blocking   sleep_open_to_stop_signals, for the time given.
// Failures   None: what is asked of the system here cannot be refused.
#pragma once

namespace rtls {

// Blocks every signal in the calling thread; the first call in the body of an actor.
void block_all_signals();

// Makes SIGHUP a request to stop, as CZMQ does SIGINT and SIGTERM: a terminal that is closed stops the
// daemon in order. One started to survive that (nohup) ignores it still.
void stop_on_hangup();

// Blocks the signals that stop the daemon in the calling thread and in those that it starts from now on.
void block_stop_signals();

// Sleeps for so long, or until one of them; takes one that came before, too. Main thread only.
void sleep_open_to_stop_signals(int timeout_ms);

// CZMQ's zsys_interrupted, which the three signals set, too: the actors' loops and the main thread end by
// it. Threads share it, so our code reads and writes it only here. It is never cleared. A signal's handler
// may call both.
void request_stop();
bool is_stop_requested();

} // namespace rtls
