#include "support/terminal_server_fixture.h"

#include "base/common.h"
#include "rtls-gateway.h"

#include <gmock/gmock.h>

#include <sstream>

namespace rtls {

terminal_server_fixture::terminal_server_fixture()
{
    m_gateway.run_terminal_server();
    (void)m_log.take();
}

terminal_server_fixture::~terminal_server_fixture()
{
    debug_mask = 0;
}

void* terminal_server_fixture::server() const
{
    return rtls_gateway_get_terminal_server(m_gateway.handle());
}

void terminal_server_fixture::expect_served(operator_peer& peer)
{
    EXPECT_THAT(peer.ask("info\n", info_end), testing::StartsWith(info_start));
}

texts_t terminal_server_fixture::terminals_seen_by(operator_peer& peer)
{
    std::istringstream text{peer.ask("pcl\n", pcl_end)};
    texts_t lines;
    for (std::string line; std::getline(text, line) && line != "####### WIN clients:";)
        lines.push_back(line);
    if (!lines.empty())
        lines.erase(lines.begin()); // the title
    return lines;
}

void terminal_server_fixture::stream(const std::string& text)
{
    dbg_print(m_dbg.get(), DBG_DEVELOP, "TEST", "%s", text.c_str());
}

void terminal_server_fixture::enable_stream()
{
    debug_mask = 1 << DBG_DEVELOP;
}

} // namespace rtls
