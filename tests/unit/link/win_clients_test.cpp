#include "link/win_clients.h"

#include "base/czmq_ptr.h"
#include "support/failing_new.h"
#include "support/hex_bytes.h"
#include "support/log_capture.h"
#include "wire/slip.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace rtls {

using testing::ElementsAre;

namespace {

using frame_list = std::vector<bytes_t>;

// A record as the connection handler makes it, and the frames its decoder delivers.
class decoder {
public:
    decoder()
    {
        const zframe_ptr id{zframe_new("\0abcd", 5)};
        client = win_client_new(id.get());
    }
    ~decoder()
    {
        void* record = client;
        win_client_destroy(&record);
    }
    decoder(const decoder&) = delete;
    decoder& operator=(const decoder&) = delete;

    void feed(bytes_view bytes)
    {
        win_client_decode(*client, bytes, [this](WIN_CLIENT_t& c) {
            frames.emplace_back(c.pending_data.get(), c.pending_data + c.pending_data_size);
        });
    }

    WIN_CLIENT_t* client;
    frame_list frames;
};

frame_list frames_from(bytes_view stream, size_t bytes_a_read)
{
    decoder d;
    for (; !stream.empty(); stream = stream.subspan(std::min(bytes_a_read, stream.size())))
        d.feed(stream.first(std::min(bytes_a_read, stream.size())));
    return d.frames;
}

bytes_t framed(bytes_view message)
{
    bytes_t out(slip_encoded_limit(message.size()));
    out.resize(slip_encode(message, out.data()));
    return out;
}

// The transition table, a byte at a time and without any limit.
class table_decoder {
public:
    void feed(uint8_t b)
    {
        switch (m_state) {
        case PS_NONE:
            m_state = b == slip_start ? PS_START : PS_NONE;
            return;
        case PS_START:
            m_frame.clear();
            if (b != slip_start)
                m_state = b == slip_esc ? PS_ESCAPE : b == slip_end ? PS_NONE : append(b);
            return;
        case PS_ESCAPE:
            m_state = append(b);
            return;
        case PS_DATA:
            if (b == slip_end)
                frames.push_back(m_frame);
            m_state = b == slip_start ? PS_START
                      : b == slip_esc ? PS_ESCAPE
                      : b == slip_end ? PS_NONE
                                      : append(b);
        }
    }
    frame_list frames;

private:
    PARSING_STATE append(uint8_t b)
    {
        m_frame.push_back(b);
        return PS_DATA;
    }
    PARSING_STATE m_state = PS_NONE;
    bytes_t m_frame;
};

} // namespace

TEST(win_client_new, gives_a_fresh_record_with_its_own_copy_of_the_identity)
{
    const zframe_ptr id{zframe_new("\0abcd", 5)};
    WIN_CLIENT_t* client = win_client_new(id.get());
    ASSERT_NE(client, nullptr);
    EXPECT_NE(client->id, id.get());
    EXPECT_TRUE(zframe_eq(client->id, id.get()));
    EXPECT_EQ(client->pending_data, nullptr);
    EXPECT_EQ(client->pending_data_size, 0U);
    EXPECT_EQ(client->pending_buffsize, 0U);
    EXPECT_EQ(client->parsing_state, PS_NONE);
    EXPECT_EQ(bytes_t(client->mac_addr, client->mac_addr + mac_size), bytes_t(mac_size));
    EXPECT_FALSE(client->firmware_updated);
    EXPECT_EQ(client->connection_delay, 5U);
    EXPECT_EQ(client->unsent_messages.size(), 0U);
    void* record = client;
    win_client_destroy(&record);
    EXPECT_EQ(record, nullptr);
}

TEST(win_client_new, a_record_that_memory_is_too_short_for_is_reported)
{
    if (!allocations_can_fail())
        GTEST_SKIP() << "the sanitizer owns the operators";
    log_capture log;
    const zframe_ptr id{zframe_new("\0abcd", 5)};
    fail_next_allocations(1);
    EXPECT_EQ(win_client_new(id.get()), nullptr);
    EXPECT_THAT(log.messages("main"), ElementsAre("win_client_new: out of memory!"));
}

TEST(win_client_destroy, takes_what_is_there)
{
    log_capture log;
    void* nothing = nullptr;
    win_client_destroy(&nothing);
    EXPECT_THAT(log.messages("main"), ElementsAre());

    const zframe_ptr id{zframe_new("\0abcd", 5)};
    WIN_CLIENT_t* client = win_client_new(id.get());
    ASSERT_TRUE(win_client_increase_buffer_size(client));
    EXPECT_TRUE(client->unsent_messages.append(hex("01")));
    EXPECT_TRUE(client->unsent_messages.append(hex("02")));
    void* record = client;
    win_client_destroy(&record); // the leak checker sees whether anything stays
    EXPECT_EQ(record, nullptr);
}

TEST(win_client_increase_buffer_size, grows_by_512_bytes_and_keeps_the_content)
{
    decoder d;
    ASSERT_TRUE(win_client_increase_buffer_size(d.client));
    EXPECT_EQ(d.client->pending_buffsize, 512U);
    std::ranges::fill(std::span{d.client->pending_data.get(), 512}, uint8_t{0xAB});
    ASSERT_TRUE(win_client_increase_buffer_size(d.client));
    EXPECT_EQ(d.client->pending_buffsize, 1024U);
    EXPECT_EQ(bytes_t(d.client->pending_data.get(), d.client->pending_data + 512), bytes_t(512, 0xAB));
}

TEST(win_client_increase_buffer_size, ends_at_one_mebibyte)
{
    log_capture log;
    decoder d;
    while (d.client->pending_buffsize < pending_data_limit)
        ASSERT_TRUE(win_client_increase_buffer_size(d.client));
    const uint8_t* before = d.client->pending_data;
    EXPECT_FALSE(win_client_increase_buffer_size(d.client));
    EXPECT_EQ(d.client->pending_data, before);
    EXPECT_EQ(d.client->pending_buffsize, pending_data_limit);
    EXPECT_THAT(log.messages("main"), ElementsAre("win_client_increase_buffer_size: out of memory!"));
}

TEST(win_client_decoder, stream_bytes_become_frames)
{
    const struct {
        const char* given;
        const char* stream;
        frame_list then;
    } cases[] = {
        {"an empty frame", "F5 F7", {}},
        {"an escaped END inside", "F5 01 F6 F7 02 F7", {hex("01 F7 02")}},
        {"every special byte escaped", "F5 F6 F5 F6 F6 F6 F7 F7", {hex("F5 F6 F7")}},
        {"an ordinary byte escaped", "F5 01 F6 02 F7", {hex("01 02")}},
        {"noise before START", "00 FF F6 F7 F5 0A F7", {hex("0A")}},
        {"noise between frames", "F5 01 F7 02 F6 03 F7 F5 04 F7", {hex("01"), hex("04")}},
        {"START inside a frame", "F5 01 02 F5 03 F7", {hex("03")}},
        {"START after an escaped byte", "F5 F6 F5 F5 03 F7", {hex("03")}},
        {"several STARTs", "F5 F5 F5 03 F7", {hex("03")}},
        {"two frames", "F5 01 F7 F5 02 F7", {hex("01"), hex("02")}},
        {"END without START", "01 F7", {}},
        {"a frame without END", "F5 01 02", {}},
        {"an empty frame, then one", "F5 F7 F5 01 F7", {hex("01")}},
        {"START straight after END", "F5 01 F7 F7 F5 02 F7", {hex("01"), hex("02")}},
        {"an escape left open at END", "F5 01 F6 F7", {}},
    };
    for (const auto& c : cases)
        for (const size_t chunk : {1u, 2u, 3u, 64u}) {
            SCOPED_TRACE(testing::Message() << c.given << ", " << chunk << " bytes a read");
            EXPECT_EQ(frames_from(hex(c.stream), chunk), c.then);
        }
}

TEST(win_client_decoder, state_and_partial_frame_survive_between_reads)
{
    decoder d;
    d.feed(hex("F5 01"));
    EXPECT_EQ(d.client->parsing_state, PS_DATA);
    d.feed(hex("F6"));
    EXPECT_EQ(d.client->parsing_state, PS_ESCAPE);
    d.feed({});
    EXPECT_EQ(d.client->parsing_state, PS_ESCAPE);
    d.feed(hex("F7 02 F7"));
    EXPECT_EQ(d.client->parsing_state, PS_NONE);
    EXPECT_EQ(d.frames, frame_list{hex("01 F7 02")});
    d.feed(hex("F5"));
    EXPECT_EQ(d.client->parsing_state, PS_START);
    EXPECT_EQ(d.client->pending_data_size, 3U) << "the old content stays until the next frame begins";
    d.feed(hex("0A"));
    EXPECT_EQ(d.client->pending_data_size, 1U);
}

TEST(win_client_decoder, a_frame_cut_at_every_place_is_the_same_frame)
{
    const bytes_t stream =
        hex("FF F5") + ramp(20) + hex("F6 F5 F6 F6") + ramp(20) + hex("F6 F7 F7 00 F5 01 F7");
    const frame_list whole = frames_from(stream, stream.size());
    ASSERT_EQ(whole.size(), 2U);
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
        decoder d;
        d.feed(bytes_view{stream}.first(cut));
        d.feed(bytes_view{stream}.subspan(cut));
        ASSERT_EQ(d.frames, whole) << "cut at " << cut;
    }
}

TEST(win_client_decoder, any_bytes_are_decoded_by_the_transition_table)
{
    std::mt19937 random{20240502};
    std::uniform_int_distribution<int> near_special{0xF3, 0xF9};
    std::uniform_int_distribution<size_t> size{1, 40};
    decoder d;
    table_decoder table;
    for (int round = 0; round < 5000; ++round) {
        bytes_t read(size(random));
        std::ranges::generate(read, [&] { return static_cast<uint8_t>(near_special(random)); });
        d.feed(read);
        std::ranges::for_each(read, [&](uint8_t b) { table.feed(b); });
        ASSERT_EQ(d.frames, table.frames);
        d.frames.clear();
        table.frames.clear();
    }
}

TEST(win_client_decoder, random_messages_come_back_from_any_cut)
{
    std::mt19937 random{20240503};
    std::uniform_int_distribution<size_t> size{1, 3000};
    std::uniform_int_distribution<size_t> read_size{1, 700};
    std::uniform_int_distribution<int> byte_value{0, 255};
    frame_list messages(200);
    bytes_t stream;
    for (bytes_t& message : messages) {
        message.resize(size(random));
        std::ranges::generate(message, [&] { return static_cast<uint8_t>(byte_value(random)); });
        stream = std::move(stream) + framed(message);
    }
    decoder d;
    for (bytes_view left = stream; !left.empty();) {
        const bytes_view read = left.first(std::min(read_size(random), left.size()));
        d.feed(read);
        left = left.subspan(read.size());
    }
    EXPECT_EQ(d.frames, messages);
}

TEST(win_client_decoder, the_buffer_grows_only_when_it_is_full)
{
    const struct {
        size_t message;
        size_t capacity;
    } cases[] = {{1, 512}, {511, 512}, {512, 512}, {513, 1024}, {1024, 1024}, {1025, 1536}, {2000, 2048}};
    for (const auto& c : cases) {
        decoder d;
        ASSERT_TRUE(win_client_increase_buffer_size(d.client));
        d.feed(framed(bytes_t(c.message, 0x11)));
        EXPECT_EQ(d.client->pending_buffsize, c.capacity) << c.message;
        EXPECT_EQ(d.frames, frame_list{bytes_t(c.message, 0x11)});
    }
}

TEST(win_client_decoder, a_frame_of_one_mebibyte_is_taken_and_a_longer_one_dropped)
{
    log_capture log;
    decoder d;
    const bytes_t longest(pending_data_limit, 0x11);
    d.feed(framed(longest));
    EXPECT_EQ(d.frames, frame_list{longest});
    EXPECT_THAT(log.messages("main"), ElementsAre());

    for (const bytes_t& too_much : {hex("22"), hex("F6 F7"), hex("22 22 22")}) {
        d.frames.clear();
        d.feed(hex("F5") + longest + too_much + hex("33 F7 44"));
        EXPECT_EQ(d.client->parsing_state, PS_NONE);
        d.feed(hex("F5 01 F7"));
        EXPECT_EQ(d.frames, frame_list{hex("01")});
        EXPECT_THAT(log.messages("main"), ElementsAre("win_client_increase_buffer_size: out of memory!"));
    }
}

} // namespace rtls
