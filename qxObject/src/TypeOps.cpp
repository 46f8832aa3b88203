#include "qxObject/TypeOps.h"

#include "qxObject/TypeOpsArrays.h"
#include "qxUtils/Exceptions.h"

#include <string>

namespace quna {

// The tables that this library owns: one of each in the process, constant-initialised.
const TypeOps* _GetTypeOps(const bool*) { return &detail::TypeOpsOf<bool>::s_ops; }
const TypeOps* _GetTypeOps(const char*) { return &detail::TypeOpsOf<char>::s_ops; }
const TypeOps* _GetTypeOps(const int8*) { return &detail::TypeOpsOf<int8>::s_ops; }
const TypeOps* _GetTypeOps(const int16*) { return &detail::TypeOpsOf<int16>::s_ops; }
const TypeOps* _GetTypeOps(const int32*) { return &detail::TypeOpsOf<int32>::s_ops; }
const TypeOps* _GetTypeOps(const int64*) { return &detail::TypeOpsOf<int64>::s_ops; }
const TypeOps* _GetTypeOps(const uint8*) { return &detail::TypeOpsOf<uint8>::s_ops; }
const TypeOps* _GetTypeOps(const uint16*) { return &detail::TypeOpsOf<uint16>::s_ops; }
const TypeOps* _GetTypeOps(const uint32*) { return &detail::TypeOpsOf<uint32>::s_ops; }
const TypeOps* _GetTypeOps(const uint64*) { return &detail::TypeOpsOf<uint64>::s_ops; }
const TypeOps* _GetTypeOps(const float32*) { return &detail::TypeOpsOf<float32>::s_ops; }
const TypeOps* _GetTypeOps(const float64*) { return &detail::TypeOpsOf<float64>::s_ops; }
const TypeOps* _GetTypeOps(const xstring*) { return &detail::TypeOpsOf<xstring>::s_ops; }
const TypeOps* _GetTypeOps(const Guid*) { return &detail::TypeOpsOf<Guid>::s_ops; }

void detail::ThrowVectorTooLarge(ssize_t numElements, ssize_t elementSize) {
    const std::string text = "A container of " + std::to_string(numElements) + " elements of " +
                             std::to_string(elementSize) + " bytes is above the limit of " +
                             std::to_string(MAX_ALLOCATION_SIZE) + " bytes";
    throw RecordException(text.c_str());
}

} // namespace quna
