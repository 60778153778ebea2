#include "rtls-ctl/report.h"

#include "common/output.h"
#include "common/program.h"

#include <fmt/format.h>

#include <algorithm>
#include <future>
#include <utility>

namespace ctl {

static outcome ask(gateway& g, const action& act)
{
    outcome it;
    it.gateway = g.name();
    try {
        act(g, it);
    } catch (const failure& why) {
        it.failures.push_back(why);
    } catch (const json::exception& why) {
        it.failures.emplace_back(exit_status::refused,
                                 fmt::format("the gateway answers what cannot be read: {}", why.what()));
    }
    return it;
}

std::vector<outcome> ask_all(std::vector<gateway>& gateways, const action& act)
{
    std::vector<std::future<outcome>> asked;
    asked.reserve(gateways.size());
    for (gateway& g : gateways)
        asked.push_back(std::async(std::launch::async, [&g, &act] { return ask(g, act); }));
    std::vector<outcome> outcomes;
    outcomes.reserve(asked.size());
    for (auto& one : asked)
        outcomes.push_back(one.get());
    return outcomes;
}

// --- Texts

std::string cell(const json& object, const char* field)
{
    const auto found = object.find(field);
    if (found == object.end() || found->is_null())
        return "-";
    if (found->is_boolean())
        return found->get<bool>() ? "yes" : "no";
    return printable(found->is_string() ? found->get<std::string>() : json_text(*found));
}

void print_failure(const std::string& gateway, const std::string& why)
{
    tools::note("rtls-ctl", fmt::format("{}{}{}", gateway, gateway.empty() ? "" : ": ", why));
}

// --- Telling

static exit_status worst_of(const std::vector<outcome>& outcomes)
{
    exit_status worst = exit_status::done;
    for (const outcome& it : outcomes)
        for (const failure& why : it.failures)
            worst = std::max(worst, why.status());
    return worst;
}

static json failures_json(const std::vector<failure>& failures)
{
    json told = json::array();
    for (const failure& why : failures)
        told.push_back({{"status", static_cast<int>(why.status())}, {"error", why.what()}});
    return told;
}

// A list with an object for each gateway, whether there are several or one.
static std::string as_json(const std::vector<outcome>& outcomes)
{
    json told = json::array();
    for (const outcome& it : outcomes) {
        json one{{"gateway", it.gateway}};
        one.update(it.answer);
        one["errors"] = failures_json(it.failures);
        told.push_back(std::move(one));
    }
    return json_text(told, 2) + "\n";
}

static std::string as_table(const std::vector<outcome>& outcomes, const table_view& view, const screen& out)
{
    const bool has_names = outcomes.size() > 1;
    const bool has_titles = !view.columns.empty() && !view.columns[0].title.empty();
    std::vector<column> columns = view.columns;
    if (has_names)
        columns.insert(columns.begin(), column{has_titles ? "GATEWAY" : "", 0, false});
    std::vector<table_row> rows;
    for (const outcome& it : outcomes) {
        if (it.answer.empty())
            continue;
        for (table_row& row : view.rows(it.answer)) {
            if (has_names)
                row.insert(row.begin(), it.gateway);
            rows.push_back(std::move(row));
        }
    }
    return render_table(columns, rows, out);
}

exit_status tell(const std::vector<outcome>& outcomes, const table_view& view, const report_options& options)
{
    const std::string text = options.as_json ? as_json(outcomes) : as_table(outcomes, view, options.out);
    tools::print(text);
    tools::flush_output(); // before what failed is told
    for (const outcome& it : outcomes)
        for (const failure& why : it.failures)
            print_failure(outcomes.size() > 1 ? it.gateway : "", why.what());
    return worst_of(outcomes);
}

} // namespace ctl
