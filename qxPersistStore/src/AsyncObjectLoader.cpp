#include "qxPersistStore/src/AsyncObjectLoader.h"

#include "qxUtils/Assert.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/ROT";

} // namespace

// Binding answers at once, loading on the caller's thread, so no job is ever queued for these threads.
void AsyncLoadJob::operator()() { QX_ASSERT(node == nullptr); }
void AsyncUpdateRotJob::operator()() { QX_ASSERT(node == nullptr); }

} // namespace quna
