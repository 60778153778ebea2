// broker - a connection with an MQTT broker that is made again whenever it ends.
//
// Ownership  Owns the library's client. What is told it by reference outlives it.
// Threads    One, which calls work() whenever wanted() is ready or 200 ms have passed; the library has no thread here.
//            The functions that are told notes and messages are called within work().
// Blocking   Nothing waits for the broker. The look-up of its name may take as long as the system allows. Of several
//            addresses the first is tried.
// Failures   A TLS file that cannot be read: tap::failure, usage. Of memory: std::bad_alloc. A broker that is not
//            there, refuses us or goes is waited for; notes say so.
#pragma once

#include "doors/gateways_file.h"
#include "rtls-mqtt/back_off.h"
#include "rtls-mqtt/login.h"
#include "rtls-mqtt/publications.h"
#include "tap/subscriber.h"

#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>

struct mosquitto; // NOLINT(readability-identifier-naming): the library is called so

namespace mqtt {

struct tls_files {
    bool is_wanted = false;
    std::string ca;          // who may have signed the broker's certificate; empty: whom this system trusts
    std::string certificate; // ours, and its key; empty: none
    std::string key;
};

struct broker_options {
    ctl::endpoint where;
    std::string client_id;
    int qos = 1;
    int keep_alive = 15; // seconds
    double retry = 1;    // seconds to the second attempt; doubled up to
    double retry_max = 60;
    std::optional<login> who;
    tls_files tls;
    publication will;     // what the broker publishes when we vanish
    std::string commands; // a filter of topics to subscribe to; empty: none
};

class broker {
public:
    using note_function = std::function<void(const std::string&)>;
    struct received {
        std::string topic;
        std::string payload;
        bool is_retained = false;
    };
    using message_function = std::function<void(const received&)>;

    broker(const broker_options& options, note_function note, message_function take);
    ~broker();
    broker(const broker&) = delete;
    broker& operator=(const broker&) = delete;

    // Connects when that is due; sends and receives what can be.
    void work();
    // What to wait for before the next work().
    tap::other_descriptor wanted() const;
    // How many times the broker has let us in, and whether we are.
    uint64_t times_let_in() const { return m_times_let_in; }
    bool is_online() const { return m_is_online; }
    // A sentence: why we are not.
    std::string why_not() const;

    // Whether it has acknowledged enough (QoS 0: taken into its connection) to be given more.
    bool has_room() const { return m_is_online && m_under_way < window; }
    // With the QoS of the options. Only while is_online().
    void publish(const publication& it);
    uint64_t under_way() const { return m_under_way; }
    uint64_t handed_over() const { return m_handed_over; }
    // Messages that were under way when a connection ended (QoS 0), or that the library refuses.
    uint64_t cut_off() const { return m_cut_off; }
    // Ends the connection in good order: the broker does not publish the will.
    void leave();

private:
    using clock = std::chrono::steady_clock;
    static constexpr uint64_t window = 100;
    struct destroy_client {
        void operator()(mosquitto* client) const noexcept;
    };
    struct callbacks;

    void set_up();
    void set_up_tls();
    void connect();
    void turn_library();
    void lose(int error);
    void note_let_in();
    void note_refused(int code);
    std::string reason_of(int error) const;
    void throw_what_was_caught();

    broker_options m_options;
    note_function m_note;
    message_function m_take;
    std::unique_ptr<mosquitto, destroy_client> m_client;
    back_off m_back_off;
    std::minstd_rand m_luck{std::random_device{}()};
    clock::time_point m_due = clock::now(); // the next attempt
    bool m_is_connecting = false;           // or connected
    bool m_is_online = false;
    bool m_has_tried = false;
    uint64_t m_times_let_in = 0;
    uint64_t m_under_way = 0;
    uint64_t m_handed_over = 0;
    uint64_t m_cut_off = 0;
    std::string m_said;        // the last reason that was noted; empty: we were online since
    std::string m_reason;      // why we are not online
    std::string m_refusal;     // the broker's, of this attempt
    std::string m_library_log; // its last error of this attempt
    std::exception_ptr m_caught;
};

} // namespace mqtt
