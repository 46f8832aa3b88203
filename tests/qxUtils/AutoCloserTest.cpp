#include "qxUtils/AutoCloser.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace quna {
namespace {

struct Closeable {
    int m_numCloses = 0;
    bool m_fails = false;
    void Close() {
        ++m_numCloses;
        if (m_fails) throw std::runtime_error("Close failed");
    }
};

// Keeps the trace of a swallowed exception off standard error.
class SilentTrace {
public:
    SilentTrace()
        : m_previous(SetTraceSink(
              {this, [](void* self, const char*, ssize_t) { ++static_cast<SilentTrace*>(self)->m_numTexts; }})) {}
    ~SilentTrace() { SetTraceSink(m_previous); }
    SilentTrace(const SilentTrace&) = delete;
    SilentTrace& operator=(const SilentTrace&) = delete;
    int m_numTexts = 0;

private:
    TraceSink m_previous;
};

TEST(AutoCloser, ClosesAtTheEndOfItsScope) {
    Closeable c;
    {
        const AutoCloser<Closeable> closer(&c);
        EXPECT_EQ(&c, closer.Get());
        EXPECT_EQ(&c, closer.ptr_);
        EXPECT_EQ(0, closer->m_numCloses);
    }
    EXPECT_EQ(1, c.m_numCloses);
}

TEST(AutoCloser, HoldsNothingWithoutHarm) {
    const AutoCloser<Closeable> closer(nullptr);
    EXPECT_FALSE(closer);
}

TEST(AutoCloser, ClosesWhenAnExceptionPasses) {
    Closeable c;
    EXPECT_THROW(
        {
            const AutoCloser<Closeable> closer(&c);
            throw std::logic_error("passing");
        },
        std::logic_error);
    EXPECT_EQ(1, c.m_numCloses);
}

TEST(AutoCloser, ClosesOnceWhenClosedByHand) {
    Closeable c;
    {
        AutoCloser<Closeable> closer(&c);
        closer.Close();
        EXPECT_EQ(nullptr, closer.Get());
    }
    EXPECT_EQ(1, c.m_numCloses);
}

TEST(AutoCloser, AFailingCloseThrowsAndIsNotRepeated) {
    Closeable c;
    c.m_fails = true;
    EXPECT_THROW({ const AutoCloser<Closeable> closer(&c); }, std::runtime_error);
    EXPECT_EQ(1, c.m_numCloses);
    EXPECT_THROW(
        {
            AutoCloser<Closeable> closer(&c);
            closer.Close();
        },
        std::runtime_error);
    EXPECT_EQ(2, c.m_numCloses);
}

TEST(AutoCloser, AFailingCloseIsTracedWhileAnotherExceptionPasses) {
    SilentTrace trace;
    Closeable c;
    c.m_fails = true;
    EXPECT_THROW(
        {
            const AutoCloser<Closeable> closer(&c);
            throw std::logic_error("passing");
        },
        std::logic_error);
    EXPECT_EQ(1, c.m_numCloses);
    EXPECT_EQ(1, trace.m_numTexts);
}

TEST(AutoCloser, AReleasedObjectIsNotClosed) {
    Closeable c;
    {
        AutoCloser<Closeable> closer(&c);
        EXPECT_EQ(&c, closer.Release());
    }
    EXPECT_EQ(0, c.m_numCloses);
}

// As a store or a transaction is: opaque to its user, ended by a free function.
struct Opaque {
    int m_numCloses = 0;
};
void Close(Opaque* opaque) { ++opaque->m_numCloses; }

TEST(AutoCloser2, EndsAnOpaqueObjectByTheFreeFunctionClose) {
    Opaque opaque;
    { const AutoCloser2<Opaque> closer(&opaque); }
    EXPECT_EQ(1, opaque.m_numCloses);
    AutoCloser2<Opaque> closer(&opaque);
    closer.Close();
    EXPECT_EQ(nullptr, closer.Get());
    EXPECT_EQ(2, opaque.m_numCloses);
}

} // namespace
} // namespace quna
