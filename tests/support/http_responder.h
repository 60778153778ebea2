// http_responder - a web server for tests that answers each path with given raw bytes, right or wrong.
//
// Every connection is served once, on a thread of its own, and closed.
// Threads    Any may ask; construct and destroy on one, while none downloads.
// Failures   Throws std::system_error when it cannot be made.
#pragma once

#include "support/tcp_listener.h"

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace rtls {

struct http_answer {
    std::string bytes; // status line, headers and body
    enum class pace {
        at_once,
        after_release, // sent when release() is called
        then_stall,    // sent at once, but the connection stays open until release() or the client leaves
        trickled // a byte every few milliseconds, from the start again at the end, until the client leaves
    } how = pace::at_once;
};

// "HTTP/1.1 200 OK", the header lines given (each with "\r\n"), and the body.
std::string http_ok(std::string_view header_lines, std::string_view body);
// The same with the right Content-Length.
std::string http_image(std::string_view body);

class http_responder {
public:
    explicit http_responder(std::map<std::string, http_answer> answers);
    ~http_responder();
    http_responder(const http_responder&) = delete;
    http_responder& operator=(const http_responder&) = delete;

    std::string url(std::string_view path) const;

    // Lets held answers go, now and later.
    void release();
    // Waits for so many requests in all; false when they do not come within ten seconds.
    bool wait_for_requests(size_t number);
    // The requests so far, whole.
    std::vector<std::string> requests();
    // The largest number of requests that at one time had not been answered whole.
    size_t most_at_once();

private:
    void accept_all();
    void serve(int client);
    void answer(int client, const http_answer& given);
    // Sends a whole answer, and counts it as given before its client can know its end.
    void send_answer(int client, std::string_view bytes);
    // Until released (true) or the client has left or the server stops (false).
    bool held_until_release(int client);

    const std::map<std::string, http_answer> m_answers;
    tcp_listener m_listener;
    int m_released = -1; // eventfds: readable from then on
    int m_stopped = -1;

    std::mutex m_mutex; // guards the rest
    std::condition_variable m_changed;
    std::vector<std::string> m_requests;
    std::vector<std::thread> m_connections;
    size_t m_unanswered = 0;
    size_t m_most_unanswered = 0;

    std::thread m_acceptor;
};

} // namespace rtls
