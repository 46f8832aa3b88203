// Byte streams.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"

namespace quna {

// A sink of bytes. The order of the virtual operations is fixed. A failure is an exception of the sink's.
class QX_API IOutputStream {
public:
    IOutputStream() = default;
    IOutputStream(const IOutputStream&) = default;
    IOutputStream& operator=(const IOutputStream&) = default;
    virtual ~IOutputStream() noexcept(false);

    virtual void WriteStream(const void* buffer, ssize_t n) = 0;
    virtual void FlushStream() = 0;
};

// A source of bytes.
class QX_API IInputStream {
public:
    IInputStream() = default;
    IInputStream(const IInputStream&) = default;
    IInputStream& operator=(const IInputStream&) = default;
    virtual ~IInputStream();

    // Reads up to n bytes; the result is the number read, 0 at the end.
    virtual ssize_t ReadStream(void* buffer, ssize_t n) = 0;
};

} // namespace quna
