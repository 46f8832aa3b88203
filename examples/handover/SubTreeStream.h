// Carrying a subtree from one store to another: an object and all that it owns, as bytes.
//
// Objects keep their identity on the way. Their identifiers, and all references in them, are translated from the sender's
// numbers of identifier spaces to the receiver's. A reference that leads out of the subtree is a name of something that
// the receiver does not have; when it comes back to where it came from, it leads to the same object again.
//
// A sender and a receiver carry one stream, in messages of one subtree each, which must arrive whole and in order: what
// one message has introduced, spaces and classes, no later one introduces again.
//
// Message: 1 (variable length), the objects, a null identifier. An object:
//   identifier   translated: see qxPersistStore/OidHighWriter.h
//   class        variable length; the next unused number, from 1, introduces a class, whose name follows as a string
//   body         its length (variable), then what the object's Serialise writes, identifiers translated
#pragma once

#include "qxObject/ReflectedClass.h"
#include "qxPersistStore/IPersistable.h"
#include "qxPersistStore/OidSpaceMap.h"
#include "qxUtils/BasicTypes.h"

#include <map>
#include <stdexcept>
#include <vector>

namespace handover {

using Bytes = std::vector<quna::octet_t>;

// The bytes are no message, or none that this store can take. The store is as it was, but for names of spaces.
class BadMessageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Ownership: borrows the map, which knows each space whose identifiers occur: see Open in Session.cpp.
// Threads:   one at a time, under the lock of the sending space, in any mode.
class SubTreeSender {
public:
    explicit SubTreeSender(quna::OidSpaceMap& map) : m_writer(&map) {}

    // Writes the object and all that it owns, directly or not, each once; loads what is not in memory. The number of
    // objects. Depth costs no stack.
    //
    // Throws std::invalid_argument when one of them is a tree of the library (PMap, PSet), whose records name types by
    // numbers of their own store; the sender is of no further use then.
    quna::ssize_t Send(quna::ptr<quna::IPersistable> top, Bytes& message);

    quna::int64 NumGuidsSent() const { return m_writer.GetNumGuidsSent(); }

private:
    void SendObject(quna::Archive& ar, quna::ptr<quna::IPersistable> object);
    void SendClass(quna::Archive& ar, const quna::ReflectedClass& rc);

    quna::OidHighWriter m_writer;
    std::map<const quna::ReflectedClass*, quna::uint32> m_classes; // introduced in this stream
};

// Ownership: borrows the map.
// Threads:   one at a time, under the exclusive lock of the receiving space, which is the thread's current one.
class SubTreeReceiver {
public:
    struct Result {
        quna::ptr<quna::IPersistable> top; // null for an empty message
        quna::ssize_t numNew = 0;
        quna::ssize_t numReplaced = 0; // that were here before and took the value over that was sent
    };

    explicit SubTreeReceiver(quna::OidSpaceMap& map) : m_reader(&map) {}

    // Puts the objects into the thread's space. BadMessageError, and the receiver is of no further use.
    Result Receive(const Bytes& message);

    quna::int64 NumGuidsReceived() const { return m_reader.GetNumGuidsSent(); }

private:
    struct Arrived {
        quna::OID oid;
        quna::ptr<quna::IPersistable> object;   // new, still without identity
        quna::ptr<quna::IPersistable> resident; // the one that has the identity already, or null
    };

    std::vector<Arrived> ReadObjects(quna::InputArchive ar, const quna::octet_t* end);
    quna::InputArchive ReadObject(quna::InputArchive ar, quna::ptr<quna::IPersistable>& object);
    quna::InputArchive ReadClass(quna::InputArchive ar, const quna::ReflectedClass*& rc);

    quna::OidHighReader m_reader;
    std::vector<const quna::ReflectedClass*> m_classes; // introduced in this stream
};

} // namespace handover
