// figures - the samples of a gateway's metrics page.
//
// Ownership  Values.
// Threads    Any; pure.
// Failures   A line that is no sample is left out. Of memory: std::bad_alloc.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace ctl {

using nlohmann::json;

// [{"metric": "name{label=\"...\"}", "value": 1}], of those whose names or labels contain one of `wanted`; of all of
// them without. `page`: Prometheus' text, version 0.0.4. A value that is no JSON number ("NaN") stays a text.
json read_figures(std::string_view page, const std::vector<std::string>& wanted);

} // namespace ctl
