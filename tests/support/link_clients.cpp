#include "support/link_clients.h"

#include "base/czmq_ptr.h"
#include "base/peer.h"
#include "link/sending.h"

#include <gtest/gtest.h>

#include <utility>

namespace rtls {

std::string key_of(const WIN_CLIENT_t& client)
{
    return identity_key{client.id}.c_str();
}

std::vector<std::string> keys_in_table_order(const win_link& link)
{
    // Not by the table's own walk, whose order is what is judged.
    std::vector<std::string> keys;
    zhashx_t* table = link.server().clients.unguarded();
    for (void* item = zhashx_first(table); item; item = zhashx_next(table))
        keys.push_back(key_of(*static_cast<WIN_CLIENT_t*>(item)));
    return keys;
}

std::vector<std::string> unsent(WIN_CLIENT_t& client)
{
    std::vector<std::string> texts;
    for (size_t left = client.unsent_messages.size(); left > 0; --left) { // once around
        const bytes_view front = client.unsent_messages.front();
        const bytes_t bytes{front.begin(), front.end()};
        texts.push_back(text_of(bytes));
        client.unsent_messages.pop();
        EXPECT_TRUE(client.unsent_messages.append(bytes));
    }
    return texts;
}

bool send_to(const win_link& link, zframe_t* id, const bytes_t& message)
{
    return data_to_win_client(&link.server(), id, message.data(), message.size());
}

WIN_CLIENT_t* add_unreachable(const win_link& link, const char* identity)
{
    const zframe_ptr id{zframe_new(identity, 5)};
    win_client_ptr made{win_client_new(id.get())};
    const std::string key = key_of(*made);
    return link.server().clients.insert(key.c_str(), std::move(made));
}

std::vector<std::string> lines_of(log_capture& log, std::initializer_list<const char*> channels)
{
    std::vector<std::string> lines;
    for (const auto& record : log.take())
        for (const char* channel : channels)
            if (const size_t at = record.find(channel); at != std::string::npos)
                lines.push_back(record.substr(at));
    return lines;
}

} // namespace rtls
