// A dirty flag while its record is written.
#pragma once

#include <atomic>

namespace quna {

// Clears the flag for the time of a write, so that a change meanwhile sets it anew, and sets it again unless the
// write was completed.
class DirtyFlagScope {
public:
    explicit DirtyFlagScope(std::atomic<bool>& dirty) : m_dirty(dirty) {
        m_dirty.exchange(false, std::memory_order_acq_rel);
    }
    DirtyFlagScope(const DirtyFlagScope&) = delete;
    DirtyFlagScope& operator=(const DirtyFlagScope&) = delete;
    ~DirtyFlagScope() {
        if (!m_completed) m_dirty.store(true, std::memory_order_release);
    }
    void Complete() { m_completed = true; }

private:
    std::atomic<bool>& m_dirty;
    bool m_completed = false;
};

} // namespace quna
