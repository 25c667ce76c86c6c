#pragma once

#include <utility>

namespace zenk {

/// Runs an action at the end of a scope, by whatever way the scope is left: a host's callback may throw, or end its
/// thread.
template <typename Action>
class ScopeExit {
public:
    explicit ScopeExit(Action action) : m_action(std::move(action)) {}
    ~ScopeExit() { m_action(); }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;

private:
    const Action m_action;
};

}  // namespace zenk
