#include "qxLss/src/CopyGate.h"

#include "qxUtils/Assert.h"
#include "qxUtils/Exceptions.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/CopyGate";

} // namespace

CopyGate::Pass::Pass(CopyGate& gate, ConstStringZ path) : m_gate(gate) {
    std::lock_guard lock(m_gate.m_mutex);
    if (m_gate.m_owner != std::thread::id() || m_gate.IsShut())
        throw FileException(
            (std::string("Can't make the copy '") + path +
             "': " + (m_gate.IsShut() ? "the store is being closed" : "another copy of the store is being made"))
                .c_str());
    m_gate.m_owner = std::this_thread::get_id();
}

CopyGate::Pass::~Pass() {
    {
        std::lock_guard lock(m_gate.m_mutex);
        m_gate.m_owner = std::thread::id();
        // Under the mutex: the gate may end as soon as Shut has seen the owner gone.
        m_gate.m_ended.notify_all();
    }
}

void CopyGate::Shut() {
    std::unique_lock lock(m_mutex);
    QX_ASSERT(m_owner != std::this_thread::get_id());
    m_isShut.store(true, std::memory_order_relaxed);
    m_ended.wait(lock, [this] { return m_owner == std::thread::id(); });
}

} // namespace quna
