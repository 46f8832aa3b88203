// Collects what is traced during a scope.
#pragma once

#include "qxUtils/Tracer.h"

#include <mutex>
#include <string>

namespace quna {

// Threads: what any of them traces is collected; Text from any thread.
class TraceCatcher {
public:
    TraceCatcher() : m_before(SetTraceSink({this, &Take})) {}
    TraceCatcher(const TraceCatcher&) = delete;
    TraceCatcher& operator=(const TraceCatcher&) = delete;
    ~TraceCatcher() { SetTraceSink(m_before); }
    std::string Text() const {
        const std::lock_guard lock(m_mutex);
        return m_text;
    }
    bool Has(const std::string& text) const { return Text().find(text) != std::string::npos; }

private:
    static void Take(void* self, const char* text, ssize_t n) {
        auto* const catcher = static_cast<TraceCatcher*>(self);
        const std::lock_guard lock(catcher->m_mutex);
        catcher->m_text.append(text, static_cast<size_t>(n));
    }
    mutable std::mutex m_mutex;
    std::string m_text;
    TraceSink m_before;
};

} // namespace quna
