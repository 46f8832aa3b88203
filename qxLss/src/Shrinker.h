// Gives free space back to the file system.
#pragma once

#include "qxLss/src/Checkpoint.h"
#include "qxLss/src/Cleaner.h"
#include "qxLss/src/SpaceManager.h"
#include "qxLss/src/StoreCore.h"
#include "qxLss/src/UserLog.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

// While the store is at work, free slots beyond a generous number are cut off the file's end or punched out of its middle.
// When nothing is written for a second it rests: then all but a few go, and if many lie in the middle, what stands behind
// the place where the file could end is moved into them, so that it ends there.
//
// Ownership: borrows everything.
// Threads:   one, "Lss clean".
class QX_API Shrinker {
public:
    Shrinker(StoreCore& core, SpaceManager& space, UserLog& log, Checkpoint& checkpoint, Cleaner& cleaner)
        : m_core(core), m_space(space), m_log(log), m_checkpoint(checkpoint), m_cleaner(cleaner) {}

    // One step. Returns the milliseconds after which the next one is worth it, or -1 if only new work makes it so. Called
    // earlier, `isWoken`, it takes nothing for rest: somebody may be waiting for room on a full disk. Throws FileException or
    // CorruptLSSException; then the store must not write any more.
    int Run(bool isWoken);
    // Moves what stands behind the used slots and `keep` more. False if it ended early because a transaction committed, or
    // the store closes. Throws likewise.
    bool PullInEnd(ssize_t keep);

private:
    int Step(bool rests);
    void CheckpointAtRest(uint64 clock);
    void PullInEndAtRest(ssize_t comfort);
    ssize_t EndFor(ssize_t keep) const { return m_space.NumSlots() - m_space.NumFree() + keep; }
    template <class IsInterrupted>
    ssize_t PullInOnce(ssize_t end, IsInterrupted isInterrupted);
    bool HasRoomBelow(ssize_t end, ssize_t needed);
    bool LeaveOpenSegment(ssize_t first);

    StoreCore& m_core;
    SpaceManager& m_space;
    UserLog& m_log;
    Checkpoint& m_checkpoint;
    Cleaner& m_cleaner;
    uint64 m_clockSeen = 0;     // the log clock at the last look
    int m_restMillisec = 0;     // for which that has not changed
    int m_wait = 0;             // what Run returned
    uint64 m_restedAt = 0;      // at the last checkpoint because nothing was written
    uint64 m_pullNotBefore = 0; // a second attempt is worth it only when the log has grown
    bool m_canShrink = true;
};

} // namespace quna
