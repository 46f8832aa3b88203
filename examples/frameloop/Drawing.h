// One frame: the scene as it is in memory at this moment.
#pragma once

#include "Scene.h"

#include <ostream>
#include <string>
#include <vector>

namespace quna {
class PSpace;
} // namespace quna

namespace frameloop {

// A picture of characters.
class Canvas {
public:
    static constexpr int WIDTH = 100;
    static constexpr int HEIGHT = 30;

    void Clear() { m_lines.assign(HEIGHT, std::string(WIDTH, ' ')); }
    // Does nothing outside the picture, and leaves what was put there before.
    void Put(double x, double y, int glyph);
    void Print(std::ostream& os) const;

private:
    std::vector<std::string> m_lines;
};

// What the references that were met in a frame led to.
struct FrameCounts {
    int numBound = 0;   // drawn
    int numPending = 0; // not there yet; their own parts are not even known
    int numMissing = 0; // there is no such part

    friend bool operator==(const FrameCounts&, const FrameCounts&) = default;
};

// Draws what is there, and asks for what is not. Never waits. Requires: the space is locked in any mode, and the thread's
// current one.
FrameCounts DrawScene(quna::PSpace* space, const Scene& scene, double seconds, Canvas& canvas);

} // namespace frameloop
