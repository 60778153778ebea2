#include "http/node_walk.h"

#include <thread>
#include <vector>

namespace rtls {

static node_table::part_walk begin_walk(NODES_CONTAINER_t& nodes)
{
    const nodes_guard guard{nodes};
    return nodes.begin_walk();
}

// The next rows, into memory that is there already. False when the walk must begin anew.
static bool copy_slice(NODES_CONTAINER_t& nodes, node_table::part_walk& walk, const bridge_index& bridges,
                       std::vector<node_row>& rows)
{
    rows.resize(nodes_of_slice);
    size_t count = 0;
    bool goes_on = false;
    {
        const nodes_guard guard{nodes};
        goes_on = nodes.visit_part(walk, nodes_of_slice,
                                   [&](const NODE_t& node) { copy_node(node, bridges, rows[count++]); });
    }
    rows.resize(count);
    return goes_on;
}

bool walk_nodes(NODES_CONTAINER_t& nodes, const bridge_index& bridges,
                const std::function<void(std::span<const node_row>)>& take,
                const std::function<void()>& begin_anew, const std::atomic<bool>& is_stopping)
{
    std::vector<node_row> rows;
    for (node_table::part_walk walk = begin_walk(nodes); !walk.is_done;) {
        if (is_stopping)
            return false;
        if (copy_slice(nodes, walk, bridges, rows)) {
            take(rows);
        } else {
            begin_anew();
            walk = begin_walk(nodes);
        }
        if (!walk.is_done)
            std::this_thread::sleep_for(turn_of_others);
    }
    return true;
}

} // namespace rtls
