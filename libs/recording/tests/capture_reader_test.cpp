#include "memory_files.h"
#include "recording/capture.h"
#include "recording/pcapng.h"

#include <gtest/gtest.h>

#include <string>

namespace rtls::recording {

namespace {

using bytes_t = std::vector<uint8_t>;

// Puts numbers in the order of a file.
class composer {
public:
    explicit composer(bool is_big_endian) : m_is_big_endian(is_big_endian) {}

    composer& number(uint64_t value, size_t size)
    {
        for (size_t i = 0; i < size; ++i)
            m_bytes.push_back(static_cast<uint8_t>(value >> 8 * (m_is_big_endian ? size - 1 - i : i)));
        return *this;
    }
    composer& raw(bytes_view bytes)
    {
        m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
        return *this;
    }
    composer& pad()
    {
        m_bytes.resize((m_bytes.size() + 3) / 4 * 4);
        return *this;
    }
    // A block of pcapng.
    composer& block(uint32_t type, bytes_view body)
    {
        const size_t length = body.size() + 12;
        return number(type, 4).number(length, 4).raw(body).number(length, 4);
    }
    const bytes_t& bytes() const { return m_bytes; }

private:
    bool m_is_big_endian;
    bytes_t m_bytes;
};

struct outcome {
    std::vector<captured_packet> packets;
    reading state = reading::message;
    std::string reason;
};

outcome read_all(bytes_view bytes)
{
    memory_source source{bytes};
    capture_reader reader{source};
    outcome all;
    for (captured_packet packet; (all.state = reader.next(packet)) == reading::message;)
        all.packets.push_back(packet);
    captured_packet none;
    EXPECT_EQ(reader.next(none), all.state) << "it stays what it is";
    all.reason = reader.reason();
    return all;
}

const bytes_t payload{1, 2, 3, 4, 5};

bytes_t pcap(bool is_big_endian, uint32_t magic, uint32_t fraction)
{
    composer file{is_big_endian};
    file.number(magic, 4).number(2, 2).number(4, 2).number(0, 8).number(65535, 4).number(link_type::raw_ip,
                                                                                         4);
    for (const uint32_t seconds : {1'700'000'000u, 1'700'000'001u})
        file.number(seconds, 4).number(fraction, 4).number(payload.size(), 4).number(1500, 4).raw(payload);
    return file.bytes();
}

// A section with two interfaces: one without options, one with this resolution.
bytes_t pcapng(bool is_big_endian, uint8_t resolution, uint64_t ticks)
{
    const auto made = [&] { return composer{is_big_endian}; };
    const auto packet = [&](uint32_t interface, uint64_t at) {
        return made()
            .number(interface, 4)
            .number(at >> 32, 4)
            .number(at & UINT32_MAX, 4)
            .number(payload.size(), 4)
            .number(1500, 4)
            .raw(payload)
            .pad()
            .bytes();
    };
    const bytes_t own = made()
                            .number(link_type::cooked, 2)
                            .number(0, 6)
                            .number(2, 2) // the interface's name
                            .number(3, 2)
                            .raw(bytes_t{'l', 'o', '0'})
                            .pad()
                            .number(9, 2)
                            .number(1, 2)
                            .raw(bytes_t{resolution})
                            .pad()
                            .number(0, 4)
                            .bytes();
    return made()
        .block(0x0A0D0D0A,
               made().number(0x1A2B3C4D, 4).number(1, 2).number(0, 2).number(UINT64_MAX, 8).bytes())
        .block(1, made().number(link_type::ethernet, 2).number(0, 6).bytes())
        .block(1, own)
        .block(5, bytes_t(8)) // statistics
        .block(6, packet(0, 1'700'000'000'250'000))
        .block(6, packet(1, ticks))
        .block(6, packet(2, 1))                                                // of no interface
        .block(3, made().number(payload.size(), 4).raw(payload).pad().bytes()) // without a time
        .bytes();
}

} // namespace

TEST(capture_reader, reads_pcap_in_either_order_and_resolution)
{
    for (const bool is_big_endian : {false, true})
        for (const auto& [magic, fraction] :
             {std::pair{0xA1B2C3D4, 250'001u}, std::pair{0xA1B23C4D, 250'001'000u}}) {
            const outcome all = read_all(pcap(is_big_endian, magic, fraction));
            ASSERT_EQ(all.packets.size(), 2u) << all.reason;
            EXPECT_EQ(all.state, reading::end);
            EXPECT_EQ(all.packets[0].link_type, link_type::raw_ip);
            EXPECT_EQ(all.packets[0].clock_ns, 1'700'000'000'250'001'000u);
            EXPECT_EQ(all.packets[1].clock_ns, 1'700'000'001'250'001'000u);
            EXPECT_EQ(all.packets[1].bytes, payload);
        }
}

TEST(capture_reader, reads_pcapng_in_either_order_and_resolution)
{
    const struct {
        uint8_t resolution;
        uint64_t ticks;
        uint64_t clock_ns;
    } cases[] = {
        {9, 1'700'000'000'250'000'001, 1'700'000'000'250'000'001},
        {3, 1'700'000'000'250, 1'700'000'000'250'000'000},
        {0, 1'700'000'000, 1'700'000'000'000'000'000},
        {11, 123'456'789'012'345'678, 1'234'567'890'123'456},
        {0x7F, 5, 0},
        {0x80 + 10, (uint64_t{1'700'000'000} << 10) + 512, 1'700'000'000'500'000'000},
        {0x80 + 63, uint64_t{3} << 62, 1'500'000'000},
        {0x80 + 64, UINT64_MAX, 0},
    };
    for (const bool is_big_endian : {false, true})
        for (const auto& c : cases) {
            const outcome all = read_all(pcapng(is_big_endian, c.resolution, c.ticks));
            ASSERT_EQ(all.packets.size(), 2u) << all.reason;
            EXPECT_EQ(all.state, reading::end);
            EXPECT_EQ(all.packets[0].link_type, link_type::ethernet);
            EXPECT_EQ(all.packets[0].clock_ns, 1'700'000'000'250'000'000u)
                << "microseconds, when nothing is said";
            EXPECT_EQ(all.packets[0].bytes, payload);
            EXPECT_EQ(all.packets[1].link_type, link_type::cooked);
            EXPECT_EQ(all.packets[1].clock_ns, c.clock_ns) << int{c.resolution};
        }
}

TEST(capture_reader, interfaces_are_those_of_their_section)
{
    bytes_t both = pcapng(false, 9, 1);
    const bytes_t second = pcapng(true, 3, 1);
    both.insert(both.end(), second.begin(), second.end());
    const outcome all = read_all(both);
    ASSERT_EQ(all.packets.size(), 4u);
    EXPECT_EQ(all.packets[1].clock_ns, 1u);
    EXPECT_EQ(all.packets[3].clock_ns, 1'000'000u);
}

TEST(capture_reader, a_cut_file_ends_wherever_it_is_cut)
{
    for (const bytes_t& file : {pcap(false, 0xA1B2C3D4, 0), pcapng(false, 9, 1)})
        for (size_t size = 0; size < file.size(); ++size) {
            const outcome all = read_all(bytes_view{file}.first(size));
            EXPECT_TRUE(all.state == reading::cut || all.state == reading::end) << size;
            EXPECT_LE(all.packets.size(), 2u);
        }
    const bytes_t file = pcap(false, 0xA1B2C3D4, 0);
    EXPECT_EQ(read_all(bytes_view{file}.first(file.size() - 1)).packets.size(), 1u);
    EXPECT_EQ(read_all(bytes_view{file}.first(file.size() - 1)).state, reading::cut);
    EXPECT_EQ(read_all(bytes_view{file}.first(24)).state, reading::end);
}

TEST(capture_reader, no_length_is_believed)
{
    bytes_t file = pcap(false, 0xA1B2C3D4, 0);
    file[24 + 8 + 2] = 5; // 5 * 65536 bytes and more
    EXPECT_EQ(read_all(file).state, reading::damaged);
    EXPECT_EQ(read_all(file).reason, "a packet of an impossible length");
    file = pcapng(false, 9, 1);
    const size_t first_packet = 28 + 20 + 40 + 20;
    ASSERT_EQ(file[first_packet], 6);
    file[first_packet + 8 + 14] = 1;
    EXPECT_EQ(read_all(file).packets.size(), 1u) << "a packet that is larger than its block";
    file[28 + 20 + 8 + 8 + 2] = 0xFF;
    EXPECT_EQ(read_all(file).packets.size(), 1u) << "an option that is larger than its block";
    EXPECT_EQ(read_all(file).state, reading::end);
}

TEST(capture_reader, others_files_are_refused)
{
    const std::string text = "GIF89a, or so it says";
    EXPECT_EQ(read_all(bytes_t{text.begin(), text.end()}).reason, "this is neither a pcapng nor a pcap file");
    EXPECT_EQ(read_all(bytes_t{}).state, reading::cut);
    memory_sink sink;
    pcapng_writer writer{sink, "a test"};
    writer.write({"event", {}, {{'{', '}'}}});
    const outcome all = read_all(sink.bytes());
    ASSERT_EQ(all.packets.size(), 1u);
    EXPECT_EQ(all.packets[0].link_type, upper_pdu_link_type) << "which is no network's";
}

} // namespace rtls::recording
