// czmq_ptr - owners for the handles of CZMQ and of our own modules.
//
// Both spell destruction `x_destroy(&p)`, ours by void**, so one deleter serves them all and costs no space.
// Where the order of tear-down counts, reset() them in that order: members' own order does not show.
// Threads    As of what they own: a socket is closed on the thread that uses it.
// Failures   Nothing throws; an owner of null destroys nothing.
#pragma once

#include <czmq.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <type_traits>
#include <utility>

namespace rtls {

template <auto Destroy>
struct destroyed_by {
    template <typename T>
    void operator()(T* p) const noexcept
    {
        if constexpr (std::is_invocable_v<decltype(Destroy), void**>) {
            void* handle = p;
            Destroy(&handle);
        } else {
            Destroy(&p);
        }
    }
};

using zactor_ptr = std::unique_ptr<zactor_t, destroyed_by<zactor_destroy>>;
using zconfig_ptr = std::unique_ptr<zconfig_t, destroyed_by<zconfig_destroy>>;
using zframe_ptr = std::unique_ptr<zframe_t, destroyed_by<zframe_destroy>>;
using zhashx_ptr = std::unique_ptr<zhashx_t, destroyed_by<zhashx_destroy>>;
using zloop_ptr = std::unique_ptr<zloop_t, destroyed_by<zloop_destroy>>;
using zmsg_ptr = std::unique_ptr<zmsg_t, destroyed_by<zmsg_destroy>>;
using zsock_ptr = std::unique_ptr<zsock_t, destroyed_by<zsock_destroy>>;
using zstr_ptr = std::unique_ptr<char, destroyed_by<zstr_free>>;

// For what comes from malloc.
struct freed_by_free {
    void operator()(void* p) const noexcept { std::free(p); }
};
using malloced_bytes = std::unique_ptr<uint8_t[], freed_by_free>;
using malloced_text = std::unique_ptr<char[], freed_by_free>;

// For a list of frames, which go with it.
struct frames_destroyed {
    void operator()(zlist_t* list) const noexcept
    {
        while (void* frame = zlist_pop(list))
            zframe_ptr{static_cast<zframe_t*>(frame)}.reset();
        zlist_destroy(&list);
    }
};
using zframe_list_ptr = std::unique_ptr<zlist_t, frames_destroyed>;

// An owner that a record holds and C functions are called with: it lends its handle without ceremony.
template <typename Owner>
struct lent : Owner {
    using Owner::Owner;
    lent(Owner&& owner) noexcept : Owner(std::move(owner)) {}
    operator typename Owner::pointer() const noexcept { return this->get(); }
};

} // namespace rtls
