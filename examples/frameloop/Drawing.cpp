#include "Drawing.h"

#include "qxPersistStore/IPersistStore.h"

#include <cmath>

namespace frameloop {

namespace {

constexpr int THINGS_IN_A_ROW = 10;
constexpr double COLUMNS_PER_LINE = 2; // a character is about twice as high as it is wide
// No more loads than that at a time, so that no frame spends long on asking.
constexpr int MAX_PENDING = 1000;
constexpr double DEGREE = 3.14159265358979 / 180;

// The drawing of one frame.
class FrameDrawer {
public:
    FrameDrawer(quna::PSpace* space, double seconds, Canvas& canvas)
        : m_space(space), m_seconds(seconds), m_canvas(canvas) {}

    FrameCounts Draw(const Scene& scene) {
        for (quna::ssize_t i = 0; i < scene.m_things.size(); ++i) {
            const auto column = static_cast<double>(i % THINGS_IN_A_ROW);
            const auto row = static_cast<double>(i / THINGS_IN_A_ROW);
            Follow(scene.m_things[i], column * 10 + 5, row * 5 + 2.5);
            while (!m_toDraw.empty()) {
                const Placed placed = m_toDraw.back();
                m_toDraw.pop_back();
                DrawPart(placed);
            }
        }
        return m_counts;
    }

private:
    struct Placed {
        const Part* part;
        double x, y; // what it moves around
    };

    void Follow(const quna::cref<Part>& reference, double x, double y) {
        if (m_counts.numPending >= MAX_PENDING && !reference.IsBound()) {
            ++m_counts.numPending; // its turn comes when others have arrived
            return;
        }
        if (const Part* const part = reference.AsyncGet()) {
            ++m_counts.numBound;
            m_toDraw.push_back({part, x, y});
        } else if (quna::AsyncBind2(m_space, reference.GetOid()).result == quna::EAsyncBindResult::DoesNotExist) {
            ++m_counts.numMissing;
        } else {
            ++m_counts.numPending;
        }
    }

    void DrawPart(const Placed& placed) {
        const Part& part = *placed.part;
        const double angle = (part.m_angle + part.m_speed * m_seconds) * DEGREE;
        const double radius = part.m_radius / 100.0;
        const double x = placed.x + COLUMNS_PER_LINE * radius * std::cos(angle);
        const double y = placed.y + radius * std::sin(angle);
        m_canvas.Put(x, y, part.m_glyph);
        for (const quna::cref<Part>& reference : part.m_parts) Follow(reference, x, y);
    }

    quna::PSpace* const m_space;
    const double m_seconds;
    Canvas& m_canvas;
    FrameCounts m_counts;
    std::vector<Placed> m_toDraw;
};

} // namespace

void Canvas::Put(double x, double y, int glyph) {
    if (x < 0 || y < 0 || x >= WIDTH || y >= HEIGHT) return;
    char& place = m_lines[static_cast<std::size_t>(y)][static_cast<std::size_t>(x)];
    if (place == ' ') place = static_cast<char>(glyph);
}

void Canvas::Print(std::ostream& os) const {
    for (const std::string& line : m_lines) os << line << '\n';
}

FrameCounts DrawScene(quna::PSpace* space, const Scene& scene, double seconds, Canvas& canvas) {
    canvas.Clear();
    return FrameDrawer(space, seconds, canvas).Draw(scene);
}

} // namespace frameloop
