// Whatever an operator types: every command is answered, each answer stands behind his identity, and nothing
// grows. The first byte of each line of an input picks a command, whose arguments follow.
#include "base/hex.h"
#include "base/peer.h"
#include "downlink/generic_requests.h"
#include "firmware/image_download.h"
#include "fuzzing.h"
#include "registry/nodes_container.h"
#include "rtls-gateway.h"
#include "sent_parts.h"
#include "support/test_gateway.h"
#include "terminal/terminal_commands.h"
#include "terminal/terminal_server.h"
#include "wire/messaging.h"

#include <cerrno>

namespace rtls {

using fuzzing::require;

namespace {

constexpr uint8_t identity[] = {0, 1, 2, 3, 4};
constexpr char key[] = "0001020304";

// Every word, and what its sub-commands and arguments look like.
constexpr const char* heads[] = {"",
                                 "h",
                                 "help",
                                 "q",
                                 "quit ",
                                 "pcl ",
                                 "pn ",
                                 "pnf ",
                                 "info",
                                 "dbg ",
                                 "dbg win ",
                                 "dbg raw Y ",
                                 "sub ",
                                 "sub- ",
                                 "grep ",
                                 "grep- ",
                                 "reboot ",
                                 "reboot 0201 ",
                                 "del ",
                                 "del 0201 ",
                                 "fw ",
                                 "fw list ",
                                 "fw info ",
                                 "fw get ",
                                 "fw get http://127.0.0.1/",
                                 "fw apply ",
                                 "fw set ",
                                 "fw set 0 0201",
                                 "firmware del ",
                                 "!",
                                 "fw apply 1 ",
                                 "dbg parsing n "};
constexpr unsigned not_reading = 0x80; // the operator takes no answer

class fuzzed_world {
public:
    fuzzed_world()
    {
        image_download_only_from({"nowhere:"}); // no run of a fuzzer fetches anything
        for (const uint8_t number : {uint8_t{1}, uint8_t{2}, uint8_t{3}})
            m_gateway.add_bridge(bytes_view{&number, 1});
        zsock_ptr* const sockets[] = {&m_terminal, &m_debug};
        for (zsock_ptr* sock : sockets)
            sock->reset(zsock_new(ZMQ_PUSH));
        store_images();
    }

    void begin()
    {
        debug_mask = 0;
        m_expected_nodes = 0;
        for (uint8_t number = 1; number <= 4; ++number)
            add_node(number);
        zhashx_delete(clients(), key);
        add_client();
    }

    void run(std::string line, bool is_reading)
    {
        fuzzing::refuse_parts(zsock_resolve(m_terminal.get()), is_reading ? 0 : EAGAIN);
        const bool asks = is_command(line);
        terminal_commands_parse(m_gateway.handle(), client(), m_terminal.get(), line.data(), m_debug.get());
        const size_t answers = check_answers();
        require(asks && is_reading ? answers > 0 : answers == 0);
        check_world();
        fuzzing::sent_parts().clear();
        if (!client())
            add_client(); // he quit, and comes again
    }

private:
    zhashx_t* clients() { return rtls_gateway_get_terminal_clients(m_gateway.handle()); }
    TERMINAL_CLIENT_t* client() { return static_cast<TERMINAL_CLIENT_t*>(zhashx_lookup(clients(), key)); }

    void add_client()
    {
        auto client = std::make_unique<TERMINAL_CLIENT_t>();
        client->id.reset(zframe_new(identity, sizeof identity));
        require(zhashx_insert(clients(), key, client.get()) == 0);
        (void)client.release(); // the table's now
    }

    void add_node(uint8_t number)
    {
        const mac_array mac{0xE4, 0x5E, 0x51, 0, 0, 0, 0x02, number};
        m_gateway.add_node(mac, "x", [&](NODE_t& node) {
            node.type = number;
            node.lifetime = number == 4 ? 0 : 300;
        });
        ++m_expected_nodes;
    }

    // Two of the store's slots have an image.
    void store_images()
    {
        void* store = rtls_gateway_get_ota(m_gateway.handle());
        const std::vector<uint8_t> page(64);
        for (const uint32_t git : {1U, 2U})
            require(ota_set_firmware_page(store, git, 7, 64, 0, page.data()));
    }

    // Whether there is a word in it.
    static bool is_command(const std::string& line)
    {
        const std::string text = line.c_str();
        return text.find_first_not_of(" \t\r\n") != std::string::npos;
    }

    // The number of whole answers at the operator's socket.
    size_t check_answers()
    {
        void* terminal = zsock_resolve(m_terminal.get());
        size_t answers = 0;
        const auto& parts = fuzzing::sent_parts();
        for (size_t i = 0; i < parts.size(); ++i) {
            if (parts[i].socket != terminal)
                continue;
            require(parts[i].bytes == std::string(std::begin(identity), std::end(identity)));
            require(parts[i].is_followed && ++i < parts.size() && parts[i].socket == terminal);
            require(parts[i].bytes.empty() || parts[i].bytes.back() == '\n');
            require(parts[i].bytes.find('\0') == std::string::npos);
            ++answers;
        }
        return answers;
    }

    void check_world()
    {
        require(debug_mask < 1U << DBG_SECTIONS_NUMBER);
        require(zhashx_size(clients()) <= 1);
        const nodes_guard guard{*m_gateway.nodes()};
        require(nodes_container_get_size(m_gateway.nodes()) <= m_expected_nodes);
    }

    test_gateway m_gateway;
    zsock_ptr m_terminal;
    zsock_ptr m_debug;
    size_t m_expected_nodes = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static fuzzed_world world;
    fuzzing::input input{data, size};
    world.begin();
    for (int lines = 0; lines < 16 && !input.empty(); ++lines) {
        const unsigned choice = input.u8();
        world.run(heads[choice % std::size(heads)] + input.line(), (choice & not_reading) == 0);
    }
    return 0;
}

} // namespace rtls
