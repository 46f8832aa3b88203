#include "qxObject/IOperationCallBacks.h"

namespace quna {

constinit std::atomic<IOperationCallBacks*> detail::g_operationCallBacks{nullptr};

IOperationCallBacks* SetOperationCallBacks(IOperationCallBacks* callBacks) {
    return detail::g_operationCallBacks.exchange(callBacks, std::memory_order_acq_rel);
}

} // namespace quna
