#include "tools/qxstore/GrowthMonitor.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include <sys/stat.h>

namespace quna::qxstore {

namespace {

constexpr std::chrono::milliseconds PERIOD{200};
constexpr int64 BLOCK_BYTES = 512; // unit of st_blocks

} // namespace

int64 BytesOnDisk(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? int64{status.st_blocks} * BLOCK_BYTES : 0;
}

GrowthMonitor::GrowthMonitor(std::string what, std::string path, int64 expectedBytes, Console& console)
    : m_path(std::move(path)), m_expectedBytes(std::max<int64>(expectedBytes, 1)),
      m_progress(std::move(what), m_expectedBytes, console) {
    if (console.showsProgress) m_thread = std::thread([this] { ThreadMain(); });
}

GrowthMonitor::~GrowthMonitor() {
    if (!m_thread.joinable()) return;
    {
        const std::lock_guard lock(m_mutex);
        m_isOver = true;
    }
    m_changed.notify_one();
    m_thread.join();
}

// What is expected is an estimate, so that 99% is the most before the end.
void GrowthMonitor::ThreadMain() {
    std::unique_lock lock(m_mutex);
    while (!m_changed.wait_for(lock, PERIOD, [this] { return m_isOver; }))
        m_progress.Set(std::min(BytesOnDisk(m_path), m_expectedBytes * 99 / 100), m_expectedBytes);
}

} // namespace quna::qxstore
