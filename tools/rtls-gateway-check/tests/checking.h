// checking - a configuration without a flaw, changed by a test, and what is said of it.
//
// Ownership  Values.
// Threads    One at a time.
// Failures   None.
#pragma once

#include "rtls-gateway-check/check.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace rtls::check {

// A machine on which all is well, until a test says otherwise.
class some_machine : public surroundings {
public:
    std::map<std::string, file_facts> files; // others are not there
    std::map<std::string, std::string> unresolved;
    std::set<std::string> addresses{"127.0.0.1", "10.20.0.1"};
    std::optional<uint64_t> files_limit = 65536;
    std::optional<int64_t> waiting_limit = 4096;

    some_machine() { files["/run/rtls-gateway"].is_there = files["/run/rtls-gateway"].is_folder = true; }

    std::vector<std::optional<std::string>> resolve(const std::vector<std::string>& names) const override
    {
        std::vector<std::optional<std::string>> reasons;
        for (const std::string& name : names) {
            const auto found = unresolved.find(name);
            reasons.push_back(found == unresolved.end() ? std::nullopt : std::optional{found->second});
        }
        return reasons;
    }
    bool has_address(in_addr address) const override
    {
        char text[INET_ADDRSTRLEN];
        return addresses.contains(inet_ntop(AF_INET, &address, text, sizeof text));
    }
    file_facts look_at(const std::string& path) const override
    {
        const auto found = files.find(path);
        return found == files.end() ? file_facts{} : found->second;
    }
    std::optional<uint64_t> most_files() const override { return files_limit; }
    std::optional<int64_t> most_waiting() const override { return waiting_limit; }
};

// Its lines, so that a test can name the one that it changes.
class some_file {
public:
    some_file()
        : m_lines{"pidfile = /run/rtls-gateway/rtls-gateway.pid", // 1
                  "debug_broker_address = tcp://127.0.0.1:5558",
                  "firmware_files = 5",
                  "ports", // 4
                  "    terminal = 4000",
                  "    terminal_address = 127.0.0.1",
                  "    win = 4001", // 7
                  "    win_networks = 10.20.0.0/16",
                  "    win_backlog = 1024",
                  "    discovery = 4002", // 10
                  "pub_sub_proxy",
                  "    address = 127.0.0.1",
                  "    port = 5555",
                  "    input_port = 5556", // 14
                  "message_handler",
                  "    address = 127.0.0.1",
                  "    port = 5557", // 17
                  "debug",
                  "    raw = no"}
    {
    }

    // Instead of line `number`, counted from 1; behind the last one, added.
    some_file& line(size_t number, const std::string& text)
    {
        if (number > m_lines.size())
            m_lines.push_back(text);
        else
            m_lines[number - 1] = text;
        return *this;
    }
    some_file& add(const std::string& text) { return line(m_lines.size() + 1, text); }
    std::string text() const
    {
        std::string all;
        for (const std::string& one : m_lines)
            all += one + "\n";
        return all;
    }

private:
    std::vector<std::string> m_lines;
};

using said_texts = std::vector<std::string>;

// "7 harm cut ports/win: what is wrong / what to do"
inline said_texts said_of(const findings& found)
{
    said_texts said;
    for (const finding& one : found)
        said.push_back(fmt::format("{} {} {} {}: {} / {}", one.line, name_of(one.level), one.kind, one.key,
                                   one.text, one.remedy));
    return said;
}

inline said_texts said_of(const some_file& file, const check_options& options)
{
    return said_of(check_configuration(parse_zpl(file.text()), options));
}

inline said_texts said_of(const some_file& file)
{
    const some_machine machine;
    return said_of(file, {.machine = &machine, .bridges = {}});
}

} // namespace rtls::check
