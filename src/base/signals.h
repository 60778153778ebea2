// signals - which thread takes which signals, and the flag by which everybody learns of the end.
//
// Only the main thread takes signals, and the two that stop the daemon only while it sleeps: a handler
// that runs in an actor's thread ends the actor's loop with EINTR, and one that runs while an actor is
// created or destroyed makes CZMQ lose track of it and free its record while it still runs.
#pragma once

namespace rtls {

// Blocks every signal in the calling thread; the first call in the body of an actor.
void block_all_signals();

// Blocks SIGINT and SIGTERM in the calling thread and in those that it starts from now on.
void block_stop_signals();

// Sleeps for so long, or until SIGINT or SIGTERM; takes one that came before, too. Main thread only.
void sleep_open_to_stop_signals(int timeout_ms);

// CZMQ's zsys_interrupted, which SIGINT and SIGTERM set, too: the actors' loops and the main thread end
// by it. Threads share it, so our code reads and writes it only here. It is never cleared.
void request_stop();
bool is_stop_requested();

} // namespace rtls
