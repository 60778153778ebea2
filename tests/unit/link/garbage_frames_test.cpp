// Frames that nobody should send. Each stands in a buffer of its own size: under the sanitizers a read
// past the received bytes ends the test.
#include "base/hex.h"
#include "support/bridge_message_fixture.h"

#include <algorithm>
#include <random>

namespace rtls {

namespace {

class garbage_frames : public bridge_message_fixture {
protected:
    // Whatever a frame says, it causes one message at most on each way, and none when it is refused.
    void receive_garbage(const bytes_t& frame)
    {
        const size_t before = node_count();
        const bool accepted = receive(frame);
        const size_t answers = replies().size();
        const size_t upstream = reports().size() + management_texts().size();
        (void)sent_to(other_bridge);
        ASSERT_LE(answers, 2U); // a broadcast or a page, and an ack
        ASSERT_LE(upstream, 1U);
        ASSERT_LE(node_count(), before + 2); // the envelope's and the message's own
        if (!accepted) {
            ASSERT_EQ(answers, 0U);
            ASSERT_EQ(upstream, 0U);
        }
    }

    size_t below(size_t limit) { return m_random() % limit; }

    bytes_t random_bytes(size_t size)
    {
        bytes_t bytes(size);
        for (uint8_t& b : bytes)
            b = static_cast<uint8_t>(m_random());
        return bytes;
    }

    std::mt19937 m_random{20240501};
};

const bytes_t& pick(const std::vector<bytes_t>& from, size_t index)
{
    return from[index % from.size()];
}

std::vector<bytes_t> sound_messages()
{
    const bytes_t address = hex(sender_ip);
    std::vector<bytes_t> messages{
        hex("00 00 01"), heartbeat(),      heartbeat({.type = 0x310F}),
        panid_req(1),    announce_root(1), payload_message(0x1116, 1, ramp(20)) + address,
    };
    for (const uint16_t code :
         {uint16_t{10}, uint16_t{16}, uint16_t{17}, uint16_t{40}, uint16_t{48}, uint16_t{99}})
        for (const size_t size : {12U, 37U})
            messages.push_back(generic_req(1, code, ramp(size)) + address);
    for (size_t i = 0, n = messages.size(); i < n; i++) {
        messages.push_back(envelope(messages[i], sender_mac, i % 2 == 0 ? 0x1100 : 0x2A00));
        messages.push_back(with_timestamp(messages[i]));
        messages.push_back(with_timestamp(envelope(messages[i])));
    }
    messages.push_back(envelope(heartbeat_body({.seq = 3})));
    return messages;
}

} // namespace

TEST_F(garbage_frames, any_message_may_be_cut_anywhere)
{
    introduce(sender_mac, sender_ip);
    for (const bytes_t& whole : sound_messages())
        for (size_t size = 0; size <= whole.size(); size++) {
            SCOPED_TRACE(testing::Message() << to_hex(whole) << " cut to " << size);
            receive_garbage(slice(whole, 0, size));
            if (HasFatalFailure())
                return;
        }
}

TEST_F(garbage_frames, an_envelope_may_hold_anything_cut_anywhere)
{
    for (const bytes_t& inner : sound_messages())
        for (size_t size = 0; size <= inner.size(); size++) {
            SCOPED_TRACE(testing::Message() << to_hex(inner) << " cut to " << size);
            receive_garbage(envelope(slice(inner, 0, size)));
            if (HasFatalFailure())
                return;
        }
}

TEST_F(garbage_frames, random_bytes_of_any_length_do_no_harm)
{
    for (size_t size = 0; size <= 100; size++)
        for (int i = 0; i < 100; i++) {
            bytes_t frame = random_bytes(size);
            if (size > 1 && i % 2 == 0) { // half of them under a type that is handled
                frame[0] = static_cast<uint8_t>(below(24));
                frame[1] = static_cast<uint8_t>(m_random() & 0x30) | 1;
            }
            SCOPED_TRACE(to_hex(frame));
            receive_garbage(frame);
            if (HasFatalFailure())
                return;
        }
}

TEST_F(garbage_frames, lengths_at_the_end_of_16_bits_do_no_harm)
{
    introduce(sender_mac, sender_ip);
    for (unsigned total_len = 65530; total_len <= 65535; total_len++)
        for (const unsigned type : {0x1116U, 0x110EU, 0x0100U, 0x0A00U, 0x0200U})
            for (const size_t size : {5U, 6U, 16U, 19U, 20U, 21U, 23U, 29U, 30U, 40U, 44U, 100U})
                for (const unsigned code : {0U, 10U, 16U, 17U, 40U, 48U}) {
                    bytes_t frame = le16(type) + bytes_t{1} + le16(total_len) + bytes_t{0} + le16(code) +
                                    random_bytes(100);
                    frame.resize(size);
                    SCOPED_TRACE(to_hex(frame));
                    receive_garbage(frame);
                    receive_garbage(envelope(frame));
                    if (HasFatalFailure())
                        return;
                }
}

TEST_F(garbage_frames, sound_messages_with_a_few_wrong_bytes_do_no_harm)
{
    introduce(sender_mac, sender_ip);
    const std::vector<bytes_t> sound = sound_messages();
    for (int i = 0; i < 20'000; i++) {
        bytes_t frame = pick(sound, m_random());
        for (size_t changes = below(4); changes > 0; changes--)
            frame[below(std::min<size_t>(frame.size(), 24))] = static_cast<uint8_t>(m_random());
        if (below(4) == 0)
            frame.resize(below(frame.size() + 10));
        SCOPED_TRACE(to_hex(frame));
        receive_garbage(frame);
        if (HasFatalFailure())
            return;
    }
}

} // namespace rtls
