// The table of all figures, and how it is read.
#include "metrics/rows.h"

#include <array>
#include <cstddef>
#include <vector>

namespace rtls {

static constexpr std::array<const char*, door_refusals> door_names = {"network", "full", "address"};

void sample_refusals(reading& r, const door& entrance, const full_house& house)
{
    for (size_t i = 0; i < door_refusals; ++i)
        r.sample(door_names[i], number(entrance.refused(static_cast<door_refusal>(i))));
    r.sample("descriptors", number(house.refused()));
}

// Calls visit(row) for each, in the order of the table.
template <typename Visitor>
static void each_row(Visitor visit)
{
    for (const metric_rows group : {bridge_input_rows(), report_rows(), bridge_rows(), command_rows(),
                                    inside_rows(), link_rows(), tap_rows(), process_rows()})
        for (const metric_row& row : group)
            visit(row);
}

std::vector<metric> all_metrics()
{
    std::vector<metric> all;
    each_row([&](const metric_row& row) { all.push_back(row.what); });
    return all;
}

void collect(const services& gateway, metric_sink& sink)
{
    reading now{gateway, sink};
    each_row([&](const metric_row& row) {
        now.of(row.what);
        row.read(now);
    });
}

} // namespace rtls
