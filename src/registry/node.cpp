#include "registry/node.h"

#include "base/common.h"
#include "base/null_check.h"

namespace rtls {

void node_destroy(void** pp_node)
{
    if (!pp_node)
        return;
    delete static_cast<NODE_t*>(*pp_node);
    *pp_node = nullptr;
}

bool node_set_win_client(NODE_t& node, zframe_t* win_client_id) noexcept
{
    if (zframe_eq(node.win_client_id.get(), win_client_id))
        return true;            // nearly every report: no copy
    node.win_client_id.reset(); // before the copy: memory may be short
    node.win_client_id.reset(zframe_dup(win_client_id));
    return node.win_client_id != nullptr;
}

bool node_update_win_client_ID(NODE_t* node, zframe_t* win_client_id)
{
    if (any_null(__func__, node, win_client_id))
        return false;
    if (node_set_win_client(*node, win_client_id))
        return true;
    log_call_error(__func__, "zframe_dup");
    return false;
}

} // namespace rtls
