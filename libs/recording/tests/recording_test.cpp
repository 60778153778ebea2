#include "memory_files.h"
#include "recording/files.h"
#include "recording/packet.h"
#include "recording/pcapng.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

namespace rtls::recording {

namespace {

using bytes_t = std::vector<uint8_t>;

struct outcome {
    std::vector<tap_message> messages;
    reading state = reading::message;
    std::string reason;
    uint64_t passed_over = 0;
};

outcome read_all(byte_source& source)
{
    outcome all;
    pcapng_reader reader{source};
    for (tap_message message; (all.state = reader.next(message)) == reading::message;)
        all.messages.push_back(message);
    all.reason = reader.reason();
    all.passed_over = reader.passed_over();
    return all;
}

outcome read_all(bytes_view bytes)
{
    memory_source source{bytes};
    return read_all(source);
}

tap_message report(uint64_t number)
{
    return {"report/E45E510000010202",
            {way::up, 0, 0x2A, number, 1'700'000'000'250'000'000},
            {{0x65, 0x53, 0xF1, 0x00, 0x00, 0xFA}, {0x01, 0x06, 0x01}}};
}

const std::vector<tap_message> samples{
    report(1),
    {"event", {way::neither, 0, 0, 1, 1'700'000'000'300'000'001}, {{'{', '}'}}},
    {"link/in/id-0000002A", {way::up, 7, 0x2A, UINT64_MAX, 0}, {{}, bytes_t(100'000, 0xF5)}},
    {"later", {9, 0, 0, 3, 5}, {}}};

bytes_t file_of(const std::vector<tap_message>& messages)
{
    memory_sink sink;
    pcapng_writer writer{sink, "a test"};
    for (const tap_message& message : messages)
        EXPECT_TRUE(writer.write(message));
    return sink.bytes();
}

void swap_at(bytes_t& bytes, size_t at, size_t size)
{
    std::reverse(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                 bytes.begin() + static_cast<std::ptrdiff_t>(at + size));
}

void swap_block(bytes_t& file, size_t at, std::initializer_list<std::pair<size_t, size_t>> fields)
{
    const size_t length = load_le32(file, at + 4);
    for (const auto& [offset, size] : fields)
        swap_at(file, at + offset, size);
    swap_at(file, at, 4);
    swap_at(file, at + 4, 4);
    swap_at(file, at + length - 4, 4);
}

// The other byte order, in what a reader looks at.
bytes_t swapped(bytes_t file)
{
    const size_t interface = load_le32(file, 4);
    const size_t packet = interface + load_le32(file, interface + 4);
    swap_block(file, packet, {{8, 4}, {12, 4}, {16, 4}, {20, 4}, {24, 4}});
    swap_block(file, interface, {{8, 2}});
    swap_block(file, 0, {{8, 4}});
    return file;
}

class temp_name {
public:
    temp_name() : m_name(testing::TempDir() + "recording-" + std::to_string(::getpid())) {}
    temp_name(const temp_name&) = delete;
    temp_name& operator=(const temp_name&) = delete;
    ~temp_name() { std::remove(m_name.c_str()); }
    const std::string& str() const { return m_name; }

private:
    std::string m_name;
};

} // namespace

TEST(tap_message, head_has_its_bytes)
{
    const bytes_t expected{1,    1,    0,    0,    0x00, 0x00, 0x00, 0x2A, 0x01, 0x02, 0x03, 0x04,
                           0x05, 0x06, 0x07, 0x08, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18};
    const tap_head head{way::down, 0, 0x2A, 0x0102030405060708, 0x1112131415161718};
    const auto bytes = compose_head(head);
    EXPECT_EQ(bytes_t(bytes.begin(), bytes.end()), expected);
    tap_head parsed;
    EXPECT_TRUE(parse_head(expected, parsed));
    EXPECT_EQ(parsed, head);
}

TEST(tap_message, head_of_another_size_or_version_is_none)
{
    const auto bytes = compose_head({});
    bytes_t other{bytes.begin(), bytes.end()};
    tap_head head;
    other.push_back(0);
    EXPECT_FALSE(parse_head(other, head));
    other.resize(23);
    EXPECT_FALSE(parse_head(other, head));
    other.push_back(0);
    other[0] = 2;
    EXPECT_FALSE(parse_head(other, head));
}

TEST(tap_message, topic_tells_class_and_subject)
{
    EXPECT_EQ(class_of("report/E45E510000010202"), message_class::report);
    EXPECT_EQ(subject_of("report/E45E510000010202"), "E45E510000010202");
    EXPECT_EQ(class_of("link/out/id-0000002A"), message_class::link_out);
    EXPECT_EQ(subject_of("link/out/id-0000002A"), "id-0000002A");
    EXPECT_EQ(class_of("event"), message_class::event);
    EXPECT_EQ(subject_of("event"), "");
    EXPECT_EQ(class_name(message_class::link_in), "link/in");
    EXPECT_EQ(class_name(message_class::other), "other");
    EXPECT_EQ(class_of("events"), message_class::other);
    EXPECT_EQ(class_of("link/inner"), message_class::other);
    EXPECT_EQ(class_of(""), message_class::other);
}

TEST(packet, has_tags_topic_head_and_frames)
{
    const bytes_t packet = compose_packet({"event", {way::neither, 0, 0, 1, 2}, {{'h', 'i'}, {}}});
    const bytes_t expected{0, 12, 0, 8,   'r', 't', 'l', 's', '_', 't', 'a', 'p', 0, 0, 0,
                           0, 0,  5, 'e', 'v', 'e', 'n', 't', 1,   2,   0,   0,   0, 0, 0,
                           0, 0,  0, 0,   0,   0,   0,   0,   1,   0,   0,   0,   0, 0, 0,
                           0, 2,  0, 0,   0,   2,   'h', 'i', 0,   0,   0,   0};
    EXPECT_EQ(packet, expected);
}

TEST(packet, cut_anywhere_is_none_or_has_fewer_frames)
{
    const bytes_t packet = compose_packet(report(1));
    for (size_t size = 0; size < packet.size(); ++size) {
        tap_message message;
        if (parse_packet(bytes_view{packet}.first(size), message))
            EXPECT_LT(message.payload.size(), 2u) << size;
        else
            EXPECT_TRUE(message.topic.empty());
    }
}

TEST(pcapng, gives_back_what_was_written)
{
    const outcome all = read_all(file_of(samples));
    EXPECT_EQ(all.messages, samples);
    EXPECT_EQ(all.state, reading::end);
    EXPECT_EQ(all.passed_over, 0u);
}

TEST(pcapng, reads_the_other_byte_order)
{
    const outcome all = read_all(swapped(file_of({report(7)})));
    ASSERT_EQ(all.messages.size(), 1u) << all.reason;
    EXPECT_EQ(all.messages[0], report(7));
    EXPECT_EQ(all.state, reading::end);
}

TEST(pcapng, sections_may_follow_each_other)
{
    bytes_t both = file_of({report(1)});
    const bytes_t second = swapped(file_of({report(2)}));
    both.insert(both.end(), second.begin(), second.end());
    EXPECT_EQ(read_all(both).messages, (std::vector{report(1), report(2)}));
}

TEST(pcapng, a_cut_block_is_an_end_wherever_it_is_cut)
{
    const bytes_t file = file_of({report(1), report(2)});
    const size_t second = file_of({report(1)}).size();
    for (size_t size = second; size < file.size(); ++size) {
        const outcome all = read_all(bytes_view{file}.first(size));
        EXPECT_EQ(all.messages.size(), 1u);
        EXPECT_EQ(all.state, size == second ? reading::end : reading::cut) << size;
    }
    EXPECT_EQ(read_all(bytes_t{}).state, reading::cut);
}

TEST(pcapng, no_length_is_believed)
{
    const bytes_t file = file_of({report(1)});
    const size_t interface = load_le32(file, 4);
    const size_t packet = interface + load_le32(file, interface + 4);
    for (const uint32_t lie :
         {uint32_t{0}, uint32_t{8}, uint32_t{13}, uint32_t{16}, UINT32_MAX, UINT32_MAX - 3}) {
        for (const size_t block : {size_t{0}, interface, packet}) {
            bytes_t damaged = file;
            for (size_t i = 0; i < 4; ++i)
                damaged[block + 4 + i] = static_cast<uint8_t>(lie >> 8 * i);
            const outcome all = read_all(damaged);
            EXPECT_EQ(all.state, reading::damaged) << block << ' ' << lie;
            EXPECT_FALSE(all.reason.empty());
        }
        bytes_t damaged = file; // the packet's own size
        damaged[packet + 20] = damaged[packet + 24] = static_cast<uint8_t>(lie);
        damaged[packet + 22] = damaged[packet + 26] = static_cast<uint8_t>(lie >> 16);
        EXPECT_TRUE(read_all(damaged).messages.empty());
        EXPECT_EQ(read_all(damaged).passed_over, 1u);
    }
}

TEST(pcapng, a_block_that_promises_megabytes_takes_what_there_is)
{
    bytes_t file = file_of({});
    const bytes_t promise{6, 0, 0, 0, 0, 0, 0, 4, 1, 2, 3};
    file.insert(file.end(), promise.begin(), promise.end());
    EXPECT_EQ(read_all(file).state, reading::cut);
}

TEST(pcapng, others_packets_are_passed_over)
{
    bytes_t file = file_of({report(1)});
    file[load_le32(file, 4) + 8] = 1; // an Ethernet
    EXPECT_EQ(read_all(file).passed_over, 1u);
    EXPECT_EQ(read_all(file).state, reading::end);
    file[0] = 0;
    EXPECT_EQ(read_all(file).reason, "this is no pcapng file");
}

TEST(files, keep_what_is_flushed_compressed_or_not)
{
    for (const bool is_compressed : {false, true}) {
        const temp_name name;
        const auto sink = create_recording(name.str(), {is_compressed, false});
        pcapng_writer writer{*sink, "a test"};
        for (const tap_message& message : samples)
            writer.write(message);
        sink->flush(); // a writer that is killed now
        EXPECT_EQ(read_all(*open_recording(name.str())).messages, samples);
        sink->close();
        const outcome all = read_all(*open_recording(name.str()));
        EXPECT_EQ(all.messages, samples);
        EXPECT_EQ(all.state, reading::end);
    }
}

TEST(files, a_damaged_frame_is_told_with_its_place)
{
    const temp_name name;
    const auto sink = create_recording(name.str(), {true, false});
    pcapng_writer writer{*sink, "a test"};
    for (uint64_t number = 1; number <= 2000; ++number) {
        writer.write(report(number * number * number));
        if (number == 1000)
            sink->flush();
    }
    sink->close();
    const auto size = std::filesystem::file_size(name.str());
    std::fstream{name.str(), std::ios::in | std::ios::out | std::ios::binary}
        .seekp(static_cast<std::streamoff>(size - 100))
        .write("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 8);
    const auto source = open_recording(name.str());
    try {
        std::vector<uint8_t> room(
            1 << 20); // the whole of it: damage may also give other bytes before it is seen
        while (source->read(room) > 0) {
        }
        FAIL() << "it was read";
    } catch (const file_error& why) {
        const std::string text = why.what();
        const size_t at = text.find(" behind byte ");
        ASSERT_NE(at, std::string::npos) << text;
        EXPECT_GT(std::stoul(text.substr(at + 13)), size / 4) << text;
        EXPECT_LE(std::stoul(text.substr(at + 13)), size) << text;
    }
}

TEST(files, a_replaced_one_has_nothing_of_the_old)
{
    const temp_name name;
    std::ofstream{name.str()} << std::string(10'000, 'x');
    create_recording(name.str(), {false, true})->close();
    EXPECT_EQ(std::filesystem::file_size(name.str()), 0u);
}

TEST(files, none_is_replaced_unasked)
{
    const temp_name name;
    create_recording(name.str(), {})->close();
    EXPECT_THROW(create_recording(name.str(), {}), file_error);
    EXPECT_NO_THROW(create_recording(name.str(), {false, true})->close());
    EXPECT_THROW(open_recording("/nowhere/a.pcapng"), file_error);
}

TEST(files, a_full_disk_is_told)
{
    const auto sink = create_recording("/dev/full", {false, true});
    pcapng_writer writer{*sink, "a test"};
    EXPECT_THROW(sink->close(), file_error);
}

} // namespace rtls::recording
