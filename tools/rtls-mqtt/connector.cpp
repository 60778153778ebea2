#include "rtls-mqtt/connector.h"

#include "common/output.h"
#include "common/texts.h"
#include "tap/failure.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <poll.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace mqtt {

using namespace rtls::recording;
using std::chrono::milliseconds;
using tap::arrival;
using tap::exit_status;

static constexpr size_t most_bytes = 64UL * 1024 * 1024; // that wait for the broker
static constexpr milliseconds longest_wait{200};
static constexpr milliseconds between_losses{1000};
static constexpr milliseconds patience_at_the_end{3000};

static uint64_t wall_clock_ns()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count());
}

static const char* state_text(bool is_online)
{
    return is_online ? "online" : "offline";
}

static tap::subscription with_topics(tap::subscription from)
{
    from.topics = {"report/", "event"};
    return from;
}

static broker_options with_names(broker_options to, const topics& names, bool may_command)
{
    to.will = {names.status(), state_text(false), true};
    to.commands = may_command ? names.commands() : "";
    return to;
}

connector::connector(const connector_options& options, const tap::program& program)
    : m_options(options), m_program(program), m_names(options.gateway), m_since(time_text(wall_clock_ns())),
      m_tap(with_topics(options.from), [&program](const std::string& text) { program.note(text); }),
      m_numbers(with_topics(options.from).topics),
      m_broker(
          with_names(options.to, m_names, options.may_command),
          [&program](const std::string& text) { program.note(text); },
          [this](const broker::received& message) { take_command(message); }),
      m_outbox(options.queue, most_bytes)
{
    if (options.may_command)
        m_commands.emplace(options.terminal);
}

// --- From the tap

void connector::take(const tap_message& message)
{
    const auto step = m_numbers.note(class_of(message.topic), message.head.number);
    if (const std::string sentence = sentence_of(step, message); !sentence.empty())
        m_program.note(sentence);
    if (auto it = publication_of(m_names, message))
        m_outbox.push(std::move(*it));
    else
        ++m_nameless;
}

// --- Commands

void connector::take_command(const broker::received& message)
{
    const auto name = m_names.command_in(message.topic);
    if (!m_commands || !name)
        return;
    const order what{*name, message.payload};
    if (!message.is_retained)
        return m_commands->give(what);
    const answer no =
        refused(what, "a retained command would be done again at each connection: it is not done");
    m_outbox.push({m_names.answer(no.command), no.text, false});
}

void connector::take_answers()
{
    if (!m_commands)
        return;
    for (const answer& it : m_commands->take_answers())
        m_outbox.push({m_names.answer(it.command), it.text, false});
}

// --- To the broker

losses connector::lost() const
{
    return {m_numbers.missed(), m_tap.not_understood() + m_nameless, m_outbox.lost(), m_broker.cut_off()};
}

void connector::note_queue()
{
    if (m_outbox.lost() > m_lost_noted && !m_is_overflowing) {
        m_program.note(
            fmt::format("{} messages wait for the broker: the oldest are given up", m_outbox.size()));
        m_is_overflowing = true;
    }
    m_lost_noted = m_outbox.lost();
    if (m_outbox.is_empty() && m_is_overflowing) {
        m_program.note(fmt::format("nothing waits any more; {} messages were given up so far", m_lost_noted));
        m_is_overflowing = false;
    }
}

// The gateway is there for the broker's clients when its messages get through.
void connector::tell_state()
{
    const bool is_linked = m_tap.is_linked();
    if (m_told_online == is_linked)
        return;
    m_broker.publish({m_names.status(), state_text(is_linked), true});
    m_told_online = is_linked;
}

void connector::tell_losses()
{
    const losses now = lost();
    if (m_told_losses && (*m_told_losses == now || clock::now() - m_told_losses_at < between_losses))
        return;
    m_broker.publish({m_names.losses(), json_of(now, m_since), true});
    m_told_losses = now;
    m_told_losses_at = clock::now();
}

void connector::send_what_fits()
{
    while (m_broker.has_room() && !m_outbox.is_empty())
        m_broker.publish(m_outbox.pop());
}

void connector::work()
{
    take_answers();
    m_broker.work();
    if (m_broker.is_online()) {
        if (std::exchange(m_told_to, m_broker.times_let_in()) != m_broker.times_let_in()) {
            m_told_online.reset();
            m_told_losses.reset();
        }
        tell_state();
        send_what_fits();
        tell_losses();
    }
    note_queue();
}

// --- The whole

void connector::require_broker() const
{
    const double patience = m_options.from.patience;
    const std::chrono::duration<double> waited = clock::now() - m_began;
    if (patience > 0 && m_broker.times_let_in() == 0 && waited.count() >= patience)
        throw tap::failure(exit_status::unreachable, m_broker.why_not());
}

arrival connector::turn(tap_message& message, milliseconds within)
{
    std::vector<tap::other_descriptor> others;
    if (const auto wanted = m_broker.wanted(); wanted.fd != -1)
        others.push_back(wanted);
    if (m_commands)
        others.push_back({m_commands->descriptor(), POLLIN});
    const arrival what = m_tap.next(message, within, others);
    if (what == arrival::message)
        take(message);
    work();
    require_broker();
    return what;
}

// Until all that waits is acknowledged, or nothing more can be done.
void connector::wait_for_broker(clock::time_point deadline, bool is_over)
{
    while (!is_over && m_broker.is_online() && clock::now() < deadline) {
        const auto wanted = m_broker.wanted();
        pollfd entry{wanted.fd, wanted.events, 0};
        ::poll(&entry, 1, 50);
        m_broker.work();
        send_what_fits();
        is_over = m_outbox.is_empty() && m_broker.under_way() == 0;
    }
}

void connector::end()
{
    const auto deadline = clock::now() + patience_at_the_end;
    const auto is_over = [this] { return m_outbox.is_empty() && m_broker.under_way() == 0; };
    wait_for_broker(deadline, is_over());
    if (m_broker.is_online()) {
        m_told_losses.reset();
        tell_losses();
        m_broker.publish({m_names.status(), state_text(false), true});
        wait_for_broker(deadline, is_over());
    }
    m_broker.leave();
}

void connector::tell_how_it_went() const
{
    const losses all = lost();
    const size_t left = m_outbox.size() + m_broker.under_way();
    if (m_options.as_json) {
        tools::print(tools::json_text(nlohmann::ordered_json{{"handed_over", m_broker.handed_over()},
                                                             {"left", left},
                                                             {"tap", all.tap},
                                                             {"not_understood", all.not_understood},
                                                             {"queue", all.queue},
                                                             {"cut_off", all.cut_off}}) +
                     "\n");
        return;
    }
    m_program.note(
        fmt::format("{} messages handed over, {} lost, {} left", m_broker.handed_over(), all.sum(), left));
}

exit_status connector::run()
{
    tap_message message;
    arrival what = arrival::nothing;
    while (what != arrival::stopped && what != arrival::nobody)
        what = turn(message, what == arrival::message ? milliseconds{0} : longest_wait);
    end();
    if (what == arrival::nobody)
        throw tap::failure(exit_status::unreachable, m_tap.why_nobody());
    tell_how_it_went();
    const bool is_whole = lost().sum() + m_outbox.size() + m_broker.under_way() == 0;
    return is_whole ? exit_status::done : exit_status::incomplete;
}

} // namespace mqtt
