#include "terminal/client.h"

#include <cstdlib>

namespace rtls {

void terminal_client_clear_filter(TERMINAL_CLIENT_t& client) noexcept
{
    if (client.preg) {
        regfree(client.preg);
        std::free(client.preg);
        client.preg = nullptr;
    }
}

void terminal_client_item_destructor(void** item)
{
    if (!item || !*item)
        return;
    auto* client = static_cast<TERMINAL_CLIENT_t*>(*item);
    zframe_destroy(&client->id);
    terminal_client_clear_filter(*client);
    std::free(client->grep_string);
    std::free(client);
    *item = nullptr;
}

} // namespace rtls
