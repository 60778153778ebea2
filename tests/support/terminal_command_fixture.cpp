#include "support/terminal_command_fixture.h"

#include "base/common.h"
#include "rtls-gateway.h"
#include "terminal/terminal_commands.h"

#include <sstream>

namespace rtls {

static constexpr char listening[] = "the terminal's own line";

terminal_command_fixture::terminal_command_fixture()
{
    zsock_set_sndtimeo(m_terminal.get(), 0);
    zsock_set_rcvtimeo(m_operator.get(), 0);
    m_client = add_operator(operator_id, "10.0.0.1", 1001);
    (void)m_log.take(); // what the gateway said of its configuration
}
terminal_command_fixture::~terminal_command_fixture()
{
    debug_mask = 0;
}

TERMINAL_CLIENT_t* terminal_command_fixture::add_operator(const char* id, const char* ip, uint16_t port)
{
    auto* client = new TERMINAL_CLIENT_t;
    client->id.reset(zframe_from(id));
    client->client_addr = ipv4_address(ip, port);
    const zstr_ptr key{zframe_strhex(client->id.get())};
    zhashx_t* clients = rtls_gateway_get_terminal_clients(m_gateway.handle());
    if (zhashx_size(clients) == 0)
        zhashx_set_destructor(clients, terminal_client_item_destructor);
    EXPECT_EQ(zhashx_insert(clients, key.get(), client), 0);
    return client;
}

void terminal_command_fixture::run(std::string command)
{
    terminal_commands_parse(m_gateway.handle(), m_client, m_terminal.get(), command.data(), m_dbg.get());
}

texts_t terminal_command_fixture::answers()
{
    texts_t texts;
    while (const zstr_ptr id{zstr_recv(m_operator.get())}) {
        EXPECT_STREQ(id.get(), operator_id);
        EXPECT_TRUE(zsock_rcvmore(m_operator.get())) << "an identity without a text";
        const zmsg_ptr rest{zmsg_recv(m_operator.get())};
        while (zmsg_size(rest.get()) > 1) { // two answers to one multipart message: "more" stays set
            const zstr_ptr text{zmsg_popstr(rest.get())};
            texts.emplace_back(text.get());
            const zstr_ptr next_id{zmsg_popstr(rest.get())};
            EXPECT_STREQ(next_id.get(), operator_id);
        }
        const zstr_ptr text{zmsg_popstr(rest.get())};
        texts.emplace_back(text ? text.get() : "");
    }
    return texts;
}

texts_t terminal_command_fixture::answers_to(const std::string& command)
{
    run(command);
    return finish_and_take();
}

// zstr_sendm leaves the message open on this kind of socket; one more pair closes it.
texts_t terminal_command_fixture::finish_and_take()
{
    zstr_sendm(m_terminal.get(), operator_id);
    zstr_send(m_terminal.get(), listening);
    texts_t texts = answers();
    EXPECT_FALSE(texts.empty());
    EXPECT_EQ(texts.back(), listening) << "identities and texts are out of step";
    texts.pop_back();
    return texts;
}

std::string terminal_command_fixture::answer_to(const std::string& command)
{
    std::string all;
    for (const auto& text : answers_to(command))
        all += text;
    return all;
}

texts_t terminal_command_fixture::rows_of(const std::string& command)
{
    std::istringstream text{answer_to(command)};
    texts_t rows;
    for (std::string row; std::getline(text, row);)
        rows.push_back(row + '\n');
    return rows;
}

void terminal_command_fixture::stall()
{
    m_terminal.reset(zsock_new(ZMQ_PUSH));
    zsock_set_sndtimeo(m_terminal.get(), 0);
}

} // namespace rtls
