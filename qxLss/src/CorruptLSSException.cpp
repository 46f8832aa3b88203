#include "qxLss/CorruptLSSException.h"

namespace quna {

CorruptLSSException::CorruptLSSException(ConstStringZ message) : ExceptionBase(message) {}

} // namespace quna
