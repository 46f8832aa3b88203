// A sink that counts.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "qxUtils/Export.h"
#include "qxUtils/IStream.h"

namespace quna {

// Keeps the number of bytes written to it, and none of them.
class QX_API StreamLengthCounter : public IOutputStream {
public:
    void WriteStream(const void* buffer, ssize_t n) override;
    void FlushStream() override;
    int64 GetLength() const { return m_length; }

private:
    int64 m_length = 0;
};

} // namespace quna
