// Small persistent classes for tests of the store, and their registration.
#pragma once

#include "qxObject/Reflect.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/PersistentMembers.h"
#include "qxUtils/ArchiveContainers.h"
#include "qxUtils/Schema.h"
#include "qxUtils/xstring.h"
#include "qxUtils/xvector.h"

#include <initializer_list>
#include <mutex>
#include <stdexcept>

namespace quna {

// Counts the objects of a class that are in memory.
template <class X>
class CountsItsObjects {
public:
    CountsItsObjects() { ++s_numLive; }
    CountsItsObjects(const CountsItsObjects&) { ++s_numLive; }
    CountsItsObjects& operator=(const CountsItsObjects&) = default;
    ~CountsItsObjects() { --s_numLive; }
    static inline std::atomic<int> s_numLive{0};
};

// An object with data and no references.
//
// Record: schema 1, then the number (4), then the text.
class TestLeaf : public PersistableMixin<IObjectBaseMixin<TestLeaf, EmptyBase>>, public CountsItsObjects<TestLeaf> {
public:
    TestLeaf() = default;
    explicit TestLeaf(int32 number, ConstStringZ text = "") : m_number(number), m_text(text) {}

    void Serialise(Archive& ar) const {
        SerialiseSchema(ar, 1);
        ar << m_number << m_text;
    }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        ar = DeserialiseSchema(ar, 1, schema);
        m_oidSeenByDeserialise = GetOid(this);
        return ar >> m_number >> m_text;
    }
    void OnCreate(bool created) {
        ++m_numOnCreate;
        m_createdArgument = created;
    }

    int32 m_number = 0;
    xstring m_text;
    int m_numOnCreate = 0;
    bool m_createdArgument = false;
    OID m_oidSeenByDeserialise;
};
QX_REFLECT_PERSISTENT_CLASS(TestLeaf, "test::Leaf")

// An object with references, which may form cycles.
//
// Record: schema 1, the name, the reference to the next, the number of children (variable length) and each child.
class TestNode : public PersistableMixin<IObjectBaseMixin<TestNode, EmptyBase>>, public CountsItsObjects<TestNode> {
public:
    TestNode() = default;
    explicit TestNode(ConstStringZ name, std::initializer_list<ptr<IPersistable>> children = {}) : m_name(name) {
        for (const ptr<IPersistable>& child : children) m_children.push_back(pref<IPersistable>(child));
    }

    void Serialise(Archive& ar) const {
        SerialiseSchema(ar, 1);
        ar << m_name << m_next;
        Serialise_ssize_t(ar, m_children.size());
        for (const pref<IPersistable>& child : m_children) ar << child;
    }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        ar = DeserialiseSchema(ar, 1, schema) >> m_name >> m_next;
        ssize_t n = 0;
        ar = DeserialiseCount(ar, n);
        m_children.resize(n);
        for (pref<IPersistable>& child : m_children) ar = ar >> child;
        return ar;
    }
    void VisitPrefs(IPrefVisitor& visitor) const {
        visitor << m_next;
        for (const pref<IPersistable>& child : m_children) visitor << child;
    }
    void VisitObjects(IObjectVisitor& visitor) const {
        visitor << m_next;
        for (const pref<IPersistable>& child : m_children) visitor << child;
    }

    xstring m_name;
    cref<TestNode> m_next;
    xvector<pref<IPersistable>> m_children;
};
QX_REFLECT_PERSISTENT_CLASS(TestNode, "test::Node")

// Reads s_numBytesRead of the s_numBytesWritten bytes that it writes.
class TestMisreader : public PersistableMixin<IObjectBaseMixin<TestMisreader, EmptyBase>> {
public:
    void Serialise(Archive& ar) const {
        for (int i = 0; i < s_numBytesWritten; ++i) ar << uint8{7};
    }
    InputArchive Deserialise(InputArchive ar) { return ar += s_numBytesRead; }
    static inline int s_numBytesWritten = 5;
    static inline int s_numBytesRead = 5;
};
QX_REFLECT_PERSISTENT_CLASS(TestMisreader, "test::Misreader")

// Throws where it is told to.
class TestThrower : public PersistableMixin<IObjectBaseMixin<TestThrower, EmptyBase>>,
                    public CountsItsObjects<TestThrower> {
public:
    void Serialise(Archive& ar) const {
        SerialiseSchema(ar, 1);
        ar << m_value;
        if (s_throwInSerialise) throw std::runtime_error("Serialise");
    }
    InputArchive Deserialise(InputArchive ar) {
        if (s_throwInDeserialise) throw std::runtime_error("Deserialise");
        int schema = 0;
        return DeserialiseSchema(ar, 1, schema) >> m_value;
    }
    int32 m_value = 0;
    static inline bool s_throwInSerialise = false;
    static inline bool s_throwInDeserialise = false;
};
QX_REFLECT_PERSISTENT_CLASS(TestThrower, "test::Thrower")

// Does not own what it reaches.
class TestNoSubTree : public PersistableMixin<IObjectBaseMixin<TestNoSubTree, EmptyBase>> {
public:
    void Serialise(Archive& ar) const { SerialiseSchema(ar, 1); }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        return DeserialiseSchema(ar, 1, schema);
    }
    bool RepresentsSubTree() const { return false; }
};
QX_REFLECT_PERSISTENT_CLASS(TestNoSubTree, "test::NoSubTree")

// Has a record, but nobody registers it.
class TestUnregistered : public PersistableMixin<IObjectBaseMixin<TestUnregistered, EmptyBase>> {
public:
    void Serialise(Archive& ar) const { SerialiseSchema(ar, 1); }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        return DeserialiseSchema(ar, 1, schema);
    }
};
QX_REFLECT_PERSISTENT_CLASS(TestUnregistered, "test::Unregistered")

// Can't be created empty, so its record has no factory.
class TestNoFactory : public PersistableMixin<IObjectBaseMixin<TestNoFactory, EmptyBase>> {
public:
    explicit TestNoFactory(int) {}
    void Serialise(Archive& ar) const { SerialiseSchema(ar, 1); }
    InputArchive Deserialise(InputArchive ar) {
        int schema = 0;
        return DeserialiseSchema(ar, 1, schema);
    }
};
QX_REFLECT_PERSISTENT_CLASS(TestNoFactory, "test::NoFactory")

// An object of the object system that is not persistable.
class TestPlainObject : public IObjectBaseMixin<TestPlainObject, EmptyBase>,
                        public CountsItsObjects<TestPlainObject> {};
QX_REFLECT_CLASS(TestPlainObject, "test::PlainObject")

// Registers the store's library and the classes above, once a process.
inline void RegisterTestObjects() {
    static std::once_flag once;
    std::call_once(once, [] {
        Register_Project_qxPersistStore();
        static constexpr dsTarget TARGET = {"Quna/Tests", nullptr, 0, nullptr, 0};
        XTarget* const target = RegisterTarget(TARGET);
        _Register_TestLeaf(target);
        _Register_TestNode(target);
        _Register_TestMisreader(target);
        _Register_TestThrower(target);
        _Register_TestNoSubTree(target);
        _Register_TestNoFactory(target);
        _Register_TestPlainObject(target);
    });
}

} // namespace quna
