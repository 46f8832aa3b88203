// What does assigning a model field cost beside a plain one? Limit: 10 ns above the plain store, for a persistent object
// that is dirty already. For a transient object there is one look at the identity. Also an offset, and a reference to a
// new child beside attaching it by hand.
//
// The first argument is a regular expression for the contestants.
#include "bench/support/BenchObjects.h"
#include "bench/support/Contest.h"
#include "qxObject/Model.h"
#include "qxObject/ModelRefVector.h"
#include "qxPersistStore/PersistentMembers.h"

#include <chrono>

namespace {

using namespace quna;
using Clock = std::chrono::steady_clock;
using Report = Contest::Report;

constexpr int32 NUM_STORES = 10'000'000;
constexpr ssize_t NUM_CHILDREN = 100'000;

class BenchChild : public PersistentObject<BenchChild> {
public:
    static constexpr auto Members() { return MemberList(Member("number", &BenchChild::number)); }
    int32 number = 0;
};
QX_REFLECT_PERSISTENT_CLASS(BenchChild, "bench::Child")

class BenchOwner : public PersistentObject<BenchOwner> {
public:
    static constexpr auto Members() {
        return MemberList(Member("plain", &BenchOwner::plain), Member("plainChildren", &BenchOwner::plainChildren),
                          Member("number", &BenchOwner::number), Member("children", &BenchOwner::children));
    }
    int32 plain = 0;
    xvector<cref<BenchChild>> plainChildren;
    Model<int32, BenchOwner, "number"> number;
    ModelRefVector<cref<BenchChild>, BenchOwner, "children"> children;
};
QX_REFLECT_PERSISTENT_CLASS(BenchOwner, "bench::Owner")

// Nanoseconds of each of `n` calls change(i); each has an effect in memory.
template <class Change>
double Nanoseconds(int32 n, Change change) {
    const auto begin = Clock::now();
    for (int32 i = 0; i < n; ++i) {
        change(i);
        asm volatile("" ::: "memory");
    }
    return SecondsSince(begin) * 1e9 / n;
}

void PlainStores(BenchOwner& owner, Report& report) {
    report.Value("assign an int32", Nanoseconds(NUM_STORES, [&](int32 i) { owner.plain = i; }), "ns");
    report.Value("add to an int32", Nanoseconds(NUM_STORES, [&](int32 i) { owner.plain += i & 1; }), "ns");
}

void ModelStores(BenchOwner& owner, Report& report) {
    report.Value("assign an int32", Nanoseconds(NUM_STORES, [&](int32 i) { owner.number = i; }), "ns");
    report.Value("add to an int32", Nanoseconds(NUM_STORES, [&](int32 i) { owner.number += i & 1; }), "ns");
}

} // namespace

int main(int argc, char** argv) {
    const TempDir dir;
    BenchStore store(dir / "store");
    {
        static constexpr dsTarget TARGET = {"Quna/Bench/Model", nullptr, 0, nullptr, 0};
        XTarget* const target = RegisterTarget(TARGET);
        _Register_BenchChild(target);
        _Register_BenchOwner(target);

        const PSpaceTxn txn(Exclusive);
        auto* const owner = new BenchOwner;
        RegisterGcObject(owner);
        AddPSpaceRoot("owner", ptr<IPersistable>(owner));
        auto* const transient = new BenchOwner;
        RegisterGcObject(transient);
        const auto newChild = [] {
            auto* const child = new BenchChild;
            RegisterGcObject(child);
            return child;
        };

        Contest contest(ArgumentOrNothing(argc, argv, 1));
        contest.Add("plain", [&](Report& report) {
            PlainStores(*owner, report);
            report.Value("attach a child",
                         Nanoseconds(NUM_CHILDREN,
                                     [&](int32) {
                                         BenchChild* const child = newChild();
                                         owner->MarkAsDirtyWithoutTrace();
                                         owner->plainChildren.push_back(cref<BenchChild>(child));
                                         DeclareReachable(owner, child, true);
                                     }),
                         "ns");
        });
        contest.Add("model, dirty", [&](Report& report) {
            ModelStores(*owner, report);
            report.Value("attach a child",
                         Nanoseconds(NUM_CHILDREN, [&](int32) { owner->children.push_back(newChild()); }), "ns");
        });
        contest.Add("model, transient", [&](Report& report) { ModelStores(*transient, report); });
        contest.Run("Changing fields");
    }
    store.CloseAll();
    return 0;
}
