// Whatever decodes encodes to the same bytes, also by way of JSON; whatever does not is kept with the reason. Messages
// are those of the simulator, whose codec is another reading of the protocol, and the page's, bent in every way.
#include "decode/json.h"
#include "examples.h"
#include "rtls-sim/command.h"
#include "rtls-sim/downlink.h"
#include "rtls-sim/uplink.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace rtls::decode {

using bytes_t = std::vector<uint8_t>;

namespace {

// How many of the messages that were tried are valid, and how many are not.
struct tally {
    size_t valid = 0;
    size_t invalid = 0;
};

} // namespace

static bytes_t bytes_again(const decoded& message)
{
    const encoded again = encode(message);
    EXPECT_EQ(again.reason, "");
    return again.bytes;
}

static void check(direction way, const bytes_t& bytes, tally& seen)
{
    const decoded message = decode(way, bytes);
    ++(message.is_valid() ? seen.valid : seen.invalid);
    ASSERT_EQ(bytes_again(message), bytes) << direction_name(way) << ' ' << text_of_command(bytes);
    const decoded by_json = from_json_text(to_json_text(message));
    ASSERT_EQ(by_json, message) << direction_name(way) << ' ' << text_of_command(bytes);
}

TEST(round_trip, holds_at_every_length)
{
    tally seen;
    for (const example& e : examples())
        for (size_t size = 0; size <= e.bytes.size() + 2; ++size) {
            bytes_t bytes = e.bytes;
            bytes.resize(size, 0x31);
            ASSERT_NO_FATAL_FAILURE(check(e.way, bytes, seen));
        }
    EXPECT_GT(seen.valid, 150U);
    EXPECT_GT(seen.invalid, 1500U);
}

TEST(round_trip, holds_with_every_byte_changed)
{
    tally seen;
    for (const example& e : examples())
        for (size_t at = 0; at < e.bytes.size(); ++at)
            for (const int change : {0x01, 0x10, 0x20, 0x80, 0xFF}) {
                bytes_t bytes = e.bytes;
                bytes[at] = static_cast<uint8_t>(bytes[at] ^ change);
                ASSERT_NO_FATAL_FAILURE(check(e.way, bytes, seen));
            }
    EXPECT_GT(seen.valid, 5'000U);
    EXPECT_GT(seen.invalid, 1'000U);
}

TEST(round_trip, holds_for_random_bytes_behind_every_type)
{
    std::mt19937 random{20261122};
    tally seen;
    const auto all = examples();
    for (int round = 0; round < 5'000; ++round) {
        const example& e = all[random() % all.size()];
        const size_t kept = std::min<size_t>(e.bytes.size(), random() % 12);
        bytes_t bytes{e.bytes.begin(), e.bytes.begin() + static_cast<std::ptrdiff_t>(kept)};
        for (size_t left = random() % 64; left > 0; --left)
            bytes.push_back(static_cast<uint8_t>(random()));
        ASSERT_NO_FATAL_FAILURE(check(static_cast<direction>(random() % 7), bytes, seen));
    }
    EXPECT_GT(seen.valid, 200U);
    EXPECT_GT(seen.invalid, 1'000U);
}

// --- what the simulator says

namespace {

// Devices with random values, and their messages.
class sayer {
public:
    explicit sayer(unsigned seed) : m_random(seed) {}

    uint8_t u8() { return static_cast<uint8_t>(m_random()); }
    uint16_t u16() { return static_cast<uint16_t>(m_random()); }
    uint32_t u32() { return static_cast<uint32_t>(m_random()); }
    sim::mac_bytes mac() { return sim::device_mac(u16(), u16()); }
    bytes_t some_bytes(size_t most)
    {
        bytes_t bytes(u32() % (most + 1));
        for (uint8_t& byte : bytes)
            byte = u8();
        return bytes;
    }
    sim::vital_signs vital_signs();
    sim::tdoa_sample tdoa_sample();

private:
    std::mt19937 m_random;
};

sim::vital_signs sayer::vital_signs()
{
    sim::vital_signs signs{.reporting_freq = u8(), .ranging_freq = u8(), .role = uint8_t(u8() % 7)};
    signs.state = u8() & 0xF0;
    signs.sublocation = u8();
    signs.mac = mac();
    signs.parent = mac();
    signs.sw_version = u32();
    signs.x = static_cast<int32_t>(u32());
    signs.y = static_cast<int32_t>(u32());
    signs.z = static_cast<int32_t>(u32());
    return signs;
}

sim::tdoa_sample sayer::tdoa_sample()
{
    sim::tdoa_sample sample;
    sample.tag = mac();
    sample.pe_seq_no = u16();
    sample.responder = mac();
    sample.reporter = mac();
    sample.range_mm = static_cast<int32_t>(u32());
    sample.tag_lqi = u8();
    sample.responder_lqi = u8();
    sample.firmware_id = u32();
    sample.battery = u16();
    sample.charge = u8();
    return sample;
}

} // namespace

static std::string text(const decoded& message, std::string_view path)
{
    const value* found = find(message.fields, path);
    const auto* is = found ? std::get_if<std::string>(found) : nullptr;
    return is ? *is : "none";
}

static int64_t number(const decoded& message, std::string_view path)
{
    const value* found = find(message.fields, path);
    const auto* is = found ? std::get_if<int64_t>(found) : nullptr;
    return is ? *is : -1;
}

static std::string lower_hex(sim::view bytes)
{
    std::string digits = sim::hex(bytes);
    for (char& c : digits)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return digits;
}

// Decodes a message on its way up and checks the round trip.
static decoded up(const bytes_t& bytes)
{
    tally seen;
    check(direction::up, bytes, seen);
    const decoded message = decode(direction::up, bytes);
    EXPECT_EQ(message.reason, "") << sim::hex(bytes);
    return message;
}

static void expect_signs(const decoded& message, const std::string& path, const sim::vital_signs& signs)
{
    EXPECT_EQ(number(message, path + "reporting_freq"), signs.reporting_freq);
    EXPECT_EQ(number(message, path + "ranging_freq"), signs.ranging_freq);
    EXPECT_EQ(text(message, path + "node_role"), sim::role_name(signs.role));
    EXPECT_EQ(number(message, path + "node_state"), signs.state);
    EXPECT_EQ(number(message, path + "sublocation_id"), signs.sublocation);
    EXPECT_EQ(text(message, path + "long_addr"), lower_hex(signs.mac));
    EXPECT_EQ(text(message, path + "parent_addr"), lower_hex(signs.parent));
    EXPECT_EQ(text(message, path + "sw_version"), lower_hex(sim::writer{}.be32(signs.sw_version).take()));
    EXPECT_EQ(number(message, path + "pos_X"), signs.x);
    EXPECT_EQ(number(message, path + "pos_Y"), signs.y);
    EXPECT_EQ(number(message, path + "pos_Z"), signs.z);
}

TEST(simulator, means_what_is_decoded_of_its_heartbeats)
{
    sayer random{1};
    for (int i = 0; i < 200; ++i) {
        const auto signs = random.vital_signs();
        const auto bridge = random.mac();
        const auto message = sim::make_heartbeat(sim::kind::heartbeat, signs, random.u8(), bridge);
        const decoded direct = up(sim::sent_directly(message, bridge, sim::device_ip(signs.mac)));
        EXPECT_EQ(direct.kind, "heartbeat");
        EXPECT_EQ(text(direct, "bridge_mac"), lower_hex(bridge));
        EXPECT_EQ(text(direct, "ipaddr"), sim::ip_text(sim::device_ip(signs.mac)));
        expect_signs(direct, "", signs);
        const auto forwarded =
            sim::sent_forwarded(message, sim::msg::forwarded_foreign, 9, sim::device_ip(signs.mac));
        expect_signs(up(forwarded), "message.", signs);

        bytes_t report = sim::writer{}.be32(5).be16(7).take();
        report.insert(report.end(), message.content.begin(), message.content.end());
        const decoded upstream = decode(direction::report, report);
        expect_signs(upstream, "", signs);
        EXPECT_EQ(text(upstream, "bridge_mac"), lower_hex(bridge));
    }
}

TEST(simulator, means_what_is_decoded_of_its_measurements)
{
    sayer random{2};
    for (const auto form : {sim::tdoa_form::bare, sim::tdoa_form::with_board, sim::tdoa_form::with_charge})
        for (int i = 0; i < 100; ++i) {
            const auto sample = random.tdoa_sample();
            const auto node = random.mac();
            const auto message = sim::make_ul_tdoa(node, random.u8(), sample, form);
            const decoded sent = up(sim::sent_directly(message, node, sim::device_ip(node)));
            EXPECT_EQ(text(sent, "sub_command"), "ul_tdoa");
            const std::string text_of_line =
                "@win_management {\"ts\":1700000000,\"ms\":250," + message.content + "}";
            const decoded line =
                decode(direction::management, bytes_t{text_of_line.begin(), text_of_line.end()});
            ASSERT_EQ(line.reason, "") << text_of_line;
            for (const decoded& m : {sent, line}) {
                EXPECT_EQ(text(m, "tag_mac"), lower_hex(sim::view{sample.tag}.last(6)));
                EXPECT_EQ(text(m, "responder_mac"), lower_hex(sim::view{sample.responder}.last(6)));
                EXPECT_EQ(text(m, "reporter_mac"), lower_hex(sim::view{sample.reporter}.last(6)));
                EXPECT_EQ(number(m, "range_mm"), sample.range_mm);
                EXPECT_EQ(number(m, "pe_seq_no"), sample.pe_seq_no);
                EXPECT_EQ(number(m, "resp_anchor_lqi"), sample.responder_lqi);
                EXPECT_EQ(number(m, "batt_voltage"), form == sim::tdoa_form::bare ? -1 : sample.battery);
                EXPECT_EQ(number(m, "percent_of_charge"),
                          form == sim::tdoa_form::with_charge ? sample.charge : -1);
            }
        }
}

TEST(simulator, means_what_is_decoded_of_its_payloads)
{
    sayer random{3};
    for (int i = 0; i < 200; ++i) {
        const auto node = random.mac();
        const bytes_t payload = random.some_bytes(40);
        const auto ip = sim::device_ip(node);
        const decoded sensor = up(sim::sent_directly(sim::make_sensor(node, 3, payload), node, ip));
        EXPECT_EQ(text(sensor, "data"), lower_hex(payload));
        const sim::ota_page_id id{random.u32(), random.u32(), random.u16(), random.u16()};
        const decoded page =
            up(sim::sent_forwarded(sim::make_ota_page_request(node, 4, id), sim::msg::forwarded, 1, ip));
        EXPECT_EQ(text(page, "message.crc32"), lower_hex(sim::writer{}.be32(id.crc).take()));
        EXPECT_EQ(number(page, "message.page_number"), id.page);
        EXPECT_EQ(text(page, "mac"), lower_hex(node));
        EXPECT_EQ(text(page, "ipaddr"), sim::ip_text(ip));
        const sim::generation_time time{random.u32(), random.u16()};
        const decoded timed = up(sim::sent_with_time(sim::make_prefix_request(node, 5).body, 6, time));
        EXPECT_EQ(number(timed, "seconds"), time.seconds);
        EXPECT_EQ(number(timed, "fraction"), time.fraction);
        EXPECT_EQ(text(timed, "message.ieee_addr"), lower_hex(node));
    }
}

TEST(simulator, means_what_is_decoded_of_its_commands)
{
    const struct {
        const char* words;
        const char* kind;
        const char* json;
    } cases[] = {
        {"reboot e45e510000010202", "generic_req",
         R"("sub_command":"reboot","parameter_len":2,"parameter":"0000")"},
        {"conf 0102 role=5 x=-1000 z=5", "conf_node_req",
         R"("node_role":"tdoa-mobile","node_state":0,"sublocation_id":1,"pos_X":-1000,"pos_Y":0,"pos_Z":5)"},
        {"ack 0102 7", "rest_ack", R"("seqNo":7,"long_addr":"e45e510000000102")"},
        {"ota-set 0102 a0b0c0d:11223344:65536 203", "generic_req",
         R"("sub_command":"ota_set","body_head":"20","description_size":14,"git_ver":"0a0b0c0d",)"
         R"("crc32":"11223344","image_size":65536,"source":"0203")"},
        {"ota-apply 0102", "generic_req", R"("total_len":2,"sub_command":"ota_apply","mac":)"},
        {"sensor 0102 a1a2 3", "sensor_req",
         R"("seqNo":3,"total_len":2,"data":"a1a2","mac":"e45e510000000102")"},
        {"conf-sensor 0102 a1", "conf_sensor_req", R"("data":"a1")"},
        {"tdoa 0102 a1", "tdoa_sched_conf_req", R"("data":"a1")"},
        {"data 0102 a1a2", "nwk_data_req",
         R"("p_len":2,"opaque":"a1a2e45e510000000102","mac":"e45e510000000102")"},
        {"upload 1 2 http://a/b", "ota_upload_fw",
         R"("git_ver":"00000001","crc32":"00000002","len":10,"url":"http://a/b")"},
        {"fw-avail 1 2 http://a/b", "fw_image_avail_ind", R"("sh1":"00000001","crc32":"00000002")"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.words);
        const auto command = sim::parse_command(sim::split_words(c.words));
        ASSERT_EQ(command.error, "");
        tally seen;
        check(direction::command, command.message, seen);
        const decoded message = decode(direction::command, command.message);
        EXPECT_EQ(message.kind, c.kind);
        EXPECT_NE(to_json_text(message).find(c.json), std::string::npos) << to_json_text(message);
    }
}

TEST(simulator, reads_what_goes_down_the_same_way)
{
    for (const example& e : examples()) {
        if (e.way != direction::down)
            continue;
        SCOPED_TRACE(e.json);
        const auto read = sim::read_downlink(e.bytes);
        const decoded message = decode(e.way, e.bytes);
        EXPECT_TRUE(read.valid);
        if (find(message.fields, "ipaddr")) {
            EXPECT_EQ(text(message, "ipaddr"), sim::ip_text(read.ip));
        }
        if (find(message.fields, "mac")) {
            EXPECT_EQ(text(message, "mac"), lower_hex(read.mac));
        }
        const auto config = sim::read_config(read.payload);
        const std::string path = find(message.fields, "message") ? "message." : "";
        if (config && find(message.fields, path + "pos_X")) {
            EXPECT_EQ(number(message, path + "pos_X"), config->x);
            EXPECT_EQ(number(message, path + "pos_Z"), config->z);
        }
    }
}

} // namespace rtls::decode
