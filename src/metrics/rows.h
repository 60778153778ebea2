// rows - the rows of the table of figures, by what they are about, and what reading them has in common.
//
// Private to the metrics. A row is a metric and how its samples are read: whoever adds one explains it in
// docs/metrics.md, too.
// Ownership  Rows and texts live for ever.
// Threads    Any; a row is read by collect() alone.
#pragma once

#include "metrics/metrics.h"
#include "metrics/reading.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace rtls {

struct metric_row {
    metric what;
    void (*read)(reading& r);
};
using metric_rows = std::span<const metric_row>;

// In the order of the table.
metric_rows bridge_input_rows() noexcept;
metric_rows report_rows() noexcept;
metric_rows bridge_rows() noexcept;
metric_rows command_rows() noexcept; // pages, discovery and downloads, too
metric_rows inside_rows() noexcept;  // nodes, operators, debug lines, the log
metric_rows link_rows() noexcept;
metric_rows tap_rows() noexcept;
metric_rows process_rows() noexcept; // the actors, too

// --- for the rows

inline constexpr auto counter_type = metric_type::counter;
inline constexpr auto gauge = metric_type::gauge;
inline constexpr auto histogram = metric_type::histogram;

// The values of a label, by the enumeration's numbers.
template <typename Kind>
using names_of = std::array<const char*, static_cast<size_t>(Kind::kinds)>;

inline double number(uint64_t value)
{
    return static_cast<double>(value);
}

// A sample for each kind that has been counted.
template <size_t Size, typename Counters>
void by_name(reading& r, const std::array<const char*, Size>& names, const Counters& counted)
{
    for (size_t i = 0; i < Size; ++i)
        r.sample(names[i], number(counted.value(i)));
}

// Why a port has refused connections.
void sample_refusals(reading& r, const door& entrance, const full_house& house);

} // namespace rtls
