// What the cleaner cleans, and where it puts what it moves: pure functions.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

#include <vector>

namespace quna {

// Survivors of different ages go into different segments: what lives long together with what lives long.
inline constexpr int NUM_AGE_CLASSES = 4;

// A segment that may be cleaned.
struct VictimCandidate {
    ssize_t slot;
    uint64 sequence;
    ssize_t liveBytes;
    ssize_t usedBytes; // live and dead
    uint64 age;        // log bytes since it was written
    uint64 dataStamp;  // log clock: the mean time at which its contents were written
    double score = 0;
};

// How much dead space is allowed. `percent` is the setting: 0 or less: any amount; above 95 counts as 95.
class QX_API CleaningGoal {
public:
    CleaningGoal(double percent, ssize_t segmentSize);

    bool IsEnabled() const { return m_utilisation > 0; }
    // Is there so much dead space that it pays to clean? `used` and `live` in bytes of the whole store.
    bool IsMissed(int64 used, int64 live) const;
    // How far `used` is beyond what writers may reach before they are slowed down, in bands of 1/256 of the allowance; 0 or
    // less: not at all. Writers who are faster than the cleaner settle one or two bands beyond.
    double Pressure(int64 used, int64 live) const;

private:
    // Beyond these the cleaner has work to do.
    double Allowed(int64 live) const;

    double m_utilisation; // 0..0.95
    ssize_t m_segmentSize;
};

// How long a writer waits under this pressure for each WAIT_QUANTUM of log, in milliseconds. Rises to a level that no
// transaction need notice and stays there while a checkpoint holds the cleaner up; only a cleaner that is left behind for
// good, on a slow disk, slows writers down to whatever it can do.
inline constexpr ssize_t WAIT_QUANTUM = 128 * 1024; // bytes
QX_API double WaitMilliseconds(double pressure);

// How much cleaning the segment is worth: dead space won over bytes to be read and written, times a power of its age. The
// age of the segment counts, not that of its youngest content: what has survived there for long will go on to do so.
QX_API double VictimScore(ssize_t liveBytes, ssize_t segmentSize, uint64 age);

// The class of contents of this age in a store with so many live bytes.
QX_API int AgeClassOf(uint64 age, int64 liveBytes);

// How many segments a batch takes in a store with so many segments.
QX_API ssize_t BatchSize(ssize_t usedSegments, ssize_t segmentSize);

struct VictimLimits {
    ssize_t segmentSize;
    ssize_t maxVictims;
    ssize_t maxLiveBytes;    // that there is room for
    ssize_t preferFrom = -1; // slots from here on are cleaned first, so that the file can be cut; -1: none
    bool alsoFull = false;   // also segments that hold hardly anything dead
};

// The best first. Gives fewer than maxVictims if there are no more that are worth it.
QX_API std::vector<VictimCandidate> ChooseVictims(std::vector<VictimCandidate> candidates, const VictimLimits& limits);

} // namespace quna
