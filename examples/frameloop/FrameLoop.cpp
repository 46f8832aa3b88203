#include "FrameLoop.h"

#include "qxObject/WCSpace.h"

#include <algorithm>
#include <chrono>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <thread>

namespace frameloop {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int FRAMES_PER_SECOND = 60;
constexpr auto FRAME_TIME = std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(1)) / FRAMES_PER_SECOND;
constexpr const char* CURSOR_HOME = "\x1b[H";
constexpr const char* CLEAR_TERMINAL = "\x1b[2J";
constexpr const char* CLEAR_TO_END_OF_LINE = "\x1b[K";

double Milliseconds(Clock::duration duration) { return std::chrono::duration<double, std::milli>(duration).count(); }

std::string TextOf(int frame, const FrameCounts& counts, Clock::duration frameTime) {
    std::ostringstream os;
    os << "frame " << std::setw(5) << frame << ": " << std::setw(5) << counts.numBound << " bound, " << std::setw(5)
       << counts.numPending << " pending, " << std::setw(3) << counts.numMissing << " missing, " << std::fixed
       << std::setprecision(2) << Milliseconds(frameTime) << " ms";
    return os.str();
}

} // namespace

LoopFigures RunLoop(quna::PSpace* space, const Scene& scene, const LoopSettings& settings) {
    LoopFigures figures;
    Canvas canvas;
    int numFramesToGo = settings.numFrames.value_or(settings.wait ? FRAMES_PER_SECOND : 1);
    if (settings.animate) std::cout << CLEAR_TERMINAL;
    const Clock::time_point start = Clock::now();
    Clock::time_point due = start;
    while (numFramesToGo > 0) {
        const Clock::time_point begin = Clock::now();
        Clock::time_point locked;
        FrameCounts counts;
        {
            // Shared is enough to look and to ask. What has arrived is entered between the frames.
            const quna::CSpaceLock lock(quna::SharedRead);
            locked = Clock::now();
            counts = DrawScene(space, scene, std::chrono::duration<double>(begin - start).count(), canvas);
        }
        const Clock::duration frameTime = Clock::now() - begin;

        ++figures.numFrames;
        figures.numLateFrames += frameTime > FRAME_TIME;
        figures.longestFrameMs = std::max(figures.longestFrameMs, Milliseconds(frameTime));
        figures.longestLockWaitMs = std::max(figures.longestLockWaitMs, Milliseconds(locked - begin));
        if (settings.animate) {
            std::cout << CURSOR_HOME;
            canvas.Print(std::cout);
            std::cout << TextOf(figures.numFrames, counts, frameTime) << CLEAR_TO_END_OF_LINE << std::endl;
        } else if (figures.numFrames == 1 || counts != figures.last) {
            std::cout << TextOf(figures.numFrames, counts, frameTime) << '\n';
        }
        figures.last = counts;
        if (settings.numFrames || counts.numPending == 0) --numFramesToGo;
        if (settings.wait) std::this_thread::sleep_until(due += FRAME_TIME);
    }
    if (!settings.animate) canvas.Print(std::cout);
    return figures;
}

} // namespace frameloop
