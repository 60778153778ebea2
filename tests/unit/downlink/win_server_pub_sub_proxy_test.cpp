#include "downlink/win_server_pub_sub_proxy.h"

#include "base/hex.h"
#include "downlink/page_interception.h"
#include "downlink/proxy_reader.h"
#include "firmware/firmware.h"
#include "firmware/ota.h"
#include "registry/nodes_container.h"
#include "support/proxy_fixture.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace rtls {

using win_server_pub_sub_proxy = proxy_fixture;

namespace {

// So many MACs that the registry keeps in one place, whatever its size.
std::vector<std::string> macs_of_one_hash(size_t number)
{
    std::map<uint64_t, std::vector<std::string>> by_hash;
    bytes_t mac = hex("E4 00 00 00 00 00 00 00");
    for (unsigned last = 0; last < 0x10000; ++last) {
        store_be16(mac, 6, static_cast<uint16_t>(last));
        uint64_t hash = 0; // as node_table has it
        for (const uint8_t byte : mac)
            hash = hash * 33 ^ byte;
        auto& macs = by_hash[hash];
        macs.push_back(to_hex(mac));
        if (macs.size() == number)
            return macs;
    }
    return {};
}

texts_t order_of(NODES_CONTAINER_t* nodes)
{
    texts_t macs;
    const nodes_guard guard{*nodes};
    for (const NODE_t* node = nodes_container_get_first(nodes); node; node = nodes_container_get_next(nodes))
        macs.push_back(to_hex({node->mac_addr, mac_size}));
    return macs;
}

} // namespace

// --- the dispatcher

TEST_F(win_server_pub_sub_proxy, without_a_registry_nothing_is_dispatched)
{
    const auto homeless = std::make_unique<WIN_SERVER_t>();
    bytes_t bytes = hex("0810 01" + mac);
    EXPECT_FALSE(process_data_from_pub_sub_proxy(homeless.get(), bytes.data(), bytes.size()));
    const texts_t logged = errors();
    ASSERT_FALSE(logged.empty());
    EXPECT_EQ(logged.back(), "process_data_from_pub_sub_proxy: null nodes container not found!");
    EXPECT_EQ(to_hex(bytes), digits("0810 01") + mac);
}

TEST_F(win_server_pub_sub_proxy, ten_bytes_or_less_are_no_command)
{
    for (size_t size = 1; size <= 10; ++size) {
        EXPECT_FALSE(process(repeated("08", size)));
        EXPECT_EQ(errors(), texts_t{"process_data_from_pub_sub_proxy: invalid input data!"});
    }
    EXPECT_TRUE(process(repeated("08", 11)));
    EXPECT_EQ(lines("parsing"), texts_t{"PROXY: Received unknown type: 0808"});
}

TEST_F(win_server_pub_sub_proxy, the_type_alone_changes_its_byte_order)
{
    bytes_t bytes = hex("0801 020304050607" + mac);
    EXPECT_TRUE(process_data_from_pub_sub_proxy(server, bytes.data(), bytes.size()));
    EXPECT_EQ(to_hex(bytes), digits("0108 020304050607") + mac);
    EXPECT_EQ(lines("parsing"), texts_t{"PROXY: Received unknown type: 0801"});
}

TEST_F(win_server_pub_sub_proxy, a_repeat_is_dropped_without_a_word)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    ASSERT_TRUE(sends_a_repeat_in_time(digits("0810 01") + mac, digits("0810 02") + mac, bridge));
    EXPECT_EQ(sent_to(bridge), texts_t{digits("1008 01") + ip});
    EXPECT_EQ(lines("parsing"), texts_t{"PROXY: MSG_REST_ACK dst: 00A1 seq:01"});
    EXPECT_EQ(errors(), texts_t{});
}

// The filter comes before the checks of the type.
TEST_F(win_server_pub_sub_proxy, a_repeat_of_a_malformed_command_is_dropped_without_a_word_too)
{
    const std::string too_long = digits("0810 0100") + mac;
    ASSERT_TRUE(sends_a_repeat_in_time(too_long, too_long, add_bridge("0000000001")));
    EXPECT_EQ(errors(), texts_t{"process_data_from_pub_sub_proxy (MSG_REST_ACK): wrong size 12"});
    EXPECT_EQ(lines("parsing"), texts_t{});
}

TEST_F(win_server_pub_sub_proxy, an_old_command_is_no_reason_to_drop_the_same_one)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    add_node(mac, {bridge, false, false});
    EXPECT_TRUE(process("0810 01" + mac));
    {
        const nodes_guard guard{*nodes};
        nodes_container_find_by_mac(nodes, hex(mac).data())->last_data_time.tv_sec -= 1;
    }
    EXPECT_TRUE(process("0810 01" + mac));
    EXPECT_EQ(sent_to(bridge), texts_t(2, digits("1008 01") + ip));
}

TEST_F(win_server_pub_sub_proxy, no_command_makes_a_node)
{
    for (const char* type : {"0800", "0804", "080E", "0810", "0815", "0816", "0817"})
        for (const size_t size : {11u, 13u, 21u, 26u})
            process(type + repeated("00", size - 10) + stranger);
    const nodes_guard guard{*nodes};
    EXPECT_EQ(nodes_container_get_size(nodes), 0u);
}

// Operators see the registry's order, and a look-up that meets many nodes in one place changes it: the filter's is
// one look-up, the way to the node another.
TEST_F(win_server_pub_sub_proxy, a_command_leaves_the_registry_in_the_order_of_two_look_ups)
{
    const std::vector<std::string> macs = macs_of_one_hash(6);
    nodes_container_ptr once{static_cast<NODES_CONTAINER_t*>(nodes_container_new())};
    nodes_container_ptr twice{static_cast<NODES_CONTAINER_t*>(nodes_container_new())};
    for (const std::string& one : macs)
        for (NODES_CONTAINER_t* container : {nodes, once.get(), twice.get()})
            nodes_container_find_or_create_by_mac(container, hex(one).data(), nullptr, 0);
    ASSERT_EQ(order_of(nodes), order_of(twice.get()));
    bool differs = false;
    for (const std::string& addressee : macs) {
        EXPECT_TRUE(process("081001" + addressee));
        nodes_container_find_by_mac(once.get(), hex(addressee).data());
        nodes_container_find_by_mac(twice.get(), hex(addressee).data());
        nodes_container_find_by_mac(twice.get(), hex(addressee).data());
        EXPECT_EQ(order_of(nodes), order_of(twice.get())) << addressee;
        differs = differs || order_of(nodes) != order_of(once.get());
    }
    EXPECT_TRUE(differs);
}

// Each size just above the general check, in a buffer of its own: a step that reads further is caught.
TEST_F(win_server_pub_sub_proxy, no_type_reads_past_a_short_command)
{
    add_node(mac, {add_bridge("0000000001"), true, true});
    for (const char* type : {"0012", "0800", "0804", "080D", "080E", "0810", "0815", "0816", "0817"})
        for (const char* fill : {"00", "FF"})
            for (size_t size = 11; size <= 40; ++size) {
                process(type + repeated(fill, size - 2));
                process(type + repeated(fill, size - 10) + mac);
            }
}

// --- network data

TEST_F(win_server_pub_sub_proxy, network_data_goes_on_in_the_form_that_the_node_needs)
{
    const std::string block = digits("0008 07 0003 0102030405060708 AABBCC");
    const struct {
        const char* given;
        bool forwarded_ip, direct_mask;
        std::string then;
    } cases[] = {
        {"known by address", false, false, block + ip},
        {"known by address, reached directly", false, true, block + ip},
        {"forwarded", true, false, digits("0008 00 0010") + block + ip},
        {"forwarded, reached directly", true, true, digits("0028 00 0010") + block + ip},
    };
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        fresh_node({bridge, c.forwarded_ip, c.direct_mask});
        EXPECT_EQ(printed_by("0800 07 0003 0102030405060708 AABBCC" + mac),
                  texts_t{"PROXY: MSG_NWK_DATA_15_4_REQ dst:00A1"});
        EXPECT_EQ(sent_to(bridge), texts_t{c.then});
    }
}

TEST_F(win_server_pub_sub_proxy, network_data_for_a_stranger_is_reported)
{
    EXPECT_EQ(printed_by("0800 07 0000 0102030405060708" + stranger),
              texts_t{"PROXY: MSG_NWK_DATA_15_4_REQ dst 00FF not found"});
}

TEST_F(win_server_pub_sub_proxy, network_data_must_measure_what_it_says)
{
    const std::string error = "process_data_from_pub_sub_proxy (MSG_NWK_DATA_15_4_REQ): wrong ";
    for (size_t size = 11; size <= 20; ++size)
        EXPECT_EQ(logged_by("0800" + repeated("00", size - 2)),
                  texts_t{error + "size " + std::to_string(size)});
    const struct {
        const char* given;
        size_t size, p_len;
        const char* then;
    } cases[] = {
        {"one byte more", 22, 0, "p_len 0"},
        {"one byte less", 21, 1, "p_len 1"},
        {"a length that 16 bits cannot add to", 21, 65535, "p_len 65535"},
        {"a length that wraps to the smallest size", 21, 65515, "p_len 65515"},
        {"a true length, of more than 16 bits together", 65536, 65515, "p_len 65515"},
        {"the longest true length", 65556, 65535, "p_len 65535"},
        {"a size that only fits in 16 bits", 65536 + 31, 10, "p_len 10"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_EQ(logged_by("0800 00" + hex16(c.p_len) + repeated("00", c.size - 5)),
                  texts_t{error + c.then});
    }
}

TEST_F(win_server_pub_sub_proxy, the_longest_network_data_is_forwarded_whole)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    add_node(mac, {bridge, true, false});
    const std::string rest = "00" + hex16(65514) + repeated("5A", 65535 - 13);
    EXPECT_EQ(printed_by("0800" + rest + mac), texts_t{"PROXY: MSG_NWK_DATA_15_4_REQ dst:00A1"});
    EXPECT_EQ(sent_to(bridge), texts_t{digits("0008 00 FFF7 0008") + rest + ip});
}

// --- node configuration

TEST_F(win_server_pub_sub_proxy, a_configuration_goes_on_in_the_form_and_order_that_the_node_needs)
{
    const std::string positions = "0102030405060708090A0B0C";
    const std::string swapped = digits("0403020108070605 0C0B0A09");
    const struct {
        const char* given;
        const char* role;
        bool forwarded_ip, direct_mask;
        std::string then;
    } cases[] = {
        {"known by address", "01", false, false, "04080A0B01EE" + positions + ip},
        {"known by address, reached directly", "01", false, true, "04080A0B01EE" + positions + ip},
        {"known by address, role bit 7", "81", false, false, "04080A0B81EE" + swapped + ip},
        {"forwarded", "7F", true, false, digits("0008000012 04080A0B7FEE") + positions + mac + ip},
        {"forwarded, reached directly", "01", true, true,
         digits("0028000012 04080A0B01EE") + positions + mac + ip},
        {"forwarded, role bit 7", "80", true, false, digits("0008000012 04080A0B80EE") + swapped + mac + ip},
        {"forwarded, reached directly, role bit 7", "FF", true, true,
         digits("0028000012 04080A0BFFEE") + swapped + mac + ip},
    };
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        fresh_node({bridge, c.forwarded_ip, c.direct_mask});
        std::string command = "08040A0B";
        command.append(c.role).append("EE").append(positions).append(mac);
        EXPECT_EQ(printed_by(command),
                  texts_t{std::string("PROXY: MSG_CONF_NODE_REQ dst:00A1 rf:10 rngf:11 role:") + c.role +
                          " sl:ee xyz:16909060;84281096;2314 zofs:2828"});
        const texts_t sent = sent_to(bridge);
        EXPECT_EQ(sent, texts_t{c.then});
        EXPECT_EQ(sent.at(0).size() / 2, c.forwarded_ip ? 47u : 34u);
    }
}

TEST_F(win_server_pub_sub_proxy, positions_are_printed_signed)
{
    add_node(mac, {add_bridge("0000000001"), false, false});
    EXPECT_EQ(printed_by("0804 FF 00 01 0F FFFFFFFF 80000000 8000FFFE" + mac),
              texts_t{"PROXY: MSG_CONF_NODE_REQ dst:00A1 rf:255 rngf:0 role:01 sl:0f "
                      "xyz:-1;-2147483648;-32768 zofs:-2"});
}

TEST_F(win_server_pub_sub_proxy, a_configuration_has_26_bytes)
{
    const std::string error = "process_data_from_pub_sub_proxy (MSG_CONF_NODE_REQ): wrong size ";
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    for (const size_t size : {11u, 25u, 27u, 100u}) {
        fresh_node({bridge, false, false});
        EXPECT_EQ(logged_by("0804" + repeated("00", size - 10) + mac), texts_t{error + std::to_string(size)});
    }
    EXPECT_EQ(sent_to(bridge), texts_t{});
    EXPECT_EQ(printed_by("0804" + repeated("00", 16) + stranger),
              texts_t{"PROXY: MSG_CONF_NODE_REQ dst 00FF not found"});
}

// --- acknowledgements

TEST_F(win_server_pub_sub_proxy, an_acknowledgement_is_never_wrapped)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    for (const bool forwarded_ip : {false, true}) {
        fresh_node({bridge, forwarded_ip, true});
        EXPECT_EQ(printed_by("0810 C7" + mac), texts_t{"PROXY: MSG_REST_ACK dst: 00A1 seq:C7"});
        EXPECT_EQ(sent_to(bridge), texts_t{digits("1008 C7") + ip});
    }
    EXPECT_EQ(printed_by("0810 C7" + stranger), texts_t{"PROXY: MSG_REST_ACK node: 00FF not found"});
}

TEST_F(win_server_pub_sub_proxy, an_acknowledgement_has_11_bytes)
{
    EXPECT_EQ(logged_by("0810 C700" + stranger),
              texts_t{"process_data_from_pub_sub_proxy (MSG_REST_ACK): wrong size 12"});
}

TEST_F(win_server_pub_sub_proxy, a_node_without_a_bridge_of_its_own_is_reached_through_every_bridge)
{
    WIN_CLIENT_t* one = add_bridge("0000000001");
    WIN_CLIENT_t* two = add_bridge("0000000002");
    for (const std::string& command :
         {digits("0810 C7"), digits("0800 00 0000 0000000000000000"),
          digits("0804 00 00 00 00 000000000000000000000000"), digits("080E 00 0000")}) {
        fresh_node({nullptr, false, false});
        EXPECT_TRUE(process(command + mac));
        EXPECT_EQ(sent_to(one).size(), 1u) << command;
        EXPECT_EQ(sent_to(two).size(), 1u) << command;
    }
}

// --- generic requests

TEST_F(win_server_pub_sub_proxy, the_generic_types_are_forwarded_by_their_names)
{
    const struct {
        const char* type;
        const char* swapped;
        const char* name;
    } cases[] = {
        {"080E", "0E08", "MSG_GENERIC_REQ"},
        {"0815", "1508", "MSG_SENSOR_REQ"},
        {"0816", "1608", "MSG_CONF_SENSOR_REQ"},
        {"0817", "1708", "MSG_TDOA_SCHED_CONF_REQ"},
    };
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fresh_node({bridge, false, false});
        const std::string name = std::string("PROXY: ") + c.name;
        EXPECT_EQ(printed_by(c.type + (digits("09 0002 BBCC") + mac)),
                  (texts_t{name, "GENERIC: INFO(GENERIC): dst 00A1"}));
        EXPECT_EQ(sent_to(bridge), texts_t{c.swapped + (digits("09 0002 BBCC") + ip)});
        EXPECT_EQ(printed_by(std::string(c.type) + digits("09 FFFF 00000000000000")),
                  (texts_t{name, "GENERIC: ERROR(GENERIC): wrong size rcvd: 12, expected 65548"}));
        EXPECT_EQ(printed_by(c.type + repeated("00", 799)),
                  (texts_t{name, "GENERIC: ERROR(GENERIC): msg too long, rcvd: 801"}));
    }
}

} // namespace rtls
