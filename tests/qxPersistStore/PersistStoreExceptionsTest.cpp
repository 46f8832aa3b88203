#include "qxPersistStore/PersistStoreExceptions.h"

#include "qxObject/ReflectedClass.h"
#include "qxObject/ReflectedInterface.h"
#include "qxObject/TypeDescription.h"
#include "tests/support/ExpectAssertion.h"

#include <string>
#include <type_traits>

#include <gtest/gtest.h>

namespace quna {
namespace {

// What Write gives; what() must agree.
template <class E>
std::string Text(const E& e) {
    const std::string text = TextOf(e);
    EXPECT_EQ(text, e.what());
    static_assert(std::is_base_of_v<IException, E>);
    return text;
}

TEST(PersistStoreExceptions, SayWhatAReferenceMet) {
    EXPECT_EQ("Attempt to dereference null pref<T>", Text(DerefNullPrefException()));
    EXPECT_EQ("Attempt to initialise pref<T> to object that doesn't implement IPersistable",
              Text(ObjectNotPersistableException()));
    const DerefDanglingOidException dangling(OID(0x2a, 1));
    EXPECT_EQ("Dereferenced dangling OID = 00000001:0000002a", Text(dangling));
    EXPECT_EQ(OID(0x2a, 1), dangling.m_oid);
}

TEST(PersistStoreExceptions, NameTheClassAndTheInterfaceThatDoNotMatch) {
    ReflectedClass rc;
    rc.m_name = "demo::Person";
    ReflectedInterface ri;
    ri.m_name = "demo::IAnimal";
    const TypeMismatchException e(rc, ri);
    EXPECT_EQ("Type mismatch during deserialisation : class demo::Person doesn't support interface demo::IAnimal",
              Text(e));
    EXPECT_EQ(&rc, &e.m_rc);
    EXPECT_EQ(&ri, &e.m_ri);
}

TEST(PersistStoreExceptions, NumbersAreDecimalWithABlankOnBothSidesOfTheColon) {
    EXPECT_EQ("Bad CID : 17", Text(BadCidException(17)));
    EXPECT_EQ("Bad CID : -1", Text(BadCidException(-1)));
    EXPECT_EQ("Bad TypeOpsId : 0", Text(BadTypeOpsIdException(0)));
}

TEST(PersistStoreExceptions, NameWhatTheTablesDoNotKnow) {
    EXPECT_EQ("Repeated class name demo::Person", Text(RepeatedClassNameInCidMapException("demo::Person")));
    const ReflectionByteCodeValue rbcv(DescriptionOf<xvector<int32>>(), false);
    const TypeOpsNotFoundException e(rbcv);
    EXPECT_EQ("TypeOps not found for xvector<int32>", Text(e));
    EXPECT_EQ(rbcv, e.m_rbcv);
}

TEST(PersistStoreExceptions, AMessageIsWrittenAsItWasGiven) {
    const DeserialisePersistentObjectException e("Error deserialising object oid=1", OID(5, 7));
    EXPECT_EQ("Error deserialising object oid=1", Text(e));
    EXPECT_EQ(OID(5, 7), e.m_oid);
}

TEST(PersistStoreExceptions, SayWhyASpaceCannotBeOpened) {
    EXPECT_EQ("Could not create new PSpace \"a b\", a PSpace with that name already exists",
              Text(OpenPSpaceException(OM_CREATE_NEW, "a b")));
    EXPECT_EQ("Could not open existing PSpace \"x\", a PSpace with that name does not exist",
              Text(OpenPSpaceException(OM_OPEN_EXISTING, "x")));
    EXPECT_EQ("Could not delete existing PSpace \"x\", a PSpace with that name does not exist",
              Text(OpenPSpaceException(OM_DELETE_EXISTING, "x")));
}

TEST(PersistStoreExceptions, AnOpenModeThatCannotFailSoFailsInWriteAndNotBefore) {
    const OpenPSpaceException e(OM_OPEN_ALWAYS, "x");
    StringStream os;
    ExpectAssertion("0", "src/PersistStoreExceptions", [&] { e.Write(os); });
    EXPECT_STRNE("", e.what());
}

TEST(PersistStoreExceptions, AreThrownByValueAndCaughtAsIException) {
    try {
        throw BadCidException(3);
    } catch (const IException& e) {
        EXPECT_EQ("Bad CID : 3", TextOf(e));
    }
}

} // namespace
} // namespace quna
