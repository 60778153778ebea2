#include "downlink/generic_requests.h"
#include "support/hex_bytes.h"
#include "support/node_command_fixture.h"
#include "support/sock.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace rtls {

namespace {

const std::string mac = "E4000000000000A1";
const std::string ip = "FE80000000000000A1A2A3A4A5A6A7A8";

class generic_requests : public node_command_fixture {
protected:
    // The request's bytes stand in a heap buffer of their exact size.
    bool process(const std::string& request)
    {
        const bytes_t bytes = hex(request);
        const uint8_t nothing = 0;
        return generic_process(server, bytes.empty() ? &nothing : bytes.data(), bytes.size());
    }
};

// A request with `payload` bytes of payload.
std::string request_with(size_t payload)
{
    char header[11];
    snprintf(header, sizeof header, "0E0807%04zX", payload);
    std::string text = header;
    for (size_t i = 0; i < payload; ++i)
        text += "F6"; // a byte that the link escapes
    return text + mac;
}

} // namespace

TEST_F(generic_requests, the_frame_takes_the_form_that_the_node_needs)
{
    const struct {
        const char* given;
        bool forwarded_ip, direct_mask;
        std::string then;
    } cases[] = {
        {"known by address", false, false, "0E08070003AABBCC" + ip},
        {"known by address, reached directly", false, true, "0E08070003AABBCC" + ip},
        {"forwarded", true, false, digits("0008000008 0E08070003AABBCC") + mac + ip},
        {"forwarded, reached directly", true, true, digits("0028000008 0E08070003AABBCC") + mac + ip},
    };
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    WIN_CLIENT_t* other = add_bridge("0000000002");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        add_node(mac, {bridge, c.forwarded_ip, c.direct_mask});
        EXPECT_TRUE(process("0E08070003AABBCC" + mac));
        EXPECT_EQ(sent_to(bridge), texts_t{c.then});
        EXPECT_EQ(sent_to(other), texts_t{});
        EXPECT_EQ(lines("parsing"), texts_t{"GENERIC: INFO(GENERIC): dst 00A1"});
    }
}

// As while the gateway is being built or taken down.
TEST_F(generic_requests, without_a_registry_no_node_is_known)
{
    const WIN_CLIENT_t* bridge = add_bridge("0000000001");
    services nothing;
    services* all = std::exchange(server->rtls_gateway, &nothing);
    EXPECT_FALSE(process("0E08070003AABBCC" + mac));
    server->rtls_gateway = all;
    EXPECT_EQ(errors(), texts_t{"find_route: null pointer!"});
    EXPECT_TRUE(bridge->unsent_messages.empty());
}

TEST_F(generic_requests, sizes_from_5_to_800_are_looked_at)
{
    add_node(mac, {add_bridge("0000000001"), true, false});
    for (size_t size = 0; size <= 4; ++size) {
        EXPECT_FALSE(process(std::string(2 * size, '0')));
        EXPECT_EQ(lines("parsing"),
                  texts_t{"GENERIC: ERROR(GENERIC): msb too short, rcvd: " + std::to_string(size)});
    }
    EXPECT_FALSE(process("0E08070000"));
    EXPECT_EQ(lines("parsing"), texts_t{"GENERIC: ERROR(GENERIC): wrong size rcvd: 5, expected 13"});
    EXPECT_TRUE(process(request_with(0)));
    EXPECT_TRUE(process(request_with(800 - 13)));
    (void)lines("parsing");
    EXPECT_FALSE(process(request_with(801 - 13)));
    EXPECT_EQ(lines("parsing"), texts_t{"GENERIC: ERROR(GENERIC): msg too long, rcvd: 801"});
}

TEST_F(generic_requests, the_longest_request_is_forwarded_whole)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    add_node(mac, {bridge, true, true});
    const std::string request = request_with(787);
    EXPECT_TRUE(process(request));
    const std::string message = request.substr(0, request.size() - mac.size());
    EXPECT_EQ(sent_to(bridge), texts_t{"0028000318" + message + mac + ip});
}

TEST_F(generic_requests, the_length_must_fit_the_size)
{
    const struct {
        const char* given;
        std::string request;
        std::string then;
    } cases[] = {
        {"one byte less", digits("0E0807000A 001122334455667788") + mac, "22, expected 23"},
        {"one byte more", digits("0E0807000A 00112233445566778899AA") + mac, "24, expected 23"},
        {"the longest length, which 16 bits cannot add to", digits("0E0807FFFF 0000000000 0000"),
         "12, expected 65548"},
        {"a length that would wrap to fit", digits("0E0807FFF8 E4000000"), "9, expected 65541"},
        {"little-endian", "0E08070300AABBCC" + mac, "16, expected 781"},
    };
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    add_node(mac, {bridge, false, false});
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_FALSE(process(c.request));
        EXPECT_EQ(lines("parsing"), texts_t{"GENERIC: ERROR(GENERIC): wrong size rcvd: " + c.then});
        EXPECT_EQ(sent_to(bridge), texts_t{});
    }
}

TEST_F(generic_requests, every_truncation_is_refused)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    add_node(mac, {bridge, true, false});
    const std::string request = "0E08070003AABBCC" + mac;
    for (size_t size = 0; size < request.size() / 2; ++size)
        EXPECT_FALSE(process(request.substr(0, 2 * size))) << size;
    EXPECT_EQ(sent_to(bridge), texts_t{});
}

TEST_F(generic_requests, an_unknown_node_is_named)
{
    EXPECT_FALSE(process("0E08070000 01AB00000000CDEF"));
    EXPECT_EQ(lines("parsing"), (texts_t{"GENERIC: INFO(GENERIC): dst CDEF",
                                         "GENERIC: ERROR(GENERIC): dst 01AB00000000CDEF not found"}));
}

TEST_F(generic_requests, a_node_without_a_bridge_of_its_own_is_asked_through_every_bridge)
{
    WIN_CLIENT_t* one = add_bridge("0000000001");
    WIN_CLIENT_t* two = add_bridge("0000000002");
    add_node(mac, {nullptr, false, false});
    EXPECT_TRUE(process("0E08070000" + mac));
    EXPECT_EQ(sent_to(one), texts_t{"0E08070000" + ip});
    EXPECT_EQ(sent_to(two), texts_t{"0E08070000" + ip});
}

TEST_F(generic_requests, a_bridge_that_is_gone_does_not_change_the_result)
{
    WIN_CLIENT_t* other = add_bridge("0000000002");
    add_node(mac, {add_bridge("0000000001"), false, false});
    disconnect("0000000001");
    EXPECT_TRUE(process("0E08070000" + mac));
    EXPECT_EQ(sent_to(other), texts_t{});
}

TEST_F(generic_requests, the_registry_is_unlocked_on_every_way_out)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    process("0E08070000" + mac);          // unknown
    add_node(mac, {bridge, true, false}); // takes the lock
    process("0E08070000" + mac);
    remove_node(mac); // takes the lock
    EXPECT_EQ(sent_to(bridge).size(), 1u);
}

// --- requests of other threads

namespace {

class interthread_requests : public generic_requests {
protected:
    interthread_requests()
    {
        zsock_set_rcvtimeo(router.get(), 100);
        const std::string endpoint = new_endpoint();
        EXPECT_EQ(zsock_bind(router.get(), "%s", endpoint.c_str()), 0);
        EXPECT_EQ(zsock_connect(sender.get(), "%s", endpoint.c_str()), 0);
        bridge = add_bridge("0000000001");
        add_node(mac, {bridge, false, false});
    }

    // Sends one message of these frames and lets the server handle it.
    int handle(const std::vector<std::string>& frames)
    {
        zmsg_t* message = zmsg_new();
        for (const std::string& frame : frames) {
            const bytes_t bytes = hex(frame);
            zmsg_addmem(message, bytes.data(), bytes.size());
        }
        EXPECT_EQ(zmsg_send(&message, sender.get()), 0);
        return handle_interthread_sever_sock(nullptr, router.get(), server);
    }

    zsock_ptr router{zsock_new(ZMQ_ROUTER)};
    zsock_ptr sender{zsock_new(ZMQ_PUSH)};
    WIN_CLIENT_t* bridge = nullptr;
};

const std::string good = "0E08070000" + mac;

} // namespace

TEST_F(interthread_requests, the_last_frame_of_a_command_0_is_forwarded)
{
    const texts_t dst{"GENERIC: INFO(GENERIC): dst 00A1"};
    const struct {
        const char* given;
        std::vector<std::string> frames;
        texts_t printed;
        size_t sent;
    } cases[] = {
        {"a request", {"00000000", good}, dst, 1},
        {"frames in between", {"00000000", "0102", "", good}, dst, 1},
        {"a longer command frame", {"0000000001", good}, dst, 1},
        {"no data", {"00000000"}, {"GENERIC: ERROR(GENERIC): msb too short, rcvd: 4"}, 0},
        {"an empty last frame",
         {"00000000", good, ""},
         {"GENERIC: ERROR(GENERIC): msb too short, rcvd: 0"},
         0},
        {"command 1", {"01000000", good}, {}, 0},
        {"command 0x01000000", {"00000001", good}, {}, 0},
        {"command -1", {"FFFFFFFF", good}, {}, 0},
        {"a short command frame", {"000000", good}, {}, 0},
        {"an empty command frame", {"", good}, {}, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_EQ(handle(c.frames), 0);
        EXPECT_EQ(lines("parsing"), c.printed);
        EXPECT_EQ(sent_to(bridge), texts_t(c.sent, "0E08070000" + ip));
        EXPECT_EQ(errors(), texts_t{});
    }
}

TEST_F(interthread_requests, a_message_without_frames_behind_the_identity_is_dropped)
{
    // A router that forwards for itself: the identity alone.
    const std::string endpoint = new_endpoint();
    const zsock_ptr pull{zsock_new_pull(("@" + endpoint).c_str())};
    const zsock_ptr push{zsock_new_push((">" + endpoint).c_str())};
    zstr_send(push.get(), "id");
    EXPECT_EQ(handle_interthread_sever_sock(nullptr, pull.get(), server), 0);
    const texts_t logged = errors();
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_TRUE(logged[0].starts_with("handle_interthread_sever_sock: zmsg_pop: ")) << logged[0];
    EXPECT_EQ(lines("parsing"), texts_t{});
}

TEST_F(interthread_requests, an_empty_receive_ends_the_loop)
{
    zsock_set_rcvtimeo(router.get(), 0);
    EXPECT_EQ(handle_interthread_sever_sock(nullptr, router.get(), server), -1);
}

} // namespace rtls
