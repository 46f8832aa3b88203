// A word by which an object that is reached through an untyped pointer shows that it is one, and alive.
#pragma once

#include "qxUtils/Assert.h"
#include "qxUtils/BasicTypes.h"

#include <cstdint>

namespace quna {

// A member of the object. Its value depends on its address, so that neither freed memory nor a copied one passes.
class MagicTestDestructed {
public:
    MagicTestDestructed() noexcept : v(GetMagic1(this)) {}
    MagicTestDestructed(const MagicTestDestructed&) = delete;
    MagicTestDestructed& operator=(const MagicTestDestructed&) = delete;
    ~MagicTestDestructed() { v = 0; }

    void Test() const { QX_ASSERT_IN("Magic", v == GetMagic1(this)); }

private:
    // Never 0: no object stands at an address that ends in ...AAAAAAAA, which is not a multiple of 4.
    static uint32 GetMagic1(const void* self) noexcept {
        return static_cast<uint32>(reinterpret_cast<std::uintptr_t>(self)) ^ 0xAAAAAAAAu;
    }

    volatile uint32 v; // volatile: the destructor's store is there to be read when nobody should
};

} // namespace quna
