#include "terminal/firmware_commands.h"

#include "base/null_check.h"
#include "terminal/image_fetch.h"
#include "terminal/request.h"
#include "terminal/short_mac.h"
#include "terminal/texts.h"
#include "terminal/win_requests.h"
#include "wire/node_commands.h"

#include <cstring>
#include <optional>

namespace rtls {

static constexpr char incorrect_index[] = "Incorrect INDEX value!\n";
static constexpr char index_missing[] = "INDEX are missing!\n";

size_t firmware_pages_number(const OTA_FIRMWARE_INFO_t& info)
{
    if (info.page_size == 0)
        return 0;
    return info.size / info.page_size + (info.size % info.page_size != 0);
}

std::string firmware_list_line(uint16_t index, const OTA_FIRMWARE_INFO_t& info)
{
    return text_format("%*u %*X %*X %*zu %*u %*zu %*u %*u %*u\n", 5, index, 10, info.git_ver, 10, info.crc32,
                       8, info.size, 11, info.page_size, 7, firmware_pages_number(info), 13,
                       info.board_version, 14, info.board_revision, 11, info.maximum_pages);
}

std::string firmware_info_text(uint16_t index, const OTA_FIRMWARE_INFO_t& info)
{
    return text_format("index: %u\ngit id: %X\ncrc32: %X\nsize: %zu\npage size: %u\npages: %zu\n"
                       "board version: %u\nboard revision: %u\nmaximum pages: %u\n",
                       index, info.git_ver, info.crc32, info.size, info.page_size,
                       firmware_pages_number(info), info.board_version, info.board_revision,
                       info.maximum_pages);
}

static std::optional<OTA_FIRMWARE_INFO_t> info_of(const services& gateway, uint16_t index)
{
    if (any_null("ota_get_firmware_info", gateway.ota))
        return std::nullopt;
    return gateway.ota->firmware_info(index);
}

std::string firmware_info(const services& gateway, const char* index_word)
{
    const auto index = get_short_val_from_str(index_word);
    const auto info = index ? info_of(gateway, *index) : std::nullopt;
    return info ? firmware_info_text(*index, *info) : incorrect_index;
}

// A deletion is reported like a request sent to a node, although nothing is sent.
std::string firmware_del(const services& gateway, const char* index_word)
{
    const auto index = get_short_val_from_str(index_word);
    if (!index || any_null("ota_del_firmware", gateway.ota) || !gateway.ota->del_firmware(*index))
        return incorrect_index;
    return command_sent;
}

std::string firmware_apply(const services& gateway, TERMINAL_SERVER_t& server, const char* mac_word)
{
    const auto short_mac = get_short_val_from_str(mac_word);
    if (!short_mac)
        return incorrect_mac;
    const auto mac = find_mac_by_short(gateway.nodes, *short_mac);
    if (!mac)
        return text_format(not_in_list, *short_mac);
    return ask_win_server(server, make_apply_request(*mac)) ? command_sent : command_not_sent;
}

std::string firmware_set(const services& gateway, TERMINAL_SERVER_t& server, const char* index_word,
                         const char* mac_word, const char* source_word)
{
    const auto index = get_short_val_from_str(index_word);
    if (!index)
        return incorrect_index;
    const auto short_mac = get_short_val_from_str(mac_word);
    if (!short_mac)
        return incorrect_mac;
    const auto info = info_of(gateway, *index);
    if (!info)
        return incorrect_index;
    std::optional<uint16_t> source;
    if (source_word) {
        source = strcasecmp(source_word, "GW") == 0 ? 0 : get_short_val_from_str(source_word);
        if (!source)
            return "Incorrect SOURSE value!\n";
    }
    const auto mac = find_mac_by_short(gateway.nodes, *short_mac);
    if (!mac)
        return text_format(not_in_list, *short_mac);
    const auto message = make_set_request({info->git_ver, info->crc32, info->size}, source, *mac);
    return ask_win_server(server, message) ? "Command sent the node successfully!\n" : command_not_sent;
}

// --- Sub-commands. Each gets the reply that is already addressed, and answers it.

// Where set, apply, info and del read their numbers: in the sub-command word itself, not behind it. So
// set and info refuse, del means slot 0xDE, and apply means the node 000A ("a" of "apply"). Operators'
// tools count on these answers.
static const char* value_word(const terminal_request& request)
{
    return request.words[1];
}

static void subcommand_get(const terminal_request& request, terminal_reply& reply)
{
    if (request.words.size() < 3) {
        reply.send("URL is missing!\n");
        return;
    }
    OTA_t* store = request.gateway.ota;
    const bool is_there = !any_null("ota_download_firmware", store);
    reply.send(fetch_answer(is_there ? store->download_firmware(request.words[2], nullptr, nullptr) : -1));
}

static void subcommand_set(const terminal_request& request, terminal_reply& reply)
{
    if (request.words.size() < 4) {
        reply.send("INDEX or MAC are missing!\n");
        return;
    }
    const char* word = value_word(request);
    const char* source = nullptr;
    if (request.words.size() > 4)
        source = strcasecmp(request.words[4], "GW") == 0 ? "GW" : word;
    reply.send(firmware_set(request.gateway, request.server, word, word, source));
}

static void subcommand_apply(const terminal_request& request, terminal_reply& reply)
{
    reply.send(request.words.size() < 3
                   ? mac_missing
                   : firmware_apply(request.gateway, request.server, value_word(request)));
}

static void subcommand_list(const terminal_request& request, terminal_reply& reply)
{
    reply.send(firmware_list_header);
    const OTA_t* store = request.gateway.ota;
    const uint16_t slots = any_null("ota_get_files_number", store) ? uint16_t{0} : store->files_number();
    for (uint16_t index = 0; index < slots; ++index) {
        const auto info = info_of(request.gateway, index);
        if (info && !request.answer(firmware_list_line(index, *info)))
            return;
    }
}

static void subcommand_info(const terminal_request& request, terminal_reply& reply)
{
    reply.send(request.words.size() < 3 ? index_missing
                                        : firmware_info(request.gateway, value_word(request)));
}

static void subcommand_del(const terminal_request& request, terminal_reply& reply)
{
    reply.send(request.words.size() < 3 ? index_missing : firmware_del(request.gateway, value_word(request)));
}

static constexpr struct {
    const char* word;
    void (*run)(const terminal_request& request, terminal_reply& reply);
} subcommands[] = {
    {"get", subcommand_get},   {"set", subcommand_set},   {"apply", subcommand_apply},
    {"list", subcommand_list}, {"info", subcommand_info}, {"del", subcommand_del},
};

// An operator who cannot be reached gets nothing done: nobody would see the outcome. But of an image: who merely
// does not read is owed it when it comes, which may be long after his answer was to be addressed; it is not
// fetched for who has gone, as far as the system knows.
void command_firmware(const terminal_request& request)
{
    if (request.words.size() >= 3 && strcasecmp(request.words[1], "get") == 0 &&
        fetch_image(request.server, *request.client, request.words[2]))
        return;
    terminal_reply reply{*request.client, request.sock};
    if (!reply)
        return;
    if (request.words.size() >= 2)
        for (const auto& subcommand : subcommands)
            if (strcasecmp(request.words[1], subcommand.word) == 0) {
                subcommand.run(request, reply);
                return;
            }
    reply.send("Incorrect parameters!\n");
}

} // namespace rtls
