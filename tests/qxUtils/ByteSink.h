// A stream that keeps what it receives, and each write apart, so that a test sees when an archive flushed.
#pragma once

#include "qxUtils/Archive.h"
#include "qxUtils/IStream.h"

#include <cstring>
#include <string>
#include <vector>

namespace quna {

using Bytes = std::vector<octet_t>;

class ByteSink : public IOutputStream {
public:
    void WriteStream(const void* buffer, ssize_t n) override {
        const auto* p = static_cast<const octet_t*>(buffer);
        m_bytes.insert(m_bytes.end(), p, p + n);
        m_writes.push_back(n);
    }
    void FlushStream() override { ++m_numFlushes; }

    Bytes m_bytes;
    std::vector<ssize_t> m_writes; // bytes of each call
    int m_numFlushes = 0;
};

// What `write` puts into an archive.
template <class Write>
Bytes Written(Write&& write) {
    ByteSink sink;
    {
        Archive ar(&sink);
        write(ar);
    }
    return sink.m_bytes;
}

inline Bytes ToBytes(const char* text) { return Bytes(text, text + std::strlen(text)); }

} // namespace quna
