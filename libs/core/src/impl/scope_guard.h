// scope_guard - runs an action when a scope is left, whichever way.
//
// Ownership  Whoever holds the guard holds its action, and what the action keeps.
// Threads    The action runs on the thread that destroys the guard.
// Failures   Making a guard throws std::bad_alloc. An action that throws ends the process.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace tav::libs::core {

namespace detail {

// What callers hold; the action itself is known only to the derived class.
class scope_guard {
public:
    scope_guard() = default;
    virtual ~scope_guard() = default;
    scope_guard(const scope_guard&) = delete;
    scope_guard& operator=(const scope_guard&) = delete;
};

template <typename Action>
class scope_guard_with final : public scope_guard {
public:
    explicit scope_guard_with(Action action) : m_action(std::move(action)) {}
    ~scope_guard_with() override { m_action(); }

private:
    Action m_action;
};

} // namespace detail

using scope_guard_ptr = std::unique_ptr<detail::scope_guard>;

// Runs `action` once, when the guard is destroyed. The action must not throw.
template <typename Action>
[[nodiscard]] scope_guard_ptr execute_on_scope_exit(Action&& action)
{
    return std::make_unique<detail::scope_guard_with<std::decay_t<Action>>>(std::forward<Action>(action));
}

} // namespace tav::libs::core
