// update_watch - which nodes run a firmware already, and which do not yet.
//
// Ownership  Values.
// Threads    One at a time; pure.
// Failures   Nodes with fields missing throw json's exceptions, which the caller tells. Of memory: std::bad_alloc.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace ctl {

using nlohmann::json;

class update_watch {
public:
    // `version`: eight hex digits in lower case, as nodes tell their software. `macs`: digits of the nodes to watch,
    // see macs.h; empty: all that live, now or later.
    explicit update_watch(std::string version = "", std::vector<std::string> macs = {});

    // What the gateway knows now. A node that was seen once and is not any more is waited for all the same.
    void look(const json& nodes);

    const std::string& version() const { return m_version; }
    size_t total() const;
    size_t done() const;
    bool is_complete() const { return total() > 0 && done() == total(); }
    // Those that do not run it: [{"mac", "software", "status"}]; of a node that was never heard only the digits
    // are known.
    json missing() const;

private:
    struct node {
        std::string software;
        std::string status;
    };
    bool is_watched(const json& it) const;
    std::vector<std::string> unheard() const;

    std::string m_version;
    std::vector<std::string> m_macs;
    std::map<std::string, node> m_nodes; // by MAC
};

// "[#####.....] 5 of 10 nodes run 0102a0ff, 33 s", at most that wide; 0: without the bar.
std::string progress_line(size_t done, size_t total, const std::string& version, unsigned passed_s,
                          size_t width);

} // namespace ctl
