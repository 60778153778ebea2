// image_fetch - fetches a firmware image for an operator, on a thread of the download pool.
//
// His commands wait for it, nobody else's do. How it went is told to TERMINAL_SERVER_t::fetch_ended.
// Threads    Terminal thread.
// Blocking   Nothing waits.
// Failures   A transfer that cannot be ordered is answered as one that failed. Throws std::bad_alloc.
#pragma once

#include <string>

namespace rtls {

struct TERMINAL_CLIENT;
struct TERMINAL_SERVER_t;

// Fetches the image of `url` into the store. For an operator who has gone nothing is done. False when it
// cannot be done so, because the terminal server does not run: nothing has happened.
bool fetch_image(TERMINAL_SERVER_t& server, TERMINAL_CLIENT& client, const char* url);

// How it went, for the operator: the image's slot, or -1.
std::string fetch_answer(int index);

} // namespace rtls
