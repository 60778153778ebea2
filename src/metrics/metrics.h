// metrics - all figures of the gateway: one table of what they are, and one function that reads them.
//
// The actors count where things happen (link/win_counters.h, terminal/terminal_counters.h, ...); what exists
// in another place is read there, and what follows from other figures is calculated here. So no figure is kept
// twice, and this is the only place where one gets its name.
//
//     class printer : public metric_sink {
//         void begin(const metric& m) override { ... }               // "# HELP", "# TYPE", "# UNIT"
//         void sample(labels of, double value) override { ... }      // counters and gauges
//         void times(labels of, const times_sample& t) override { ... } // histograms
//     };
//     printer p;
//     collect(gateway_services, p);
//
// Ownership  The table and all texts live for ever; what a sink is given, but these, as long as the call.
// Threads    Any: collect() reads what the actors write, takes the table of bridges' and the registry's lock
//            for moments (no longer than a walk over the bridges takes), and makes no actor wait for more.
//            The services outlive the call.
// Blocking   Asks the kernel for descriptors and memory; nothing else waits.
// Failures   What cannot be read (a service that is not there, /proc) has no samples. What the sink throws
//            passes through.
#pragma once

#include "base/counter.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace rtls {

struct services;

enum class metric_type : uint8_t { counter, gauge, histogram };

// A row of the table. Names are those of the samples: a counter's ends in "_total", which OpenMetrics leaves
// out of the name of the family. A unit, if there is one, is the name's last part before that.
struct metric {
    static constexpr size_t most_labels = 2;

    const char* name;
    const char* help;
    const char* unit; // "" for plain numbers
    metric_type type;
    std::array<const char*, most_labels> labels; // names; null: one less
};

struct label {
    const char* name;
    const char* value;
};
using labels = std::span<const label>;

// A histogram's sample, in seconds. As Prometheus has it: each bucket holds those of the ones before.
struct times_sample {
    std::span<const double> bounds;    // upper ends, inclusive, without +Inf
    std::span<const uint64_t> buckets; // one more than bounds: the last is +Inf, and the count of all
    double sum;
};

class metric_sink {
public:
    metric_sink() = default;
    virtual ~metric_sink() = default;
    metric_sink(const metric_sink&) = delete;
    metric_sink& operator=(const metric_sink&) = delete;

    // What follows, up to the next one, are samples of `of`. Each metric comes once, in the table's order.
    virtual void begin(const metric& of) = 0;
    virtual void sample(labels of, double value) = 0;
    virtual void times(labels of, const times_sample& sample) = 0;
};

// The table, in its order.
std::vector<metric> all_metrics();

// Reads all figures. Metrics without a sample are left out.
void collect(const services& gateway, metric_sink& sink);

} // namespace rtls
