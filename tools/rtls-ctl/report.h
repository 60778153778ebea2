// report - what becomes of a command at each gateway, and how that is told: a table, or JSON.
//
// Ownership  Values.
// Threads    `ask_all` gives each gateway a thread of its own, which has ended when it returns. All else: the main
//            thread.
// Blocking   `ask_all` as long as the slowest of them.
// Failures   Of a gateway: in its outcome. An output that takes nothing: tools::output_error.
#pragma once

#include "doors/failure.h"
#include "doors/gateway.h"
#include "rtls-ctl/table.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <string>
#include <vector>

namespace ctl {

struct outcome {
    std::string gateway;
    json answer = json::object();
    std::vector<failure> failures;
};

// What is done at one gateway. What it throws is noted as a failure, beside the answer so far.
using action = std::function<void(gateway& g, outcome& it)>;

std::vector<outcome> ask_all(std::vector<gateway>& gateways, const action& act);

// How an answer becomes a table.
struct table_view {
    std::vector<column> columns;
    std::function<std::vector<table_row>(const json& answer)> rows;
};

struct report_options {
    bool as_json = false;
    screen out;
};

// Tells all outcomes: answers on the output, failures on the error output. The worst of their statuses.
exit_status tell(const std::vector<outcome>& outcomes, const table_view& view, const report_options& options);

// A line on the error output. `gateway`: empty when there is but one.
void print_failure(const std::string& gateway, const std::string& why);

using tools::json_text;

// A field as a cell: its text or its number; "-" for null and what is not there.
std::string cell(const json& object, const char* field);

} // namespace ctl
