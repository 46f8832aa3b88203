#include "qxObject/IOperationCallBacks.h"

#include <type_traits>

#include <gtest/gtest.h>

namespace quna {
namespace {

class Hooks : public IOperationCallBacks {
public:
    void OnBeginTransaction(CSpace*) override {}
    void OnEndTransaction(CSpace*) override {}
    void OnBeforeAssignValue(const AssignValue_params& params) override { m_addr = params.addr; }
    void OnAfterAssignValueWithoutPrefs(const AssignValue_params&) override {}
    void OnAfterAssignValueWithPrefs(const AssignValue_params&) override {}
    void OnAssignPref(const AssignPref_params&) override {}
    void OnOffsetValue(const OffsetValue_params& params) override { m_offset = params.offset; }
    void OnCreateIntoVector(const CreateIntoVector_params&) override {}
    void OnDeleteFromVector(const DeleteFromVector_params&) override {}
    void OnCreateIntoMVector(const CreateIntoMVector_params&) override {}
    void OnDeleteFromMVector(const DeleteFromMVector_params&) override {}
    void OnSetInsert(const AssignValue_params&) override {}
    void OnSetDelete(const AssignValue_params&) override {}
    void OnInsertIntoMSet(const InsertIntoMSet_params&) override {}
    void OnDeleteFromMSet(const DeleteFromMSet_params&) override {}

    void* m_addr = nullptr;
    int64 m_offset = 0;
};

TEST(OperationCallBacks, InstallingGivesBackWhatWasInstalled) {
    Hooks first;
    Hooks second;
    IOperationCallBacks* const before = SetOperationCallBacks(&first);
    EXPECT_EQ(GetOperationCallBacks(), &first);
    EXPECT_EQ(SetOperationCallBacks(&second), &first);
    EXPECT_EQ(SetOperationCallBacks(before), &second);
}

TEST(OperationCallBacks, EveryParameterRecordBeginsWithTheField) {
    static_assert(std::is_base_of_v<FieldParams, AssignValue_params> &&
                  std::is_base_of_v<FieldParams, AssignPref_params>);
    static_assert(std::is_base_of_v<FieldParams, OffsetValue_params> &&
                  std::is_base_of_v<FieldParams, CreateIntoVector_params>);
    static_assert(std::is_base_of_v<FieldParams, DeleteFromVector_params> &&
                  std::is_base_of_v<FieldParams, CreateIntoMVector_params>);
    static_assert(std::is_base_of_v<FieldParams, DeleteFromMVector_params> &&
                  std::is_base_of_v<FieldParams, InsertIntoMSet_params>);
    static_assert(std::is_base_of_v<FieldParams, DeleteFromMSet_params>);
    int field = 0;
    Hooks hooks;
    AssignValue_params assign;
    assign.addr = &field;
    hooks.OnBeforeAssignValue(assign);
    EXPECT_EQ(hooks.m_addr, &field);
    OffsetValue_params offset;
    offset.offset = -3;
    hooks.OnOffsetValue(offset);
    EXPECT_EQ(hooks.m_offset, -3);
}

} // namespace
} // namespace quna
