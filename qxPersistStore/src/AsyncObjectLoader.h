// The two threads that serve binding without blocking.
#pragma once

#include "qxUtils/AsyncJobQueue.h"

namespace quna {

class DGIndepNodeForAsyncPref;

// Reads and deserialises, never under a CSpace lock.
struct AsyncLoadJob {
    void operator()();
    DGIndepNodeForAsyncPref* node = nullptr;
};

// Installs what was loaded, under the CSpace lock.
struct AsyncUpdateRotJob {
    void operator()();
    DGIndepNodeForAsyncPref* node = nullptr;
};

class AsyncLoadThread : public AsyncJobQueue<AsyncLoadJob> {};
class AsyncUpdateRotThread : public AsyncJobQueue<AsyncUpdateRotJob> {};

} // namespace quna
