#include "qxObject/IOperationCallBacks.h"

#include <atomic>

namespace quna {

namespace {

constinit std::atomic<IOperationCallBacks*> s_callBacks{nullptr};

} // namespace

IOperationCallBacks* SetOperationCallBacks(IOperationCallBacks* callBacks) {
    return s_callBacks.exchange(callBacks, std::memory_order_acq_rel);
}

IOperationCallBacks* GetOperationCallBacks() { return s_callBacks.load(std::memory_order_acquire); }

} // namespace quna
