// commands - what a broker's clients may have a gateway do, by its terminal and in the words of rtls-ctl.
//
// Ownership  Owns its thread. Orders and answers are values.
// Threads    All functions: one. A thread of its own speaks with the terminal, one order after the other.
// Blocking   Nothing waits but the destructor: for the order that is being carried out, as long as the terminal may take
//            (5 s, 60 s for a download). Those that wait are dropped.
// Failures   Of an order: its answer says so. No descriptor or no thread: std::system_error. Of memory: std::bad_alloc.
#pragma once

#include "base/unique_fd.h"
#include "doors/gateways_file.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace mqtt {

struct order {
    std::string command; // "reboot", "delete", "firmware-get", "firmware-apply"; anything else is refused
    std::string given;   // a MAC, as rtls-ctl takes it, or a URL
};

struct answer {
    std::string command; // "unknown" when there is none that is called so
    std::string text;    // a JSON object: "command", "given", "done", and the outcome or "status" and "why"
};

// The answer to what is not even tried.
answer refused(const order& what, const std::string& why);

class commands {
public:
    explicit commands(const ctl::endpoint& terminal);
    ~commands();
    commands(const commands&) = delete;
    commands& operator=(const commands&) = delete;

    // Has it carried out, or answers at once that it is not.
    void give(const order& what);
    // Those that are there.
    std::vector<answer> take_answers();
    // Readable when there are answers.
    int descriptor() const { return m_ready.get(); }

private:
    void run() noexcept;
    void add(answer it);
    answer carry_out(const order& what) const;

    ctl::endpoint m_terminal;
    rtls::unique_fd m_ready;
    std::mutex m_mutex; // holds the next three
    std::deque<order> m_orders;
    std::vector<answer> m_answers;
    bool m_ends = false;
    std::condition_variable m_news;
    std::thread m_thread;
};

} // namespace mqtt
