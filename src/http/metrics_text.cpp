#include "http/metrics_text.h"

#include "http/blanks.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>
#include <utility>

namespace rtls {

static constexpr std::string_view total = "_total";
static constexpr std::string_view open_metrics_type = "application/openmetrics-text";
static constexpr std::string_view open_metrics_version = "1.0.0";
static constexpr std::string_view plain_type = "text/plain";
static constexpr std::string_view plain_version = "0.0.4";
static constexpr double largest_exact = 9007199254740992; // 2^53

// --- what is asked for

static bool is_same(std::string_view one, std::string_view other)
{
    return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

// Where the first `separator` stands that is not quoted.
static size_t end_of_part(std::string_view text, char separator)
{
    bool is_quoted = false;
    for (size_t at = 0; at < text.size(); ++at)
        if (is_quoted && text[at] == '\\')
            ++at;
        else if (text[at] == '"')
            is_quoted = !is_quoted;
        else if (text[at] == separator && !is_quoted)
            return at;
    return std::string_view::npos;
}

// Takes what stands before `separator` off the text.
static std::string_view next_part(std::string_view& rest, char separator)
{
    const size_t end = end_of_part(rest, separator);
    const std::string_view part = trimmed(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
    return part;
}

static std::string unquoted(std::string_view value)
{
    if (value.size() < 2 || value.front() != '"' || value.back() != '"')
        return std::string{value};
    std::string text;
    for (size_t at = 1; at + 1 < value.size(); ++at) {
        if (value[at] == '\\' && at + 2 < value.size())
            ++at;
        text += value[at];
    }
    return text;
}

namespace {

struct media_range {
    std::string_view type;
    std::string version;
    double quality = 1;
};

// How much a format is wanted, by the range that names it most exactly.
struct preference {
    int rank = unnamed;
    double quality = 0;

    static constexpr int unnamed = -2;
};

} // namespace

// Nothing for what is no number from 0 to 1.
static std::optional<double> read_quality(std::string_view text)
{
    double quality = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, quality, std::chars_format::fixed);
    const bool is_read = error == std::errc{} && rest == end && quality >= 0 && quality <= 1; // and not NaN
    return is_read ? std::optional{quality} : std::nullopt;
}

// Nothing when its weight cannot be read. What else it may say (charset, escaping) is the same for both formats.
static std::optional<media_range> read_range(std::string_view text)
{
    media_range range{next_part(text, ';'), {}};
    while (!text.empty()) {
        std::string_view value = next_part(text, ';');
        const std::string_view name = next_part(value, '=');
        value = trimmed(value);
        if (is_same(name, "version"))
            range.version = unquoted(value);
        else if (is_same(name, "q")) {
            const std::optional<double> quality = read_quality(value);
            if (!quality)
                return std::nullopt;
            range.quality = *quality;
        }
    }
    return range;
}

// How exactly the range names a format: its type, the kind of it, or all; each the more so with the version.
static int rank_of(const media_range& range, std::string_view type, std::string_view version)
{
    if (!range.version.empty() && range.version != version)
        return preference::unnamed;
    const int with_version = range.version.empty() ? 0 : 1;
    if (is_same(range.type, type))
        return 4 + with_version;
    const std::string kind{type.substr(0, type.find('/') + 1)};
    if (is_same(range.type, kind + '*'))
        return 2 + with_version;
    return range.type == "*/*" ? with_version : preference::unnamed;
}

static void weigh(preference& wanted, int rank, double quality)
{
    if (rank > wanted.rank)
        wanted = {rank, quality};
    else if (rank == wanted.rank && rank != preference::unnamed)
        wanted.quality = std::max(wanted.quality, quality);
}

// As RFC 9110, 12.5.1 has it. Of two that are wanted as much, the one that is named more exactly; whoever takes
// anything gets Prometheus' own.
metrics_format wanted_format(std::string_view accept)
{
    preference open_metrics;
    preference plain;
    while (!accept.empty()) {
        const std::optional<media_range> range = read_range(next_part(accept, ','));
        if (!range)
            continue;
        weigh(open_metrics, rank_of(*range, open_metrics_type, open_metrics_version), range->quality);
        weigh(plain, rank_of(*range, plain_type, plain_version), range->quality);
    }
    if (open_metrics.quality <= 0 || open_metrics.quality < plain.quality)
        return metrics_format::prometheus;
    const bool is_wanted_more = open_metrics.quality > plain.quality;
    const bool is_named = open_metrics.rank / 2 >= std::max(plain.rank / 2, 1);
    return is_wanted_more || is_named ? metrics_format::open_metrics : metrics_format::prometheus;
}

// --- the text

static void append_number(std::string& text, double value)
{
    std::array<char, 40> digits; // NOLINT(cppcoreguidelines-pro-type-member-init)
    char* const end = digits.data() + digits.size();
    const bool is_whole = std::abs(value) <= largest_exact && value == std::floor(value);
    const auto [rest, error] = is_whole ? std::to_chars(digits.data(), end, static_cast<int64_t>(value))
                                        : std::to_chars(digits.data(), end, value);
    text.append(digits.data(), rest);
    (void)error; // there is room for any
}

// A bucket's end: a floating point number in both formats.
static std::string bound_text(double bound)
{
    std::string text;
    append_number(text, bound);
    if (text.find_first_of(".e") == std::string::npos)
        text += ".0";
    return text;
}

// A quotation mark ends a label's value; in a help it is escaped by one of the formats only.
static void append_escaped(std::string& text, std::string_view value, bool quotes_too)
{
    for (const char c : value)
        switch (c) {
        case '\\':
            text += "\\\\";
            break;
        case '"':
            text += quotes_too ? "\\\"" : "\"";
            break;
        case '\n':
            text += "\\n";
            break;
        default:
            text += c;
        }
}

static void append_label(std::string& text, char separator, std::string_view name, std::string_view value)
{
    text += separator;
    text.append(name).append("=\"");
    append_escaped(text, value, true);
    text += '"';
}

void metrics_text::comment(const char* what, std::string_view text)
{
    m_text.append("# ").append(what).append(" ").append(m_name);
    if (m_format == metrics_format::prometheus)
        m_text.append(m_suffix);
    m_text.append(" ").append(text).append("\n");
}

static std::string_view type_name(metric_type type)
{
    switch (type) {
    case metric_type::counter:
        return "counter";
    case metric_type::gauge:
        return "gauge";
    case metric_type::histogram:
        return "histogram";
    }
    return "unknown";
}

void metrics_text::begin(const metric& of)
{
    m_name = of.name;
    m_suffix = {};
    if (of.type == metric_type::counter && m_name.ends_with(total)) {
        m_name.remove_suffix(total.size());
        m_suffix = total;
    }
    std::string help;
    append_escaped(help, of.help, m_format == metrics_format::open_metrics);
    comment("HELP", help);
    comment("TYPE", type_name(of.type));
    if (m_format == metrics_format::open_metrics && *of.unit != '\0')
        comment("UNIT", of.unit);
}

void metrics_text::line(std::string_view suffix, labels of, std::string_view le, double value)
{
    m_text.append(m_name).append(suffix);
    char separator = '{';
    for (const label& one : of)
        append_label(m_text, std::exchange(separator, ','), one.name, one.value);
    if (!le.empty())
        append_label(m_text, std::exchange(separator, ','), "le", le);
    m_text += separator == ',' ? "} " : " ";
    append_number(m_text, value);
    m_text += '\n';
}

void metrics_text::sample(labels of, double value)
{
    line(m_suffix, of, {}, value);
}

void metrics_text::times(labels of, const times_sample& sample)
{
    for (size_t i = 0; i < sample.bounds.size(); ++i)
        line("_bucket", of, bound_text(sample.bounds[i]), static_cast<double>(sample.buckets[i]));
    const auto count = static_cast<double>(sample.buckets.back());
    line("_bucket", of, "+Inf", count);
    line("_sum", of, {}, sample.sum);
    line("_count", of, {}, count);
}

std::string metrics_text::finish() &&
{
    if (m_format == metrics_format::open_metrics)
        m_text += "# EOF\n";
    return std::move(m_text);
}

page metrics_page(const services& gateway, const page_request& request)
{
    const metrics_format format = wanted_format(request.accept);
    metrics_text text{format};
    collect(gateway, text);
    return {200, std::move(text).finish(),
            format == metrics_format::open_metrics
                ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                : "text/plain; version=0.0.4; charset=utf-8"};
}

} // namespace rtls
