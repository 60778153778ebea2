#include "rtls-tail/command_line.h"

#include "common/output.h"
#include "common/texts.h"
#include "rtls-tail/captured_links.h"
#include "rtls-tail/filter.h"
#include "rtls-tail/lines.h"
#include "rtls-tail/statistics.h"
#include "tap/program.h"
#include "tap/recorded.h"
#include "tap/subscriber.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>

namespace tail {

using namespace rtls::recording;
using std::chrono::steady_clock;
using tap::arrival;
using tap::exit_status;

static const char* const footer =
    R"(The bytes of the bridges' connections are looked at with --link or --topic link/ alone: each report would be
there twice. MACs are whole, or how they end (4 digits at least).
Examples:
  rtls-tail --tap tcp://127.0.0.1:5559
  rtls-tail --tap tcp://127.0.0.1:5559 --mac 1A2B --kind heartbeat --json
  rtls-tail --tap tcp://127.0.0.1:5559 --link --bridge E45E510000000100 --direction down
  rtls-tail --read fault.pcapng --stats
  rtls-tail --read fault.pcapng --where 'pos_Z < -300 and not (seqNo == 0 or node_role == "bridge")'
  rtls-tail --capture site.pcap --port 4001 --where 'kind == "heartbeat"'
  rtls-tail --tap tcp://127.0.0.1:5559 --stats --every 10
Exit status:
  0  done
  1  the file cannot be read, or is damaged: what was before is shown
  2  the command line is wrong; nothing was done
  3  nobody answers at the endpoint, or lets us in (with --timeout)
  4  done, but messages are missing by their numbers, or bytes in a capture)";

namespace {

struct request {
    tap::subscription from;
    std::string file;
    std::string capture;
    uint16_t port = 4001;
    filter wanted;
    bool has_links = false;
    bool as_json = false;
    bool is_counting = false;
    double every = 0;
    double seconds = 0;
    uint64_t count = 0;
};

class follower {
public:
    follower(const request& asked, const tap::program& program)
        : m_asked(asked), m_program(program), m_numbers(asked.from.topics)
    {
    }
    exit_status read_file();
    exit_status read_capture();
    exit_status follow_tap();

private:
    bool is_over() const;
    void show(const tap_message& message, uint64_t now_ns);
    void show(const sight& it, uint64_t now_ns);
    void note_number(const tap_message& message);
    void tell_statistics();
    void tell_in_time();
    exit_status ended();

    const request& m_asked;
    const tap::program& m_program;
    tap::running_numbers m_numbers;
    viewer m_viewer;
    statistics m_statistics;
    bool m_has_reader = true;
    uint64_t m_shown = 0;
    const steady_clock::time_point m_began = steady_clock::now();
    steady_clock::time_point m_told = m_began;
};

} // namespace

static std::chrono::duration<double> since(steady_clock::time_point then)
{
    return steady_clock::now() - then;
}

bool follower::is_over() const
{
    return !m_has_reader || (m_asked.count > 0 && m_shown >= m_asked.count) ||
           (m_asked.seconds > 0 && since(m_began).count() >= m_asked.seconds);
}

void follower::note_number(const tap_message& message)
{
    const message_class of = class_of(message.topic);
    const auto step = m_numbers.note(of, message.head.number);
    if (step.missed > 0 || step.has_restarted)
        m_viewer.forget_beginnings(of);
    if (const std::string sentence = sentence_of(step, message); !sentence.empty())
        m_program.note(sentence);
}

void follower::show(const sight& it, uint64_t now_ns)
{
    if (is_over() || !m_asked.wanted.passes(it))
        return;
    ++m_shown;
    if (m_asked.is_counting)
        m_statistics.note(it, now_ns);
    else
        m_has_reader = tools::print(m_asked.as_json ? json_line(it) : readable_line(it));
}

void follower::show(const tap_message& message, uint64_t now_ns)
{
    note_number(message);
    for (const sight& it : m_viewer.look(message))
        show(it, now_ns);
}

void follower::tell_statistics()
{
    m_has_reader = tools::print(m_asked.as_json ? tools::json_text(m_statistics.as_json(m_numbers)) + "\n"
                                                : m_statistics.as_table(m_numbers));
    m_statistics.reset();
}

void follower::tell_in_time()
{
    if (!m_asked.is_counting || m_asked.every <= 0 || since(m_told).count() < m_asked.every)
        return;
    tell_statistics();
    m_told = steady_clock::now();
}

exit_status follower::ended()
{
    if (m_asked.is_counting && m_has_reader)
        tell_statistics();
    return m_numbers.missed() > 0 ? exit_status::incomplete : exit_status::done;
}

exit_status follower::read_file()
{
    tap::recorded recording{m_asked.file};
    tap_message message;
    while (!is_over() && recording.next(message))
        if (passes(m_asked.from.topics, message.topic))
            show(message, message.head.clock_ns);
    const exit_status status = ended();
    recording.end(m_program);
    return status;
}

exit_status follower::read_capture()
{
    captured_links links{m_asked.capture, m_asked.port};
    tap_message message;
    while (!is_over() && links.next(message)) {
        if (links.follows_gap())
            m_viewer.forget_beginning(message);
        if (passes(m_asked.from.topics, message.topic))
            show(message, message.head.clock_ns);
    }
    const exit_status status = ended();
    links.end(m_program);
    return links.missing_bytes() > 0 ? exit_status::incomplete : status;
}

static uint64_t wall_clock_ns()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count());
}

exit_status follower::follow_tap()
{
    tap::subscriber source{m_asked.from, [this](const std::string& text) { m_program.note(text); }};
    tap_message message;
    arrival what = arrival::nothing;
    while (!is_over() && what != arrival::stopped && what != arrival::nobody) {
        // Lines wait for nothing but the lines right behind them.
        what = source.next(message, std::chrono::milliseconds{what == arrival::message ? 0 : 200});
        if (what == arrival::message)
            show(message, wall_clock_ns());
        else
            m_has_reader = m_has_reader && tools::flush_output();
        tell_in_time();
    }
    if (what == arrival::nobody)
        throw tap::failure(exit_status::unreachable, source.why_nobody());
    return ended();
}

static void add_whence(CLI::App& app, request& asked)
{
    const char* const group = "Where it comes from";
    app.add_option("--tap", asked.from.endpoint, "A gateway's tap, as its key tap/address")
        ->type_name("ENDPOINT")
        ->group(group);
    app.add_option("--read", asked.file, "A recording; - is the input")->type_name("FILE")->group(group);
    CLI::Option* capture = app.add_option("--capture", asked.capture,
                                          "A capture of the bridges' port, pcap or pcapng; - is the input")
                               ->type_name("FILE")
                               ->group(group);
    app.add_option("--port", asked.port, "That port, the gateway's ports/win (4001)")
        ->type_name("PORT")
        ->check(CLI::Range(1, 65535))
        ->needs(capture)
        ->group(group);
    app.add_option("--timeout", asked.from.patience, "Give up when nobody answers for so long; 0: never")
        ->type_name("SECONDS")
        ->check(CLI::NonNegativeNumber)
        ->group(group);
    tap::add_certificate_options(app, asked.from.certificates, group);
}

static void add_filters(CLI::App& app, request& asked)
{
    const char* const group = "What is shown";
    const auto add = [&](const char* name, std::vector<std::string>& values, const char* meaning,
                         const char* type) {
        return app.add_option(name, values, meaning)
            ->type_name(type)
            ->delimiter(',')
            ->allow_extra_args(false)
            ->group(group);
    };
    add("--topic", asked.from.topics, "Topics that begin so, as report/", "PREFIX,...");
    app.add_flag("--link", asked.has_links, "The messages on the bridges' connections, too")->group(group);
    add("--mac", asked.wanted.macs, "Only of or for these nodes", "MAC,...");
    add("--bridge", asked.wanted.bridges, "Only by these bridges", "MAC,...");
    add("--kind", asked.wanted.kinds, "Only these kinds, as heartbeat, and events", "KIND,...");
    add("--direction", asked.wanted.ways, "Only this direction", "TEXT")
        ->check(CLI::IsMember({"up", "down", "neither"}));
    app.add_option("--where", asked.wanted.where,
                   "Only where this holds, as 'pos_Z < 0 and kind == \"heartbeat\"'")
        ->type_name("CONDITION")
        ->allow_extra_args(false)
        ->group(group);
}

static void add_how(CLI::App& app, request& asked)
{
    const char* const group = "How it is told";
    app.add_flag("--json", asked.as_json, "A JSON object a line")->group(group);
    CLI::Option* stats =
        app.add_flag("--stats", asked.is_counting,
                     "Rates by kind and bridge, repeats, what is missing, gaps, age of reports")
            ->group(group);
    app.add_option("--every", asked.every, "Tell these so often, of the time since; without, in the end")
        ->type_name("SECONDS")
        ->check(CLI::PositiveNumber)
        ->needs(stats)
        ->group(group);
    app.add_option("-n,--count", asked.count, "End after so many messages")->type_name("N")->group(group);
    app.add_option("--seconds", asked.seconds, "End after so long")
        ->type_name("SECONDS")
        ->check(CLI::PositiveNumber)
        ->group(group);
}

// What options could not write where it belongs.
static void settle(request& asked)
{
    const auto given = std::ranges::count_if(std::array{&asked.from.endpoint, &asked.file, &asked.capture},
                                             [](const std::string* whence) { return !whence->empty(); });
    if (given != 1)
        throw tap::failure(exit_status::usage,
                           "one of --tap, --read and --capture is wanted (rtls-tail --help)");
    asked.wanted.settle();
    const bool has_nothing_else = !asked.capture.empty() && asked.from.topics.empty();
    if (asked.from.topics.empty())
        asked.from.topics = {"report/", "management", "command", "event"};
    if (asked.has_links || has_nothing_else)
        asked.from.topics.emplace_back("link/");
}

int run_command_line(const tools::arguments& arguments)
{
    request asked;
    tap::program program{"rtls-tail", "Shows what passes a gateway, from its tap, a recording or a capture.",
                         footer};
    add_whence(program.options(), asked);
    add_filters(program.options(), asked);
    add_how(program.options(), asked);
    return program.run(arguments, [&] {
        settle(asked);
        follower it{asked, program};
        return !asked.file.empty()      ? it.read_file()
               : !asked.capture.empty() ? it.read_capture()
                                        : it.follow_tap();
    });
}

} // namespace tail
