// Fuzz target: a valid store with edits that know its structure, its checksums made right again or not, and then operations
// on it. It is refused with an exception that says so, and then not changed by a byte, or it can be used.
//
// Input: which store, how it is used, a byte of flags (1: checksums made right; 6 bits: the number of edits), the edits of
// 8 bytes each, operations of one byte each.
#include "tests/support/FuzzStore.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

namespace quna {
namespace {

constexpr ssize_t SEGMENT_BYTES = 4096;

// A header, a block or a packet.
struct Unit {
    int64 offset;
    ssize_t size;
};

struct Base {
    FileBytes file;
    std::vector<Unit> units;
};

Base BaseOf(const FileBytes& file) {
    Base base{file, {}};
    const int64 size = std::ssize(file);
    for (int64 at = 0; at + SEGMENT_BYTES <= FRONT_AREA_BYTES; at += SEGMENT_BYTES)
        if (file[static_cast<size_t>(at)] != 0) base.units.push_back({at, 256});
    for (int64 segment = FRONT_AREA_BYTES; segment + SEGMENT_BYTES <= size; segment += SEGMENT_BYTES) {
        if (std::memcmp(file.data() + segment, SEGMENT_MAGIC, 8) != 0) continue;
        base.units.push_back({segment, SEGMENT_HEADER_BYTES});
        ssize_t pos = SEGMENT_HEADER_BYTES;
        while (pos + PACKET_HEADER_BYTES <= SEGMENT_BYTES) {
            const uint32 info = ReadPod<PacketHeader>(file.data() + segment + pos).info;
            if (info == 0 || pos + PacketBytes(info) > SEGMENT_BYTES) break;
            base.units.push_back({segment + pos, PacketBytes(info)});
            pos += PacketBytes(info);
        }
    }
    return base;
}

const std::vector<Base>& Bases() {
    static const std::vector<Base> bases = [] {
        std::vector<Base> all;
        for (const FileBytes& file : FuzzBaseStores()) all.push_back(BaseOf(file));
        return all;
    }();
    return bases;
}

struct Edit {
    uint8 kind;
    uint8 field;
    uint16 unit;
    uint32 value;
};
static_assert(sizeof(Edit) == 8);

// All places are taken modulo what there is, so that every edit does something.
class Editor {
public:
    // `file` is where the edited file is made.
    Editor(const Base& base, FileBytes& file) : m_base(base), m_file(file) { m_file = base.file; }

    void Apply(const Edit& edit) {
        const Unit& unit = UnitAt(edit.unit);
        switch (edit.kind % 12) {
        case 0: Set(unit.offset + edit.field % unit.size, static_cast<uint8>(edit.value)); break;
        case 1: Set(unit.offset + (edit.field % unit.size & ~3), edit.value); break;
        case 2: Set(unit.offset + (edit.field % unit.size & ~7), uint64{edit.value}); break;
        case 3: Set(unit.offset + (edit.field % unit.size & ~7), uint64{edit.value} << 32 | edit.value); break;
        case 4: AddTo(unit.offset + (edit.field % unit.size & ~7), static_cast<int32>(edit.value)); break;
        case 5: Copy(UnitAt(edit.value).offset, unit.offset, std::min(unit.size, UnitAt(edit.value).size)); break;
        case 6: {
            const Unit& from = UnitAt(edit.value);
            const ssize_t field = static_cast<ssize_t>(edit.value >> 16) % from.size & ~7;
            Copy(from.offset + field, unit.offset + (edit.field % unit.size & ~7), 8);
            break;
        }
        case 7:
            std::fill_n(m_file.begin() + unit.offset, std::min<ssize_t>(unit.size, edit.value % 300), octet_t{0});
            break;
        case 8:
            m_file[static_cast<size_t>(unit.offset + edit.field % unit.size)] ^= octet_t(1u << edit.value % 8);
            break;
        case 9: m_cut = static_cast<int64>(edit.value) % (std::ssize(m_file) + 1); break;
        case 10: Copy(SegmentAt(edit.value), SegmentAt(edit.unit), SEGMENT_BYTES); break;
        default: ToLocation(unit, edit); break;
        }
    }

    void Finish(bool checksumsRight) {
        if (checksumsRight) MakeChecksumsRight(m_file);
        if (m_cut >= 0) m_file.resize(static_cast<size_t>(m_cut));
    }

private:
    const Unit& UnitAt(uint32 n) const { return m_base.units[n % m_base.units.size()]; }
    int64 SegmentAt(uint32 n) const {
        const int64 count = (std::ssize(m_file) - FRONT_AREA_BYTES) / SEGMENT_BYTES;
        return FRONT_AREA_BYTES + static_cast<int64>(n) % count * SEGMENT_BYTES;
    }
    template <class T>
    void Set(int64 offset, T x) {
        if (offset + static_cast<int64>(sizeof x) <= std::ssize(m_file))
            std::memcpy(m_file.data() + offset, &x, sizeof x);
    }
    void AddTo(int64 offset, int64 n) {
        if (offset + 8 <= std::ssize(m_file))
            Set(offset, ReadPod<uint64>(m_file.data() + offset) + static_cast<uint64>(n));
    }
    void Copy(int64 from, int64 to, ssize_t n) {
        n = std::min(n, std::ssize(m_file) - std::max(from, to));
        std::memmove(m_file.data() + to, m_file.data() + from, static_cast<size_t>(n));
    }
    // A field becomes the location of some packet.
    void ToLocation(const Unit& unit, const Edit& edit) {
        const Unit& target = UnitAt(edit.value);
        const bool isLong = edit.value >> 31;
        Set(unit.offset + (edit.field % unit.size & ~7), MakeLocation(target.offset, target.size, isLong));
    }

    const Base& m_base;
    FileBytes& m_file;
    int64 m_cut = -1;
};

void Run(const octet_t* data, ssize_t size) {
    static FuzzSys sys;
    static FileBytes file; // used again: memory of that size comes from the system
    const octet_t* const end = data + size;
    Editor editor(Bases()[data[0] % Bases().size()], file);
    const FuzzUse use(data[1]);
    const bool checksumsRight = data[2] & 1;
    ssize_t numEdits = data[2] >> 2;
    data += 3;
    for (; numEdits > 0 && end - data >= ssize_t{sizeof(Edit)}; --numEdits, data += sizeof(Edit))
        editor.Apply(ReadPod<Edit>(data));
    editor.Finish(checksumsRight);
    sys.SetContent(file);
    UseDamagedStore(sys, use, data, end - data);
}

} // namespace
} // namespace quna

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size) {
    if (size < 3) return 0;
    quna::PrepareForFuzz();
    quna::Run(data, static_cast<quna::ssize_t>(size));
    return 0;
}
