// The trace log.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/xostream.h"

namespace quna {

// Receives each trace text whole, on the thread that traced it. Calls never overlap. Must not trace itself and must
// not throw.
struct TraceSink {
    using Fn = void (*)(void* self, const char* text, ssize_t n);
    void* m_self = nullptr;
    Fn m_fn = nullptr; // null: standard error
};

// Replaces the sink and gives the one before. Any thread. When it returns, the former sink is not running and will
// not be called again.
QX_API TraceSink SetTraceSink(TraceSink sink);

// A temporary text stream that delivers its text to the trace log when it is destroyed:
//     TracerX() << "PS: opened " << path << "\n";
class QX_API TracerX : public StringStream {
public:
    TracerX();
    TracerX(const TracerX&) = delete;
    TracerX& operator=(const TracerX&) = delete;
    ~TracerX() noexcept override;

    // The operators on xostream take an lvalue; this makes the temporary one.
    template <class T>
    xostream& operator<<(const T& x) {
        return static_cast<xostream&>(*this) << x;
    }
};

// Traces that an exception was swallowed by a destructor, since another one is already passing. Never throws.
QX_API void TraceSwallowedException(ConstStringZ where) noexcept;

} // namespace quna
