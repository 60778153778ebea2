#include "http/metrics_text.h"

#include "http/blanks.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <utility>

namespace rtls {

static constexpr std::string_view total = "_total";
static constexpr std::string_view open_metrics_type = "application/openmetrics-text";
static constexpr double largest_exact = 9007199254740992; // 2^53

// --- what is asked for

// Takes what stands before `separator` off the text.
static std::string_view next_part(std::string_view& rest, char separator)
{
    const size_t end = rest.find(separator);
    const std::string_view part = trimmed(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
    return part;
}

namespace {

struct media_range {
    std::string_view type;
    std::string_view version;
    double quality = 1;
};

} // namespace

static media_range read_range(std::string_view text)
{
    media_range range{next_part(text, ';'), {}};
    while (!text.empty()) {
        std::string_view value = next_part(text, ';');
        const std::string_view name = next_part(value, '=');
        value = trimmed(value);
        if (name == "version")
            range.version = value;
        else if (name == "q" &&
                 std::from_chars(value.data(), value.data() + value.size(), range.quality).ec != std::errc{})
            range.quality = 0;
    }
    return range;
}

metrics_format wanted_format(std::string_view accept)
{
    double open_metrics = 0;
    double plain = 0;
    while (!accept.empty()) {
        const media_range range = read_range(next_part(accept, ','));
        if (range.type == open_metrics_type && (range.version.empty() || range.version == "1.0.0"))
            open_metrics = std::max(open_metrics, range.quality);
        else if (range.type == "text/plain" || range.type == "text/*" || range.type == "*/*")
            plain = std::max(plain, range.quality);
    }
    return open_metrics > 0 && open_metrics >= plain ? metrics_format::open_metrics
                                                     : metrics_format::prometheus;
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
