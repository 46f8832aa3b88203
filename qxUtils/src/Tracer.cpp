#include "qxUtils/Tracer.h"

#include "qxUtils/Exceptions.h"
#include "qxUtils/Mutex.h"

#include <cstdio>
#include <exception>
#include <mutex>

namespace quna {

namespace {

constexpr ssize_t TRACE_CAPACITY = 4096; // bytes

struct TraceLog {
    Mutex m_mutex{"Tracer::m_mutex"}; // leaf lock, but for the sink that runs under it
    TraceSink m_sink;                 // guarded by m_mutex
};

// Never destroyed: threads and static destructors may trace until the very end.
TraceLog& GetTraceLog() {
    static auto* const log = new TraceLog;
    return *log;
}

void Deliver(const char* text, ssize_t n) {
    TraceLog& log = GetTraceLog();
    const std::lock_guard lock(log.m_mutex);
    if (log.m_sink.m_fn)
        log.m_sink.m_fn(log.m_sink.m_self, text, n);
    else
        std::fwrite(text, 1, static_cast<std::size_t>(n), stderr); // one call: texts are not torn between threads
}

} // namespace

TraceSink SetTraceSink(TraceSink sink) {
    TraceLog& log = GetTraceLog();
    const std::lock_guard lock(log.m_mutex);
    const TraceSink previous = log.m_sink;
    log.m_sink = sink;
    return previous;
}

TracerX::TracerX() : StringStream(TRACE_CAPACITY) {}

TracerX::~TracerX() noexcept {
    if (size() > 0) Deliver(c_str(), size());
}

void TraceSwallowedException(ConstStringZ where) noexcept {
    try {
        try {
            throw;
        } catch (const std::exception& e) {
            TracerX() << "Swallowed while another exception is passing, in " << where << ": " << e.what() << "\n";
        } catch (...) {
            TracerX() << "Swallowed while another exception is passing, in " << where << "\n";
        }
    } catch (...) { // no memory for the text: there is nobody left to tell
    }
}

} // namespace quna
