// Who may copy a store, and until when.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/Mutex.h"

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

namespace quna {

// Lets one copy of a store be made at a time, and lets the store end only when it is done.
//
// Threads: all methods from any thread.
class QX_API CopyGate {
public:
    // The right to copy, for a scope. Throws FileException when another thread has it. `path`: of the copy, for the text.
    class QX_API Pass {
    public:
        Pass(CopyGate& gate, ConstStringZ path);
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;
        ~Pass();

    private:
        CopyGate& m_gate;
    };

    // The store is about to end: the copy that is being made, if any, is to stop, and none begins any more. Returns when
    // none is at work. Requires: not called by the copying thread, out of its progress callback.
    void Shut();
    bool IsShut() const { return m_isShut.load(std::memory_order_relaxed); }

private:
    Mutex m_mutex{"CopyGate::m_mutex"}; // leaf
    ConditionVariable m_ended;
    std::thread::id m_owner; // of the pass, none if nobody has it; guarded by m_mutex
    std::atomic<bool> m_isShut{false};
};

} // namespace quna
