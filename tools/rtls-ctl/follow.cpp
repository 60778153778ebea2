#include "rtls-ctl/follow.h"

#include "common/end_signals.h"
#include "common/output.h"
#include "doors/orders.h"
#include "rtls-ctl/report.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <poll.h>
#include <regex.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace ctl {

// --- Lines

static constexpr size_t longest_line = 2047;

std::optional<std::string> line_cutter::next()
{
    const size_t end = m_bytes.find('\n');
    const bool is_cut = std::min(end, m_bytes.size()) >= longest_line;
    if (end == std::string::npos && !is_cut)
        return std::nullopt;
    std::string line = m_bytes.substr(0, is_cut ? longest_line : end);
    m_bytes.erase(0, line.size() + (is_cut ? 0 : 1));
    return line;
}

// Takes `mark` off, or nothing.
static bool take(std::string_view& text, std::string_view mark)
{
    if (!text.starts_with(mark))
        return false;
    text.remove_prefix(mark.size());
    return true;
}

static std::string_view take_until(std::string_view& text, std::string_view mark)
{
    const size_t at = std::min(text.find(mark), text.size());
    const std::string_view taken = text.substr(0, at);
    text.remove_prefix(std::min(at + mark.size(), text.size()));
    return taken;
}

debug_line read_debug_line(std::string_view line)
{
    debug_line read;
    std::string_view rest = line;
    if (take(rest, "\033[36m")) {
        read.time = printable(take_until(rest, "\033[0m "));
        if (take(rest, "\033[35m"))
            read.channel = printable(take_until(rest, ":\033[0m "));
    }
    read.text = printable(rest);
    return read;
}

static std::string plain_text(const debug_line& line)
{
    return line.time.empty() ? line.text : fmt::format("{} {}: {}", line.time, line.channel, line.text);
}

static std::string coloured_text(const debug_line& line)
{
    return line.time.empty()
               ? line.text
               : fmt::format("\033[36m{}\033[0m \033[35m{}:\033[0m {}", line.time, line.channel, line.text);
}

// --- Patterns

bool is_plain(const std::string& pattern)
{
    return !pattern.empty() &&
           std::ranges::all_of(pattern, [](unsigned char c) { return std::isalnum(c) != 0; });
}

namespace {

// What lines must contain.
class line_pattern {
public:
    explicit line_pattern(const std::string& pattern) : m_is_any(pattern.empty())
    {
        const int error = m_is_any ? 0 : regcomp(&m_compiled, pattern.c_str(), REG_EXTENDED | REG_NOSUB);
        if (error == 0)
            return;
        char why[200];
        regerror(error, &m_compiled, why, sizeof why);
        throw failure(exit_status::usage, fmt::format("the pattern {}: {}", pattern, why));
    }
    ~line_pattern()
    {
        if (!m_is_any)
            regfree(&m_compiled);
    }
    line_pattern(const line_pattern&) = delete;
    line_pattern& operator=(const line_pattern&) = delete;

    bool is_in(const std::string& line) const
    {
        return m_is_any || regexec(&m_compiled, line.c_str(), 0, nullptr, 0) == 0;
    }

private:
    bool m_is_any;
    regex_t m_compiled{};
};

// One gateway's stream.
struct followed {
    gateway* from;
    line_cutter lines;
    bool has_ended = false;
};

class follower {
public:
    follower(const follow_options& options, bool has_names)
        : m_options(options), m_pattern(options.pattern), m_has_names(has_names)
    {
    }

    void begin(gateway& g)
    {
        m_streams.push_back({&g, {}, false});
        guarded(m_streams.back(), [&] {
            switch_on(g);
            subscribe(g, is_plain(m_options.pattern) ? m_options.pattern : "");
        });
    }
    // Until it is ended, or nobody is left to follow.
    exit_status run()
    {
        while (wait()) {
        }
        tell_what_stays_on();
        return m_status;
    }

private:
    template <typename Action>
    void guarded(followed& stream, Action action)
    try {
        action();
    } catch (const failure& why) {
        stream.has_ended = true;
        m_status = std::max(m_status, why.status());
        print_failure(m_has_names ? stream.from->name() : "", why.what());
    }

    void switch_on(gateway& g)
    {
        if (m_options.sections.empty())
            return;
        const json before = sections_of(g);
        for (const std::string& section : m_options.sections)
            if (!before.value(section, false)) {
                switch_section(g, section, true);
                m_switched_on.push_back({g.name(), section});
            }
    }

    // False when it is over.
    bool wait()
    {
        std::vector<pollfd> entries{{m_signals.descriptor(), POLLIN, 0}};
        std::vector<followed*> waiting;
        for (followed& stream : m_streams)
            if (!stream.has_ended) {
                entries.push_back({stream.from->terminal().descriptor(), POLLIN, 0});
                waiting.push_back(&stream);
            }
        if (waiting.empty() || poll(entries.data(), entries.size(), -1) < 0)
            return !waiting.empty() && errno == EINTR;
        for (size_t i = 0; i < waiting.size(); ++i)
            if (entries[i + 1].revents != 0)
                read(*waiting[i]);
        return tools::flush_output() && entries[0].revents == 0;
    }

    void read(followed& stream)
    {
        guarded(stream, [&] { stream.lines.add(stream.from->terminal().read_more()); });
        while (const auto line = stream.lines.next())
            show(*stream.from, read_debug_line(*line));
    }

    void show(const gateway& from, const debug_line& line) const
    {
        const std::string plain = plain_text(line);
        if (!m_pattern.is_in(plain))
            return;
        if (m_options.as_json)
            fmt::print("{}\n", json_text(json{{"gateway", from.name()},
                                              {"time", line.time},
                                              {"channel", line.channel},
                                              {"text", line.text}}));
        else
            fmt::print("{}{}\n", m_has_names ? from.name() + ": " : "",
                       m_options.out.has_colours ? coloured_text(line) : plain);
    }

    void tell_what_stays_on() const
    {
        for (const auto& [name, section] : m_switched_on)
            print_failure(
                m_has_names ? name : "",
                fmt::format("{0} stays on, as others may watch it: rtls-ctl debug {0} off", section));
    }

    struct switched {
        std::string gateway;
        std::string section;
    };

    const follow_options& m_options;
    const line_pattern m_pattern;
    const bool m_has_names;
    tools::end_signals m_signals{SIGINT, SIGTERM, SIGHUP};
    std::vector<followed> m_streams;
    std::vector<switched> m_switched_on;
    exit_status m_status = exit_status::done;
};

} // namespace

exit_status follow(std::vector<gateway>& gateways, const follow_options& options)
{
    follower it{options, gateways.size() > 1};
    for (gateway& g : gateways)
        it.begin(g);
    return it.run();
}

} // namespace ctl
