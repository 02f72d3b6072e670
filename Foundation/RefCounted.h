#pragma once

#include <atomic>

namespace Halvex {

/// Implements the counting of an interface that derives from IRefCountable.
template <typename Interface>
class RefCounted : public Interface {
public:
    void AddRef() final { m_owners.fetch_add(1, std::memory_order_relaxed); }
    void Release() final {
        // The last owner must see what the others wrote before they let go.
        if (m_owners.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

private:
    std::atomic<int> m_owners{0};
};

} // namespace Halvex
