#include "terminal/operator_table.h"

namespace rtls {

operator_table::operator_table() : m_records(zhashx_new())
{
    if (m_records)
        zhashx_set_destructor(m_records.get(), terminal_client_item_destructor);
}

TERMINAL_CLIENT_t* operator_table::find(const char* key) noexcept
{
    return static_cast<TERMINAL_CLIENT_t*>(zhashx_lookup(m_records.get(), key));
}

bool operator_table::insert(const char* key, std::unique_ptr<TERMINAL_CLIENT_t> client) noexcept
{
    if (zhashx_insert(m_records.get(), key, client.get()) != 0)
        return false;
    (void)client.release(); // the table's now
    return true;
}

void operator_table::erase(const char* key) noexcept
{
    zhashx_delete(m_records.get(), key);
}

} // namespace rtls
