// connector - a gateway's tap and an MQTT broker: what comes from the one goes to the other, until a signal ends it.
//
// Ownership  Owns both connections, what waits between them, and SIGINT and SIGTERM (tap/subscriber.h).
// Threads    The main thread makes it before there are others, and runs it. With commands there is one more
//            (commands.h).
// Blocking   run(), until the end; then for the broker, up to three seconds.
// Failures   Options that cannot be used: tap::failure, usage. Nobody there in time: tap::failure, unreachable.
//            Of memory: std::bad_alloc.
#pragma once

#include "rtls-mqtt/broker.h"
#include "rtls-mqtt/commands.h"
#include "rtls-mqtt/losses.h"
#include "rtls-mqtt/outbox.h"
#include "rtls-mqtt/topics.h"
#include "tap/program.h"
#include "tap/running_numbers.h"
#include "tap/subscriber.h"

#include <chrono>
#include <optional>
#include <string>

namespace mqtt {

struct connector_options {
    tap::subscription from; // topics: its own choice
    std::string gateway;    // as topics have it
    broker_options to;      // will and commands: its own choice
    size_t queue = 10'000;
    bool may_command = false;
    ctl::endpoint terminal;
    bool as_json = false; // how it tells in the end how it went
};

class connector {
public:
    connector(const connector_options& options, const tap::program& program);
    tap::exit_status run();

private:
    using clock = std::chrono::steady_clock;

    tap::arrival turn(rtls::recording::tap_message& message, std::chrono::milliseconds within);
    void take(const rtls::recording::tap_message& message);
    void take_command(const broker::received& message);
    void take_answers();
    void work();
    void send_what_fits();
    void note_queue();
    void tell_state();
    void tell_losses();
    losses lost() const;
    void require_broker() const;
    void end();
    void wait_for_broker(clock::time_point deadline, bool is_over);
    void tell_how_it_went() const;

    connector_options m_options;
    const tap::program& m_program;
    topics m_names;
    std::string m_since;
    tap::subscriber m_tap;
    tap::running_numbers m_numbers;
    broker m_broker;
    outbox m_outbox;
    std::optional<commands> m_commands;
    const clock::time_point m_began = clock::now();
    uint64_t m_nameless = 0;
    uint64_t m_lost_noted = 0;
    bool m_is_overflowing = false;
    uint64_t m_told_to = 0; // the connection to which the next two have been told
    std::optional<bool> m_told_online;
    std::optional<losses> m_told_losses;
    clock::time_point m_told_losses_at;
};

} // namespace mqtt
