#include "qxObject/IOperationCallBacks.h"

namespace quna {

constinit std::atomic<IOperationCallBacks*> detail::g_operationCallBacks{nullptr};
constinit std::atomic<IOperationCallBacks*> detail::g_quietCallBacks{nullptr};
constinit std::atomic<uint32> detail::g_quietFlags{0};

IOperationCallBacks* SetOperationCallBacks(IOperationCallBacks* callBacks) {
    return detail::g_operationCallBacks.exchange(callBacks, std::memory_order_acq_rel);
}

void SetQuietObjects(IOperationCallBacks* callBacks, uint32 flags) {
    detail::g_quietCallBacks.store(nullptr, std::memory_order_relaxed);
    detail::g_quietFlags.store(flags, std::memory_order_release);
    detail::g_quietCallBacks.store(callBacks, std::memory_order_release);
}

} // namespace quna
