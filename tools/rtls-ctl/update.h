// update - waits until all nodes of some gateways run a firmware, and shows how far they are.
//
// Threads    The main thread; see ask_all in report.h.
// Blocking   Until all run it, or the time is over.
// Failures   In the outcomes. A gateway that does not answer for a while is asked again until the time is over.
#pragma once

#include "doors/facts.h"
#include "rtls-ctl/report.h"

#include <string>
#include <vector>

namespace ctl {

struct update_options {
    std::string image;             // a URL, which each gateway gets into its store first; or a version in hex
    std::vector<std::string> macs; // digits of the nodes to watch; empty: all that live
    node_filter filter;
    seconds timeout{600};
    seconds interval{1};
    seconds download_timeout{60};
    screen progress; // the error output
};

// Each answer is {"version", "nodes", "done", "missing"}.
std::vector<outcome> run_update(std::vector<gateway>& gateways, const update_options& options);

// "102a0ff" as "0102a0ff". Throws (usage) when it is no version.
std::string version_digits(const std::string& text);

} // namespace ctl
