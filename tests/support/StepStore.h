// A store of two spaces whose content follows from one number: step n changes both, in one transaction, in a way that its
// number decides. So whoever finds the store can tell which steps it holds, whole and in order.
#pragma once

#include "qxLss/src/LssStore.h"
#include "qxObject/DollarNew.h"
#include "qxObject/WCSpace.h"
#include "qxPersistStore/src/DosWriter.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/ThreadPSpaceScope.h"
#include "qxUtils/AutoCloser.h"
#include "tests/support/AwaitWritten.h"
#include "tests/support/SimStoreModel.h"
#include "tests/support/SimStoreObjects.h"

#include <algorithm>
#include <array>
#include <deque>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace quna {

// Words and numbers. No stream, which would keep to itself that there is no memory.
template <class... Words>
std::string LineOfText(const char* name, const Words&... words) {
    std::string line = name;
    const auto append = [&](const auto& word) {
        line += ' ';
        if constexpr (std::is_arithmetic_v<std::remove_cvref_t<decltype(word)>>)
            line += std::to_string(word);
        else
            line += word;
    };
    (append(words), ...);
    return line + '\n';
}

// What a step changes in a space.
struct StepChange {
    uint64 account;                            // 1..NUM_SIM_ACCOUNTS
    int64 amount;                              // is added to its balance; what one space gains the other loses
    ssize_t textSize;                          // of its new text
    std::vector<std::pair<uint64, bool>> keys; // in the tree of numbers: written, or erased if false
    bool plants;                               // a tree of four branches

    StepChange(uint64 step, size_t space) {
        std::mt19937_64 common(step);
        std::mt19937_64 random(step * 7919 + space);
        account = 1 + random() % NUM_SIM_ACCOUNTS;
        amount = static_cast<int64>(common() % 100) * (space == 0 ? 1 : -1);
        textSize = static_cast<ssize_t>(random() % 8 == 0 ? random() % 9000 : random() % 200);
        const uint64 first = random() % 250;
        for (uint64 i = 0; i < 40; ++i) keys.emplace_back(first + i, step % 3 != 0);
        plants = step % 2 == 0;
    }
};

// What a space holds after the steps 1..n.
class StepModel {
public:
    explicit StepModel(size_t space) : m_space(space) {
        for (uint64 i = 1; i <= NUM_SIM_ACCOUNTS; ++i) m_accounts[i] = {FIRST_SIM_BALANCE, {}};
    }
    void RollTo(uint64 step) {
        while (m_step < step) {
            const StepChange change(++m_step, m_space);
            auto& [balance, text] = m_accounts[change.account];
            balance += change.amount;
            text = PatternText(m_step, change.textSize);
            for (const auto& [key, written] : change.keys) {
                if (written)
                    m_numbers[key] = m_step;
                else
                    m_numbers.erase(key);
            }
            if (!change.plants) continue;
            m_forest.push_back(m_step);
            if (m_forest.size() > MAX_FOREST) m_forest.pop_front();
        }
    }
    // In the form of StepStore::TextOf.
    std::string Text() const {
        std::string text = LineOfText("step", m_step);
        for (const auto& [number, account] : m_accounts)
            text += LineOfText("account", number, account.first, account.second);
        for (const auto& [key, step] : m_numbers) text += LineOfText("number", key, step);
        for (const uint64 step : m_forest) text += LineOfText("tree", step, 4, PatternText(step, TREE_TEXT_BYTES));
        return text;
    }

    static constexpr size_t MAX_FOREST = 3;
    static constexpr ssize_t TREE_TEXT_BYTES = 50;

private:
    const size_t m_space;
    uint64 m_step = 0;
    std::map<uint64, std::pair<int64, std::string>> m_accounts;
    std::map<uint64, uint64> m_numbers;
    std::deque<uint64> m_forest;
};

// Ownership: owns nothing by itself; an open one ends by Close.
class StepStore {
public:
    // The collectors: of the spaces' own, or none.
    void Open(const std::string& path, EOpenMode mode, const PersistStoreSettings& settings, bool collectors) {
        m_store = OpenPersistStore(path.c_str(), mode, settings);
        OpenSpaces(mode, collectors);
    }
    void OpenSpaces(EOpenMode mode, bool collectors) {
        for (size_t i = 0; i < m_spaces.size(); ++i) {
            if (m_spaces[i]) continue;
            CSpace* const cspace = collectors ? nullptr : CreateCSpace();
            try {
                m_spaces[i] = OpenPSpace(m_store, SIM_SPACE_NAMES[i], mode, cspace);
            } catch (...) {
                if (cspace) Destroy(cspace);
                throw;
            }
        }
    }
    // What has failed to close is still there and may be closed again.
    void Close() {
        for (PSpace*& space : m_spaces) {
            if (!space) continue;
            quna::Close(space);
            space = nullptr;
        }
        if (m_store) quna::Close(std::exchange(m_store, nullptr));
    }
    bool IsOpen() const { return m_store && m_spaces[0] && m_spaces[1]; }

    // Locks both spaces exclusively and ties them.
    template <class Change>
    void InTransaction(Change change) {
        std::array<CSpace*, NUM_SIM_SPACES> locks{m_spaces[0]->GetCSpace(), m_spaces[1]->GetCSpace()};
        const MultipleCSpaceLock lock(locks.data(), std::ssize(locks), Exclusive);
        std::array<PSpaceLockMode, NUM_SIM_SPACES> members;
        for (size_t i = 0; i < members.size(); ++i) {
            members[i].space = m_spaces[i];
            members[i].mode = Exclusive;
        }
        const AutoCloser2<PersistStoreTxn> txn(OpenTxn(m_store, members.data(), std::ssize(members)));
        for (size_t i = 0; i < m_spaces.size(); ++i) {
            const ThreadPSpaceScope pair(m_spaces[i], locks[i]);
            change(i);
        }
    }
    void MakeHomes() {
        InTransaction([this](size_t i) {
            auto* const home = DollarNew<SimHome>();
            home->m_accounts = PMap<uint64, cref<SimAccount>>::Create();
            home->m_numbers = PMap<uint64, uint64>::Create();
            for (uint64 number = 1; number <= NUM_SIM_ACCOUNTS; ++number) {
                auto* const account = DollarNew<SimAccount>();
                account->m_balance = FIRST_SIM_BALANCE;
                home->m_accounts.insert_or_assign(number, cref<SimAccount>(account));
            }
            m_spaces[i]->AddRoot("home", home);
        });
    }
    void RunStep(uint64 step) {
        InTransaction([&](size_t i) { ChangeSpace(i, step); });
    }
    // A space's part of a step. In a transaction.
    void ChangeSpace(size_t i, uint64 step) { Change(*Home(i), step, StepChange(step, i)); }
    // 0 without homes.
    uint64 ReadStep(size_t i) const {
        const ThreadPSpaceScope pair(m_spaces[i], m_spaces[i]->GetCSpace());
        const CSpaceLock lock(SharedRead);
        const SimHome* const home = Home(i);
        return home ? static_cast<uint64>(home->m_changes) : 0;
    }
    // All that can be reached in a space; throws if something cannot be, or a tree is not in order.
    std::string TextOf(size_t i) const {
        const ThreadPSpaceScope pair(m_spaces[i], m_spaces[i]->GetCSpace());
        const CSpaceLock lock(SharedRead);
        const SimHome& home = *Home(i);
        home.m_accounts.Tree().Validate();
        home.m_numbers.Tree().Validate();
        std::string text = LineOfText("step", home.m_changes);
        for (const auto [number, reference] : home.m_accounts) {
            const SimAccount* const account = reference.GetNotNull();
            text += LineOfText("account", number, account->m_balance, std::string(account->m_text.c_str()));
        }
        for (const auto [key, step] : home.m_numbers) text += LineOfText("number", key, step);
        for (const cref<SimBranch>& tree : home.m_forest) text += TextOfTree(tree.GetNotNull());
        return text;
    }
    void Collect() {
        for (PSpace* const space : m_spaces) {
            const ThreadPSpaceScope pair(space, space->GetCSpace());
            SynchronousGc(space->GetCSpace());
        }
    }
    // A batch of deletions; false if none waits.
    bool DeleteSome() { return m_store->m_dosWriter.DeleteSomeObjects(); }
    void AwaitWritten() {
        for (const PSpace* const space : m_spaces) quna::AwaitWritten(m_store, space);
    }
    void Write(bool flush) { m_store->m_dosWriter.ProcessAllGroups(flush); }

    PersistStore* m_store = nullptr;
    std::array<PSpace*, NUM_SIM_SPACES> m_spaces{};

private:
    SimHome* Home(size_t i) const { return static_cast<SimHome*>(m_spaces[i]->GetRoot("home").m_self); }

    static void Change(SimHome& home, uint64 step, const StepChange& change) {
        home.MarkAsDirtyWithoutTrace();
        home.m_changes = static_cast<int64>(step);
        SimAccount* const account = home.m_accounts.at(change.account).GetNotNull();
        account->MarkAsDirtyWithoutTrace();
        account->m_balance += change.amount;
        account->m_text = xstring(PatternText(step, change.textSize).c_str());
        for (const auto& [key, written] : change.keys) {
            if (written)
                home.m_numbers.insert_or_assign(key, step);
            else
                home.m_numbers.erase(key);
        }
        if (!change.plants) return;
        SimBranch* const tree = NewBranch(step);
        SimBranch* const below = NewBranch(step);
        tree->m_children.push_back(cref<SimBranch>(below));
        tree->m_children.push_back(cref<SimBranch>(NewBranch(step)));
        below->m_children.push_back(cref<SimBranch>(NewBranch(step)));
        home.m_forest.push_back(cref<SimBranch>(tree));
        DeclareReachable(&home, tree, true);
        if (home.m_forest.size() <= ssize_t{StepModel::MAX_FOREST}) return;
        AsyncPermanentlyDeleteSubTree(home.m_forest[0].GetNotNull());
        home.m_forest.erase(home.m_forest.begin());
    }
    static SimBranch* NewBranch(uint64 step) {
        auto* const branch = DollarNew<SimBranch>();
        branch->m_number = step;
        branch->m_text = xstring(PatternText(step, StepModel::TREE_TEXT_BYTES).c_str());
        return branch;
    }
    static std::string TextOfTree(const SimBranch* tree) {
        std::vector<const SimBranch*> found{tree};
        for (size_t next = 0; next < found.size(); ++next)
            for (const cref<SimBranch>& child : found[next]->m_children) found.push_back(child.GetNotNull());
        for (const SimBranch* branch : found)
            if (branch->m_number != tree->m_number) throw std::runtime_error("a tree has another one's branch");
        return LineOfText("tree", tree->m_number, found.size(), std::string(found.back()->m_text.c_str()));
    }
};

// Opens a store of steps after something has happened to it, and says what is wrong; empty: nothing. Then makes one more
// step, which must be there after closing and opening again.
//
// `first`, `last`: the step that is found lies between them. Without `wholeGroups`, a group may have been written in part:
// then each element is looked at by itself.
inline std::string CheckStepStore(const std::string& path, uint64 first, uint64 last, bool wholeGroups) {
    PersistStoreSettings settings;
    settings.startObjectDeletion = false;
    settings.lssSettings.segmentSize = 65536;
    try {
        StepStore store;
        store.Open(path, OM_OPEN_ALWAYS, settings, false);
        auto* const lss = static_cast<LssStore*>(store.m_store->GetLss());
        lss->Validate();
        lss->VisitElements([&](Seid seid, Location) {
            const AutoCloser<IContiguousSerialElement> element(lss->OpenSerialElement(seid));
            element->GetBuffer();
        });
        if (!wholeGroups) {
            store.Close();
            return {};
        }
        while (store.DeleteSome()) continue;
        store.Collect(); // otherwise references still find what was deleted
        uint64 step = store.ReadStep(0);
        const auto compare = [&]() -> std::string {
            for (size_t i = 0; i < store.m_spaces.size(); ++i) {
                StepModel model(i);
                model.RollTo(step);
                const std::string found = store.TextOf(i);
                const std::string expected = model.Text();
                if (found == expected) continue;
                const auto [f, e] = std::mismatch(found.begin(), found.end(), expected.begin(), expected.end());
                const auto line = [](const std::string& text, std::string::const_iterator at) {
                    const size_t begin = text.rfind('\n', static_cast<size_t>(at - text.begin())) + 1;
                    return text.substr(begin, std::min<size_t>(text.find('\n', begin), begin + 60) - begin);
                };
                return "torn: space " + std::to_string(i) + " after step " + std::to_string(step) + ": \"" +
                       line(found, f) + "\" instead of \"" + line(expected, e) + "\"";
            }
            return {};
        };
        std::string fault;
        const bool hasHomes = [&] {
            const ThreadPSpaceScope pair(store.m_spaces[0], store.m_spaces[0]->GetCSpace());
            const CSpaceLock lock(SharedRead);
            return static_cast<bool>(store.m_spaces[0]->GetRoot("home"));
        }();
        if (step < first || step > last)
            fault = "lost: step " + std::to_string(step) + " is there, steps " + std::to_string(first) + " to " +
                    std::to_string(last) + " may be";
        if (fault.empty() && hasHomes) fault = compare();
        if (fault.empty()) {
            if (!hasHomes) store.MakeHomes();
            store.RunStep(++step);
            store.Close();
            store.Open(path, OM_OPEN_EXISTING, settings, false);
            while (store.DeleteSome()) continue;
            store.Collect();
            fault = compare();
        }
        store.Close();
        return fault;
    } catch (const std::exception& e) {
        return std::string("torn: ") + e.what();
    }
}

} // namespace quna
