// What does a deep copy cost? At least 2 M small objects/s, in each of the shapes below: beside it, the same objects as
// plain structures that own one another, copied by hand.
#include "bench/support/BenchObjects.h"
#include "bench/support/Contest.h"
#include "qxObject/DollarNew.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/PersistentMembers.h"

#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace quna {

// A number, two references of its own and a list of more.
class BenchPart : public PersistentObject<BenchPart> {
public:
    static constexpr auto Members() {
        return MemberList(Member("number", &BenchPart::m_number), Member("left", &BenchPart::m_left),
                          Member("right", &BenchPart::m_right), Member("more", &BenchPart::m_more));
    }
    uint64 m_number = 0;
    cref<BenchPart> m_left;
    cref<BenchPart> m_right;
    xvector<cref<BenchPart>> m_more;
};
QX_REFLECT_PERSISTENT_CLASS(BenchPart, "bench::Part")

} // namespace quna

namespace {

using namespace quna;

constexpr ssize_t NUM_OBJECTS = 1'000'000;

struct PlainPart {
    uint64 m_number = 0;
    std::unique_ptr<PlainPart> m_left;
    std::unique_ptr<PlainPart> m_right;
    std::vector<std::unique_ptr<PlainPart>> m_more;
};

// Both kinds of graph are built by the same code: `New` makes a part, `Own` stores it in a reference.
struct PlainMaker {
    using Part = std::unique_ptr<PlainPart>;
    static Part New() { return std::make_unique<PlainPart>(); }
    static void Own(std::unique_ptr<PlainPart>& place, Part part) { place = std::move(part); }
};
struct StoreMaker {
    using Part = BenchPart*;
    static Part New() { return DollarNew<BenchPart>(); }
    static void Own(cref<BenchPart>& place, Part part) { place = part; }
};

template <class Maker>
typename Maker::Part Chain() {
    typename Maker::Part top = Maker::New();
    for (ssize_t i = 1; i < NUM_OBJECTS; ++i) {
        typename Maker::Part part = Maker::New();
        Maker::Own(part->m_left, std::move(top));
        top = std::move(part);
    }
    return top;
}

template <class Maker>
typename Maker::Part BinaryTree(ssize_t n = NUM_OBJECTS) {
    typename Maker::Part part = Maker::New();
    const ssize_t left = (n - 1) / 2;
    if (left > 0) Maker::Own(part->m_left, BinaryTree<Maker>(left));
    if (n - 1 - left > 0) Maker::Own(part->m_right, BinaryTree<Maker>(n - 1 - left));
    return part;
}

template <class Maker>
typename Maker::Part Fan() {
    typename Maker::Part part = Maker::New();
    part->m_more.resize(NUM_OBJECTS - 1);
    for (auto& child : part->m_more) Maker::Own(child, Maker::New());
    return part;
}

// On a stack of its own, since recursion would end at the chain.
std::unique_ptr<PlainPart> PlainCopy(const PlainPart& top) {
    auto copy = std::make_unique<PlainPart>();
    std::vector<std::pair<const PlainPart*, PlainPart*>> open{{&top, copy.get()}};
    while (!open.empty()) {
        const auto [from, to] = open.back();
        open.pop_back();
        to->m_number = from->m_number;
        const auto copyChild = [&](const std::unique_ptr<PlainPart>& source, std::unique_ptr<PlainPart>& target) {
            if (!source) return;
            target = std::make_unique<PlainPart>();
            open.emplace_back(source.get(), target.get());
        };
        copyChild(from->m_left, to->m_left);
        copyChild(from->m_right, to->m_right);
        to->m_more.resize(from->m_more.size());
        for (std::size_t i = 0; i < from->m_more.size(); ++i) copyChild(from->m_more[i], to->m_more[i]);
    }
    return copy;
}

void EndPlain(std::unique_ptr<PlainPart> top) {
    std::vector<std::unique_ptr<PlainPart>> open;
    open.push_back(std::move(top));
    while (!open.empty()) {
        const std::unique_ptr<PlainPart> part = std::move(open.back());
        open.pop_back();
        if (part->m_left) open.push_back(std::move(part->m_left));
        if (part->m_right) open.push_back(std::move(part->m_right));
        for (std::unique_ptr<PlainPart>& child : part->m_more) open.push_back(std::move(child));
    }
}

void MeasurePlain(Contest::Report& report, const std::string& row, std::unique_ptr<PlainPart> top) {
    const auto begin = std::chrono::steady_clock::now();
    std::unique_ptr<PlainPart> copy = PlainCopy(*top);
    report.Time(row, NUM_OBJECTS, SecondsSince(begin));
    EndPlain(std::move(copy));
    EndPlain(std::move(top));
}

template <class Make>
void MeasureDeepCopy(Contest::Report& report, const std::string& row, Make&& make) {
    const CSpaceCreator domain;
    const DeclareThreadPtr<CSpace> current(domain);
    const CSpaceLock lock(domain, Exclusive);
    BenchPart* const top = make();
    const auto begin = std::chrono::steady_clock::now();
    const ptr<IPersistable> copy = SynchronousDeepCopyPersistableObject(ptr<IPersistable>(top));
    report.Time(row, NUM_OBJECTS, SecondsSince(begin));
    if (!copy || GetNumObjects(domain) != 2 * NUM_OBJECTS) std::abort();
}

} // namespace

int main() {
    Register_Project_qxPersistStore();
    _Register_BenchPart(Quna_Core_qxPersistStore_GetXTarget());
    Contest contest;
    contest.Add("deep copy", [](Contest::Report& report) {
        MeasureDeepCopy(report, "binary tree", [] { return BinaryTree<StoreMaker>(); });
        MeasureDeepCopy(report, "chain", [] { return Chain<StoreMaker>(); });
        MeasureDeepCopy(report, "one parent", [] { return Fan<StoreMaker>(); });
    });
    contest.Add("plain structures", [](Contest::Report& report) {
        MeasurePlain(report, "binary tree", BinaryTree<PlainMaker>());
        MeasurePlain(report, "chain", Chain<PlainMaker>());
        MeasurePlain(report, "one parent", Fan<PlainMaker>());
    });
    contest.Run("deep copy of 1 M objects");
}
