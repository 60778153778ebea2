#include "tap/tap_socket.h"

#include "base/message_part.h"
#include "base/unique_fd.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "support/temp_file.h"
#include "support/wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace rtls {

using testing::ElementsAre;

namespace {

zconfig_ptr config_with(const std::string& address)
{
    zconfig_ptr config{zconfig_new("root", nullptr)};
    zconfig_put(config.get(), "tap/address", address.c_str());
    return config;
}

uint64_t load_be64(const bytes_t& bytes, size_t at)
{
    return uint64_t{load_be32(bytes, at)} << 32 | load_be32(bytes, at + 4);
}

// A tap at a local socket, and its subscribers.
class opened_tap : public testing::Test {
protected:
    opened_tap()
    {
        EXPECT_TRUE(m_tap.read(config_with(endpoint()).get()));
        EXPECT_TRUE(m_tap.is_configured());
        EXPECT_TRUE(m_tap.open({}));
    }

    std::string endpoint() const { return std::string{"ipc://"} + m_place.path(); }

    // Connected, and taken notice of.
    zsock_ptr subscriber(const std::string& topic, int queue = 0)
    {
        const uint64_t before = m_tap.counts().topics.value();
        zsock_ptr sock{zsock_new(ZMQ_SUB)};
        zsock_set_rcvhwm(sock.get(), queue);
        if (queue > 0)
            zsock_set_rcvbuf(sock.get(), 4096);
        zsock_set_subscribe(sock.get(), topic.c_str());
        EXPECT_EQ(zsock_connect(sock.get(), "%s", endpoint().c_str()), 0);
        EXPECT_TRUE(
            repeat_until([&] { return m_tap.counts().topics.value() > before; }, [&] { m_tap.look(); }));
        return sock;
    }

    // The frames of the next message, which comes in time, or none.
    static std::vector<bytes_t> receive(const zsock_ptr& sock)
    {
        std::vector<bytes_t> frames;
        if (!wait_until([&] { return (zsock_events(sock.get()) & ZMQ_POLLIN) != 0; }))
            return frames;
        message_part part;
        do {
            EXPECT_TRUE(part.receive(zsock_resolve(sock.get())));
            frames.emplace_back(part.bytes().begin(), part.bytes().end());
        } while (zsock_rcvmore(sock.get()));
        return frames;
    }

    static uint64_t next_number(const zsock_ptr& sock)
    {
        const auto frames = receive(sock);
        return frames.size() > 2 ? load_be64(frames[1], tap_head::number) : 0;
    }

    // To the tap, speaking nothing yet; it hears for 10 s.
    int connected() const
    {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un place{};
        place.sun_family = AF_UNIX;
        std::string{m_place.path()}.copy(place.sun_path, sizeof place.sun_path - 1);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&place), sizeof place), 0);
        const timeval patience{10, 0};
        EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience), 0);
        return fd;
    }

    static bool has_more(const zsock_ptr& sock) { return (zsock_events(sock.get()) & ZMQ_POLLIN) != 0; }

    temp_file m_place{"tap"};
    tap_socket m_tap;
};

bytes_t text(const char* characters)
{
    return {characters, characters + std::strlen(characters)};
}

} // namespace

TEST(tap_socket, without_its_key_there_is_none)
{
    tap_socket tap;
    const zconfig_ptr config{zconfig_new("root", nullptr)};
    EXPECT_TRUE(tap.read(config.get()));
    EXPECT_FALSE(tap.is_configured());
    EXPECT_FALSE(tap.takes_any());
    tap.close();
}

TEST(tap_socket, an_address_that_is_no_endpoint_is_an_error)
{
    log_capture log;
    for (const char* address :
         {"", "tcp://", "ipc://", "127.0.0.1:5559", "udp://127.0.0.1:5559", "inproc://tap"}) {
        tap_socket tap;
        EXPECT_FALSE(tap.read(config_with(address).get())) << address;
        EXPECT_THAT(log.messages("main"),
                    ElementsAre("The parameter \"tap/address\" is no endpoint of tcp or ipc!"));
    }
}

TEST(tap_socket, one_that_cannot_be_bound_is_told_by_errno)
{
    const struct {
        const char* address;
        int error;
    } cases[] = {
        {"ipc:///no/such/folder/tap", ENOENT},
        {"tcp://192.0.2.1:5559", EADDRNOTAVAIL},
        {"tcp://127.0.0.1", EINVAL},
    };
    for (const auto& [address, error] : cases) {
        tap_socket tap;
        ASSERT_TRUE(tap.read(config_with(address).get()));
        EXPECT_FALSE(tap.open({})) << address;
        EXPECT_EQ(errno, error) << address;
        EXPECT_FALSE(tap.takes_any());
    }
}

TEST_F(opened_tap, a_message_is_topic_head_and_payload)
{
    const zsock_ptr all = subscriber("");
    const bytes_t mac = hex("02 AB 34 CD 56 00 1A 2B");
    const bytes_t large(100, 0xF5);
    m_tap.publish({tap_class::report, tap_direction::up, {0x01020304, 0x1122334455667788}},
                  tap_topic{tap_class::report, mac}, hex("00 01"), large);
    EXPECT_THAT(receive(all), ElementsAre(text("report/02AB34CD56001A2B"),
                                          hex("01 00 0000 01020304 0000000000000001 1122334455667788"),
                                          hex("00 01"), large));
    m_tap.publish({tap_class::command, tap_direction::down, {0, 1}}, tap_topic{tap_class::command}, {});
    EXPECT_THAT(receive(all),
                ElementsAre(text("command"), hex("01 01 0000 00000000 0000000000000001 0000000000000001"),
                            bytes_t{}));
    EXPECT_EQ(m_tap.counts().published[tap_class::report].value(), 1U);
    EXPECT_EQ(m_tap.counts().published[tap_class::command].value(), 1U);
    EXPECT_EQ(m_tap.counts().overflows.sum() + m_tap.counts().lost.sum(), 0U);
}

TEST_F(opened_tap, each_class_has_numbers_of_its_own)
{
    const zsock_ptr links = subscriber("link/");
    for (const auto of : {tap_class::link_in, tap_class::link_out, tap_class::link_in, tap_class::link_in})
        m_tap.publish({of, tap_direction::up}, tap_topic{of}, hex("00"));
    for (const uint64_t number : {1U, 1U, 2U, 3U})
        EXPECT_EQ(next_number(links), number);
}

TEST_F(opened_tap, without_a_clock_a_message_has_the_present_time)
{
    const zsock_ptr events = subscriber("event");
    timespec before{};
    clock_gettime(CLOCK_REALTIME, &before);
    m_tap.publish({tap_class::event, tap_direction::neither}, tap_topic{tap_class::event}, text("{}"));
    const auto frames = receive(events);
    ASSERT_EQ(frames.size(), 3U);
    const uint64_t clock = load_be64(frames[1], tap_head::clock);
    const uint64_t from = static_cast<uint64_t>(before.tv_sec) * 1'000'000'000;
    EXPECT_TRUE(clock >= from && clock < from + 60'000'000'000) << clock;
    EXPECT_EQ(frames[1][tap_head::direction], 2);
}

TEST_F(opened_tap, what_a_read_brings_has_its_clock)
{
    m_tap.begin_read(7);
    const tap_origin first = m_tap.read_origin();
    EXPECT_EQ(first.connection, 7U);
    EXPECT_GT(first.clock_ns, 1'700'000'000'000'000'000U);
    m_tap.begin_read(8);
    EXPECT_EQ(m_tap.read_origin().connection, 8U);
    EXPECT_GE(m_tap.read_origin().clock_ns, first.clock_ns);
}

TEST_F(opened_tap, takes_what_somebody_has_subscribed_to_until_he_leaves)
{
    EXPECT_FALSE(m_tap.takes_any());
    zsock_ptr one = subscriber("report/02");
    EXPECT_TRUE(m_tap.takes(tap_class::report));
    EXPECT_FALSE(m_tap.takes(tap_class::event));
    one.reset();
    EXPECT_TRUE(repeat_until([&] { return !m_tap.takes_any(); }, [&] { m_tap.look(); }));
    EXPECT_EQ(m_tap.counts().topics.value(), 0U);
}

TEST_F(opened_tap, nobody_takes_anything_when_it_is_closed)
{
    const zsock_ptr one = subscriber("");
    m_tap.close();
    EXPECT_FALSE(m_tap.takes_any());
    EXPECT_EQ(m_tap.counts().topics.value(), 0U);
    EXPECT_TRUE(m_tap.open({})) << "and it can be opened again";
}

// The library refuses a message as the first queue becomes full, and leaves that subscriber out from then on.
TEST_F(opened_tap, who_does_not_read_loses_his_own_and_is_counted_once)
{
    const zsock_ptr good = subscriber("report/");
    const zsock_ptr slow = subscriber("report/0", 1);
    const bytes_t payload(500, 1);
    const uint8_t mac[] = {0, 1, 2, 3, 4, 5, 6, 7};
    const counter& overflows = m_tap.counts().overflows[tap_class::report];
    constexpr uint64_t after = 1000; // messages behind the first that the slow one loses
    uint64_t last = 0;
    for (uint64_t lost_at = 0; lost_at == 0 || last < lost_at + after;) {
        m_tap.publish({tap_class::report, tap_direction::up}, tap_topic{tap_class::report, mac}, hex("00"),
                      payload);
        ASSERT_EQ(next_number(good), ++last);
        if (lost_at == 0 && overflows.value() > 0)
            lost_at = last;
        ASSERT_LT(last, 100'000U);
    }
    EXPECT_EQ(overflows.value(), 1U);
    EXPECT_EQ(m_tap.counts().lost.sum(), 0U);
    uint64_t had = 0;
    while (had < last - after - 1)
        ASSERT_EQ(next_number(slow), ++had);
    EXPECT_GE(had, 10'000U);
    EXPECT_FALSE(has_more(slow));
    m_tap.look();
    m_tap.publish({tap_class::report, tap_direction::up}, tap_topic{tap_class::report, mac}, hex("00"),
                  payload);
    EXPECT_EQ(next_number(slow), last + 1) << "there is room again";
    EXPECT_EQ(next_number(good), last + 1);
}

TEST_F(opened_tap, a_subscriber_who_sends_more_than_a_topic_is_cut_off)
{
    const zsock_ptr loud{zsock_new(ZMQ_XSUB)};
    zsock_connect(loud.get(), "%s", endpoint().c_str());
    const auto look = [&] { m_tap.look(); };
    const auto has = [&](uint64_t topics) {
        return [&, topics] { return m_tap.counts().topics.value() == topics; };
    };
    zstr_send(loud.get(), "\1event");
    EXPECT_TRUE(repeat_until(has(1), look));
    zstr_send(loud.get(), ('\1' + std::string(5000, 'r')).c_str());
    EXPECT_TRUE(repeat_until(has(0), look));
}

namespace {

// Speaks as it likes.
class raw_subscriber {
public:
    explicit raw_subscriber(const std::string& endpoint)
    {
        zsock_set_sndhwm(m_sock.get(), 0);
        zsock_connect(m_sock.get(), "%s", endpoint.c_str());
    }
    void send(const std::string& message)
    {
        EXPECT_TRUE(send_copy(zsock_resolve(m_sock.get()),
                              {reinterpret_cast<const uint8_t*>(message.data()), message.size()}, false,
                              true));
    }
    void begin(const std::string& topic) { send('\1' + topic); }

protected:
    // The library leaves out the end of what this very socket never began, unless it has.
    zsock_ptr m_sock{zsock_new(ZMQ_XSUB)};
};

// As the one above, but nothing knows what it has subscribed to: it speaks the protocol itself, over a local socket.
class bare_subscriber {
public:
    explicit bare_subscriber(const std::string& path)
    {
        sockaddr_un place{};
        place.sun_family = AF_UNIX;
        path.copy(place.sun_path, sizeof place.sun_path - 1);
        EXPECT_EQ(connect(m_fd.get(), reinterpret_cast<sockaddr*>(&place), sizeof place), 0);
        // ZMTP 3.0: signature, version, NULL, no server; READY, of a SUB.
        write(hex("FF 00 00 00 00 00 00 00 01 7F 03 00 4E 55 4C 4C") + bytes_t(48, 0));
        write(hex("04 19 05 52 45 41 44 59") +
              hex("0B 53 6F 63 6B 65 74 2D 54 79 70 65 00 00 00 03 53 55 42"));
        // Its own READY is the last of its handshake: what comes sooner is no message to it.
        std::string heard;
        for (char byte = 0; !heard.ends_with("XPUB") && recv(m_fd.get(), &byte, 1, 0) == 1;)
            heard += byte;
    }
    void send(const std::string& message)
    {
        const auto size = static_cast<uint8_t>(message.size());
        write(bytes_t{0, size} + bytes_t(message.begin(), message.end()));
    }
    // Without waiting. How many of the bytes were taken.
    size_t try_to_send(std::string_view bytes)
    {
        const ssize_t taken = ::send(m_fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return taken > 0 ? static_cast<size_t>(taken) : 0;
    }

private:
    void write(const bytes_t& bytes)
    {
        EXPECT_EQ(::send(m_fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
    }
    unique_fd m_fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
};

} // namespace

TEST_F(opened_tap, who_ends_what_others_have_silences_nobody)
{
    const zsock_ptr good = subscriber("event");
    const log_capture log;
    bare_subscriber bad{m_place.path()};
    bad.send(std::string("\0event", 6));
    bad.send("\1report/");
    ASSERT_TRUE(repeat_until([&] { return m_tap.takes(tap_class::report); }, [&] { m_tap.look(); }));
    EXPECT_TRUE(m_tap.takes(tap_class::event));
    m_tap.publish(tap_event{"stopped"});
    EXPECT_EQ(next_number(good), 1U);
}

TEST_F(opened_tap, who_ends_his_own_has_ended_it)
{
    const zsock_ptr one = subscriber("event");
    const zsock_ptr two = subscriber("report/");
    zsock_set_subscribe(two.get(), "event"); // no news: the topic is taken
    zsock_set_unsubscribe(one.get(), "event");
    zsock_set_unsubscribe(two.get(), "report/");
    const auto look = [&] { m_tap.look(); };
    ASSERT_TRUE(repeat_until([&] { return !m_tap.takes(tap_class::report); }, look));
    EXPECT_TRUE(m_tap.takes(tap_class::event));
    zsock_set_unsubscribe(two.get(), "event");
    EXPECT_TRUE(repeat_until([&] { return !m_tap.takes_any(); }, look));
    EXPECT_EQ(m_tap.counts().topics.value(), 0U);
    EXPECT_EQ(m_tap.counts().cut.value(), 0U);
}

TEST_F(opened_tap, who_sends_anything_else_is_cut_off_and_nobody_else_is)
{
    const std::string fouls[] = {"hello", "", "\2event", std::string("\0of nobody", 10),
                                 '\1' + std::string(tap_interest::longest_topic + 1, 'r')};
    log_capture log;
    const zsock_ptr good = subscriber("event");
    uint64_t cut = 0;
    for (const std::string& foul : fouls) {
        bare_subscriber bad{m_place.path()};
        bad.send("\1command");
        bad.send(foul);
        ++cut;
        EXPECT_TRUE(repeat_until([&] { return m_tap.counts().cut.value() == cut; }, [&] { m_tap.look(); }))
            << foul;
        EXPECT_TRUE(repeat_until([&] { return m_tap.counts().topics.value() == 1; }, [&] { m_tap.look(); }))
            << foul;
    }
    m_tap.publish(tap_event{"stopped"});
    EXPECT_EQ(next_number(good), 1U);
    EXPECT_THAT(log.messages("main"),
                ElementsAre("tap: a subscriber that sends more than topics within bounds is cut off"));
}

// What is published has the library move all that has come into a list of its own, however long.
TEST_F(opened_tap, who_begins_and_ends_without_end_is_cut_off)
{
    const log_capture log;
    const zsock_ptr good = subscriber("event");
    bare_subscriber bad{m_place.path()};
    std::string pairs;
    for (int i = 0; i < 500; ++i)
        pairs += std::string("\0\x08\1report/\0\x08\0report/", 20);
    size_t rest = pairs.size() * 40; // five times what is borne: most of it is not in the connection any more
    const auto send_and_publish = [&] {
        const size_t at = (pairs.size() - rest % pairs.size()) % pairs.size();
        rest -= bad.try_to_send(std::string_view{pairs}.substr(at));
        m_tap.publish(tap_event{"stopped"});
    };
    ASSERT_TRUE(repeat_until([&] { return rest == 0; }, send_and_publish));
    EXPECT_EQ(m_tap.counts().cut.value(), 0U);
    const auto look = [&] { m_tap.look(); };
    EXPECT_TRUE(repeat_until([&] { return m_tap.counts().cut.value() > 0; }, look));
    EXPECT_TRUE(repeat_until([&] { return !m_tap.takes(tap_class::report); }, look));
    EXPECT_TRUE(m_tap.takes(tap_class::event));
    EXPECT_EQ(m_tap.counts().topics.value(), 1U);
}

TEST_F(opened_tap, who_speaks_an_old_version_of_the_protocol_is_refused)
{
    const zsock_ptr good = subscriber("event");
    const bytes_t of_event = bytes_t{0, 6, 0} + text("event");
    for (const bytes_t& greeting : {hex("FF 00 00 00 00 00 00 00 01 7F 01 02 00 00"), hex("01 00")}) {
        const unique_fd old{connected()};
        const bytes_t said = greeting + of_event;
        EXPECT_EQ(::send(old.get(), said.data(), said.size(), MSG_NOSIGNAL), ssize_t(said.size()));
        ssize_t heard = 1;
        for (char byte = 0; heard > 0;)
            heard = recv(old.get(), &byte, 1, 0);
        EXPECT_TRUE(heard == 0 || errno == ECONNRESET) << errno;
        m_tap.look();
        EXPECT_TRUE(m_tap.takes(tap_class::event));
    }
    m_tap.publish(tap_event{"stopped"});
    EXPECT_EQ(next_number(good), 1U);
}

TEST_F(opened_tap, who_takes_too_many_topics_is_cut_off)
{
    const log_capture log;
    raw_subscriber bad{endpoint()};
    for (size_t i = 0; i <= tap_interest::most_topics; ++i)
        bad.begin("report/" + std::to_string(i));
    EXPECT_TRUE(repeat_until([&] { return m_tap.counts().cut.value() > 0; }, [&] { m_tap.look(); }));
}

TEST_F(opened_tap, what_is_large_and_waits_for_those_who_do_not_read_is_bounded)
{
    const zsock_ptr slow = subscriber("command", 1);
    const bytes_t payload(size_t{256} * 1024, 1);
    const counter& lost = m_tap.counts().lost[tap_class::command];
    const auto publish = [&] {
        m_tap.publish({tap_class::command, tap_direction::down}, tap_topic{tap_class::command}, payload);
    };
    for (size_t i = 0; i < 700 && lost.value() == 0; ++i)
        publish();
    EXPECT_EQ(lost.value(), 1U);
    const uint64_t published = m_tap.counts().published[tap_class::command].value();
    EXPECT_GE(published, tap_payloads::large_bound / payload.size());
    EXPECT_LE(published, tap_payloads::large_bound / payload.size() + 100) << "but for what TCP holds";
    for (uint64_t had = 0; had < published;)
        ASSERT_EQ(next_number(slow), ++had);
    publish();
    EXPECT_EQ(next_number(slow), published + 2) << "there is room again, and the gap shows";
}

// --- encrypted

namespace {

struct destroy_cert {
    void operator()(zcert_t* cert) const noexcept { zcert_destroy(&cert); }
};
using cert_ptr = std::unique_ptr<zcert_t, destroy_cert>;

class encrypted_tap : public testing::Test {
protected:
    encrypted_tap()
    {
        zcert_save_secret(m_gateway.get(), m_gateway_file.path());
        zcert_save_public(m_subscribers.get(), m_subscribers_file.path());
        const zconfig_ptr config = config_with(endpoint());
        zconfig_put(config.get(), "curve/certificate", m_gateway_file.path());
        zconfig_put(config.get(), "curve/tap", m_subscribers_file.path());
        curve_certificates certificates;
        EXPECT_TRUE(certificates.read(config.get()));
        EXPECT_TRUE(certificates.closes_tap());
        EXPECT_TRUE(m_tap.read(config.get()));
        EXPECT_TRUE(m_tap.open(certificates));
    }

    std::string endpoint() const { return std::string{"ipc://"} + m_place.path(); }

    zsock_ptr subscriber(zcert_t* own) const
    {
        zsock_ptr sock{zsock_new(ZMQ_SUB)};
        zsock_set_subscribe(sock.get(), "event");
        if (own) {
            zcert_apply(own, sock.get());
            zsock_set_curve_serverkey(sock.get(), zcert_public_txt(m_gateway.get()));
        }
        EXPECT_EQ(zsock_connect(sock.get(), "%s", endpoint().c_str()), 0);
        return sock;
    }

    bool look_until(const std::function<bool()>& done)
    {
        return repeat_until(done, [this] { m_tap.look(); });
    }

    log_capture m_log;
    const cert_ptr m_gateway{zcert_new()};
    const cert_ptr m_subscribers{zcert_new()};
    const temp_file m_gateway_file{"gateway.cert"};
    const temp_file m_subscribers_file{"subscribers.cert"};
    const temp_file m_place{"tap"};
    tap_socket m_tap;
};

} // namespace

TEST_F(encrypted_tap, serves_who_has_the_subscribers_key)
{
    const zsock_ptr sock = subscriber(m_subscribers.get());
    ASSERT_TRUE(look_until([&] { return m_tap.takes(tap_class::event); }));
    m_tap.publish(tap_event{"started"}, 7);
    zsock_set_rcvtimeo(sock.get(), 20'000);
    message_part part;
    for (const char* frame : {"event", "", "{\"event\":\"started\"}"}) {
        ASSERT_TRUE(part.receive(zsock_resolve(sock.get()), true));
        if (*frame)
            EXPECT_EQ(bytes_t(part.bytes().begin(), part.bytes().end()), text(frame));
        else
            EXPECT_EQ(load_be32(part.bytes(), tap_head::connection), 7U);
    }
    EXPECT_EQ(m_tap.counts().refused.value(), 0U);
}

namespace {

// What becomes of the handshakes of a socket.
class handshakes {
public:
    explicit handshakes(zsock_t* watched)
    {
        static constexpr char channel[] = "inproc://handshakes-of-the-test";
        EXPECT_EQ(zmq_socket_monitor(zsock_resolve(watched), channel,
                                     ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_HANDSHAKE_FAILED_AUTH),
                  0);
        zsock_connect(m_events.get(), "%s", channel);
    }
    // Takes in what has happened.
    void look()
    {
        message_part event;
        message_part endpoint;
        while (event.receive(zsock_resolve(m_events.get())) &&
               endpoint.receive(zsock_resolve(m_events.get()), true)) {
            uint16_t number = 0;
            std::memcpy(&number, event.data(), sizeof number);
            ++(number == ZMQ_EVENT_HANDSHAKE_SUCCEEDED ? succeeded : refused);
        }
    }
    int succeeded = 0;
    int refused = 0;

private:
    zsock_ptr m_events{zsock_new(ZMQ_PAIR)};
};

} // namespace

// The refusal is what the stranger gets to see; and he who has the key is served beside him.
TEST_F(encrypted_tap, refuses_another_key_and_says_so)
{
    const cert_ptr stranger{zcert_new()};
    const zsock_ptr sock = subscriber(stranger.get());
    handshakes of_stranger{sock.get()};
    EXPECT_TRUE(look_until([&] { return of_stranger.look(), of_stranger.refused > 0; }));
    EXPECT_GT(m_tap.counts().refused.value(), 0U);
    EXPECT_FALSE(m_tap.takes_any());
    EXPECT_TRUE(m_log.wait_for("tap: somebody with another key than the subscribers' is refused"));
    const zsock_ptr admitted = subscriber(m_subscribers.get());
    ASSERT_TRUE(look_until([&] { return m_tap.takes(tap_class::event); }));
    m_tap.publish(tap_event{"stopped"});
    EXPECT_TRUE(wait_until([&] { return (zsock_events(admitted.get()) & ZMQ_POLLIN) != 0; }));
    of_stranger.look();
    EXPECT_EQ(of_stranger.succeeded, 0);
    EXPECT_EQ(zsock_events(sock.get()) & ZMQ_POLLIN, 0);
}

TEST_F(encrypted_tap, does_not_speak_to_who_speaks_openly)
{
    const zsock_ptr open = subscriber(nullptr);
    const zsock_ptr closed = subscriber(m_subscribers.get());
    EXPECT_TRUE(look_until([&] { return m_tap.takes(tap_class::event); }));
    m_tap.publish(tap_event{"stopped"});
    EXPECT_TRUE(wait_until([&] { return (zsock_events(closed.get()) & ZMQ_POLLIN) != 0; }));
    EXPECT_EQ(zsock_events(open.get()) & ZMQ_POLLIN, 0);
}

} // namespace rtls
