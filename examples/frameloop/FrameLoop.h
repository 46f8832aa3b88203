// The loop: a frame, then a pause until the next is due.
#pragma once

#include "Drawing.h"

#include <optional>

namespace frameloop {

struct LoopSettings {
    std::optional<int>
        numFrames;        // otherwise until a second after everything has been drawn; without pauses, until then
    bool wait = true;     // 60 frames a second; otherwise one frame after the other
    bool animate = false; // the picture of every frame, on a terminal; otherwise the figures when they change
};

struct LoopFigures {
    int numFrames = 0;
    int numLateFrames = 0;     // that took longer than the time of a frame
    double longestFrameMs = 0; // drawing, and waiting for the lock
    double longestLockWaitMs = 0;
    FrameCounts last;
};

// Requires: the space is the thread's current one, and not locked.
LoopFigures RunLoop(quna::PSpace* space, const Scene& scene, const LoopSettings& settings);

} // namespace frameloop
