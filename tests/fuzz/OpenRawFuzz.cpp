// Fuzz target: any bytes as the file of a store. It is refused with an exception that says so, and then not changed by a
// byte, or it can be used.
//
// The first byte of the input says how the store is used, the rest is a file with its zeros left out.
#include "tests/support/FuzzStore.h"

#include <cstddef>

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const quna::octet_t* data, std::size_t size) {
    static quna::FuzzSys sys;
    if (size == 0) return 0;
    quna::PrepareForFuzz();
    quna::DecodeSparseFile(data + 1, static_cast<quna::ssize_t>(size - 1), sys);
    quna::UseDamagedStore(sys, quna::FuzzUse(data[0]));
    return 0;
}
