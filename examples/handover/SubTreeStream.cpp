#include "SubTreeStream.h"

#include "qxObject/CSpace.h"
#include "qxObject/Registry.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/IPrefVisitor.h"
#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/Exceptions.h"
#include "qxUtils/RecordLimits.h"
#include "qxUtils/Schema.h"

#include <string>
#include <string_view>
#include <unordered_set>

namespace handover {

using quna::IPersistable;
using quna::ptr;

namespace {

constexpr int MESSAGE_SCHEMA = 1;

// Appends to a vector.
class BytesStream final : public quna::IOutputStream {
public:
    explicit BytesStream(Bytes& bytes) : m_bytes(bytes) {}
    void WriteStream(const void* buffer, quna::ssize_t n) override {
        const auto* const p = static_cast<const quna::octet_t*>(buffer);
        m_bytes.insert(m_bytes.end(), p, p + n);
    }
    void FlushStream() override {}

private:
    Bytes& m_bytes;
};

// What an object owns: its ordinary references, not those that it reports as leading upwards or aside.
class OwnedPrefs final : public quna::IPrefVisitor {
public:
    void VisitPref(const quna::prefbase& pref) override {
        if (pref) m_prefs.push_back(pref);
    }
    void VisitParentPref(const quna::prefbase&) override {}

    std::vector<quna::prefbase> m_prefs;
};

bool IsTreeOfTheLibrary(const quna::ReflectedClass& rc) {
    const std::string_view name = rc.GetName();
    return name == "quna::BPlusTree" || name == "quna::InternalNode" || name == "quna::LeafNode";
}

} // namespace

// ---- Sending --------------------------------------------------------------------------------------------------------

quna::ssize_t SubTreeSender::Send(ptr<IPersistable> top, Bytes& message) {
    BytesStream stream(message);
    quna::Archive ar(&stream);
    const quna::OidHighWriterScope hook(ar, m_writer);
    quna::SerialiseSchema(ar, MESSAGE_SCHEMA);

    std::unordered_set<quna::uint64> sent;
    std::vector<quna::prefbase> waiting(1);
    waiting.front().Set(top);
    while (!waiting.empty()) {
        const quna::prefbase next = waiting.back();
        waiting.pop_back();
        const ptr<IPersistable> object = next.TryGet(); // here it is loaded, unless it is in memory
        if (!object || !sent.insert(quna::GetOid(object).value_).second) continue;
        SendObject(ar, object);
        OwnedPrefs owned;
        object->VisitPrefs(owned);
        waiting.insert(waiting.end(), owned.m_prefs.rbegin(), owned.m_prefs.rend());
    }
    ar << quna::OID();
    return static_cast<quna::ssize_t>(sent.size());
}

void SubTreeSender::SendObject(quna::Archive& ar, ptr<IPersistable> object) {
    ar << quna::GetOid(object);
    SendClass(ar, *object->GetReflectedClass());
    Bytes body;
    {
        BytesStream stream(body);
        quna::Archive bodyArchive(&stream);
        const quna::OidHighWriterScope hook(bodyArchive, m_writer);
        object->Serialise(bodyArchive);
    }
    quna::Serialise_ssize_t(ar, static_cast<quna::ssize_t>(body.size()));
    ar.Write(body.data(), static_cast<quna::ssize_t>(body.size()));
}

void SubTreeSender::SendClass(quna::Archive& ar, const quna::ReflectedClass& rc) {
    if (IsTreeOfTheLibrary(rc))
        throw std::invalid_argument(std::string("An object of the class ") + rc.GetName() +
                                    " can't be sent: its record holds numbers of its own store");
    const auto [i, isNew] = m_classes.try_emplace(&rc, static_cast<quna::uint32>(m_classes.size() + 1));
    quna::SerialiseVariableLengthUint32(ar, i->second);
    if (isNew) ar << quna::xstring(rc.GetName());
}

// ---- Receiving ------------------------------------------------------------------------------------------------------

// First everything is read, into objects without identity, and only when all of it is in order the store is changed. The
// two can't be mixed for another reason too: while the hook is set, nothing of this store may be loaded.
SubTreeReceiver::Result SubTreeReceiver::Receive(const Bytes& message) {
    Bytes bytes = message;
    bytes.resize(message.size() + static_cast<std::size_t>(quna::RECORD_SLACK));
    std::vector<Arrived> arrived;
    try {
        arrived = ReadObjects(bytes.data(), bytes.data() + message.size());
    } catch (const quna::RecordException& e) {
        throw BadMessageError(std::string("The message is damaged: ") + e.what());
    } catch (const quna::QunaAssertionError& e) {
        throw BadMessageError(std::string("The message is damaged, or an earlier one of its stream is missing: ") +
                              e.what());
    }

    for (Arrived& a : arrived) {
        a.resident = quna::TryBindObjectGivenOid(a.oid);
        if (a.resident && a.resident->GetReflectedClass() != a.object->GetReflectedClass())
            throw BadMessageError(std::string("The message has an object of the class ") +
                                  a.object->GetReflectedClass()->GetName() + " in place of one of the class " +
                                  a.resident->GetReflectedClass()->GetName());
        if (a.resident && !a.resident->GetReflectedClass()->m_ops.m_AssignArrayFn)
            throw BadMessageError(
                std::string("The message has a value for an object that can't take it over, of the class ") +
                a.resident->GetReflectedClass()->GetName());
    }

    Result result;
    for (const Arrived& a : arrived) {
        if (a.resident) { // assignment leaves the target's identity alone
            quna::MarkPersistentAsDirtyWithoutTrace(a.resident);
            a.resident->GetReflectedClass()->m_ops.AssignVariable(a.resident.m_self, a.object.m_self);
            ++result.numReplaced;
        } else {
            if (!quna::MakeObjectPersistWithGivenOID(quna::GetThreadPSpace(), a.object, a.oid, false))
                throw BadMessageError("The message has an object that is being deleted here");
            ++result.numNew;
        }
        if (!result.top) result.top = a.resident ? a.resident : a.object;
    }
    return result;
}

std::vector<SubTreeReceiver::Arrived> SubTreeReceiver::ReadObjects(quna::InputArchive ar, const quna::octet_t* end) {
    const quna::RecordLimitsScope limits(ar, end);
    const quna::OidHighReaderScope hook(m_reader);
    int schema = 0;
    ar = quna::DeserialiseSchema(ar, MESSAGE_SCHEMA, schema);
    std::vector<Arrived> arrived;
    std::unordered_set<quna::uint64> oids;
    for (;;) {
        Arrived a;
        ar = ar >> a.oid;
        if (!a.oid) break;
        if (!oids.insert(a.oid.value_).second) throw quna::RecordException("it has an object twice");
        ar = ReadObject(ar, a.object);
        arrived.push_back(a);
    }
    if (ar.ptr() != end) throw quna::RecordException("it goes on behind its end, or ends before it");
    return arrived;
}

quna::InputArchive SubTreeReceiver::ReadObject(quna::InputArchive ar, ptr<IPersistable>& object) {
    const quna::ReflectedClass* rc = nullptr;
    ar = ReadClass(ar, rc);
    const ptr<quna::IObject> created = rc->m_createFn();
    quna::RegisterGcObject(created); // from here on the collector owns it
    object = quna::qicast<IPersistable>(created);
    if (!object) throw quna::RecordException((std::string("it has an object of the class ") + rc->GetName()).c_str());

    quna::ssize_t size = 0;
    ar = quna::DeserialiseCount(ar, size);
    const quna::octet_t* const end = ar.ptr() + size;
    const quna::RecordLimitsScope limits(ar, end);
    ar = object->Deserialise(ar);
    if (ar.ptr() != end)
        throw quna::RecordException((std::string("the body of a ") + rc->GetName() + " has another length").c_str());
    return ar;
}

quna::InputArchive SubTreeReceiver::ReadClass(quna::InputArchive ar, const quna::ReflectedClass*& rc) {
    quna::uint32 number = 0;
    ar = quna::DeserialiseVariableLengthUint(ar.ptr(), number);
    if (number == 0 || number > m_classes.size() + 1)
        throw quna::RecordException("it names a class that it has not introduced");
    if (number == m_classes.size() + 1) {
        quna::xstring name;
        ar = ar >> name;
        const quna::ReflectedClass* const found = quna::FindReflectedClass(name.c_str());
        if (!found || !found->m_createFn)
            throw quna::RecordException(("there is no class '" + name.str() + "' here").c_str());
        m_classes.push_back(found);
    }
    rc = m_classes[number - 1];
    return ar;
}

} // namespace handover
