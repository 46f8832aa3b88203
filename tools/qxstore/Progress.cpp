#include "tools/qxstore/Progress.h"

#include <algorithm>
#include <utility>

namespace quna::qxstore {

namespace {

constexpr int64 BAR_COLUMNS = 40;

} // namespace

Progress::Progress(std::string what, int64 total, Console& console)
    : m_what(std::move(what)), m_console(console), m_total(total) {
    Set(0, total);
}

Progress::~Progress() {
    if (m_console.showsProgress) m_console.err << "\r\x1b[K" << std::flush;
}

void Progress::Set(int64 done, int64 total) {
    m_done = done;
    m_total = total;
    if (!m_console.showsProgress) return;
    const int64 percent = total > 0 ? std::min<int64>(100, done * 100 / total) : 0;
    if (percent == m_percent) return;
    m_percent = percent;
    Draw();
}

void Progress::Draw() const {
    const size_t full = static_cast<size_t>(m_percent * BAR_COLUMNS / 100);
    m_console.err << '\r' << m_what << " [" << std::string(full, '#')
                  << std::string(static_cast<size_t>(BAR_COLUMNS) - full, '.') << "] " << m_percent << '%'
                  << std::flush;
}

} // namespace quna::qxstore
