// Texts from the proxy, on their way to the dispatcher.
#include "downlink/proxy_reader.h"
#include "downlink/win_server_pub_sub_proxy.h"
#include "support/proxy_fixture.h"
#include "support/sock.h"

namespace rtls {

namespace {

class proxy_reader : public proxy_fixture {
protected:
    proxy_reader()
    {
        zsock_set_rcvtimeo(reader.get(), 1000);
        zsock_set_sndhwm(proxy.get(), 200);
        const std::string endpoint = new_endpoint();
        EXPECT_EQ(zsock_bind(reader.get(), "%s", endpoint.c_str()), 0);
        EXPECT_EQ(zsock_connect(proxy.get(), "%s", endpoint.c_str()), 0);
    }

    void handle(const std::string& text)
    {
        zstr_send(proxy.get(), text.c_str());
        handle();
    }
    void handle() { EXPECT_EQ(handle_pub_sub_proxy(nullptr, reader.get(), server), 0); }
    void send(const texts_t& texts)
    {
        for (const std::string& text : texts)
            zstr_send(proxy.get(), text.c_str());
    }

    zsock_ptr reader{zsock_new(ZMQ_PULL)};
    zsock_ptr proxy{zsock_new(ZMQ_PUSH)};
};

} // namespace

TEST_F(proxy_reader, each_length_of_text_has_one_answer)
{
    for (size_t digits = 0; digits <= 64; ++digits) {
        SCOPED_TRACE(digits);
        handle(std::string(digits, '0'));
        EXPECT_EQ(lines("raw"), texts_t{"PROXY_RAW_INPUT: " + std::string(digits, '0')});
        texts_t error, printed;
        if (digits < 6)
            error = {"handle_pub_sub_proxy: wrong size of input data!"};
        else if (digits < 22)
            error = {"process_data_from_pub_sub_proxy: invalid input data!"};
        else
            printed = {"PROXY: Received unknown type: 0000"};
        EXPECT_EQ(errors(), error);
        EXPECT_EQ(lines("parsing"), printed);
    }
}

TEST_F(proxy_reader, an_invalid_character_anywhere_refuses_the_text)
{
    const texts_t refused{"string_to_uint8_arr: Invalid input data: [47]",
                          "handle_pub_sub_proxy: string_to_uint8_arr: wrong input data!"};
    for (size_t digits = 6; digits <= 27; ++digits)
        for (size_t at = 0; at < digits; ++at) {
            std::string text(digits, '0');
            text[at] = 'G';
            handle(text);
            EXPECT_EQ(errors(), refused) << text;
            EXPECT_EQ(lines("parsing"), texts_t{}) << text;
        }
}

TEST_F(proxy_reader, what_trails_the_last_pair_counts_only_if_it_is_no_digit)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    const struct {
        const char* trailing;
        texts_t errors;
        size_t sent;
    } cases[] = {
        {"", {}, 1},
        {"A", {}, 1},
        {"f", {}, 1},
        {"\n",
         {"string_to_uint8_arr: Invalid input data: [0A]",
          "handle_pub_sub_proxy: string_to_uint8_arr: wrong input data!"},
         0},
        {" ",
         {"string_to_uint8_arr: Invalid input data: [20]",
          "handle_pub_sub_proxy: string_to_uint8_arr: wrong input data!"},
         0},
        {"\r\n",
         {"string_to_uint8_arr: Invalid input data: [0D]",
          "handle_pub_sub_proxy: string_to_uint8_arr: wrong input data!"},
         0},
        {"\xC3",
         {"string_to_uint8_arr: Invalid input data: [FFFFFFC3]",
          "handle_pub_sub_proxy: string_to_uint8_arr: wrong input data!"},
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(hex_of(c.trailing));
        fresh_node({bridge, false, false});
        handle(digits("0810 01") + mac + c.trailing);
        EXPECT_EQ(errors(), c.errors);
        EXPECT_EQ(sent_to(bridge), texts_t(c.sent, digits("1008 01") + ip));
    }
}

TEST_F(proxy_reader, lower_case_digits_are_digits)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    add_node(mac, {bridge, false, false});
    handle("0810abe4000000000000a1");
    EXPECT_EQ(sent_to(bridge), texts_t{"1008AB" + ip});
}

TEST_F(proxy_reader, a_text_is_never_a_format)
{
    handle("100%s%n");
    EXPECT_EQ(lines("raw"), texts_t{"PROXY_RAW_INPUT: 100%s%n"});
    EXPECT_EQ(errors(), (texts_t{"string_to_uint8_arr: Invalid input data: [25]",
                                 "handle_pub_sub_proxy: string_to_uint8_arr: wrong input data!"}));
}

TEST_F(proxy_reader, a_huge_text_is_refused_by_its_type)
{
    handle("0804" + std::string(size_t{256} * 1024 - 4, '0'));
    EXPECT_EQ(errors(), texts_t{"process_data_from_pub_sub_proxy (MSG_CONF_NODE_REQ): wrong size 131072"});
}

TEST_F(proxy_reader, the_largest_command_is_taken)
{
    handle(digits("0012 00000001 00000002 FFFF") + std::string(2 * 0xFFFF, '4'));
    const texts_t printed = lines("parsing");
    ASSERT_FALSE(printed.empty());
    EXPECT_TRUE(
        printed.front().starts_with("PROXY: MSG_OTA_UPLOAD_FW mgd: 00000001 crc: 00000002 url: DDDD"));
}

TEST_F(proxy_reader, a_text_beyond_all_commands_is_refused_by_its_length)
{
    (void)lines("raw");
    handle("0804" + std::string(size_t{256} * 1024 - 3, '0'));
    EXPECT_EQ(errors(), texts_t{"handle_pub_sub_proxy: a text of 262145 bytes is too long!"});
    EXPECT_EQ(lines("raw"), texts_t{});
    handle("0810");
    EXPECT_EQ(errors(), texts_t{"handle_pub_sub_proxy: wrong size of input data!"}); // the next is taken
}

TEST_F(proxy_reader, every_message_is_a_sign_of_life)
{
    for (const char* text : {"", "00", "0810", "0810010000000000000000"}) {
        server->proxy_is_silent = true;
        handle(text);
        EXPECT_FALSE(server->proxy_is_silent) << text;
    }
}

TEST_F(proxy_reader, a_failed_receive_is_reported_and_is_a_sign_of_life_too_and_waits_for_nothing)
{
    constexpr int patience_ms = 10'000; // the daemon's has no end
    zsock_set_rcvtimeo(reader.get(), patience_ms);
    server->proxy_is_silent = true;
    const int64_t began = zclock_mono();
    EXPECT_EQ(handle_pub_sub_proxy(nullptr, reader.get(), server), 0);
    EXPECT_LT(zclock_mono() - began, patience_ms / 2);
    EXPECT_FALSE(server->proxy_is_silent);
    EXPECT_EQ(errors(), texts_t{"handle_pub_sub_proxy: zstr_recv return NULL!"});
}

// --- several texts in one call

// How many: a call has a millisecond, which is short where the machine is slow.
TEST_F(proxy_reader, one_call_takes_several_texts_but_no_more_than_64)
{
    constexpr size_t texts = 200;
    texts_t expected;
    for (size_t i = 0; i < texts; ++i)
        expected.push_back("PROXY_RAW_INPUT: " + hex16(i));
    for (size_t i = 0; i < texts; ++i)
        send({hex16(i)});
    texts_t taken;
    size_t calls = 0;
    for (; taken.size() < texts; ++calls) {
        handle();
        const texts_t now = lines("raw");
        EXPECT_GE(now.size(), 1U);
        EXPECT_LE(now.size(), 64U);
        taken.insert(taken.end(), now.begin(), now.end());
    }
    EXPECT_EQ(taken, expected);
    EXPECT_LT(calls, texts);
}

TEST_F(proxy_reader, one_call_takes_little_more_than_64_kib)
{
    send(texts_t(8, std::string(size_t{40} * 1024, 'G')));
    for (size_t taken = 0; taken < 8;) {
        handle();
        const size_t now = lines("raw").size();
        EXPECT_GE(now, 1U);
        EXPECT_LE(now, 2U);
        taken += now;
    }
}

// What follows for the same bridge would wait behind it in any case, and the library sees no room before the loop
// has asked it.
TEST_F(proxy_reader, a_call_ends_when_a_bridge_takes_no_more)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001"); // which nobody is connected for
    add_node(mac, {bridge});
    send({digits("0816010000000000000001"), digits("0810 01") + mac, digits("080E 01 0000") + mac});
    handle();
    EXPECT_EQ(sent_to(bridge), texts_t{"100801" + ip});
    handle();
    EXPECT_EQ(sent_to(bridge), texts_t{"0E08010000" + ip});
}

} // namespace rtls
