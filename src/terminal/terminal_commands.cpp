#include "terminal/terminal_commands.h"

#include "base/common.h"
#include "base/logger.h"
#include "base/null_check.h"
#include "base/peer.h"
#include "base/tokenize.h"
#include "server/tap_watch.h"
#include "terminal/filter.h"
#include "terminal/firmware_commands.h"
#include "terminal/listing.h"
#include "terminal/request.h"
#include "terminal/short_mac.h"
#include "terminal/terminal_server_private.h"
#include "terminal/texts.h"
#include "terminal/win_requests.h"
#include "version.h"
#include "wire/node_commands.h"

#include <zmq.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <span>
#include <string>
#include <string_view>

namespace rtls {

static constexpr uint16_t words_limit = 16;
static constexpr char no_pattern[] = "-- undefined --";

// Operators' scripts compare it: the misspellings stay.
static constexpr char help_text[] =
    "use:\n"
    "  h | help                                 print this help\n"
    "  q | quit                                 quit the session\n"
    "  pcl                                      print client lists\n"
    "  reboot MAC                               node reboot (MAC - short MAC-address)\n"
    "  del MAC                                  delete the node (MAC - short MAC-address)\n"
    "  pn                                       print connected nodes list (standard mode)\n"
    "  pnf                                      print connected nodes list (full mode)\n"
    "  info                                     about\n"
    "  dbg [SECTION y|n]                        without arguments prints a debug state\n"
    "                                           with arguments enables or disables debugging section "
    "SECTION\n"
    "      SECTION=raw                          raw input and output data\n"
    "      SECTION=parsing                      parsed the input and output data\n"
    "      SECTION=terminal                     events of telnet-channel\n"
    "      SECTION=win                          events of win-channel\n"
    "      SECTION=discovery                    events of discovery-channel\n"
    "      SECTION=develop                      information for the developer\n"
    "                                           (an example: dbg parsing Y - enable \"parsing\" section)\n"
    "  sub                                      subscribe on requested channel\n"
    "  sub-                                     unsubscribe on requested channel\n"
    "  grep PATTERN                             filter messages on subscribed channel\n"
    "  grep-                                    clear filter\n"
    "  fw | firmware (get;set;apply;list;info)  management firmware\n"
    "    get URL                                get firmware\n"
    "    apply MAC                              apply firmware (MAC - short MAC-address)\n"
    "    list                                   print a list of firmware\n"
    "    info INDEX                             information about the firmware\n"
    "    del INDEX                              delete firmware\n"
    "    set INDEX MAC [SOURSE]                 set firmware to node (MAC - short MAC-address)\n"
    "      SOURSE=GW                            set firmware from gateway\n"
    "      SOURSE=addr                          set firmware from node with MAC=addr (addr - short "
    "MAC-address)\n"
    "      SOURSE=                              passive mode\n";
static_assert(sizeof help_text - 1 == 2288);

static void command_help(const terminal_request& request)
{
    request.answer(help_text);
}

// Cuts the connection of an operator whose queue is full, which the stream socket cannot close: now, or as soon
// as it is proven that its descriptor is still its own. Never, when it is not known whether the peer's address
// is. The disconnect that follows frees the record.
static void cut_connection(const terminal_request& request)
{
    const TERMINAL_CLIENT_t& client = *request.client;
    TERMINAL_SERVER_t& server = request.server;
    if (client.is_peer_proven)
        server.cuts.want(identity_key{client.id.get()}.c_str(), client.fd, client.client_addr);
    server.cuts.carry_out(zsock_resolve(request.sock), server.port);
}

// Frees the record of the client that asks: request.client is gone afterwards.
static void command_quit(const terminal_request& request)
{
    if (!request.answer("bye bye.\n") || !request.answer("")) { // an empty text closes the connection
        // A client that does not read takes no more frames, not even the one that closes it: its connection
        // is cut, and the disconnect event that follows frees the record.
        if (errno == EAGAIN) // otherwise it is gone already
            cut_connection(request);
        return;
    }
    const identity_key key{request.client->id.get()};
    dbg_print(request.dbg_sock, DBG_TERMINAL, console, "Client %s disconnected", key.c_str());
    request.server.clients.erase(key.c_str());
    request.server.counts.operators_gone.add(); // no event follows
}

namespace {

// The short MAC in the second word; without one, `refusal` is the answer.
struct short_mac_or_refusal {
    uint16_t value;
    const char* refusal; // null when there is a value
};

} // namespace

static short_mac_or_refusal short_mac_argument(const terminal_request& request)
{
    if (request.words.size() < 2)
        return {0, mac_missing};
    const auto value = get_short_val_from_str(request.words[1]);
    if (!value)
        return {0, incorrect_mac};
    return {*value, nullptr};
}

static std::string reboot_node(const terminal_request& request)
{
    const auto [short_mac, refusal] = short_mac_argument(request);
    if (refusal)
        return refusal;
    const auto mac = find_mac_by_short(request.gateway.nodes, short_mac);
    if (!mac)
        return text_format(not_in_list, short_mac);
    return ask_win_server(request.server, make_reboot_request(*mac)) ? command_sent : command_not_sent;
}

// The answer is addressed first, as in command_del: an operator who cannot be reached gets nothing done.
static void command_reboot(const terminal_request& request)
{
    terminal_reply reply{*request.client, request.sock};
    if (reply)
        reply.send(reboot_node(request));
}

static std::string delete_node(const terminal_request& request)
{
    const auto [short_mac, refusal] = short_mac_argument(request);
    if (refusal)
        return refusal;
    const auto mac = delete_node_by_short_mac(request.gateway.nodes, short_mac);
    if (!mac)
        return text_format(not_in_list, short_mac);
    if (has_tap(request.gateway.win_server))
        tap_from_elsewhere(request.gateway.win_server, tap_event{"node_deleted"}.hex("node", *mac));
    return "Command completed successfully!\n";
}

static void command_del(const terminal_request& request)
{
    terminal_reply reply{*request.client, request.sock};
    if (reply)
        reply.send(delete_node(request));
}

static void command_info(const terminal_request& request)
{
    int zmq[3] = {};
    int czmq[3] = {};
    zmq_version(&zmq[0], &zmq[1], &zmq[2]);
    zsys_version(&czmq[0], &czmq[1], &czmq[2]);
    request.answer(
        text_format("GW Version     : %s\nZMQ version    : %d.%d.%d\nCZMQ version   : %d.%d.%d\n\n",
                    rtls_gateway_version, zmq[0], zmq[1], zmq[2], czmq[0], czmq[1], czmq[2]));
}

static uint16_t section_bit(int section)
{
    return static_cast<uint16_t>(1u << section);
}

// Switches the section named in the second word. The refusal, or null when it is done.
static const char* switch_section(std::span<char* const> words)
{
    int section = 0;
    while (section < DBG_SECTIONS_NUMBER && strcasecmp(words[1], dbg_section_name[section]) != 0)
        ++section;
    if (section == DBG_SECTIONS_NUMBER)
        return "Incorrect parameter!\n";
    const char choice = words.size() == 3 ? words[2][0] : '\0';
    switch (choice) {
    case 'y':
    case 'Y':
        debug_mask |= section_bit(section);
        return nullptr;
    case 'n':
    case 'N':
        debug_mask &= static_cast<uint16_t>(~section_bit(section));
        return nullptr;
    default:
        return "Incorrect parameter value!\n";
    }
}

static void command_dbg(const terminal_request& request)
{
    if (request.words.size() >= 2)
        if (const char* refusal = switch_section(request.words)) {
            request.answer(refusal);
            return;
        }
    for (int section = 0; section < DBG_SECTIONS_NUMBER; ++section) {
        const char state = (debug_mask & section_bit(section)) != 0 ? 'y' : 'n';
        if (!request.answer(text_format("\t%s %c\n", dbg_section_name[section], state)))
            return;
    }
}

static void command_sub(const terminal_request& request)
{
    request.client->subscribed = 1;
    request.answer("subscribed * ok.\n");
}

static void command_subm(const terminal_request& request)
{
    request.client->subscribed = 0;
    request.answer("unsubscribed * ok.\n");
}

static void keep_pattern(TERMINAL_CLIENT_t& client, const char* pattern)
try {
    client.grep_string = pattern;
} catch (const std::bad_alloc&) {
    client.grep_string.reset();
    logger_error(g_logger, str_out_of_memory, "command_grep");
}

// A pattern that cannot be used takes the old filter away, but the old pattern's text stays and is
// shown: operators' scripts know it so.
static void set_filter(const terminal_request& request, const char* pattern)
{
    TERMINAL_CLIENT_t& client = *request.client;
    client.preg.reset(); // before the next is compiled: memory may be short
    client.preg = compile_filter(pattern);
    if (!client.preg) {
        request.answer(text_format("GREP: cannot set regexp:  %s\n", zmq_strerror(errno)));
        return;
    }
    keep_pattern(client, pattern);
}

static void answer_filter(const terminal_request& request)
{
    const auto& pattern = request.client->grep_string;
    request.answer(text_format("GREP: %s\n", pattern ? pattern->c_str() : no_pattern));
}

static void command_grep(const terminal_request& request)
{
    if (request.words.size() >= 2)
        set_filter(request, request.words[1]);
    answer_filter(request);
}

static void command_grepm(const terminal_request& request)
{
    request.client->preg.reset();
    request.client->grep_string.reset();
    answer_filter(request);
}

static constexpr struct {
    const char* word;
    command_function run;
} commands[] = {
    {"h", command_help},      {"help", command_help},         {"q", command_quit},
    {"quit", command_quit},   {"pcl", command_pcl},           {"reboot", command_reboot},
    {"del", command_del},     {"pnf", command_pnf},           {"pn", command_pn},
    {"info", command_info},   {"dbg", command_dbg},           {"sub", command_sub},
    {"sub-", command_subm},   {"grep", command_grep},         {"grep-", command_grepm},
    {"fw", command_firmware}, {"firmware", command_firmware},
};

static void trimright(char* text)
{
    std::string_view rest{text};
    const size_t last = rest.find_last_not_of(" \t\r\n");
    text[last == std::string_view::npos ? 0 : last + 1] = '\0';
}

static void run_command(const terminal_request& request)
{
    for (const auto& command : commands)
        if (strcasecmp(request.words[0], command.word) == 0) {
            command.run(request);
            return;
        }
    request.answer("Unknown command. Type \"h\" or \"help\" for help.\n");
}

void run_typed(terminal_request request, char* text)
{
    trimright(text);
    dbg_print(request.dbg_sock, DBG_TERMINAL, console, "rcvd \"%s\"", text);
    char* words[words_limit];
    uint16_t count = 0;
    tokenize(text, &count, words, words_limit);
    if (count == 0)
        return;
    if (words[0][0] == '!') // scripts put it there; it means nothing
        ++words[0];
    request.words = {words, count};
    run_command(request);
}

void terminal_commands_parse(void* p_rtls_gateway, TERMINAL_CLIENT_t* id_found, zsock_t* reader, char* string,
                             zsock_t* dbg_sock)
{
    if (any_null(__func__, p_rtls_gateway, id_found, reader, string, dbg_sock))
        return;
    auto& gateway = *static_cast<services*>(p_rtls_gateway);
    if (any_null(__func__, gateway.terminal_server))
        return;
    run_typed({gateway, *gateway.terminal_server, id_found, reader, dbg_sock}, string);
}

} // namespace rtls
