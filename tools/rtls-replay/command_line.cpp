#include "rtls-replay/command_line.h"

#include "common/output.h"
#include "common/texts.h"
#include "rtls-replay/comparison.h"
#include "rtls-replay/connections.h"
#include "rtls-replay/pacing.h"
#include "tap/program.h"
#include "tap/recorded.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <optional>

namespace replay {

using namespace rtls::recording;
using nlohmann::ordered_json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using tap::exit_status;

static const char* const footer =
    R"(Each connection of the recording is one here, and its bytes (topics link/in) leave at the times of their reads.
With --check this program stands as the gateway's message handler: the gateway's message_handler/address and
port are the endpoint's. Reports are compared node by node; the time in front of each is the gateway's own.
Examples:
  rtls-replay --to 127.0.0.1:4001 fault.pcapng
  rtls-replay --to 127.0.0.1:4001 --speed 10 fault.pcapng
  rtls-replay --to 127.0.0.1:4001 --fast --shuffle 7 --check 'tcp://127.0.0.1:5557' fault.pcapng
Exit status:
  0  done; with --check: the same reports came
  1  the recording cannot be read, or is damaged: what was before is played; no descriptor is left
  2  the command line is wrong, or the endpoint is taken; nothing was done
  3  no gateway answers
  4  reports differ, or the gateway closed a connection too early)";

namespace {

struct request {
    std::string file;
    std::string gateway;
    std::string check;
    double speed = 1;
    double longest_pause = 3600;
    double patience = 5;
    uint64_t seed = 0;
    bool is_fast = false;
    bool as_json = false;
};

class player {
public:
    player(const request& asked, const tap::program& program)
        : m_asked(asked), m_program(program), m_to(asked.gateway, asked.seed),
          m_pacing(asked.speed, pacing::seconds{asked.longest_pause})
    {
        if (!asked.check.empty())
            m_inbox.emplace(asked.check);
    }
    exit_status run();

private:
    void play(const tap_message& message);
    void play_event(const tap_message& message);
    void wait_for_turn(uint64_t clock_ns);
    void wait_for_reports();
    void tell_jumps() const;
    bool pause(milliseconds time);
    exit_status told();

    const request& m_asked;
    const tap::program& m_program;
    connections m_to;
    std::optional<report_inbox> m_inbox;
    comparison m_reports;
    pacing m_pacing;
    std::optional<steady_clock::time_point> m_began;
};

} // namespace

// True when reports have come meanwhile.
bool player::pause(milliseconds time)
{
    m_to.wait(time);
    return m_inbox && m_inbox->drain(m_reports);
}

void player::wait_for_turn(uint64_t clock_ns)
{
    if (!m_began)
        m_began = steady_clock::now();
    const auto turn = *m_began + m_pacing.due(clock_ns);
    pause(milliseconds{0});
    while (!m_asked.is_fast && steady_clock::now() < turn)
        pause(std::min(milliseconds{20}, std::chrono::ceil<milliseconds>(turn - steady_clock::now())));
}

// What happened to the connection of its head; empty: nothing.
static std::string event_of(const tap_message& message)
{
    if (class_of(message.topic) != message_class::event || message.head.connection == 0 ||
        message.payload.empty())
        return "";
    const auto& text = message.payload[0];
    const auto event = ordered_json::parse(text.begin(), text.end(), nullptr, false);
    const auto name = event.is_object() ? event.find("event") : event.end();
    return name != event.end() && name->is_string() ? name->get<std::string>() : "";
}

void player::play_event(const tap_message& message)
{
    const std::string event = event_of(message);
    if (event != "bridge_connected" && event != "bridge_closed")
        return;
    wait_for_turn(message.head.clock_ns);
    if (event == "bridge_closed")
        m_to.close(message.head.connection);
    else
        m_to.send(message.head.connection, {});
}

void player::play(const tap_message& message)
{
    const message_class of = class_of(message.topic);
    if (of == message_class::link_in) {
        wait_for_turn(message.head.clock_ns);
        for (const auto& bytes : message.payload)
            m_to.send(message.head.connection, bytes);
    } else if (of == message_class::report && m_inbox)
        m_reports.expect(message.payload);
    else
        play_event(message);
}

// Until all are there and no more come, or nothing has come for as long as patience goes.
void player::wait_for_reports()
{
    static constexpr milliseconds beyond{300};
    auto last = steady_clock::now();
    for (bool is_over = !m_inbox; !is_over;) {
        if (pause(milliseconds{20}))
            last = steady_clock::now();
        const std::chrono::duration<double> quiet = steady_clock::now() - last;
        is_over = quiet.count() >= m_asked.patience || (m_reports.missing() == 0 && quiet >= beyond);
    }
}

void player::tell_jumps() const
{
    const pacing::jumps& found = m_pacing.found();
    if (m_asked.is_fast)
        return;
    if (found.shortened > 0)
        m_program.note(fmt::format("{} pause{} of up to {:.0f} s played as {} s (--max-pause)",
                                   found.shortened, found.shortened == 1 ? "" : "s", found.worst.count(),
                                   m_asked.longest_pause));
    if (found.back > 0)
        m_program.note(fmt::format("the recording's clock steps back {} time{}: played without a pause",
                                   found.back, found.back == 1 ? "" : "s"));
}

exit_status player::told()
{
    const std::string difference = m_reports.first_difference();
    if (m_asked.as_json) {
        ordered_json all{{"connections", m_to.opened()},
                         {"bytes", m_to.sent()},
                         {"closed_early", m_to.refused()},
                         {"pauses_shortened", m_pacing.found().shortened},
                         {"clock_steps_back", m_pacing.found().back}};
        if (m_inbox)
            all.update(
                {{"reports", m_reports.expected()},
                 {"equal", m_reports.equal()},
                 {"first_difference", difference.empty() ? ordered_json{} : ordered_json(difference)}});
        tools::print(tools::json_text(all) + "\n");
    } else {
        m_program.note(fmt::format("{} bytes on {} connections", m_to.sent(), m_to.opened()));
        if (m_inbox)
            m_program.note(
                fmt::format("{} of {} reports are the same", m_reports.equal(), m_reports.expected()));
    }
    tell_jumps();
    if (!difference.empty())
        m_program.note(difference);
    if (m_to.refused() > 0)
        m_program.note(fmt::format("the gateway closed {} connections too early", m_to.refused()));
    return m_to.refused() > 0 || !m_reports.is_same() ? exit_status::incomplete : exit_status::done;
}

exit_status player::run()
{
    tap::recorded recording{m_asked.file};
    tap_message message;
    while (recording.next(message))
        play(message);
    m_to.send_rest();
    wait_for_reports();
    m_to.finish();
    const exit_status status = told();
    recording.end(m_program);
    return status;
}

static void add_options(CLI::App& app, request& asked)
{
    app.add_option("file", asked.file, "The recording; - is the input")->type_name("FILE");
    app.add_option("--to", asked.gateway, "The gateway's port for bridges (ports/win)")
        ->type_name("HOST:PORT");
    CLI::Option* speed = app.add_option("--speed", asked.speed, "So many times as fast as it was recorded")
                             ->type_name("N")
                             ->check(CLI::Range(0.001, 1e6));
    app.add_flag("--fast", asked.is_fast, "As fast as TCP takes it")->excludes(speed);
    app.add_option("--max-pause", asked.longest_pause,
                   "A longer pause in the recording is played as one of this length (3600)")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 1e6));
    app.add_option("--shuffle", asked.seed, "Cut each connection's bytes at other places, by this number")
        ->type_name("SEED")
        ->check(CLI::PositiveNumber);
    app.add_option("--check", asked.check, "Be the message handler here, and compare the reports")
        ->type_name("ENDPOINT");
    app.add_option("--patience", asked.patience, "Seconds without a report until no more is waited for (5)")
        ->type_name("SECONDS")
        ->check(CLI::PositiveNumber);
    app.add_flag("--json", asked.as_json, "Tell how it went as JSON");
}

int run_command_line(const tools::arguments& arguments)
{
    request asked;
    tap::program program{"rtls-replay", "Plays the bridges of a recording against a gateway.", footer};
    add_options(program.options(), asked);
    return program.run(arguments, [&] {
        if (asked.file.empty() || asked.gateway.empty())
            throw tap::failure(exit_status::usage, "a recording and --to are wanted (rtls-replay --help)");
        return player{asked, program}.run();
    });
}

} // namespace replay
