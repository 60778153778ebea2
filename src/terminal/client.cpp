#include "terminal/client.h"

namespace rtls {

void terminal_client_item_destructor(void** item)
{
    if (!item)
        return;
    delete static_cast<TERMINAL_CLIENT_t*>(*item);
    *item = nullptr;
}

} // namespace rtls
