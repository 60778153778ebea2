#include "terminal/image_fetch.h"

#include "base/common.h"
#include "base/peer.h"
#include "terminal/client.h"
#include "terminal/reply.h"
#include "terminal/terminal_server_private.h"
#include "terminal/texts.h"

#include <string>
#include <utility>

namespace rtls {

// Whether the system knows the operator's connection no more.
static bool is_gone(const TERMINAL_SERVER_t& server, const TERMINAL_CLIENT_t& client)
{
    sockaddr_in peer{};
    return !read_peer_address(client.fd, server.port, peer) ||
           peer.sin_addr.s_addr != client.client_addr.sin_addr.s_addr ||
           peer.sin_port != client.client_addr.sin_port;
}

std::string fetch_answer(int index)
{
    return index >= 0 ? text_format(str_firmware_downloaded, index) : "Failed to read firmware!\n";
}

bool fetch_image(TERMINAL_SERVER_t& server, TERMINAL_CLIENT_t& client, const char* url)
{
    if (!server.calls || !server.rtls_gateway->downloads)
        return false;
    if (is_gone(server, client))
        return true; // nobody would see the outcome
    auto work = [&server, ota = server.rtls_gateway->ota, calls = server.calls, url = std::string{url},
                 id = std::string{identity_key{client.id.get()}.c_str()}] {
        std::string reason;
        const int index = ota ? ota->download_firmware(url.c_str(), nullptr, nullptr, &reason) : -1;
        calls->post([&server, id, index, text = url + ": " + reason, failed = !reason.empty()] {
            if (failed)
                dbg_print(server.dbg_client_sock.get(), DBG_DEVELOP, console, "%s", text.c_str());
            server.fetch_ended(server, id, index);
        });
    };
    client.is_fetching =
        server.rtls_gateway->downloads->order(std::move(work), {}, download_pool::customer::operators);
    if (!client.is_fetching)
        terminal_send(client, server.terminal_sock.get(), fetch_answer(-1).c_str());
    return true;
}

} // namespace rtls
