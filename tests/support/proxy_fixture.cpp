#include "support/proxy_fixture.h"
#include "downlink/win_server_pub_sub_proxy.h"

#include "base/hex.h"

#include <cstdio>

namespace rtls {

bool proxy_fixture::process(const std::string& command)
{
    bytes_t bytes = hex(command);
    return process_data_from_pub_sub_proxy(server, bytes.data(), bytes.size());
}

texts_t proxy_fixture::printed_by(const std::string& command)
{
    EXPECT_TRUE(process(command));
    return lines("parsing");
}

texts_t proxy_fixture::logged_by(const std::string& command)
{
    EXPECT_TRUE(process(command));
    EXPECT_EQ(lines("parsing"), texts_t{});
    return errors();
}

void proxy_fixture::fresh_node(const node_options& options)
{
    remove_node(mac);
    add_node(mac, options);
}

bool proxy_fixture::sends_a_repeat_in_time(const std::string& command, const std::string& repeat,
                                           WIN_CLIENT_t* bridge)
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

} // namespace rtls
