#include "tools/qxstore/Progress.h"

#include <algorithm>
#include <cstdio>

#include <unistd.h>

namespace quna::qxstore {

namespace {

constexpr int64 BAR_COLUMNS = 40;

} // namespace

Progress::Progress(std::string what, int64 total, bool quiet)
    : m_what(std::move(what)), m_total(total), m_isShown(!quiet && ::isatty(STDERR_FILENO)) {
    Advance(0);
}

Progress::~Progress() {
    if (m_isShown) std::fputs("\r\x1b[K", stderr);
}

void Progress::Advance(int64 n) {
    m_done += n;
    if (!m_isShown) return;
    const int64 percent = m_total > 0 ? std::min<int64>(100, m_done * 100 / m_total) : 100;
    if (percent == m_percent) return;
    m_percent = percent;
    Draw();
}

void Progress::Draw() const {
    const size_t full = static_cast<size_t>(m_percent * BAR_COLUMNS / 100);
    const std::string bar = std::string(full, '#') + std::string(static_cast<size_t>(BAR_COLUMNS) - full, '.');
    std::fprintf(stderr, "\r%s [%s] %3d%%", m_what.c_str(), bar.c_str(), static_cast<int>(m_percent));
    std::fflush(stderr);
}

} // namespace quna::qxstore
