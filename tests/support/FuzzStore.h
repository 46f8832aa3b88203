// What the fuzz targets for store files have in common: files in few bytes, checksums made right, and the use of a store
// that may be damaged in any way.
#pragma once

#include "qxLss/src/LssStore.h"
#include "tests/support/FuzzBasics.h"
#include "tests/support/FuzzSys.h"

#include <functional>
#include <string>
#include <vector>

namespace quna {

// A file in few bytes, since most of a small store's file is zero: pieces of {zeros before it / 8 (u16), length (u16), bytes},
// the last one as long as the input lasts. Any bytes mean a file, which becomes that of `sys`.
void DecodeSparseFile(const octet_t* p, ssize_t n, FuzzSys& sys);
std::vector<octet_t> EncodeSparseFile(const FileBytes& file);

// Gives headers, blocks of the ring, segment headers and packets the checksums that make them valid, as far as they can be
// found in the file: what a reader then believes is up to the rest of the bytes. Packets are found one behind the other
// from the segment's header, and again at the next nonzero word behind a gap.
void MakeChecksumsRight(FileBytes& file);
void MakeChecksumsRight(FuzzSys& sys);

// How a store is opened and used, from a byte.
struct FuzzUse {
    explicit FuzzUse(unsigned byte)
        : readOnly((byte & 3) == 3), validate(byte & 4), clean(byte & 8), write(byte & 16), maintain(byte & 32),
          reopen(byte & 64) {}

    bool readOnly;
    bool validate; // recount at each checkpoint
    bool clean;
    bool write;
    bool maintain;
    bool reopen;
};

LssSettings FuzzSettings(bool validate, bool clean);
inline constexpr ConstStringZ FUZZ_PATH = "d/store";

// A store without threads, so that a run depends on its calls alone, and that opens fast.
LssStore* OpenFuzzStore(FuzzSys& sys, EOpenMode mode, bool& createdNew, const LssSettings& settings);

// Stores of every kind, each valid: empty, closed and killed, with long elements, cleaned, with many spaces. 4 KiB segments.
// A killed one ends in a log that has to be walked.
const std::vector<FileBytes>& FuzzBaseStores();

// Opens the file of `sys` and does with it what any owner might: what `use` says, then an operation for each byte of `ops`. A refusal is a CorruptLSSException or FileException and
// has changed nothing; every other end but success is reported. The memory in use stays within four times the file and
// 96 MiB, where the build can count it.
void UseDamagedStore(FuzzSys& sys, const FuzzUse& use, const octet_t* ops = nullptr, ssize_t numOps = 0);

} // namespace quna
