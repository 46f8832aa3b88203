// The exception for a damaged store.
#pragma once

#include "qxUtils/Exceptions.h"

namespace quna {

// A store file that is damaged, of another format, or no store at all. The message says what was found and where.
class QX_API CorruptLSSException : public ExceptionBase {
public:
    explicit CorruptLSSException(ConstStringZ message);
};

} // namespace quna
