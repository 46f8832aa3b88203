#include "tests/support/SimStoreCheck.h"

#include "qxObject/WCSpace.h"
#include "qxPersistStore/PersistStoreExceptions.h"
#include "qxPersistStore/src/DosWriter.h"
#include "qxPersistStore/src/PersistStoreTxn.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "qxUtils/AutoCloser.h"
#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>
#include <vector>

namespace quna {
namespace {

// Leaves the check.
struct Fault {
    StoreFault fault;
};
[[noreturn]] void Fail(const char* kind, const std::string& text) { throw Fault{{kind, text}}; }

// Reads a space into a model, object by object.
class SpaceReader {
public:
    explicit SpaceReader(PSpace& space) : m_space(space) {}

    void Read() {
        const ThreadPSpaceScope pair(&m_space, m_space.GetCSpace());
        const CSpaceLock lock(SharedRead);
        SimHome* home = HomeOf(m_space);
        if (!home) return;
        m_model.exists = true;
        m_model.changes = home->m_changes;
        ReadForest(*home);
        ReadTree(home->m_accounts, [&](uint64 number, const cref<SimAccount>& account) { Read(number, account); });
        ReadTree(home->m_numbers, [&](uint64 key, uint64 value) { m_model.numbers[key] = value; });
        for (const auto& [name, reference] : m_space.m_roots.m_roots) {
            if (std::strcmp(name.c_str(), "home") == 0) continue;
            const auto* note = static_cast<const SimNote*>(reference.Get().m_self);
            m_model.notes[name.c_str()] = note->m_number;
            note->m_next.GetNotNull();
        }
    }

    SimSpaceModel m_model;
    int64 m_numTreeElements = 0; // of nodes and headers

private:
    template <class Map, class Take>
    void ReadTree(const Map& map, Take take) {
        ssize_t count = 0;
        try {
            map.Tree().Validate();
            for (const auto [key, payload] : map) {
                take(key, payload);
                ++count;
            }
        } catch (const DerefDanglingOidException&) {
            throw;
        } catch (const std::exception& e) {
            Fail("tree_bad", e.what());
        }
        if (count != map.size()) Fail("tree_bad", "the tree's size is not that of its chain of leaves");
        m_numTreeElements += 1 + map.Tree().GetNumNodes();
    }

    // Its number, which is known then as one that exists.
    uint64 NumberOf(const cref<SimBranch>& reference) {
        if (!reference) return 0;
        const ptr<IPersistable> po = reference.TryGet();
        if (!po) return SimSpaceModel::DANGLING;
        const uint64 number = static_cast<const SimBranch*>(po.m_self)->m_number;
        m_model.branches.try_emplace(number);
        return number;
    }

    void Read(uint64 number, const cref<SimAccount>& reference) {
        const SimAccount* account = reference.GetNotNull();
        SimSpaceModel::Account& model = m_model.accounts[number];
        model.balance = account->m_balance;
        model.size = SizeOf(number, account->m_text);
        model.mentions = NumberOf(account->m_mentions);
        if (account->m_number != number) Fail("other", "an account stands under another one's number");
    }

    static int64 SizeOf(uint64 number, const xstring& text) {
        return PatternText(number, text.size()) == text.c_str() ? int64{text.size()} : -1;
    }

    void ReadForest(const SimHome& home) {
        std::vector<const SimBranch*> stack;
        const auto visit = [&](const cref<SimBranch>& reference) {
            const uint64 number = NumberOf(reference);
            if (number != SimSpaceModel::DANGLING) stack.push_back(reference.GetNotNull());
            return number;
        };
        for (const cref<SimBranch>& reference : home.m_forest) m_model.forest.push_back(visit(reference));
        while (!stack.empty()) {
            const SimBranch* branch = stack.back();
            stack.pop_back();
            std::vector<uint64> children;
            for (const cref<SimBranch>& child : branch->m_children) children.push_back(visit(child));
            const uint64 parent = NumberOf(branch->m_parent);
            m_model.branches[branch->m_number] = {branch->m_isSubTree, SizeOf(branch->m_number, branch->m_text), parent,
                                                  std::move(children)};
        }
    }

    PSpace& m_space;
};

bool IsNoStore(const FileException& e) {
    return std::strstr(e.what(), "does not exist") || std::strstr(e.what(), "cut short");
}

// Both spaces as they are found.
struct FoundStore {
    std::array<SimSpaceModel, NUM_SIM_SPACES> models;
    std::array<std::string, NUM_SIM_SPACES> texts;
    int64 numTreeElements = 0;

    explicit FoundStore(const OpenSimStore& open) {
        bool exist = false;
        int64 sum = 0;
        for (size_t i = 0; i < models.size(); ++i) {
            if (!open.m_spaces[i]) continue;
            SpaceReader reader(*open.m_spaces[i]);
            reader.Read();
            models[i] = std::move(reader.m_model);
            texts[i] = models[i].Text();
            numTreeElements += reader.m_numTreeElements;
            exist = exist || models[i].exists;
            sum += models[i].Sum();
        }
        if (exist && sum != SIM_SUM) Fail("sum_broken", "the sum is " + std::to_string(sum));
    }

    bool Is(const SimStoreState& state) const {
        for (size_t i = 0; i < texts.size(); ++i)
            if (state[i] ? state[i]->text != texts[i] : !texts[i].empty()) return false;
        return true;
    }
};

void DeleteWhatWaits(OpenSimStore& open) {
    for (int i = 0; open.m_store->m_dosWriter.DeleteSomeObjects(); ++i)
        if (i == 10000) Fail("other", "the deletions do not end");
    for (PSpace* space : open.m_spaces) {
        if (!space) continue;
        const ThreadPSpaceScope pair(space, space->GetCSpace());
        SynchronousGc(space->GetCSpace()); // otherwise references still find what was deleted
    }
}

std::string FirstDifference(const std::string& found, const std::string& expected) {
    const auto [f, e] = std::mismatch(found.begin(), found.end(), expected.begin(), expected.end());
    const auto line = [](const std::string& text, std::string::const_iterator at) {
        const size_t position = static_cast<size_t>(at - text.begin());
        const size_t begin = position == 0 ? 0 : text.rfind('\n', position - 1) + 1;
        return text.substr(begin, std::min<size_t>(text.find('\n', position), begin + 120) - begin);
    };
    return "found \"" + line(found, f) + "\" instead of \"" + line(expected, e) + "\"";
}

// Why no state between floor and ceiling is the one found.
[[noreturn]] void FailToMatch(const FoundStore& found, const StoreCheck& check) {
    const std::vector<SimStoreState>& states = check.history->states;
    const std::string range =
        " (floor S" + std::to_string(check.floor) + ", ceiling S" + std::to_string(check.ceiling) + ")";
    for (ssize_t i = 0; i < std::ssize(states); ++i)
        if (found.Is(states[static_cast<size_t>(i)]))
            Fail(i < check.floor ? "lost" : "other", "the state is S" + std::to_string(i) + range);
    // Each change of a space has a number of its own.
    for (size_t i = 0; i < found.models.size(); ++i) {
        for (const SimStoreState& state : states) {
            if (!state[i] || state[i]->model.changes != found.models[i].changes) continue;
            if (state[i]->text == found.texts[i]) break;
            const auto dangling = [](const std::string& text) { return std::count(text.begin(), text.end(), '!'); };
            Fail(dangling(found.texts[i]) > dangling(state[i]->text) ? "dangling" : "other",
                 FirstDifference(found.texts[i], state[i]->text) + range);
        }
    }
    Fail("other", "the spaces are of no common state" + range);
}

ssize_t Match(const FoundStore& found, const StoreCheck& check) {
    for (ssize_t i = check.ceiling; i >= std::max<ssize_t>(check.floor, 1); --i)
        if (found.Is(check.history->states[static_cast<size_t>(i)])) return i;
    FailToMatch(found, check);
}

void CheckCount(OpenSimStore& open, const FoundStore& found, const SimStoreState& state) {
    int64 expected = NUM_PERSISTSTORE_SERIAL_ELEMENTS + found.numTreeElements;
    ssize_t numSpaces = 0;
    for (const std::shared_ptr<const WrittenSimSpace>& space : state) {
        if (!space) continue;
        ++numSpaces;
        expected += NUM_PSPACE_SERIAL_ELEMENTS + space->model.NumObjects();
    }
    if (open.m_store->GetNumPSpaces() != numSpaces) Fail("other", "the number of spaces is wrong");
    LssStats stats;
    open.m_lss->GetStats(stats);
    if (stats.numLiveHeadPackets != expected)
        Fail("other", "there are " + std::to_string(stats.numLiveHeadPackets) + " elements instead of " +
                          std::to_string(expected));
}

// One more change, of both spaces. The identifiers that it took.
std::vector<uint64> ChangeFurther(OpenSimStore& open, FoundStore& found) {
    std::vector<uint64> allocated;
    open.m_lss->m_onAllocated = [&](Seid seid) { allocated.push_back(seid.value_); };
    open.OpenMissingSpaces();
    {
        const SimStoreTxn txn(open);
        for (size_t i = 0; i < found.models.size(); ++i) {
            PSpace* space = open.m_spaces[i];
            SimSpaceModel& model = found.models[i];
            const ThreadPSpaceScope pair(space, space->GetCSpace());
            if (!model.exists) MakeSimHome(*space, model);
            auto& [number, account] = *model.accounts.begin();
            SimAccount* changed = HomeOf(*space)->m_accounts.at(number).GetNotNull();
            changed->MarkAsDirtyWithoutTrace();
            account.balance = changed->m_balance += i == 0 ? -1 : 1;
            auto* note = new SimNote;
            RegisterGcObject(note);
            note->m_number = model.notes["further"] = 1;
            note->m_next = cref<SimNote>(new SimNote);
            RegisterGcObject(note->m_next.GetNotNull());
            AddPSpaceRoot("further", note);
        }
    }
    open.m_store->m_dosWriter.ProcessAllGroups(allocated.back() % 2 == 0);
    open.m_lss->m_onAllocated = nullptr;
    for (size_t i = 0; i < found.models.size(); ++i) found.texts[i] = found.models[i].Text();
    return allocated;
}

// Nothing that the state names, or that a dead process had got, is handed out again.
void CheckIdentifiers(const std::vector<uint64>& allocated, const StoreCheck& check, ssize_t state) {
    const StoreHistory& history = *check.history;
    for (uint64 seid : allocated) {
        bool spent = std::count(allocated.begin(), allocated.end(), seid) != 1;
        for (ssize_t i = 0; i < state && !spent; ++i) {
            const std::vector<uint64>& written = history.written[static_cast<size_t>(i)];
            spent = std::find(written.begin(), written.end(), seid) != written.end();
        }
        if (check.processDeath)
            spent = spent ||
                    std::any_of(history.identifiers.begin(), history.identifiers.end(),
                                [&](const auto& given) { return given.seid == seid && given.given <= check.calls; });
        if (spent) Fail("ids_repeated", "the identifier " + std::to_string(seid));
    }
}

void CheckThatItGoesOn(SimSys& sys, std::unique_ptr<OpenSimStore>& open, FoundStore& found, const StoreCheck& check,
                       ssize_t state) {
    open->m_inner->Validate();
    CheckIdentifiers(ChangeFurther(*open, found), check, state);
    for (int i = 0; i < 2; ++i) { // once after a kill, once after a close
        if (i == 0)
            open->Kill();
        else
            open->Close();
        open = std::make_unique<OpenSimStore>(sys, OM_OPEN_EXISTING, OpenSimStore::Settings(4096));
        const FoundStore again(*open);
        for (size_t s = 0; s < found.texts.size(); ++s)
            if (again.texts[s] != found.texts[s])
                Fail("other", "after opening again: " + FirstDifference(again.texts[s], found.texts[s]));
    }
}

void CheckImage(SimSys& sys, const StoreCheck& check, ssize_t& found) {
    std::unique_ptr<OpenSimStore> open;
    try {
        open = std::make_unique<OpenSimStore>(sys, OM_OPEN_EXISTING, OpenSimStore::Settings(4096));
    } catch (const FileException& e) {
        if (check.floor == 0 && IsNoStore(e)) return;
        throw;
    }
    if (check.lookFirst) const FoundStore before(*open);
    DeleteWhatWaits(*open);
    FoundStore store(*open);
    found = Match(store, check);
    CheckCount(*open, store, check.history->states[static_cast<size_t>(found)]);
    if (check.thorough) CheckThatItGoesOn(sys, open, store, check, found);
    open->Kill();
}

} // namespace

StoreFault CheckStoreImage(SimSys& sys, const StoreCheck& check, ssize_t& found) {
    found = -1;
    try {
        CheckImage(sys, check, found);
        return {};
    } catch (const Fault& fault) {
        return fault.fault;
    } catch (const DerefDanglingOidException& e) {
        return {"dangling", e.what()};
    } catch (const std::exception& e) {
        return {"other", e.what()};
    }
}

} // namespace quna
