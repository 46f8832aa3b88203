// Ordered maps and sets of any size, in the vocabulary of the standard containers: typed handles of a BPlusTree.
//
//     class Library : public PersistentObject<Library> {
//     public:
//         static constexpr auto Members() { return MemberList(Member("byTitle", &Library::m_byTitle)); }
//         PMap<xstring, cref<Book>> m_byTitle = PMap<xstring, cref<Book>>::Create();
//     };
//
//     library->m_byTitle.insert_or_assign("Emma", book);       // the book becomes persistent with the library
//     library->m_byTitle["Emma"] = book;                       // the same
//     if (auto i = library->m_byTitle.find("Emma"); i != library->m_byTitle.end()) i->second->Open();
//     for (auto [title, book] : library->m_byTitle.range("A", "F")) ...
//
// A handle is a reference to its tree: copying it names the same tree again, and it is stored, visited and printed as a
// reference is. A null handle has no tree: using it throws as any null reference does. Create makes one. A field with
// Create as its initialiser costs a new tree for each object that is made, also for one that is about to be loaded; make
// the tree where the object is made if that matters.
//
// Keys and payloads: types with a description and TypeOps (basic types, xstring, Guid, OID, references, vectors of
//   these, and the application's own after RegisterTypeOpsOf<T>()), that survive a bitwise move and are ordered by
//   their `<`. All objects that a new entry names become persistent when the tree is.
// Lock: reading takes the lock of the space in any mode, changing takes it exclusively; Create needs a space in force.
// Iterators, and the references that they give, are good until the tree changes or the lock is released. To walk a tree
//   larger than memory, release the lock now and then and go on with upper_bound(last key).
// Errors: no exception leaves an entry half made. Another tree's types: std::logic_error.
#pragma once

#include "qxObject/DollarNew.h"
#include "qxObject/TypeDescription.h"
#include "qxObject/TypeOpsArrays.h"
#include "qxPersistStore/BPlusTree2.h"
#include "qxPersistStore/BTreeBulkLoader.h"
#include "qxPersistStore/IPersistStore.h"
#include "qxPersistStore/TypeInfo.h"
#include "qxPersistStore/pref.h"
#include "qxUtils/BasicTypes.h"
#include "qxUtils/xstring.h"

#include <concepts>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <new>
#include <optional>
#include <ranges>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace quna {

namespace detail {

template <class T>
concept TreeValue = CanDescribe<T> && std::is_object_v<T> && std::default_initializable<T> && std::copyable<T>;
template <class T>
concept TreeKey = TreeValue<T> && requires {
    requires ValueOps<T>::CAN_LESS && ValueOps<T>::CAN_EQUAL;
};

// What is accepted where a key is expected.
template <class Key>
class KeyArgument {
public:
    KeyArgument(const Key& key) : m_key(&key) {} // NOLINT(google-explicit-constructor): stands for the key
    const Key& Get() const { return *m_key; }

private:
    const Key* m_key;
};

// Whatever is a text.
template <>
class KeyArgument<xstring> {
public:
    // NOLINTBEGIN(google-explicit-constructor): stand for the key
    KeyArgument(const xstring& key) : m_key(&key) {}
    KeyArgument(const char* text) : KeyArgument(std::string_view(text)) {}
    KeyArgument(const std::string& text) : KeyArgument(std::string_view(text)) {}
    KeyArgument(std::string_view text) : m_own(std::in_place, text), m_key(&*m_own) {}
    // NOLINTEND(google-explicit-constructor)
    KeyArgument(const KeyArgument&) = delete;
    KeyArgument& operator=(const KeyArgument&) = delete;
    const xstring& Get() const { return *m_key; }

private:
    std::optional<xstring> m_own;
    const xstring* m_key;
};

// A part of an entry: in place where every entry of the layout has it at an aligned address, otherwise a copy.
template <class T, bool IS_ALIGNED>
using EntryPart = std::conditional_t<IS_ALIGNED, const T&, T>;

template <class T, bool IS_ALIGNED>
EntryPart<T, IS_ALIGNED> ReadEntryPart(const char* place) {
    if constexpr (IS_ALIGNED)
        return *std::launder(reinterpret_cast<const T*>(place));
    else
        return *ReadView<T>(place);
}

// At every multiple of that many bytes behind the beginning of a node's entries, which come from operator new.
template <class T>
constexpr bool IsAlignedAt(std::size_t offset) {
    return offset % alignof(T) == 0 && alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__;
}

// The entries of a map.
template <class Key, class Payload>
struct TreeEntry {
    static constexpr std::size_t STRIDE = sizeof(Key) + sizeof(Payload);
    static constexpr bool KEY_IS_ALIGNED = IsAlignedAt<Key>(STRIDE);
    static constexpr bool PAYLOAD_IS_ALIGNED = IsAlignedAt<Payload>(STRIDE) && IsAlignedAt<Payload>(sizeof(Key));

    using value_type = std::pair<Key, Payload>;
    struct reference {
        operator value_type() const {
            return {first, second};
        } // NOLINT(google-explicit-constructor): as a pair's would

        EntryPart<Key, KEY_IS_ALIGNED> first;
        EntryPart<Payload, PAYLOAD_IS_ALIGNED> second;
    };

    static reference Read(const _KeyAndPayload* entry) {
        const char* const place = reinterpret_cast<const char*>(entry);
        return {ReadEntryPart<Key, KEY_IS_ALIGNED>(place),
                ReadEntryPart<Payload, PAYLOAD_IS_ALIGNED>(place + sizeof(Key))};
    }
};

// The entries of a set.
template <class Key>
struct TreeEntry<Key, void> {
    static constexpr std::size_t STRIDE = sizeof(Key);

    static constexpr bool IS_ALIGNED = IsAlignedAt<Key>(STRIDE);

    using value_type = Key;
    using reference = EntryPart<Key, IS_ALIGNED>;

    static reference Read(const _KeyAndPayload* entry) {
        return ReadEntryPart<Key, IS_ALIGNED>(reinterpret_cast<const char*>(entry));
    }
};

// Bidirectional. Dereferencing gives the entry's parts, not a reference to a pair, for there is none.
template <class Key, class Payload>
class TreeIterator {
public:
    using iterator_concept = std::bidirectional_iterator_tag;
    using iterator_category = std::input_iterator_tag;
    using value_type = typename TreeEntry<Key, Payload>::value_type;
    using reference = typename TreeEntry<Key, Payload>::reference;
    using difference_type = std::ptrdiff_t;

    // Keeps what an arrow needs.
    class pointer {
    public:
        explicit pointer(reference entry) : m_entry(entry) {}
        const std::remove_reference_t<reference>* operator->() const { return &m_entry; }

    private:
        reference m_entry;
    };

    TreeIterator() = default;
    explicit TreeIterator(BPlusTree::Iterator position) : m_position(position) {}

    reference operator*() const { return TreeEntry<Key, Payload>::Read(m_position.const_deref()); }
    pointer operator->() const { return pointer(**this); }
    TreeIterator& operator++() {
        m_position.next();
        return *this;
    }
    TreeIterator operator++(int) {
        TreeIterator before = *this;
        ++*this;
        return before;
    }
    TreeIterator& operator--() {
        m_position.prev();
        return *this;
    }
    TreeIterator operator--(int) {
        TreeIterator before = *this;
        --*this;
        return before;
    }
    bool operator==(const TreeIterator&) const = default;

private:
    BPlusTree::Iterator m_position;
};

// A stretch of entries.
template <class Iterator>
class TreeRange {
public:
    TreeRange(Iterator begin, Iterator end) : m_begin(begin), m_end(end) {}
    Iterator begin() const { return m_begin; }
    Iterator end() const { return m_end; }
    bool empty() const { return m_begin == m_end; }

private:
    Iterator m_begin;
    Iterator m_end;
};

// What maps and sets have in common.
template <TreeKey Key, class Payload>
class TreeHandle : public cref<BPlusTree> {
public:
    using key_type = Key;
    using value_type = typename TreeEntry<Key, Payload>::value_type;
    using size_type = ssize_t;
    using difference_type = std::ptrdiff_t;
    using iterator = TreeIterator<Key, Payload>;
    using const_iterator = iterator;
    using reference = typename iterator::reference;
    using const_reference = reference;
    using key_argument = const KeyArgument<Key>&;

    TreeHandle() noexcept = default;
    explicit TreeHandle(BPlusTree* tree) : cref<BPlusTree>(tree) {
        if (tree && (tree->m_bti.m_keyTid != KeyTypeId() || tree->m_bti.m_payloadTid != PayloadTypeId()))
            ThrowOtherTypes();
    }

    // The tree, loaded if need be, for what only it can do: Validate, GetNumNodes, Write, comparison.
    BPlusTree& Tree() const {
        BPlusTree& tree = *this->GetNotNull();
        const CalculatedBTreeTypeInfo& bi = tree.GetCalculatedBTreeTypeInfo();
        if (bi.m_keyType->m_size != ssize_t{sizeof(Key)} ||
            bi.m_keyAndPayloadSize != static_cast<ssize_t>(TreeEntry<Key, Payload>::STRIDE)) [[unlikely]]
            ThrowOtherTypes();
        return tree;
    }

    size_type size() const { return Tree().size(); }
    bool empty() const { return Tree().empty(); }

    iterator begin() const { return iterator(Tree().begin()); }
    iterator end() const { return iterator(Tree().end()); }
    std::reverse_iterator<iterator> rbegin() const { return std::make_reverse_iterator(end()); }
    std::reverse_iterator<iterator> rend() const { return std::make_reverse_iterator(begin()); }

    iterator find(key_argument key) const { return iterator(Tree().find(AsKey(key))); }
    bool contains(key_argument key) const { return Tree().rFind(AsKey(key)) != nullptr; }
    size_type count(key_argument key) const { return contains(key) ? 1 : 0; }
    iterator lower_bound(key_argument key) const { return iterator(Tree().lower_bound(AsKey(key))); }
    iterator upper_bound(key_argument key) const { return iterator(Tree().upper_bound(AsKey(key))); }
    std::pair<iterator, iterator> equal_range(key_argument key) const { return {lower_bound(key), upper_bound(key)}; }
    // The entries from `first` on, below `last`.
    TreeRange<iterator> range(key_argument first, key_argument last) const {
        const iterator begin = lower_bound(first);
        return {begin, first.Get() < last.Get() ? lower_bound(last) : begin};
    }

    // The number of entries removed: 0 or 1.
    size_type erase(key_argument key) { return static_cast<size_type>(Tree().erase(AsKey(key))); }
    // The entry behind the one removed.
    iterator erase(iterator where) {
        const Key key = KeyAt(where);
        Tree().Delete(reinterpret_cast<const _Key*>(&key));
        return iterator(Tree().lower_bound(reinterpret_cast<const _Key*>(&key)));
    }
    iterator erase(iterator first, iterator last) {
        if (first == last) return last;
        if (last == end()) {
            while (first != end()) first = erase(first);
            return end();
        }
        const Key bound = KeyAt(last);
        while (KeyAt(first) < bound) first = erase(first);
        return first;
    }
    void clear() { Tree().clear(); }
    // Exchanges the contents of the two trees, not the handles.
    void swap(TreeHandle& rhs) { Tree().swap(rhs.Tree()); }

protected:
    static TypeOpsId KeyTypeId() { return GetPersistStoreTypeOpsId(DescriptionOf<Key>()); }
    static TypeOpsId PayloadTypeId() {
        if constexpr (std::is_void_v<Payload>)
            return 0;
        else
            return GetPersistStoreTypeOpsId(DescriptionOf<Payload>());
    }
    // The key's type goes first where both get their ids here: braces order it, so that every compiler's program writes
    // the same records.
    static BPlusTree* NewTree() { return DollarNew<BPlusTree>(BTreeTypeInfo{KeyTypeId(), PayloadTypeId()}); }

    static const _Key* AsKey(key_argument key) { return reinterpret_cast<const _Key*>(&key.Get()); }
    static Key KeyAt(iterator where) {
        if constexpr (std::is_void_v<Payload>)
            return *where;
        else
            return (*where).first;
    }

    // `add(loader, element)` adds one element.
    template <class Range, class Add>
    void AssignSorted(Range&& range, double fillDegree, Add&& add) {
        BTreeBulkLoader loader(Tree(), fillDegree);
        for (auto&& element : range) {
            if (!add(loader, element))
                throw std::invalid_argument("the keys of a sorted range must ascend strictly; that of element " +
                                            std::to_string(loader.Size()) + " (from 0) does not");
        }
        loader.Finish();
    }

private:
    [[noreturn]] static void ThrowOtherTypes() {
        throw std::logic_error("the tree was made for another key or payload type than this map or set has");
    }
};

} // namespace detail

// An ordered map.
template <detail::TreeKey Key, detail::TreeValue Payload>
class PMap : public detail::TreeHandle<Key, Payload> {
    using Base = detail::TreeHandle<Key, Payload>;

public:
    using mapped_type = Payload;
    using typename Base::iterator;
    using typename Base::key_argument;
    using typename Base::value_type;
    using mapped_reference = detail::EntryPart<Payload, detail::TreeEntry<Key, Payload>::PAYLOAD_IS_ALIGNED>;

    // map[key]: assignment inserts or replaces, reading is at(key).
    class Place {
    public:
        Place(PMap& map, const Key& key) : m_map(map), m_key(key) {}
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;
        Place& operator=(const Payload& payload) {
            m_map.insert_or_assign(m_key, payload);
            return *this;
        }
        operator Payload() const {
            return m_map.at(m_key);
        } // NOLINT(google-explicit-constructor): stands for the payload

    private:
        PMap& m_map;
        const Key m_key;
    };

    PMap() noexcept = default;
    explicit PMap(BPlusTree* tree) : Base(tree) {}
    // A map with a new, empty tree.
    static PMap Create() { return PMap(Base::NewTree()); }
    // A map with a new tree of the pairs of a range in ascending order of keys; see assign_sorted.
    template <std::ranges::input_range Range>
    static PMap FromSorted(Range&& range, double fillDegree = 1.0) {
        PMap map = Create();
        map.assign_sorted(std::forward<Range>(range), fillDegree);
        return map;
    }

    // Throws std::out_of_range when the key is not there.
    mapped_reference at(key_argument key) const {
        const _Payload* const payload = Base::Tree().rFind(Base::AsKey(key));
        if (!payload) throw std::out_of_range("the map has no such key");
        return detail::ReadEntryPart<Payload, detail::TreeEntry<Key, Payload>::PAYLOAD_IS_ALIGNED>(
            reinterpret_cast<const char*>(payload));
    }
    Place operator[](key_argument key) { return Place(*this, key.Get()); }

    // True: the entry was made. False: it was there and stays as it is.
    std::pair<iterator, bool> insert(key_argument key, const Payload& payload) { return Put(key, payload, false); }
    std::pair<iterator, bool> insert(const value_type& entry) { return Put(entry.first, entry.second, false); }
    void insert(std::initializer_list<value_type> entries) {
        for (const value_type& entry : entries) insert(entry);
    }
    // True: the entry was made. False: its payload was replaced.
    std::pair<iterator, bool> insert_or_assign(key_argument key, const Payload& payload) {
        return Put(key, payload, true);
    }

    // Replaces the contents by the pairs of a range in ascending order of keys, without searching or splitting; the range
    // may be the map itself, which packs its nodes. Objects that only the old entries name are not deleted.
    // fillDegree: how full the nodes become, 0.5 to 1. std::invalid_argument when the keys do not ascend strictly: the
    // contents are as they were.
    template <std::ranges::input_range Range>
    void assign_sorted(Range&& range, double fillDegree = 1.0) {
        Base::AssignSorted(range, fillDegree, [](BTreeBulkLoader& loader, const auto& element) {
            const auto& [key, payload] = element;
            return AddTo(loader, key, payload);
        });
    }

private:
    std::pair<iterator, bool> Put(key_argument key, const Payload& payload, bool allowReplace) {
        const auto [position, created] =
            Base::Tree().InsertAt(Base::AsKey(key), reinterpret_cast<const _Payload*>(&payload), allowReplace);
        return {iterator(position), created};
    }
    static bool AddTo(BTreeBulkLoader& loader, key_argument key, const Payload& payload) {
        return loader.Add(Base::AsKey(key), reinterpret_cast<const _Payload*>(&payload));
    }
};

// An ordered set.
template <detail::TreeKey Key>
class PSet : public detail::TreeHandle<Key, void> {
    using Base = detail::TreeHandle<Key, void>;

public:
    using typename Base::iterator;
    using typename Base::key_argument;

    PSet() noexcept = default;
    explicit PSet(BPlusTree* tree) : Base(tree) {}
    // A set with a new, empty tree.
    static PSet Create() { return PSet(Base::NewTree()); }
    // A set with a new tree of the keys of a range in ascending order; see assign_sorted.
    template <std::ranges::input_range Range>
    static PSet FromSorted(Range&& range, double fillDegree = 1.0) {
        PSet set = Create();
        set.assign_sorted(std::forward<Range>(range), fillDegree);
        return set;
    }

    // True: the key was added. False: it was there.
    std::pair<iterator, bool> insert(key_argument key) {
        const auto [position, created] = Base::Tree().InsertAt(Base::AsKey(key), nullptr, false);
        return {iterator(position), created};
    }
    void insert(std::initializer_list<Key> keys) {
        for (const Key& key : keys) insert(key);
    }

    // As PMap's.
    template <std::ranges::input_range Range>
    void assign_sorted(Range&& range, double fillDegree = 1.0) {
        Base::AssignSorted(range, fillDegree, [](BTreeBulkLoader& loader, key_argument key) {
            return loader.Add(Base::AsKey(key), nullptr);
        });
    }
};

// A field of either is reflected as the reference that it is.
template <class Key, class Payload>
struct TypeDescriber<PMap<Key, Payload>> : TypeDescriber<cref<BPlusTree>> {};
template <class Key>
struct TypeDescriber<PSet<Key>> : TypeDescriber<cref<BPlusTree>> {};

} // namespace quna
