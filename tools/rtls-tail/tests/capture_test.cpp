#include "recording/capture.h"
#include "rtls-tail/reassembly.h"
#include "rtls-tail/segment.h"
#include "rtls-tail/viewer.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <string>

namespace tail {

using bytes_t = std::vector<uint8_t>;
namespace link_type = rtls::recording::link_type;

// --- segment

static bytes_t joined(std::initializer_list<bytes_t> parts)
{
    bytes_t all;
    for (const bytes_t& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

static const bytes_t said{'s', 'a', 'i', 'd'};
static const bytes_t filler(6); // what Ethernet adds to small packets

static bytes_t tcp(uint8_t flags = 0x18, const bytes_t& options = {})
{
    const auto words = static_cast<uint8_t>((20 + options.size()) / 4 << 4);
    return joined({{0x4E, 0x20, 0x0F, 0xA1, 1, 2, 3, 4, 0, 0, 0, 0, words, flags, 0xFF, 0xFF, 0, 0, 0, 0},
                   options,
                   said});
}

static bytes_t ipv4(const bytes_t& rest, const bytes_t& options = {}, uint16_t fragment = 0x4000,
                    uint8_t protocol = 6)
{
    const auto size = static_cast<uint8_t>(20 + options.size() + rest.size());
    return joined({{static_cast<uint8_t>(0x45 + options.size() / 4),
                    0,
                    0,
                    size,
                    0,
                    0,
                    static_cast<uint8_t>(fragment >> 8),
                    static_cast<uint8_t>(fragment),
                    64,
                    protocol,
                    0,
                    0,
                    10,
                    0,
                    0,
                    2,
                    10,
                    0,
                    0,
                    1},
                   options,
                   rest});
}

static bytes_t ipv6(uint8_t next, const bytes_t& rest)
{
    bytes_t head(40);
    head[0] = 0x60;
    head[5] = static_cast<uint8_t>(rest.size());
    head[6] = next;
    head[8] = head[24] = 0xFD;
    head[23] = 2;
    head[39] = 1;
    return joined({head, rest});
}

static bytes_t ethernet(const bytes_t& type_and_rest)
{
    return joined({bytes_t(12), type_and_rest, filler});
}

static std::string summary(const std::optional<tcp_segment>& it)
{
    return it ? text_of(it->from) + " " + text_of(it->to) + " " + std::to_string(it->sequence) + " " +
                    std::string{it->payload.begin(), it->payload.end()}
              : "none";
}

TEST(segment, is_found_below_whatever_stands_in_front)
{
    const char* const of_ipv4 = "10.0.0.2:20000 10.0.0.1:4001 16909060 said";
    const char* const of_ipv6 = "[fd00::2]:20000 [fd00::1]:4001 16909060 said";
    const bytes_t type4{0x08, 0x00};
    const bytes_t type6{0x86, 0xDD};
    const bytes_t tag{0x81, 0x00, 0x00, 0x07};
    const bytes_t extension{6, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    const struct {
        const char* given;
        uint16_t link;
        bytes_t packet;
        const char* then;
    } cases[] = {
        {"Ethernet", link_type::ethernet, ethernet(joined({type4, ipv4(tcp())})), of_ipv4},
        {"Ethernet, IPv6", link_type::ethernet, ethernet(joined({type6, ipv6(6, tcp())})), of_ipv6},
        {"a network's tag", link_type::ethernet, ethernet(joined({tag, type4, ipv4(tcp())})), of_ipv4},
        {"two of them", link_type::ethernet,
         ethernet(joined({{0x88, 0xA8, 0, 1}, tag, type6, ipv6(6, tcp())})), of_ipv6},
        {"any interface", link_type::cooked, joined({bytes_t(14), type4, ipv4(tcp())}), of_ipv4},
        {"any interface, 2", link_type::cooked_2, joined({type6, bytes_t(18), ipv6(6, tcp())}), of_ipv6},
        {"none", link_type::raw_ip, ipv4(tcp()), of_ipv4},
        {"none, IPv6", link_type::ipv6, ipv6(6, tcp()), of_ipv6},
        {"a loopback", link_type::loopback, joined({{2, 0, 0, 0}, ipv4(tcp())}), of_ipv4},
        {"IP and TCP with options", link_type::raw_ip, ipv4(tcp(0x18, bytes_t(12)), bytes_t(8)), of_ipv4},
        {"headers of IPv6", link_type::raw_ip, ipv6(0, joined({{60, 0, 0, 0, 0, 0, 0, 0}, extension, tcp()})),
         of_ipv6},
        {"a fragment", link_type::raw_ip, ipv4(tcp(), {}, 0x2000), "none"},
        {"a later fragment", link_type::raw_ip, ipv4(tcp(), {}, 0x0001), "none"},
        {"UDP", link_type::raw_ip, ipv4(tcp(), {}, 0, 17), "none"},
        {"a fragment of IPv6", link_type::raw_ip, ipv6(44, joined({{6, 0, 0, 1, 0, 0, 0, 0}, tcp()})),
         "none"},
        {"ARP", link_type::ethernet, ethernet(joined({{0x08, 0x06}, ipv4(tcp())})), "none"},
        {"no version of IP", link_type::raw_ip, bytes_t(60, 0x55), "none"},
        {"no link that we know", 147, ipv4(tcp()), "none"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(summary(segment_in(c.link, c.packet)), c.then) << c.given;
}

TEST(segment, tells_beginnings)
{
    for (const uint8_t flags : {uint8_t{0x02}, uint8_t{0x12}, uint8_t{0x18}}) {
        const auto it = segment_in(link_type::raw_ip, ipv4(tcp(flags)));
        ASSERT_TRUE(it);
        EXPECT_EQ(it->is_begin, flags != 0x18);
    }
}

TEST(segment, a_length_that_the_network_card_fills_in_is_the_packets)
{
    bytes_t packet = ipv4(tcp());
    packet[3] = 0;
    EXPECT_EQ(segment_in(link_type::raw_ip, packet)->payload.size(), said.size());
}

TEST(segment, a_packet_cut_anywhere_has_what_is_there)
{
    const bytes_t packets[] = {
        ethernet(joined({{0x81, 0, 0, 7, 0x08, 0x00}, ipv4(tcp(), bytes_t(8))})),
        ethernet(joined({{0x86, 0xDD}, ipv6(0, joined({{6, 0, 0, 0, 0, 0, 0, 0}, tcp()}))}))};
    for (const bytes_t& packet : packets)
        for (size_t size = 0; size <= packet.size(); ++size) {
            const bytes_t cut{packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(size)};
            const auto it = segment_in(link_type::ethernet, cut);
            const size_t behind = packet.size() - filler.size() - said.size();
            EXPECT_EQ(it.has_value(), size >= behind) << size;
            if (it) {
                EXPECT_EQ(it->payload.size(), std::min(size - behind, said.size())) << size;
            }
        }
}

TEST(segment, lengths_that_lie_find_none)
{
    bytes_t packet = ipv4(tcp());
    packet[0] = 0x44;
    EXPECT_FALSE(segment_in(link_type::raw_ip, packet));
    packet = ipv4(tcp());
    packet[0] = 0x4F;
    EXPECT_FALSE(segment_in(link_type::raw_ip, packet));
    packet = ipv4(tcp());
    packet[20 + 12] = 0x40;
    EXPECT_FALSE(segment_in(link_type::raw_ip, packet));
    packet[20 + 12] = 0xF0;
    EXPECT_FALSE(segment_in(link_type::raw_ip, packet));
}

// --- reassembly

static constexpr uint64_t second_ns = 1'000'000'000;

static bytes_t bytes_from(uint8_t first, size_t count)
{
    bytes_t made(count);
    std::iota(made.begin(), made.end(), first);
    return made;
}

namespace {

// What has come, and where something is missing.
class taken {
public:
    void take(const std::vector<reassembly::piece>& pieces)
    {
        for (const auto& piece : pieces) {
            if (piece.follows_gap)
                m_gaps.push_back(piece.missing);
            m_bytes.insert(m_bytes.end(), piece.bytes.begin(), piece.bytes.end());
        }
    }
    const bytes_t& bytes() const { return m_bytes; }
    const std::vector<uint64_t>& gaps() const { return m_gaps; }

private:
    bytes_t m_bytes;
    std::vector<uint64_t> m_gaps;
};

} // namespace

TEST(reassembly, puts_segments_in_their_order_and_drops_what_comes_again)
{
    std::mt19937 random{7};
    const bytes_t whole = bytes_from(0, 250);
    for (int round = 0; round < 500; ++round) {
        const auto first = static_cast<uint32_t>(UINT32_MAX - random() % 300); // it wraps
        std::vector<std::pair<size_t, size_t>> parts;
        for (size_t at = 0; at < whole.size();) {
            const size_t size = std::min(whole.size() - at, size_t{1} + random() % 40);
            parts.emplace_back(at, size);
            at += size;
        }
        for (int again = 0; again < 10; ++again) { // cut elsewhere
            const size_t at = random() % whole.size();
            parts.emplace_back(at, 1 + random() % (whole.size() - at));
        }
        std::shuffle(parts.begin(), parts.end(), random);
        reassembly stream;
        taken all;
        stream.begin(first);
        for (const auto& [at, size] : parts)
            all.take(stream.add(first + static_cast<uint32_t>(at), second_ns,
                                rtls::bytes_view{whole}.subspan(at, size)));
        EXPECT_EQ(all.bytes(), whole) << round;
        EXPECT_TRUE(all.gaps().empty() && stream.give_up().empty()) << round;
    }
}

TEST(reassembly, begins_in_the_middle_with_the_first_that_it_sees)
{
    reassembly stream;
    taken all;
    all.take(stream.add(1000, 0, bytes_from(10, 5)));
    all.take(stream.add(995, 0, bytes_from(5, 5)));
    all.take(stream.add(1005, 0, bytes_from(15, 5)));
    EXPECT_EQ(all.bytes(), bytes_from(10, 10));
    EXPECT_TRUE(all.gaps().empty());
}

TEST(reassembly, gives_up_what_is_missing_after_five_seconds)
{
    reassembly stream;
    taken all;
    stream.begin(1);
    all.take(stream.add(11, 10 * second_ns, bytes_from(10, 5)));
    all.take(stream.add(16, 15 * second_ns, bytes_from(15, 5)));
    EXPECT_TRUE(all.bytes().empty());
    all.take(stream.add(21, 15 * second_ns + 1, bytes_from(20, 5)));
    EXPECT_EQ(all.bytes(), bytes_from(10, 15));
    EXPECT_EQ(all.gaps(), std::vector<uint64_t>{10});
    all.take(stream.add(1, 16 * second_ns, bytes_from(0, 10)));
    EXPECT_EQ(all.bytes().size(), 15u) << "it is too late";
}

TEST(reassembly, gives_up_what_is_missing_behind_a_mebibyte)
{
    reassembly stream;
    taken all;
    const bytes_t much(size_t{1} << 16, 7);
    stream.begin(0);
    for (uint32_t number = 0; number < 16; ++number)
        all.take(stream.add(100 + number * 65536, 0, much));
    EXPECT_TRUE(all.bytes().empty());
    all.take(stream.add(100 + 16 * 65536, 0, bytes_from(0, 1)));
    EXPECT_EQ(all.bytes().size(), 16 * much.size() + 1);
    EXPECT_EQ(all.gaps(), std::vector<uint64_t>{100});
}

TEST(reassembly, gives_up_what_is_missing_at_the_end)
{
    reassembly stream;
    taken all;
    stream.begin(0);
    all.take(stream.add(2, 0, bytes_from(2, 2)));
    all.take(stream.add(7, 0, bytes_from(7, 2)));
    all.take(stream.give_up());
    EXPECT_EQ(all.bytes(), joined({bytes_from(2, 2), bytes_from(7, 2)}));
    EXPECT_EQ(all.gaps(), (std::vector<uint64_t>{2, 3}));
}

TEST(reassembly, begins_anew_where_no_window_reaches)
{
    for (const uint32_t far : {1u + (1u << 26) + 6, 0u - (1u << 27)}) {
        reassembly stream;
        taken all;
        stream.begin(1);
        all.take(stream.add(1, 0, bytes_from(0, 5)));
        all.take(stream.add(far, 0, bytes_from(50, 5)));
        all.take(stream.add(far + 5, 0, bytes_from(55, 5)));
        EXPECT_EQ(all.bytes(), joined({bytes_from(0, 5), bytes_from(50, 10)})) << far;
        EXPECT_EQ(all.gaps(), std::vector<uint64_t>{0}) << far;
    }
}

TEST(reassembly, a_beginning_that_comes_again_changes_nothing)
{
    reassembly stream;
    taken all;
    stream.begin(5);
    all.take(stream.add(5, 0, bytes_from(0, 5)));
    stream.begin(5);
    EXPECT_TRUE(stream.has_begun_with(5));
    all.take(stream.add(10, 0, bytes_from(5, 5)));
    EXPECT_EQ(all.bytes(), bytes_from(0, 10));
    stream.begin(100);
    all.take(stream.add(100, 0, bytes_from(10, 5)));
    EXPECT_EQ(all.bytes(), bytes_from(0, 15));
}

// --- viewer

static rtls::recording::tap_message read_of(const std::string& topic, const bytes_t& bytes)
{
    return {topic, {0, 0, 42, 1, 0}, {bytes}};
}

static bytes_t framed(bytes_t message)
{
    message.insert(message.begin(), 0xF5);
    message.push_back(0xF7);
    return message;
}

TEST(viewer, knows_a_bridge_by_what_it_says_itself)
{
    const bytes_t asks{0x01, 0x01, 7, 0x02, 0xAB, 0x34, 0xCD, 0x56, 0x00, 0xB0, 0x01};
    const bytes_t timed = joined({{0x00, 0x02, 1, 11, 0, 0x65, 0x53, 0xF1, 0x00, 0x80, 0x00}, asks});
    for (const bytes_t& message : {asks, timed}) {
        viewer eyes;
        EXPECT_EQ(eyes.look(read_of("link/in/id-0000002A", framed({0, 0, 1})))[0].bridge, "id-0000002A");
        EXPECT_EQ(eyes.look(read_of("link/in/id-0000002A", framed(message)))[0].bridge, "02AB34CD5600B001");
        EXPECT_EQ(eyes.look(read_of("link/out/id-0000002A", framed({0, 0, 1})))[0].bridge,
                  "02AB34CD5600B001");
    }
}

TEST(viewer, forgets_the_beginning_of_one_connection_and_direction)
{
    viewer eyes;
    const bytes_t ping = framed({0, 0, 1});
    const bytes_t begun(ping.begin(), ping.begin() + 2);
    const bytes_t rest(ping.begin() + 2, ping.end());
    for (const char* topic : {"link/in/id-0000002A", "link/out/id-0000002A"})
        EXPECT_TRUE(eyes.look(read_of(topic, begun)).empty());
    eyes.forget_beginning(read_of("link/in/id-0000002A", rest));
    EXPECT_TRUE(eyes.look(read_of("link/in/id-0000002A", rest)).empty());
    EXPECT_EQ(eyes.look(read_of("link/out/id-0000002A", rest)).size(), 1u);
}

} // namespace tail
