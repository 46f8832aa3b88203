// What `verify` has found.
#pragma once

#include "qxUtils/BasicTypes.h"
#include "tools/qxstore/Report.h"

#include <exception>
#include <string>

namespace quna::qxstore {

// A problem means that the store is damaged; a note is something to know that harms nothing.
class Findings {
public:
    explicit Findings(const std::string& storePath) : m_prefix("The store '" + storePath + "' is damaged: ") {}

    void Problem(const std::string& text) { Add(m_problems, text); }
    // `where` may be empty. The exception's text begins with the store's name, which is said once.
    void Problem(const std::string& where, const std::exception& e);
    void Note(const std::string& text) { Add(m_notes, text); }
    void Orphan(const std::string& text) { Add(m_orphans, text); }

    int64 NumProblems() const { return CountOf(m_problems); }
    int64 NumOrphans() const { return CountOf(m_orphans); }

    void AddTo(Report& report) const;

private:
    static void Add(List& list, const std::string& text);
    static int64 CountOf(const List& list) { return static_cast<int64>(list.items.size()) + list.numOmitted; }

    const std::string m_prefix;
    List m_problems{"problems", "Problems", {}, 0};
    List m_notes{"notes", "Notes", {}, 0};
    List m_orphans{"orphans", "Orphans: no root and no other object refers to them", {}, 0};
};

} // namespace quna::qxstore
