#include "tools/qxstore/FrontCheck.h"

#include "qxLss/src/AllocRing.h"
#include "qxLss/src/Format.h"
#include "qxUtils/Exceptions.h"
#include "tools/qxstore/Units.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace quna::qxstore {

namespace {

constexpr ssize_t PLACE_BYTES = 4096;
constexpr const char* UNREADABLE = "the disk does not give it";
static_assert(sizeof(CheckpointHeader) == PLACE_BYTES && AllocRingBlock::BYTES == PLACE_BYTES);

bool IsUnused(const octet_t (&bytes)[PLACE_BYTES]) {
    return std::all_of(bytes, bytes + PLACE_BYTES, [](octet_t byte) { return byte == 0; });
}

// Why the place does not hold a header; empty: it does, or it was never used. A copy of a store has one header alone. That
// the newest one is not lost the ring has told at the open.
std::string HeaderDamage(const octet_t (&bytes)[PLACE_BYTES], const StoreId& id, int64 offset) {
    if (IsUnused(bytes)) return {};
    const CheckpointHeader header = ReadPod<CheckpointHeader>(bytes);
    if (std::memcmp(header.magic, CHECKPOINT_MAGIC, sizeof header.magic) != 0) return "it does not begin as one";
    const uint32 crc = Crc32c(bytes, offsetof(CheckpointHeader, crc));
    if (header.crc != crc) return "the checksum is wrong, " + Mismatch(header.crc, crc);
    if (header.storeId != id) return "it is that of another store";
    if (HeaderOffset(header.checkpointSequence) != offset)
        return "checkpoint " + std::to_string(header.checkpointSequence) + " belongs to the other place";
    return {};
}

// False if the disk does not give it.
bool ReadPlace(OpenedStore& store, int64 offset, octet_t (&bytes)[PLACE_BYTES]) {
    try {
        store.Core().m_file.Read(offset, bytes, PLACE_BYTES);
        return true;
    } catch (const FileException&) {
        return false;
    }
}

std::string RingBlockDamage(const octet_t (&bytes)[PLACE_BYTES], const StoreId& id) {
    if (IsUnused(bytes)) return {};
    AllocRingBlock block;
    if (!block.Decode(bytes)) return "beginning, checksum or counts are wrong";
    return block.storeId == id ? "" : "it is that of another store";
}

void Check(OpenedStore& store, int64 offset, const std::string& what, const std::string& damage, Findings& findings) {
    if (damage.empty()) return;
    const std::string text = what + " at offset " + std::to_string(offset) + " is not valid: " + damage;
    if (store.WasClosedCleanly())
        findings.Problem(text);
    else
        findings.Note(text + ", as after a crash in the middle of writing it; the others are enough");
}

} // namespace

void CheckFront(OpenedStore& store, Findings& findings) {
    const StoreId& id = store.Core().m_storeId;
    octet_t bytes[PLACE_BYTES];
    for (const int64 offset : {int64{0}, int64{PLACE_BYTES}}) {
        const bool isRead = ReadPlace(store, offset, bytes);
        Check(store, offset, "the checkpoint header", isRead ? HeaderDamage(bytes, id, offset) : UNREADABLE, findings);
    }
    for (int i = 0; i < AllocRing::NUM_BLOCKS; ++i) {
        const int64 offset = AllocRing::FILE_OFFSET + int64{i} * PLACE_BYTES;
        const bool isRead = ReadPlace(store, offset, bytes);
        Check(store, offset, "the block of the allocation ring", isRead ? RingBlockDamage(bytes, id) : UNREADABLE,
              findings);
    }
}

} // namespace quna::qxstore
