#include "qxLss/src/TurnLock.h"

namespace quna {

uint64 TurnLock::ThisThread() {
    static std::atomic<uint64> s_next{1};
    thread_local const uint64 id = s_next.fetch_add(1, std::memory_order_relaxed);
    return id;
}

} // namespace quna
