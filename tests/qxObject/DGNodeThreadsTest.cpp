// Calculations side by side on several threads.
#include "qxObject/CSpace.h"
#include "qxObject/DGDepNode.h"
#include "qxObject/WCSpace.h"
#include "qxUtils/Event.h"

#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

namespace quna {
namespace {

class Input : public DGIndepNode {
public:
    int Get() const {
        ReadBarrier();
        return m_value;
    }
    void Set(int value) {
        m_value = value;
        OnChange();
    }
    void OnEvict() const override {}
    xstring Name() const override { return "Input"; }
    void VisitContainingObject(IObjectVisitor&) const override {}

private:
    int m_value = 1;
};

// One reader fails in the middle of a calculation that another completes: what the other has read must not be cut off from
// the inputs.
TEST(DGNodeThreads, WhatWasReadBesideACalculationThatFailsHearsOfTheNextChange) {
    const CSpaceCreator cs;
    const DeclareThreadPtr<CSpace> current(cs);
    {
        Input input;
        AutoResetEvent isCalculating, mayFail;
        thread_local bool fails = false;
        const Calculated<int> node("node", [&] {
            const int value = input.Get();
            if (!fails) return value;
            isCalculating.Signal();
            mayFail.Wait();
            throw std::runtime_error("on this thread only");
        });
        const Calculated<int> outer("outer", [&] { return 10 * node.Get(); });
        std::thread failing([&] {
            fails = true;
            const DeclareThreadPtr<CSpace> itsCurrent(cs);
            const CSpaceLock lock(cs, SharedRead);
            EXPECT_THROW(node.Get(), std::runtime_error);
        });
        isCalculating.Wait();
        {
            const CSpaceLock lock(cs, SharedRead);
            EXPECT_EQ(10, outer.Get());
        }
        mayFail.Signal();
        failing.join();
        const CSpaceLock lock(cs, Exclusive);
        input.Set(2);
        EXPECT_EQ(20, outer.Get());
    }
}

} // namespace
} // namespace quna
