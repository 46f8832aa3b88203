// Operation hooks that note what they are told, and pass it on to those that were installed before.
#pragma once

#include "qxObject/IOperationCallBacks.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace quna {

// Installed for its scope. A note is the operation's short name and the field's number, then what else it was told:
// "before 0", "offset 1 by -3", "create 2 at 0 n 4".
class RecordingHooks : public IOperationCallBacks {
public:
    using Notes = std::vector<std::string>;

    RecordingHooks() : m_inner(SetOperationCallBacks(this)) {}
    RecordingHooks(const RecordingHooks&) = delete;
    RecordingHooks& operator=(const RecordingHooks&) = delete;
    ~RecordingHooks() { SetOperationCallBacks(m_inner); }

    // What was noted since the last time.
    Notes Take() { return std::exchange(m_notes, {}); }

    void OnBeginTransaction(CSpace* cs) override {
        if (m_inner) m_inner->OnBeginTransaction(cs);
    }
    void OnEndTransaction(CSpace* cs) override {
        if (m_inner) m_inner->OnEndTransaction(cs);
    }
    void OnBeforeAssignValue(const AssignValue_params& params) override {
        Note(params.visitPrefsFn ? "before-with-prefs" : "before", params);
        if (m_inner) m_inner->OnBeforeAssignValue(params);
    }
    void OnAfterAssignValueWithoutPrefs(const AssignValue_params& params) override {
        Note("after", params);
        if (m_inner) m_inner->OnAfterAssignValueWithoutPrefs(params);
    }
    void OnAfterAssignValueWithPrefs(const AssignValue_params& params) override {
        Note("after-with-prefs", params);
        if (m_inner) m_inner->OnAfterAssignValueWithPrefs(params);
    }
    void OnAssignPref(const AssignPref_params& params) override {
        Note("pref", params);
        if (m_inner) m_inner->OnAssignPref(params);
    }
    void OnOffsetValue(const OffsetValue_params& params) override {
        Note("offset", params, " by " + std::to_string(params.offset));
        if (m_inner) m_inner->OnOffsetValue(params);
    }
    void OnCreateIntoVector(const CreateIntoVector_params& params) override {
        m_src = params.src;
        m_elementSize = params.elementSize;
        Note(params.visitPrefsInArrayFn ? "create-with-prefs" : "create", params, Range(params));
        if (m_inner) m_inner->OnCreateIntoVector(params);
    }
    void OnDeleteFromVector(const DeleteFromVector_params& params) override {
        m_elementSize = params.elementSize;
        Note(params.visitPrefsInArrayFn ? "delete-with-prefs" : "delete", params, Range(params));
        if (m_inner) m_inner->OnDeleteFromVector(params);
    }
    void OnCreateIntoMVector(const CreateIntoMVector_params& params) override {
        Note("create-ref", params, Range(params));
        if (m_inner) m_inner->OnCreateIntoMVector(params);
    }
    void OnDeleteFromMVector(const DeleteFromMVector_params& params) override {
        Note("delete-ref", params, Range(params));
        if (m_inner) m_inner->OnDeleteFromMVector(params);
    }
    void OnSetInsert(const AssignValue_params& params) override {
        Note("set-insert", params);
        if (m_inner) m_inner->OnSetInsert(params);
    }
    void OnSetDelete(const AssignValue_params& params) override {
        Note("set-delete", params);
        if (m_inner) m_inner->OnSetDelete(params);
    }
    void OnInsertIntoMSet(const InsertIntoMSet_params& params) override {
        Note("insert-ref", params, " n " + std::to_string(params.n));
        if (m_inner) m_inner->OnInsertIntoMSet(params);
    }
    void OnDeleteFromMSet(const DeleteFromMSet_params& params) override {
        Note("erase-ref", params, " n " + std::to_string(params.n));
        if (m_inner) m_inner->OnDeleteFromMSet(params);
    }

    // Of the last operation.
    FieldParams m_field;
    const void* m_src = nullptr;
    ssize_t m_elementSize = 0;
    // Called in each operation, before it is passed on.
    std::function<void()> m_onNote;

private:
    template <class Params>
    static std::string Range(const Params& params) {
        return " at " + std::to_string(params.i) + " n " + std::to_string(params.n);
    }
    void Note(const char* operation, const FieldParams& params, const std::string& rest = "") {
        m_notes.push_back(operation + (" " + std::to_string(params.fid)) + rest);
        m_field = params;
        if (m_onNote) m_onNote();
    }

    IOperationCallBacks* m_inner;
    Notes m_notes;
};

} // namespace quna
