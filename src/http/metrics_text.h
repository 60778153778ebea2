// metrics_text - all figures as text, in the two formats that scrapers ask for.
//
// Ours, as there is little to it: a figure goes from the actors' blocks straight into the text, with no object
// for each metric in between that would have to be kept in step and locked.
// Ownership  Values.
// Threads    Any; takes what metrics/metrics.h says.
// Failures   std::bad_alloc.
#pragma once

#include "http/responder.h"
#include "metrics/metrics.h"

#include <string>
#include <string_view>

namespace rtls {

enum class metrics_format {
    prometheus,  // text/plain; version=0.0.4
    open_metrics // application/openmetrics-text; version=1.0.0
};

// By the header Accept, whose lines a comma joins; Prometheus' own, when it says nothing else.
metrics_format wanted_format(std::string_view accept);

class metrics_text : public metric_sink {
public:
    explicit metrics_text(metrics_format format) : m_format(format) {}

    void begin(const metric& of) override;
    void sample(labels of, double value) override;
    void times(labels of, const times_sample& sample) override;

    // The whole text.
    std::string finish() &&;

private:
    void comment(const char* what, std::string_view text);
    void line(std::string_view suffix, labels of, std::string_view le, double value);

    const metrics_format m_format;
    std::string_view m_name;   // of the samples, before their suffix
    std::string_view m_suffix; // of plain samples
    std::string m_text;
};

page metrics_page(const services& gateway, const page_request& request);

} // namespace rtls
