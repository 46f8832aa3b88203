#include "tools/qxstore/Findings.h"

namespace quna::qxstore {

namespace {

constexpr size_t MAX_KEPT = 100; // of each kind; the others are counted

} // namespace

void Findings::Problem(const std::string& where, const std::exception& e) {
    std::string text = e.what();
    if (text.compare(0, m_prefix.size(), m_prefix) == 0) text.erase(0, m_prefix.size());
    Problem(where.empty() ? text : where + ": " + text);
}

void Findings::Add(List& list, const std::string& text) {
    if (list.items.size() < MAX_KEPT)
        list.items.push_back(text);
    else
        ++list.numOmitted;
}

void Findings::AddTo(Report& report) const {
    report.lists.push_back(m_problems);
    report.lists.push_back(m_orphans);
    report.lists.push_back(m_notes);
}

} // namespace quna::qxstore
