// A progress bar for work that tells nothing but by the file that it makes.
#pragma once

#include "tools/qxstore/Progress.h"

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace quna::qxstore {

// Bytes that the file takes on the disk, 0 if there is none.
int64 BytesOnDisk(const std::string& path);

// Looks at the file five times a second, in a thread of its own, and shows how much of `expectedBytes` it has.
//
// Ownership: owns the thread. Nothing runs where the console shows no progress.
class GrowthMonitor {
public:
    GrowthMonitor(std::string what, std::string path, int64 expectedBytes, Console& console);
    GrowthMonitor(const GrowthMonitor&) = delete;
    GrowthMonitor& operator=(const GrowthMonitor&) = delete;
    ~GrowthMonitor();

private:
    void ThreadMain();

    const std::string m_path;
    const int64 m_expectedBytes;
    Progress m_progress; // of the thread, while it runs
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_isOver = false; // guarded by m_mutex
    std::thread m_thread;
};

} // namespace quna::qxstore
