#include "tools/qxstore/FrontCheck.h"

#include "qxLss/src/AllocRing.h"
#include "qxLss/src/Format.h"
#include "qxUtils/Exceptions.h"

#include <algorithm>
#include <cstring>

namespace quna::qxstore {

namespace {

constexpr ssize_t PLACE_BYTES = 4096;
static_assert(sizeof(CheckpointHeader) == PLACE_BYTES && AllocRingBlock::BYTES == PLACE_BYTES);

bool IsHeader(const octet_t (&bytes)[PLACE_BYTES], const StoreId& id, int64 offset) {
    const CheckpointHeader header = ReadPod<CheckpointHeader>(bytes);
    return std::memcmp(header.magic, CHECKPOINT_MAGIC, sizeof header.magic) == 0 && header.storeId == id &&
           header.crc == Crc32c(bytes, offsetof(CheckpointHeader, crc)) &&
           HeaderOffset(header.checkpointSequence) == offset;
}

bool IsUnused(const octet_t (&bytes)[PLACE_BYTES]) {
    return std::all_of(bytes, bytes + PLACE_BYTES, [](octet_t byte) { return byte == 0; });
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

bool IsRingBlock(const octet_t (&bytes)[PLACE_BYTES], const StoreId& id) {
    AllocRingBlock block;
    return block.Decode(bytes) && block.storeId == id;
}

void AddInvalid(OpenedStore& store, int64 offset, const std::string& what, Findings& findings) {
    const std::string text = what + " at offset " + std::to_string(offset) + " is not valid";
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
        if (!ReadPlace(store, offset, bytes) || !IsHeader(bytes, id, offset))
            AddInvalid(store, offset, "the checkpoint header", findings);
    }
    for (int i = 0; i < AllocRing::NUM_BLOCKS; ++i) {
        const int64 offset = AllocRing::FILE_OFFSET + int64{i} * PLACE_BYTES;
        if (!ReadPlace(store, offset, bytes) || !(IsUnused(bytes) || IsRingBlock(bytes, id)))
            AddInvalid(store, offset, "the block of the allocation ring", findings);
    }
}

} // namespace quna::qxstore
