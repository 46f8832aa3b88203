// Makes parts that no store holds at the moment when somebody looks at them.
#pragma once

#include "qxPersistStore/MAsyncBind.h"
#include "qxPersistStore/OID.h"

#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace quna {
class PSpace;
} // namespace quna

namespace frameloop {

// The handler of a space for its life. A thread of its own makes each part, as one would compute it or fetch it from far
// away, and makes it persistent under the OID that was asked for: whoever waits for it is told, and the next process
// finds it in the store.
//
// Threads: made and ended by a thread that holds no lock. The store calls the two operations of the handler under the
//   lock of the space, so they only take notes.
class PartMaker {
public:
    // `oids` ascending: the parts to be made.
    PartMaker(quna::PSpace* space, std::vector<quna::OID> oids);
    PartMaker(const PartMaker&) = delete;
    PartMaker& operator=(const PartMaker&) = delete;
    ~PartMaker();

    quna::MAsyncBind BeginAsyncBindRequest(quna::OID oid);
    void EndAsyncBindRequest(quna::OID oid);

    int NumMade() const;

private:
    void SetAsHandler(bool set);
    void Run();
    bool WaitForRequest(quna::OID& oid);
    void Make(quna::OID oid);

    quna::PSpace* const m_space;
    const std::vector<quna::OID> m_oids;
    mutable std::mutex m_mutex; // leaf lock; guards all below but the thread
    std::condition_variable m_changed;
    std::set<quna::OID> m_requests;
    bool m_stop = false;
    int m_numMade = 0;
    std::thread m_thread;
};

} // namespace frameloop
