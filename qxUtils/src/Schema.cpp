#include "qxUtils/Schema.h"

#include "qxUtils/Exceptions.h"
#include "qxUtils/VariableLengthSerialise.h"

#include <string>

namespace quna {

void SerialiseSchema(Archive& ar, int schema) { SerialiseVariableLengthUint32(ar, static_cast<uint32>(schema)); }

InputArchive DeserialiseSchema(InputArchive ar, int latestSchema, int& schema) {
    uint32 stored = 0;
    ar = DeserialiseVariableLengthUint(ar, stored);
    if (stored < 1 || stored > static_cast<uint32>(latestSchema))
        throw SchemaException(("Record has schema " + std::to_string(stored) + ", this library reads 1 to " +
                               std::to_string(latestSchema) + ": use a newer version of the application")
                                  .c_str());
    schema = static_cast<int>(stored);
    return ar;
}

} // namespace quna
