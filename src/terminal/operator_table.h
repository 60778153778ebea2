// operator_table - the operators who are connected, by identity.
//
// Ownership  The table owns the records.
// Threads    Terminal thread; no lock. Who owns the server makes and destroys it while no actor runs.
// Blocking   Nothing waits.
// Failures   Nothing throws.
#pragma once

#include "base/czmq_ptr.h"
#include "terminal/client.h"

#include <czmq.h>

#include <cstddef>
#include <memory>

namespace rtls {

class operator_table {
public:
    operator_table();
    ~operator_table() = default;
    operator_table(const operator_table&) = delete;
    operator_table& operator=(const operator_table&) = delete;

    // False when memory was short: the table cannot be used.
    bool is_made() const noexcept { return m_records != nullptr; }

    // The operator with this identity (upper-case hex), or nullptr.
    TERMINAL_CLIENT_t* find(const char* key) noexcept;
    // Takes the record over. False, and the record is gone, when the key is taken.
    bool insert(const char* key, std::unique_ptr<TERMINAL_CLIENT_t> client) noexcept;
    // Destroys the record, if there is one.
    void erase(const char* key) noexcept;
    size_t size() const noexcept { return zhashx_size(m_records.get()); }

    // Calls visit(TERMINAL_CLIENT_t&) for each operator, in table order, as long as it returns true; whether
    // it always did. The visitor may send, but uses the table for nothing else.
    template <typename Visitor>
    bool all_of(Visitor visit) const
    {
        for (void* item = zhashx_first(m_records.get()); item; item = zhashx_next(m_records.get()))
            if (!visit(*static_cast<TERMINAL_CLIENT_t*>(item)))
                return false;
        return true;
    }
    template <typename Visitor>
    void for_each(Visitor visit) const
    {
        (void)all_of([&](TERMINAL_CLIENT_t& client) { return visit(client), true; });
    }

    // The table itself, for those outside.
    zhashx_t* records() noexcept { return m_records.get(); }

private:
    zhashx_ptr m_records; // owned TERMINAL_CLIENT_t
};

} // namespace rtls
