#include "downlink/win_server_pub_sub_proxy.h"

#include "base/hex.h"
#include "downlink/page_interception.h"
#include "downlink/proxy_reader.h"
#include "firmware/firmware.h"
#include "firmware/ota.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "support/hex_bytes.h"
#include "support/node_command_fixture.h"
#include "support/sock.h"
#include "support/temp_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace rtls {

namespace {

const std::string mac = "E4000000000000A1";
const std::string stranger = "E4000000000000FF";
const std::string ip = "FE80000000000000A1A2A3A4A5A6A7A8";

using texts = std::vector<std::string>;

std::string hex_of(const std::string& text)
{
    return to_hex({reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

std::string hex32(uint32_t value)
{
    char text[9];
    snprintf(text, sizeof text, "%08X", value);
    return text;
}

std::string hex16(size_t value)
{
    char text[17];
    snprintf(text, sizeof text, "%04zX", value);
    return text;
}

std::string repeated(const std::string& digits, size_t times)
{
    std::string text;
    for (size_t i = 0; i < times; ++i)
        text += digits;
    return text;
}

class proxy_test : public node_command_fixture {
protected:
    // The command's bytes stand in a heap buffer of their exact size.
    bool process(const std::string& command)
    {
        bytes_t bytes = hex(command);
        return process_data_from_pub_sub_proxy(server, bytes.data(), bytes.size());
    }
    // A command that the dispatcher takes; what it printed in section parsing.
    texts printed_by(const std::string& command)
    {
        EXPECT_TRUE(process(command));
        return lines("parsing");
    }
    // The same, for a command whose form is wrong: what it logged as errors.
    texts logged_by(const std::string& command)
    {
        EXPECT_TRUE(process(command));
        EXPECT_EQ(lines("parsing"), texts{});
        return errors();
    }
    // The node of `mac`, without a memory of earlier commands.
    void fresh_node(const node_options_t& options)
    {
        remove_node(mac);
        add_node(mac, options);
    }
    // Sends a command to a node without memory, and then another one that it is to be dropped for. The
    // clock is the machine's, and the machine may be slow: the first pair that comes in time counts.
    bool sends_a_repeat_in_time(const std::string& command, const std::string& repeat, WIN_CLIENT_t* bridge)
    {
        for (int i = 0; i < 1000; ++i) {
            fresh_node({bridge, false, false});
            (void)sent_to(bridge);
            (void)m_log.take();
            EXPECT_TRUE(process(command));
            if (!process(repeat))
                return true;
        }
        return false;
    }
};

} // namespace

// --- the dispatcher

TEST_F(proxy_test, null_arguments_are_refused)
{
    bytes_t bytes(26);
    EXPECT_FALSE(process_data_from_pub_sub_proxy(nullptr, bytes.data(), bytes.size()));
    EXPECT_FALSE(process_data_from_pub_sub_proxy(server, nullptr, bytes.size()));
    EXPECT_EQ(errors(), texts(2, "process_data_from_pub_sub_proxy: null pointer!"));
}

TEST_F(proxy_test, without_a_registry_nothing_is_dispatched)
{
    const auto homeless = std::make_unique<WIN_SERVER_t>();
    bytes_t bytes = hex("0810"
                        "01" +
                        mac);
    EXPECT_FALSE(process_data_from_pub_sub_proxy(homeless.get(), bytes.data(), bytes.size()));
    const texts logged = errors();
    ASSERT_FALSE(logged.empty());
    EXPECT_EQ(logged.back(), "process_data_from_pub_sub_proxy: null nodes container not found!");
    EXPECT_EQ(to_hex(bytes), "0810"
                             "01" +
                                 mac);
}

TEST_F(proxy_test, ten_bytes_or_less_are_no_command)
{
    for (size_t size = 1; size <= 10; ++size) {
        EXPECT_FALSE(process(repeated("08", size)));
        EXPECT_EQ(errors(), texts{"process_data_from_pub_sub_proxy: invalid input data!"});
    }
    EXPECT_TRUE(process(repeated("08", 11)));
    EXPECT_EQ(lines("parsing"), texts{"PROXY: Received unknown type: 0808"});
}

TEST_F(proxy_test, the_type_alone_changes_its_byte_order)
{
    bytes_t bytes = hex("0801"
                        "020304050607" +
                        mac);
    EXPECT_TRUE(process_data_from_pub_sub_proxy(server, bytes.data(), bytes.size()));
    EXPECT_EQ(to_hex(bytes), "0108"
                             "020304050607" +
                                 mac);
    EXPECT_EQ(lines("parsing"), texts{"PROXY: Received unknown type: 0801"});
}

TEST_F(proxy_test, a_repeat_is_dropped_without_a_word)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    ASSERT_TRUE(sends_a_repeat_in_time("0810"
                                       "01" +
                                           mac,
                                       "0810"
                                       "02" +
                                           mac,
                                       bridge));
    EXPECT_EQ(sent_to(bridge), texts{"1008"
                                     "01" +
                                     ip});
    EXPECT_EQ(lines("parsing"), texts{"PROXY: MSG_REST_ACK dst: 00A1 seq:01"});
    EXPECT_EQ(errors(), texts{});
}

// The filter comes before the checks of the type.
TEST_F(proxy_test, a_repeat_of_a_malformed_command_is_dropped_without_a_word_too)
{
    const std::string too_long = "0810"
                                 "0100" +
                                 mac;
    ASSERT_TRUE(sends_a_repeat_in_time(too_long, too_long, add_bridge("0000000001")));
    EXPECT_EQ(errors(), texts{"process_data_from_pub_sub_proxy (MSG_REST_ACK): wrong size 12"});
    EXPECT_EQ(lines("parsing"), texts{});
}

TEST_F(proxy_test, an_old_command_is_no_reason_to_drop_the_same_one)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    add_node(mac, {bridge, false, false});
    EXPECT_TRUE(process("0810"
                        "01" +
                        mac));
    {
        const nodes_guard guard{nodes};
        nodes_container_find_by_mac(nodes, hex(mac).data())->last_data_time.tv_sec -= 1;
    }
    EXPECT_TRUE(process("0810"
                        "01" +
                        mac));
    EXPECT_EQ(sent_to(bridge), texts(2, "1008"
                                        "01" +
                                            ip));
}

TEST_F(proxy_test, no_command_makes_a_node)
{
    for (const char* type : {"0800", "0804", "080E", "0810", "0815", "0816", "0817"})
        for (const size_t size : {11u, 13u, 21u, 26u})
            process(type + repeated("00", size - 10) + stranger);
    const nodes_guard guard{nodes};
    EXPECT_EQ(nodes_container_get_size(nodes), 0u);
}

// Each size just above the general check, in a buffer of its own: a step that reads further is caught.
TEST_F(proxy_test, no_type_reads_past_a_short_command)
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

TEST_F(proxy_test, network_data_goes_on_in_the_form_that_the_node_needs)
{
    const std::string block = "0008"
                              "07"
                              "0003"
                              "0102030405060708"
                              "AABBCC";
    const struct {
        const char* given;
        bool forwarded_ip, direct_mask;
        std::string then;
    } cases[] = {
        {"known by address", false, false, block + ip},
        {"known by address, reached directly", false, true, block + ip},
        {"forwarded", true, false,
         "0008"
         "00"
         "0010" +
             block + ip},
        {"forwarded, reached directly", true, true,
         "0028"
         "00"
         "0010" +
             block + ip},
    };
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        fresh_node({bridge, c.forwarded_ip, c.direct_mask});
        EXPECT_EQ(printed_by("0800"
                             "07"
                             "0003"
                             "0102030405060708"
                             "AABBCC" +
                             mac),
                  texts{"PROXY: MSG_NWK_DATA_15_4_REQ dst:00A1"});
        EXPECT_EQ(sent_to(bridge), texts{c.then});
    }
}

TEST_F(proxy_test, network_data_for_a_stranger_is_reported)
{
    EXPECT_EQ(printed_by("0800"
                         "07"
                         "0000"
                         "0102030405060708" +
                         stranger),
              texts{"PROXY: MSG_NWK_DATA_15_4_REQ dst 00FF not found"});
}

TEST_F(proxy_test, network_data_must_measure_what_it_says)
{
    const std::string error = "process_data_from_pub_sub_proxy (MSG_NWK_DATA_15_4_REQ): wrong ";
    for (size_t size = 11; size <= 20; ++size)
        EXPECT_EQ(logged_by("0800" + repeated("00", size - 2)),
                  texts{error + "size " + std::to_string(size)});
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
        EXPECT_EQ(logged_by("0800"
                            "00" +
                            hex16(c.p_len) + repeated("00", c.size - 5)),
                  texts{error + c.then});
    }
}

TEST_F(proxy_test, the_longest_network_data_is_forwarded_whole)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    add_node(mac, {bridge, true, false});
    const std::string rest = "00" + hex16(65514) + repeated("5A", 65535 - 13);
    EXPECT_EQ(printed_by("0800" + rest + mac), texts{"PROXY: MSG_NWK_DATA_15_4_REQ dst:00A1"});
    EXPECT_EQ(sent_to(bridge), texts{"0008"
                                     "00"
                                     "FFF7"
                                     "0008" +
                                     rest + ip});
}

// --- node configuration

TEST_F(proxy_test, a_configuration_goes_on_in_the_form_and_order_that_the_node_needs)
{
    const std::string positions = "0102030405060708090A0B0C";
    const std::string swapped = "0403020108070605"
                                "0C0B0A09";
    const struct {
        const char* given;
        const char* role;
        bool forwarded_ip, direct_mask;
        std::string then;
    } cases[] = {
        {"known by address", "01", false, false, "04080A0B01EE" + positions + ip},
        {"known by address, reached directly", "01", false, true, "04080A0B01EE" + positions + ip},
        {"known by address, role bit 7", "81", false, false, "04080A0B81EE" + swapped + ip},
        {"forwarded", "7F", true, false,
         "0008000012"
         "04080A0B7FEE" +
             positions + mac + ip},
        {"forwarded, reached directly", "01", true, true,
         "0028000012"
         "04080A0B01EE" +
             positions + mac + ip},
        {"forwarded, role bit 7", "80", true, false,
         "0008000012"
         "04080A0B80EE" +
             swapped + mac + ip},
        {"forwarded, reached directly, role bit 7", "FF", true, true,
         "0028000012"
         "04080A0BFFEE" +
             swapped + mac + ip},
    };
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        fresh_node({bridge, c.forwarded_ip, c.direct_mask});
        std::string command = "08040A0B";
        command.append(c.role).append("EE").append(positions).append(mac);
        EXPECT_EQ(printed_by(command),
                  texts{std::string("PROXY: MSG_CONF_NODE_REQ dst:00A1 rf:10 rngf:11 role:") + c.role +
                        " sl:ee xyz:16909060;84281096;2314 zofs:2828"});
        const texts sent = sent_to(bridge);
        EXPECT_EQ(sent, texts{c.then});
        EXPECT_EQ(sent.at(0).size() / 2, c.forwarded_ip ? 47u : 34u);
    }
}

TEST_F(proxy_test, positions_are_printed_signed)
{
    add_node(mac, {add_bridge("0000000001"), false, false});
    EXPECT_EQ(printed_by("0804"
                         "FF"
                         "00"
                         "01"
                         "0F"
                         "FFFFFFFF"
                         "80000000"
                         "8000FFFE" +
                         mac),
              texts{"PROXY: MSG_CONF_NODE_REQ dst:00A1 rf:255 rngf:0 role:01 sl:0f "
                    "xyz:-1;-2147483648;-32768 zofs:-2"});
}

TEST_F(proxy_test, a_configuration_has_26_bytes)
{
    const std::string error = "process_data_from_pub_sub_proxy (MSG_CONF_NODE_REQ): wrong size ";
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    for (const size_t size : {11u, 25u, 27u, 100u}) {
        fresh_node({bridge, false, false});
        EXPECT_EQ(logged_by("0804" + repeated("00", size - 10) + mac), texts{error + std::to_string(size)});
    }
    EXPECT_EQ(sent_to(bridge), texts{});
    EXPECT_EQ(printed_by("0804" + repeated("00", 16) + stranger),
              texts{"PROXY: MSG_CONF_NODE_REQ dst 00FF not found"});
}

// --- acknowledgements

TEST_F(proxy_test, an_acknowledgement_is_never_wrapped)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    for (const bool forwarded_ip : {false, true}) {
        fresh_node({bridge, forwarded_ip, true});
        EXPECT_EQ(printed_by("0810"
                             "C7" +
                             mac),
                  texts{"PROXY: MSG_REST_ACK dst: 00A1 seq:C7"});
        EXPECT_EQ(sent_to(bridge), texts{"1008"
                                         "C7" +
                                         ip});
    }
    EXPECT_EQ(printed_by("0810"
                         "C7" +
                         stranger),
              texts{"PROXY: MSG_REST_ACK node: 00FF not found"});
}

TEST_F(proxy_test, an_acknowledgement_has_11_bytes)
{
    EXPECT_EQ(logged_by("0810"
                        "C700" +
                        stranger),
              texts{"process_data_from_pub_sub_proxy (MSG_REST_ACK): wrong size 12"});
}

TEST_F(proxy_test, a_node_without_a_bridge_of_its_own_is_reached_through_every_bridge)
{
    WIN_CLIENT_t* one = add_bridge("0000000001");
    WIN_CLIENT_t* two = add_bridge("0000000002");
    for (const char* command : {"0810"
                                "C7",
                                "0800"
                                "00"
                                "0000"
                                "0000000000000000",
                                "0804"
                                "00"
                                "00"
                                "00"
                                "00"
                                "000000000000000000000000",
                                "080E"
                                "00"
                                "0000"}) {
        fresh_node({nullptr, false, false});
        EXPECT_TRUE(process(command + mac));
        EXPECT_EQ(sent_to(one).size(), 1u) << command;
        EXPECT_EQ(sent_to(two).size(), 1u) << command;
    }
}

// --- generic requests

TEST_F(proxy_test, the_generic_types_are_forwarded_by_their_names)
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
        EXPECT_EQ(printed_by(c.type + ("09"
                                       "0002"
                                       "BBCC" +
                                       mac)),
                  (texts{name, "GENERIC: INFO(GENERIC): dst 00A1"}));
        EXPECT_EQ(sent_to(bridge), texts{c.swapped + ("09"
                                                      "0002"
                                                      "BBCC" +
                                                      ip)});
        EXPECT_EQ(printed_by(std::string(c.type) + "09"
                                                   "FFFF"
                                                   "00000000000000"),
                  (texts{name, "GENERIC: ERROR(GENERIC): wrong size rcvd: 12, expected 65548"}));
        EXPECT_EQ(printed_by(c.type + repeated("00", 799)),
                  (texts{name, "GENERIC: ERROR(GENERIC): msg too long, rcvd: 801"}));
    }
}

// --- firmware pages on their way down

namespace {

// A generic request that carries `page_size` bytes of page, and says that its payload is `total_len` long.
std::string page_request_of(size_t page_size, size_t total_len, size_t payload_bytes)
{
    const std::string head = "0010"
                             "0A0B0C0D"
                             "11223344" +
                             hex16(page_size) + "0000";
    std::string payload = head + repeated("5A", payload_bytes);
    payload.resize(2 * payload_bytes);
    return "0E08"
           "00" +
           hex16(total_len) + payload + mac;
}

class interception_test : public proxy_test {
protected:
    bool intercepts(const std::string& request)
    {
        const bytes_t bytes = hex(request);
        return firmware_interception(server, bytes.data(), bytes.size());
    }
    // Page 0 of the image that the requests are of, or "none".
    std::string stored_page(uint32_t page_size)
    {
        bytes_t page(page_size);
        void* p_ota = rtls_gateway_get_ota(gateway);
        return ota_get_firmware_page(p_ota, 0x0A0B0C0D, 0x11223344, page_size, 0, page.data()) ? to_hex(page)
                                                                                               : "none";
    }
};

} // namespace

TEST_F(interception_test, a_whole_page_is_stored)
{
    const struct {
        const char* given;
        size_t page_size, total_len;
        bool then;
    } cases[] = {
        {"one byte less than the page", 64, 77, false},
        {"exactly the page", 64, 78, true},
        {"one byte more than the page", 64, 79, true},
        {"another size that the store takes", 32, 46, true},
        {"a size that the store refuses", 33, 47, false},
        {"no payload behind the head", 0, 14, false},
        {"an empty page", 0, 15, true},
        {"a size that 16 bits cannot add to", 65535, 78, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_EQ(intercepts(page_request_of(c.page_size, c.total_len, c.total_len)), c.then);
        EXPECT_EQ(errors(), texts{});
    }
}

TEST_F(interception_test, only_page_commands_are_looked_at)
{
    const std::string rest = "0A0B0C0D"
                             "11223344"
                             "0020"
                             "0000" +
                             repeated("5A", 32) + mac;
    for (const char* command : {"0011", "1000", "0110", "0000", "100F"})
        EXPECT_FALSE(intercepts("0E08"
                                "00"
                                "002E" +
                                (command + rest)));
    EXPECT_EQ(stored_page(32), "none");
    EXPECT_TRUE(intercepts("0E08"
                           "00"
                           "002E"
                           "0010" +
                           rest));
    EXPECT_EQ(stored_page(32), repeated("5A", 32));
}

TEST_F(interception_test, what_the_bytes_at_hand_do_not_hold_is_not_read)
{
    const std::string request = page_request_of(64, 78, 78);
    const size_t whole = 19 + 64;
    for (size_t size = 0; size < whole; ++size) {
        const bytes_t bytes = hex(request.substr(0, 2 * size));
        const uint8_t nothing = 0;
        EXPECT_FALSE(firmware_interception(server, size == 0 ? &nothing : bytes.data(), size)) << size;
    }
    EXPECT_TRUE(intercepts(request.substr(0, 2 * whole)));
}

TEST_F(interception_test, null_arguments_and_a_missing_store_are_refused)
{
    const uint8_t zero = 0;
    EXPECT_FALSE(firmware_interception(nullptr, &zero, 1));
    EXPECT_FALSE(firmware_interception(server, nullptr, 100));
    EXPECT_EQ(errors(), texts(2, "firmware_interception: null pointer!"));
    const auto homeless = std::make_unique<WIN_SERVER_t>();
    EXPECT_FALSE(firmware_interception(homeless.get(), &zero, 1));
    EXPECT_EQ(errors().back(), "firmware_interception: rtls_gateway_get_ota returns NULL!");
}

TEST_F(interception_test, a_page_is_stored_on_its_way_even_if_the_bridge_is_gone)
{
    add_node(mac, {add_bridge("0000000001"), false, false});
    disconnect("0000000001");
    std::string request = page_request_of(64, 78, 78);
    request.replace(0, 4, "080E"); // as the proxy writes it
    EXPECT_TRUE(process(request));
    EXPECT_EQ(stored_page(64), repeated("5A", 64));
}

TEST_F(interception_test, a_page_for_a_stranger_and_a_page_in_another_type_are_not_stored)
{
    std::string request = page_request_of(64, 78, 78);
    request.replace(0, 4, "080E");
    EXPECT_TRUE(process(request)); // the node is not known yet
    EXPECT_EQ(stored_page(64), "none");
    fresh_node({add_bridge("0000000001"), false, false});
    request.replace(0, 4, "0815");
    EXPECT_TRUE(process(request));
    EXPECT_EQ(stored_page(64), "none");
}

// --- firmware images

namespace {

// The CRC of the nodes' own rule: no inversions.
uint32_t download_crc(const std::string& bytes, uint32_t crc = 0)
{
    for (const char c : bytes) {
        crc ^= static_cast<uint8_t>(c);
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? crc >> 1 ^ 0xEDB88320 : crc >> 1;
    }
    return crc;
}

uint32_t standard_crc(const std::string& bytes)
{
    return ~download_crc(bytes, 0xFFFFFFFF);
}

// As a little-endian machine prints a big-endian word that it has not converted.
std::string as_in_memory(uint32_t value)
{
    return hex32(__builtin_bswap32(value));
}

std::string announcement(uint32_t crc, const std::string& url)
{
    return "080D"
           "01020304" +
           hex32(crc) + hex16(url.size()) + hex_of(url);
}

std::string upload_order(uint32_t git_ver, uint32_t crc, const std::string& url)
{
    return "0012" + hex32(git_ver) + hex32(crc) + hex16(url.size()) + hex_of(url);
}

using namespace std::string_literals;
const std::string image = "an image of some board"s + "@BoardVer\0\x05\x06"s +
                          "@Firmware\0\xDE\xAD\xBE\xEF\x00\x40\x01\x00"s + "and the rest";

} // namespace

TEST_F(proxy_test, an_announced_image_is_adopted_when_its_crc_agrees)
{
    const temp_file file{"image.bin", image};
    WIN_CLIENT_t* bridges[] = {add_bridge("0000000001"), add_bridge("0000000002")};
    const std::string update = "UPDATE: send cmd: MSG_UPDATE_CMD to brige: 0.0.0.0";
    for (const uint32_t crc : {0u, download_crc(image)}) {
        for (WIN_CLIENT_t* bridge : bridges)
            bridge->firmware_updated = true;
        rtls_gateway_set_firmware(gateway, nullptr);
        EXPECT_EQ(printed_by(announcement(crc, file.url())),
                  (texts{"PROXY: MSG_FW_IMAGE_AVAIL_IND mgd: 04030201 crc: " + as_in_memory(crc) +
                             " url: " + file.url(),
                         update, update}));
        const auto* firmware = static_cast<FIRMWARE_t*>(rtls_gateway_get_firmware(gateway));
        ASSERT_NE(firmware, nullptr);
        EXPECT_EQ(firmware->size, image.size());
        EXPECT_EQ(firmware->crc32, download_crc(image));
        for (WIN_CLIENT_t* bridge : bridges) {
            EXPECT_EQ(sent_to(bridge), texts{"180100"});
            EXPECT_FALSE(bridge->firmware_updated);
        }
    }
}

TEST_F(proxy_test, an_image_that_contradicts_its_announcement_leaves_no_firmware)
{
    const temp_file file{"image.bin", image};
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    EXPECT_TRUE(process(announcement(0, file.url())));
    EXPECT_NE(rtls_gateway_get_firmware(gateway), nullptr);
    (void)sent_to(bridge);
    (void)m_log.take();
    const uint32_t crc = standard_crc(image); // not the nodes' rule
    EXPECT_EQ(printed_by(announcement(crc, file.url())),
              (texts{"PROXY: MSG_FW_IMAGE_AVAIL_IND mgd: 04030201 crc: " + as_in_memory(crc) +
                         " url: " + file.url(),
                     "PROXY: MSG_FW_IMAGE_AVAIL_IND bad crc32 sum: s:" + as_in_memory(crc) +
                         " d:" + hex32(download_crc(image)) + ", firmware removed"}));
    EXPECT_EQ(rtls_gateway_get_firmware(gateway), nullptr);
    EXPECT_EQ(sent_to(bridge), texts{});
}

TEST_F(proxy_test, an_image_that_cannot_be_fetched_changes_nothing)
{
    const temp_file file{"image.bin", image};
    EXPECT_TRUE(process(announcement(0, file.url())));
    const void* before = rtls_gateway_get_firmware(gateway);
    (void)m_log.take();
    const std::string url = "file:///nowhere/obn-node.00000001.bin";
    EXPECT_EQ(printed_by(announcement(0, url)),
              (texts{"PROXY: MSG_FW_IMAGE_AVAIL_IND mgd: 04030201 crc: 00000000 url: " + url,
                     "PROXY: MSG_FW_IMAGE_AVAIL_IND cannot get firmware from: " + url}));
    EXPECT_EQ(rtls_gateway_get_firmware(gateway), before);
}

TEST_F(proxy_test, an_announcement_must_measure_what_it_says)
{
    const std::string error = "process_data_from_pub_sub_proxy (MSG_FW_IMAGE_AVAIL_IND): msg ";
    const std::string head = "080D"
                             "01020304"
                             "00000000";
    for (size_t size = 11; size <= 13; ++size)
        EXPECT_EQ(logged_by((head + "0001000000").substr(0, 2 * size)),
                  texts{error + "too short " + std::to_string(size)});
    const struct {
        size_t size;
        const char* len;
        const char* then;
    } cases[] = {
        {14, "0001", "wrong size rcvd:14  expected:13"},
        {14, "0003", "wrong size rcvd:14  expected:15"},
        {14, "0200", "wrong size rcvd:14  expected:524"}, // little-endian
        {14, "FFFF", "wrong size rcvd:14  expected:65547"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(logged_by(head + c.len + repeated("61", c.size - 12)), texts{error + c.then});
}

TEST_F(proxy_test, an_upload_order_must_measure_what_it_says)
{
    const std::string error = "process_data_from_pub_sub_proxy (MSG_OTA_UPLOAD_FW): msg ";
    const std::string head = "0012"
                             "01020304"
                             "00000000";
    for (size_t size = 11; size <= 12; ++size)
        EXPECT_EQ(logged_by((head + "0000").substr(0, 2 * size)),
                  texts{error + "too short " + std::to_string(size)});
    const struct {
        size_t size;
        const char* len;
        const char* then;
    } cases[] = {
        {13, "0000", "wrong size rcvd:13  expected:12"},
        {13, "0002", "wrong size rcvd:13  expected:14"},
        {13, "0100", "wrong size rcvd:13  expected:268"}, // little-endian
        {13, "FFFF", "wrong size rcvd:13  expected:65547"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(logged_by(head + c.len + repeated("61", c.size - 12)), texts{error + c.then});
}

TEST_F(proxy_test, an_ordered_image_is_stored_when_both_expectations_are_met)
{
    const temp_file file{"image.bin", image};
    const uint32_t crc = standard_crc(image);
    const struct {
        const char* given;
        uint32_t git_ver, crc;
        const char* then;
    } cases[] = {
        {"both agree", 0xDEADBEEF, crc, "PROXY: Firmware downloaded. Index: 0\n"},
        {"another version", 0xDEADBEEE, crc, "PROXY: Failed to read firmware!"},
        {"another crc", 0xDEADBEEF, crc + 1, "PROXY: Failed to read firmware!"},
        {"zero is a version like others", 0, crc, "PROXY: Failed to read firmware!"},
        {"zero is a crc like others", 0xDEADBEEF, 0, "PROXY: Failed to read firmware!"},
        {"the download's crc", 0xDEADBEEF, download_crc(image), "PROXY: Failed to read firmware!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.given);
        EXPECT_EQ(printed_by(upload_order(c.git_ver, c.crc, file.url())),
                  (texts{"PROXY: MSG_OTA_UPLOAD_FW mgd: " + hex32(c.git_ver) + " crc: " + hex32(c.crc) +
                             " url: " + file.url(),
                         c.then}));
    }
    OTA_FIRMWARE_INFO_t info{};
    EXPECT_TRUE(ota_get_firmware_info(rtls_gateway_get_ota(gateway), 0, &info));
    EXPECT_EQ(info.git_ver, 0xDEADBEEF);
    EXPECT_FALSE(ota_get_firmware_info(rtls_gateway_get_ota(gateway), 1, &info));
}

TEST_F(proxy_test, an_url_ends_at_a_zero_byte)
{
    const temp_file file{"image.bin", image};
    const std::string url = file.url() + "\0.more"s;
    EXPECT_EQ(printed_by(upload_order(0xDEADBEEF, standard_crc(image), url)).back(),
              "PROXY: Firmware downloaded. Index: 0\n");
}

TEST_F(proxy_test, an_order_with_an_unreachable_url_is_reported)
{
    const std::string url = "file:///nowhere";
    EXPECT_EQ(printed_by(upload_order(1, 2, url)).back(), "PROXY: Failed to read firmware!");
    EXPECT_EQ(printed_by(upload_order(1, 2, "gopher://127.0.0.1/")).back(),
              "PROXY: Failed to read firmware!");
}

// --- texts from the proxy

namespace {

class reader_test : public proxy_test {
protected:
    reader_test()
    {
        zsock_set_rcvtimeo(reader.get(), 1000);
        zsock_set_sndhwm(proxy.get(), 10);
        const std::string endpoint = new_endpoint();
        EXPECT_EQ(zsock_bind(reader.get(), "%s", endpoint.c_str()), 0);
        EXPECT_EQ(zsock_connect(proxy.get(), "%s", endpoint.c_str()), 0);
    }

    void handle(const std::string& text)
    {
        zstr_send(proxy.get(), text.c_str());
        EXPECT_EQ(handle_pub_sub_proxy(nullptr, reader.get(), server), 0);
    }

    zsock_ptr reader{zsock_new(ZMQ_PULL)};
    zsock_ptr proxy{zsock_new(ZMQ_PUSH)};
};

} // namespace

TEST_F(reader_test, each_length_of_text_has_one_answer)
{
    for (size_t digits = 0; digits <= 64; ++digits) {
        SCOPED_TRACE(digits);
        handle(std::string(digits, '0'));
        EXPECT_EQ(lines("raw"), texts{"PROXY_RAW_INPUT: " + std::string(digits, '0')});
        texts error, printed;
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

TEST_F(reader_test, an_invalid_character_anywhere_refuses_the_text)
{
    const texts refused{"string_to_uint8_arr: Invalid input data: [47]",
                        "handle_pub_sub_proxy: string_to_uint8_arr: wrong input data!"};
    for (size_t digits = 6; digits <= 27; ++digits)
        for (size_t at = 0; at < digits; ++at) {
            std::string text(digits, '0');
            text[at] = 'G';
            handle(text);
            EXPECT_EQ(errors(), refused) << text;
            EXPECT_EQ(lines("parsing"), texts{}) << text;
        }
}

TEST_F(reader_test, what_trails_the_last_pair_counts_only_if_it_is_no_digit)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    const struct {
        const char* trailing;
        texts errors;
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
        handle("0810"
               "01" +
               mac + c.trailing);
        EXPECT_EQ(errors(), c.errors);
        EXPECT_EQ(sent_to(bridge), texts(c.sent, "1008"
                                                 "01" +
                                                     ip));
    }
}

TEST_F(reader_test, lower_case_digits_are_digits)
{
    WIN_CLIENT_t* bridge = add_bridge("0000000001");
    add_node(mac, {bridge, false, false});
    handle("0810abe4000000000000a1");
    EXPECT_EQ(sent_to(bridge), texts{"1008AB" + ip});
}

TEST_F(reader_test, a_text_is_never_a_format)
{
    handle("100%s%n");
    EXPECT_EQ(lines("raw"), texts{"PROXY_RAW_INPUT: 100%s%n"});
    EXPECT_EQ(errors(), (texts{"string_to_uint8_arr: Invalid input data: [25]",
                               "handle_pub_sub_proxy: string_to_uint8_arr: wrong input data!"}));
}

TEST_F(reader_test, a_huge_text_is_refused_by_its_type)
{
    handle("0804" + std::string(size_t{8} * 1024 * 1024, '0'));
    EXPECT_EQ(errors(), texts{"process_data_from_pub_sub_proxy (MSG_CONF_NODE_REQ): wrong size 4194306"});
}

TEST_F(reader_test, every_message_is_a_sign_of_life)
{
    for (const char* text : {"", "00", "0810", "0810010000000000000000"}) {
        server->proxy_is_silent = true;
        handle(text);
        EXPECT_FALSE(server->proxy_is_silent) << text;
    }
}

TEST_F(reader_test, a_failed_receive_is_reported_and_is_a_sign_of_life_too)
{
    zsock_set_rcvtimeo(reader.get(), 0);
    server->proxy_is_silent = true;
    EXPECT_EQ(handle_pub_sub_proxy(nullptr, reader.get(), server), 0);
    EXPECT_FALSE(server->proxy_is_silent);
    EXPECT_EQ(errors(), texts{"handle_pub_sub_proxy: zstr_recv return NULL!"});
}

TEST_F(reader_test, null_arguments_are_refused)
{
    EXPECT_EQ(handle_pub_sub_proxy(nullptr, nullptr, server), 0);
    EXPECT_EQ(handle_pub_sub_proxy(nullptr, reader.get(), nullptr), 0);
    EXPECT_EQ(errors(), texts(2, "handle_pub_sub_proxy: null pointer!"));
}

} // namespace rtls
