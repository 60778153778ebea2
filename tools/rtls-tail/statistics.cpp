#include "rtls-tail/statistics.h"

#include "common/texts.h"
#include "rtls-tail/lines.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string_view>

namespace tail {

using namespace rtls::recording;
using nlohmann::ordered_json;

static constexpr size_t ages_limit = 100'000;  // the latest
static constexpr size_t nodes_limit = 500'000; // beyond, all are forgotten

static const std::vector<uint8_t>* report_in(const sight& it)
{
    const bool is_report = class_of(it.from->topic) == message_class::report && it.message.is_valid();
    return is_report && it.from->payload.size() == 2 ? &it.from->payload[1] : nullptr;
}

// The same report of the same node as the one before: whatever its time of generation says.
bool statistics::is_repeat(const sight& it)
{
    const std::vector<uint8_t>* report = report_in(it);
    if (!report)
        return false;
    if (m_last_reports.size() >= nodes_limit)
        m_last_reports.clear();
    const std::string_view bytes{reinterpret_cast<const char*>(report->data()), report->size()};
    const size_t digest = std::hash<std::string_view>{}(bytes);
    const auto [last, is_new] = m_last_reports.try_emplace(it.from->topic + it.kind, digest);
    const bool is_same = !is_new && last->second == digest;
    last->second = digest;
    return is_same;
}

static double number_in(const sight& it, const char* name)
{
    const auto* field = rtls::decode::find(it.message.fields, name);
    const auto* number = field ? std::get_if<int64_t>(field) : nullptr;
    return number ? static_cast<double>(*number) : 0;
}

// Messages that are no reports have numbers, too: of a node that sends such, reports alone show gaps.
void statistics::note_sequence(const sight& it)
{
    const auto* field = report_in(it) ? rtls::decode::find(it.message.fields, "seqNo") : nullptr;
    if (const auto* number = field ? std::get_if<int64_t>(field) : nullptr)
        m_sequences.note(it.from->topic, static_cast<uint8_t>(*number));
}

void statistics::note_age(const sight& it, uint64_t now_ns)
{
    if (!report_in(it))
        return;
    const double generated_ms = number_in(it, "seconds") * 1000 + number_in(it, "milliseconds");
    const auto age = static_cast<float>(static_cast<double>(now_ns) / 1e6 - generated_ms);
    if (m_ages_ms.size() < ages_limit)
        m_ages_ms.push_back(age);
    else
        m_ages_ms[m_next_age++ % ages_limit] = age;
}

void statistics::note(const sight& it, uint64_t now_ns)
{
    const uint64_t clock_ns = it.from->head.clock_ns;
    m_first_ns = m_messages == 0 ? clock_ns : std::min(m_first_ns, clock_ns);
    m_last_ns = std::max(m_last_ns, clock_ns);
    ++m_messages;
    const bool is_same = is_repeat(it);
    counts& kind = m_kinds[fmt::format("{} {}", class_name(class_of(it.from->topic)), it.kind)];
    counts& bridge = m_bridges[it.bridge.empty() ? "-" : it.bridge];
    for (counts* of : {&kind, &bridge}) {
        ++of->messages;
        of->repeats += is_same ? 1 : 0;
    }
    note_sequence(it);
    note_age(it, now_ns);
}

void statistics::reset()
{
    m_first_ns = m_last_ns = m_messages = 0;
    m_kinds.clear();
    m_bridges.clear();
    m_sequences.reset();
    m_ages_ms.clear();
    m_next_age = 0;
}

double statistics::seconds() const
{
    return static_cast<double>(m_last_ns - m_first_ns) / 1e9;
}

// Of one moment there is no rate.
double statistics::rate(uint64_t messages) const
{
    return seconds() > 0 ? static_cast<double>(messages) / seconds() : 0;
}

double statistics::age_at(double share) const
{
    std::vector<float> ages = m_ages_ms;
    const auto place = static_cast<std::ptrdiff_t>(std::ceil(share * static_cast<double>(ages.size() - 1)));
    std::nth_element(ages.begin(), ages.begin() + place, ages.end());
    return static_cast<double>(ages[static_cast<size_t>(place)]);
}

// To three places: what is beyond means nothing.
static double rounded(double value)
{
    return std::round(value * 1000) / 1000;
}

ordered_json statistics::as_json(const tap::running_numbers& numbers) const
{
    const auto listed = [this](const std::map<std::string, counts>& all) {
        ordered_json object = ordered_json::object();
        for (const auto& [name, it] : all)
            object[name] = {{"messages", it.messages},
                            {"per_second", rounded(rate(it.messages))},
                            {"repeats", it.repeats}};
        return object;
    };
    ordered_json told{{"from", time_text(m_first_ns)}, {"to", time_text(m_last_ns)},
                      {"seconds", rounded(seconds())}, {"messages", m_messages},
                      {"kinds", listed(m_kinds)},      {"bridges", listed(m_bridges)}};
    ordered_json& missing = told["missing"] = ordered_json::object();
    for (size_t i = 0; i + 1 < class_count; ++i)
        missing[class_name(static_cast<message_class>(i))] = numbers.missed(static_cast<message_class>(i));
    const sequence_gaps::counts& numbers_of_nodes = m_sequences.found();
    told["sequences"] = {{"gaps", numbers_of_nodes.gaps},
                         {"missing", numbers_of_nodes.missing},
                         {"repeats", numbers_of_nodes.repeats},
                         {"late", numbers_of_nodes.late},
                         {"resets", numbers_of_nodes.resets}};
    if (!m_ages_ms.empty())
        told["age_ms"] = {{"reports", m_ages_ms.size()},
                          {"least", rounded(age_at(0))},
                          {"median", rounded(age_at(0.5))},
                          {"p99", rounded(age_at(0.99))},
                          {"most", rounded(age_at(1))}};
    return told;
}

std::string statistics::as_table(const tap::running_numbers& numbers) const
{
    const ordered_json told = as_json(numbers);
    std::string text = fmt::format("{} to {}: {} s, {} messages\n", told["from"].get<std::string>(),
                                   told["to"].get<std::string>(), told["seconds"].dump(), m_messages);
    for (const auto& [title, all] : {std::pair{"KIND", &m_kinds}, std::pair{"BRIDGE", &m_bridges}}) {
        text += fmt::format("{:<36} {:>10} {:>10} {:>10}\n", title, "MESSAGES", "PER SECOND", "REPEATS");
        for (const auto& [name, it] : *all)
            text += fmt::format("{:<36} {:>10} {:>10.3f} {:>10}\n", tools::printable(name), it.messages,
                                rate(it.messages), it.repeats);
    }
    text += "missing by their numbers:";
    for (const auto& [name, missing] : told["missing"].items())
        text += fmt::format(" {} {}", name, missing.dump());
    text += "\nsequence numbers of nodes:";
    for (const auto& [name, count] : told["sequences"].items())
        text += fmt::format(" {} {}", name, count.dump());
    if (told.contains("age_ms"))
        text += fmt::format("\nms from generation: least {}, median {}, 99 % {}, most {}",
                            told["age_ms"]["least"].dump(), told["age_ms"]["median"].dump(),
                            told["age_ms"]["p99"].dump(), told["age_ms"]["most"].dump());
    return text + "\n";
}

} // namespace tail
