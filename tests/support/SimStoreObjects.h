// Persistent classes of the crash simulation of whole stores, and their registration.
#pragma once

#include "qxObject/Reflect.h"
#include "qxPersistStore/PMap.h"
#include "qxPersistStore/PersistentMembers.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/xstring.h"
#include "qxUtils/xvector.h"

#include <mutex>
#include <string>

namespace quna {

// A text that says itself whether it is whole.
inline std::string PatternText(uint64 number, ssize_t size) {
    std::string text(static_cast<size_t>(size), ' ');
    const uint64 pattern = (number + 1) * 0x9E3779B97F4A7C15u;
    for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + (pattern >> (i % 8 * 8) ^ (i / 8)) % 26);
    return text;
}

// A part of a forest, which owns its children.
class SimBranch : public PersistentObject<SimBranch> {
public:
    static constexpr auto Members() {
        return MemberList(Member("number", &SimBranch::m_number), Member("isSubTree", &SimBranch::m_isSubTree),
                          Member("text", &SimBranch::m_text), Member("parent", &SimBranch::m_parent).Parent(),
                          Member("children", &SimBranch::m_children));
    }
    bool RepresentsSubTree() const { return m_isSubTree; }

    uint64 m_number = 0;
    bool m_isSubTree = true;
    xstring m_text;
    cref<SimBranch> m_parent;
    xvector<cref<SimBranch>> m_children;
};
QX_REFLECT_PERSISTENT_CLASS(SimBranch, "sim::Branch")

class SimAccount : public PersistentObject<SimAccount> {
public:
    static constexpr auto Members() {
        return MemberList(Member("number", &SimAccount::m_number), Member("balance", &SimAccount::m_balance),
                          Member("text", &SimAccount::m_text), Member("mentions", &SimAccount::m_mentions).Parent());
    }
    uint64 m_number = 0;
    int64 m_balance = 0;
    xstring m_text;
    cref<SimBranch> m_mentions; // which may be gone
};
QX_REFLECT_PERSISTENT_CLASS(SimAccount, "sim::Account")

// A root that comes and goes. The first one comes late, so that its class is new to the store then.
class SimNote : public PersistentObject<SimNote> {
public:
    static constexpr auto Members() {
        return MemberList(Member("number", &SimNote::m_number), Member("next", &SimNote::m_next));
    }
    uint64 m_number = 0;
    cref<SimNote> m_next;
};
QX_REFLECT_PERSISTENT_CLASS(SimNote, "sim::Note")

// The root that a space always has.
class SimHome : public PersistentObject<SimHome> {
public:
    static constexpr auto Members() {
        return MemberList(Member("changes", &SimHome::m_changes), Member("accounts", &SimHome::m_accounts),
                          Member("numbers", &SimHome::m_numbers), Member("forest", &SimHome::m_forest));
    }
    int64 m_changes = 0; // every change of the space counts
    PMap<uint64, cref<SimAccount>> m_accounts;
    PMap<uint64, uint64> m_numbers;
    xvector<cref<SimBranch>> m_forest;
};
QX_REFLECT_PERSISTENT_CLASS(SimHome, "sim::Home")

inline void RegisterSimStoreObjects() {
    static std::once_flag once;
    std::call_once(once, [] {
        Register_Project_qxPersistStore();
        static constexpr dsTarget TARGET = {"Quna/Tests/SimStore", nullptr, 0, nullptr, 0};
        XTarget* const target = RegisterTarget(TARGET);
        _Register_SimBranch(target);
        _Register_SimAccount(target);
        _Register_SimNote(target);
        _Register_SimHome(target);
    });
}

} // namespace quna
