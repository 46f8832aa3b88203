#include "qxPersistStore/src/ReflectedStoreClasses.h"

#include "qxObject/IObject.h"
#include "qxObject/ReflectedEnum.h"
#include "qxObject/ReflectedInterface.h"
#include "qxObject/ReflectedTypedef.h"
#include "qxObject/Registry.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxPersistStore/Goid.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/src/PSpace.h"
#include "qxPersistStore/src/PersistStore.h"
#include "qxPersistStore/src/PersistStoreTxn.h"
#include "qxPersistStore/src/ReflectRecords.h"
#include "qxUtils/Assert.h"

namespace quna {

namespace {

constexpr ConstStringZ SOURCE_PATH = "src/qxPersistStore";

constexpr uint32 PART_OF_THE_LIBRARY = 0; // flags of a class that only its own library makes

// A class that is used through its methods: no values of it are made by reflection.
template <class T, std::size_t N>
constexpr ReflectedClass ClassWithMethods(ConstStringZ name, const ReflectedMethod (&methods)[N]) {
    ReflectedClass rc;
    rc.m_name = name;
    rc.m_flags = PART_OF_THE_LIBRARY;
    rc.m_size = static_cast<ssize_t>(sizeof(T));
    rc.m_methods = methods;
    rc.m_numMethods = static_cast<ssize_t>(N);
    return rc;
}

template <class T, std::size_t N>
constexpr ReflectedClass Structure(ConstStringZ name, const ReflectedField (&fields)[N]) {
    ReflectedClass rc;
    rc.m_name = name;
    rc.m_flags = REFLECTED_CLASS_FOR_APPLICATIONS;
    rc.m_size = static_cast<ssize_t>(sizeof(T));
    rc.m_ops = MakeLifeTypeOps<T>();
    rc.m_fields = fields;
    rc.m_numFields = static_cast<ssize_t>(N);
    return rc;
}

template <class T, std::size_t N>
constexpr ReflectedEnum Enumeration(ConstStringZ name, const ReflectedEnumValue (&values)[N]) {
    ReflectedEnum re;
    re.m_name = name;
    re.m_size = static_cast<ssize_t>(sizeof(T));
    re.m_values = values;
    re.m_numValues = static_cast<ssize_t>(N);
    re.m_ops = MakeLifeTypeOps<T>();
    return re;
}

template <class T>
constexpr ReflectedTypedef Typedef(ConstStringZ name) {
    return {name, DescriptionFnOf<T>()};
}

// ---- Classes with methods -------------------------------------------------------------------------------------------

constexpr ReflectedMethod PERSISTSTORE_METHODS[] = {
    METHOD<&PersistStore::Close, "Close">,
    METHOD<&PersistStore::CreatedNew, "CreatedNew">,
    METHOD<&PersistStore::GetLss, "GetLss">,
    METHOD<&PersistStore::StartObjectDeletion, "StartObjectDeletion">,
    METHOD<&PersistStore::WriteAllDirtyObjectsToLss, "WriteAllDirtyObjectsToLss", "flushToDisk">,
    METHOD<&PersistStore::OpenTxn, "OpenTxn", "L", "n">,
    METHOD<&PersistStore::GetDosPeriod, "GetDosPeriod">,
    METHOD<&PersistStore::SetDosPeriod, "SetDosPeriod", "time">,
    METHOD<&PersistStore::GetNumPSpaces, "GetNumPSpaces">,
    METHOD<&PersistStore::GetNumPersistableObjects, "GetNumPersistableObjects">,
    METHOD<&PersistStore::GetTypeOpsId, "GetTypeOpsId", "rbcv", "typeOps">,
    METHOD<&PersistStore::GetTypeOps, "GetTypeOps", "tid">,
};

constexpr ReflectedMethod PERSISTSTORETXN_METHODS[] = {
    METHOD<&PersistStoreTxn::Close, "Close">,
    METHOD<&PersistStoreTxn::GetPersistStore, "GetPersistStore">,
    METHOD<&PersistStoreTxn::OpenPSpace, "OpenPSpace", "name", "openMode", "cspace">,
    METHOD<&PersistStoreTxn::TransferPSpace, "TransferPSpace", "dst", "src">,
    METHOD<&PersistStoreTxn::DestroyPSpace, "DestroyPSpace", "name">,
};

constexpr ReflectedMethod PSPACE_METHODS[] = {
    METHOD<&PSpace::Close, "Close">,
    METHOD<&PSpace::CreatedNew, "CreatedNew">,
    METHOD<&PSpace::GetCSpace, "GetCSpace">,
    METHOD<&PSpace::GetPersistStore, "GetPersistStore">,
    METHOD<&PSpace::GetName, "GetName">,
    METHOD<static_cast<void (PSpace::*)(bool)>(&PSpace::WriteDirtyObjectsToLss), "WriteDirtyObjectsToLss",
           "flushToDisk">,
    METHOD<&PSpace::MarkPersistableAsDirtyWithoutTrace, "MarkPersistableAsDirtyWithoutTrace", "po">,
    METHOD<&PSpace::BindObject, "BindObject", "oid">,
    METHOD<&PSpace::BindObjectIfMemoryResident, "BindObjectIfMemoryResident", "oid">,
    METHOD<&PSpace::TryBindObject, "TryBindObject", "oid">,
    METHOD<&PSpace::MakeMemoryResident, "MakeMemoryResident", "oid">,
    METHOD<&PSpace::AsyncBind2, "AsyncBind2", "oid">,
    METHOD<&PSpace::AsyncBind, "AsyncBind", "oid">,
    METHOD<&PSpace::GetAsyncBindRequestHandler, "GetAsyncBindRequestHandler">,
    METHOD<&PSpace::SetAsyncBindRequestHandler, "SetAsyncBindRequestHandler", "h">,
    METHOD<&PSpace::DeclareObjectDoesNotExist, "DeclareObjectDoesNotExist", "oid">,
    METHOD<static_cast<void (PSpace::*)(SeidLow, ptr<IPersistable>)>(&PSpace::MakeObjectPersist), "MakeObjectPersist",
           "affiliateOidLow", "po">,
    METHOD<&PSpace::AllocateOid, "AllocateOid", "oidHigh", "useIncrementalOidAllocations">,
    METHOD<&PSpace::GetOidHighForOidAllocations, "GetOidHighForOidAllocations">,
    METHOD<&PSpace::SetOidHighForOidAllocations, "SetOidHighForOidAllocations", "oidHigh",
           "useIncrementalOidAllocations">,
    METHOD<&PSpace::MakeObjectPersistWithGivenOID, "MakeObjectPersistWithGivenOID", "po", "oid", "trace">,
    METHOD<&PSpace::DeclareReachable, "DeclareReachable", "parent", "child", "trace">,
    METHOD<&PSpace::MakeReachableObjectsPersist, "MakeReachableObjectsPersist", "po">,
    METHOD<&PSpace::GetRoot, "GetRoot", "name">,
    METHOD<&PSpace::AddRoot, "AddRoot", "name", "root">,
    METHOD<&PSpace::RemoveRoot, "RemoveRoot", "name">,
    METHOD<&PSpace::AsyncPermanentlyDeleteSubTree, "AsyncPermanentlyDeleteSubTree", "obj">,
    METHOD<&PSpace::AsyncPermanentlyDeleteObject, "AsyncPermanentlyDeleteObject", "obj">,
    METHOD<&PSpace::SyncPermanentlyDeleteSubTree, "SyncPermanentlyDeleteSubTree", "obj">,
    METHOD<&PSpace::SyncPermanentlyDeleteObject, "SyncPermanentlyDeleteObject", "obj">,
};

constinit const ReflectedClass PERSISTSTORE =
    ClassWithMethods<PersistStore>("quna::PersistStore", PERSISTSTORE_METHODS);
constinit const ReflectedClass PERSISTSTORETXN =
    ClassWithMethods<PersistStoreTxn>("quna::PersistStoreTxn", PERSISTSTORETXN_METHODS);
constinit const ReflectedClass PSPACE = ClassWithMethods<PSpace>("quna::PSpace", PSPACE_METHODS);

// ---- Structures -----------------------------------------------------------------------------------------------------

constexpr ReflectedField LSSSETTINGS_FIELDS[] = {
    FIELD<&LssSettings::flushTimeMilliSec, "flushTimeMilliSec">,
    FIELD<&LssSettings::cleanerUtilisationPercent, "cleanerUtilisationPercent">,
    FIELD<&LssSettings::enableFileBuffering, "enableFileBuffering">,
    FIELD<&LssSettings::enableWriteThrough, "enableWriteThrough">,
    FIELD<&LssSettings::maxNumSegmentsInCache, "maxNumSegmentsInCache">,
    FIELD<&LssSettings::numSegmentsPerCheckPoint, "numSegmentsPerCheckPoint">,
    FIELD<&LssSettings::segmentSize, "segmentSize">,
    FIELD<&LssSettings::forceIncrementMSSN, "forceIncrementMSSN">,
    FIELD<&LssSettings::validateSUTDuringCheckPoint, "validateSUTDuringCheckPoint">,
};

constexpr ReflectedField PERSISTSTORESETTINGS_FIELDS[] = {
    FIELD<&PersistStoreSettings::deltasDirPath, "deltasDirPath">,
    FIELD<&PersistStoreSettings::lssSettings, "lssSettings">,
    FIELD<&PersistStoreSettings::translationTable, "translationTable">,
    FIELD<&PersistStoreSettings::startObjectDeletion, "startObjectDeletion">,
};

constexpr ReflectedField PSPACELOCKMODE_FIELDS[] = {
    FIELD<&PSpaceLockMode::space, "space">,
    FIELD<&PSpaceLockMode::mode, "mode">,
};

constexpr ReflectedField MASYNCBIND_FIELDS[] = {
    FIELD<&MAsyncBind::result, "result">,
    FIELD<&MAsyncBind::po, "po">,
};

// A model type: its fields are model fields.
constexpr ReflectedClass MAsyncBindClass() {
    ReflectedClass rc = Structure<MAsyncBind>("quna::MAsyncBind", MASYNCBIND_FIELDS);
    rc.m_modelFields = rc.m_fields;
    rc.m_numModelFields = rc.m_numFields;
    rc.m_fields = nullptr;
    rc.m_numFields = 0;
    return rc;
}

constinit const ReflectedClass LSSSETTINGS = Structure<LssSettings>("quna::LssSettings", LSSSETTINGS_FIELDS);
constinit const ReflectedClass PERSISTSTORESETTINGS =
    Structure<PersistStoreSettings>("quna::PersistStoreSettings", PERSISTSTORESETTINGS_FIELDS);
constinit const ReflectedClass PSPACELOCKMODE =
    Structure<PSpaceLockMode>("quna::PSpaceLockMode", PSPACELOCKMODE_FIELDS);
constinit const ReflectedClass MASYNCBIND = MAsyncBindClass();

// ---- Enums, typedefs, interfaces ------------------------------------------------------------------------------------

constexpr ReflectedEnumValue EOPENMODE_VALUES[] = {
    {"OM_CREATE_NEW", OM_CREATE_NEW},
    {"OM_CREATE_ALWAYS", OM_CREATE_ALWAYS},
    {"OM_OPEN_EXISTING", OM_OPEN_EXISTING},
    {"OM_OPEN_EXISTING_READ_ONLY", OM_OPEN_EXISTING_READ_ONLY},
    {"OM_OPEN_EXISTING_SHARED_READ", OM_OPEN_EXISTING_SHARED_READ},
    {"OM_OPEN_ALWAYS", OM_OPEN_ALWAYS},
    {"OM_DELETE_EXISTING", OM_DELETE_EXISTING},
};

constexpr ReflectedEnumValue EASYNCBINDRESULT_VALUES[] = {
    {"Bound", static_cast<int64>(EAsyncBindResult::Bound)},
    {"Pending", static_cast<int64>(EAsyncBindResult::Pending)},
    {"DoesNotExist", static_cast<int64>(EAsyncBindResult::DoesNotExist)},
    {"NotHandled", static_cast<int64>(EAsyncBindResult::NotHandled)},
};

constinit const ReflectedEnum EOPENMODE = Enumeration<EOpenMode>("quna::EOpenMode", EOPENMODE_VALUES);
constinit const ReflectedEnum EASYNCBINDRESULT =
    Enumeration<EAsyncBindResult>("quna::EAsyncBindResult", EASYNCBINDRESULT_VALUES);

constinit const ReflectedTypedef OIDHIGH = Typedef<OidHigh>("quna::OidHigh");
constinit const ReflectedTypedef OIDLOW = Typedef<OidLow>("quna::OidLow");
constinit const ReflectedTypedef SEIDHIGH = Typedef<SeidHigh>("quna::SeidHigh");
constinit const ReflectedTypedef SEIDLOW = Typedef<SeidLow>("quna::SeidLow");
constinit const ReflectedTypedef OIDSPACEGUID = Typedef<OidSpaceGuid>("quna::OidSpaceGuid");
constinit const ReflectedTypedef TYPEOPSID = Typedef<TypeOpsId>("quna::TypeOpsId");

constexpr ReflectedInterface HandlerInterface() {
    ReflectedInterface ri;
    ri.m_name = "quna::IAsyncBindRequestHandler";
    return ri;
}

constinit const ReflectedInterface IASYNCBINDREQUESTHANDLER = HandlerInterface();

} // namespace

const ReflectedClass& _GetReflected(const PersistStore*) { return PERSISTSTORE; }
const ReflectedClass& _GetReflected(const PersistStoreTxn*) { return PERSISTSTORETXN; }
const ReflectedClass& _GetReflected(const PSpace*) { return PSPACE; }
const ReflectedInterface& _GetReflected(const IAsyncBindRequestHandler*) { return IASYNCBINDREQUESTHANDLER; }

namespace {

void Enter(const ReflectedClass& rc, XTarget* target) { QX_ASSERT(RegisterReflectedClass(&rc, target) == NSE_OK); }
void Enter(const ReflectedInterface& ri, XTarget* target) {
    QX_ASSERT(RegisterReflectedInterface(&ri, target) == NSE_OK);
}
void Enter(const ReflectedEnum& re, XTarget* target) { QX_ASSERT(RegisterReflectedEnum(&re, target) == NSE_OK); }
void Enter(const ReflectedTypedef& rt, XTarget* target) { QX_ASSERT(RegisterReflectedTypedef(&rt, target) == NSE_OK); }

} // namespace

void _Register_ClassNameTranslation(XTarget* t) { Enter(GetReflectedClass<ClassNameTranslation>(), t); }
void _Register_ClassNameTranslationTable(XTarget* t) { Enter(GetReflectedClass<ClassNameTranslationTable>(), t); }
void _Register_EAsyncBindResult(XTarget* t) { Enter(EASYNCBINDRESULT, t); }
void _Register_EOpenMode(XTarget* t) { Enter(EOPENMODE, t); }
void _Register_IAsyncBindRequestHandler(XTarget* t) { Enter(IASYNCBINDREQUESTHANDLER, t); }
void _Register_LssSettings(XTarget* t) { Enter(LSSSETTINGS, t); }
void _Register_MAsyncBind(XTarget* t) { Enter(MASYNCBIND, t); }
void _Register_PSpaceLockMode(XTarget* t) { Enter(PSPACELOCKMODE, t); }
void _Register_PersistStoreSettings(XTarget* t) { Enter(PERSISTSTORESETTINGS, t); }
void _Register_IPrefVisitor(XTarget* t) { Enter(GetReflectedInterface<IPrefVisitor>(), t); }
void _Register_IPersistable(XTarget* t) { Enter(GetReflectedInterface<IPersistable>(), t); }
void _Register_PersistObjState(XTarget* t) { Enter(GetReflectedClass<PersistObjState>(), t); }
void _Register_OID(XTarget* t) { Enter(GetReflectedClass<OID>(), t); }
void _Register_OidHigh(XTarget* t) { Enter(OIDHIGH, t); }
void _Register_OidLow(XTarget* t) { Enter(OIDLOW, t); }
void _Register_SeidHigh(XTarget* t) { Enter(SEIDHIGH, t); }
void _Register_SeidLow(XTarget* t) { Enter(SEIDLOW, t); }
void _Register_OidSpaceGuid(XTarget* t) { Enter(OIDSPACEGUID, t); }
void _Register_PSpace(XTarget* t) { Enter(PSPACE, t); }
void _Register_PersistStore(XTarget* t) { Enter(PERSISTSTORE, t); }
void _Register_PersistStoreTxn(XTarget* t) { Enter(PERSISTSTORETXN, t); }
void _Register_BcTypeOps(XTarget* t) { Enter(GetReflectedClass<BcTypeOps>(), t); }
void _Register_TypeOpsId(XTarget* t) { Enter(TYPEOPSID, t); }

} // namespace quna
