#include "qxUtils/Tracer.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

// Collects the trace of a scope.
class CollectedTrace {
public:
    CollectedTrace() : m_previous(SetTraceSink({this, &CollectedTrace::Take})) {}
    ~CollectedTrace() { SetTraceSink(m_previous); }
    CollectedTrace(const CollectedTrace&) = delete;
    CollectedTrace& operator=(const CollectedTrace&) = delete;
    const std::vector<std::string>& Texts() const { return m_texts; }

private:
    static void Take(void* self, const char* text, ssize_t n) {
        static_cast<CollectedTrace*>(self)->m_texts.emplace_back(text, static_cast<std::size_t>(n));
    }
    std::vector<std::string> m_texts;
    TraceSink m_previous;
};

TEST(Tracer, DeliversItsTextWholeWhenItIsDestroyed) {
    CollectedTrace trace;
    {
        TracerX os;
        os << "PS: " << 5 << " objects\n";
        EXPECT_TRUE(trace.Texts().empty());
    }
    TracerX() << "second" << 'x';
    EXPECT_EQ((std::vector<std::string>{"PS: 5 objects\n", "secondx"}), trace.Texts());
}

TEST(Tracer, TheFormerSinkIsGivenBack) {
    CollectedTrace outer;
    {
        CollectedTrace inner;
        TracerX() << "inner";
        EXPECT_EQ(std::vector<std::string>{"inner"}, inner.Texts());
    }
    TracerX() << "outer";
    EXPECT_EQ(std::vector<std::string>{"outer"}, outer.Texts());
}

TEST(Tracer, ASwallowedExceptionIsTraced) {
    CollectedTrace trace;
    try {
        throw std::runtime_error("the reason");
    } catch (...) {
        TraceSwallowedException("SomeDestructor");
    }
    ASSERT_EQ(1u, trace.Texts().size());
    EXPECT_NE(std::string::npos, trace.Texts()[0].find("SomeDestructor")) << trace.Texts()[0];
    EXPECT_NE(std::string::npos, trace.Texts()[0].find("the reason")) << trace.Texts()[0];
}

TEST(TracerThreads, TextsOfSeveralThreadsNeverMix) {
    CollectedTrace trace;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 500; ++i) TracerX() << "thread " << t << " says " << i << "\n";
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(2000u, trace.Texts().size());
    for (const std::string& text : trace.Texts()) {
        ASSERT_EQ(0u, text.rfind("thread ", 0));
        ASSERT_EQ('\n', text.back());
    }
}

} // namespace
} // namespace quna
