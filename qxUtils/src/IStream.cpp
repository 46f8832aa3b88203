#include "qxUtils/IStream.h"

namespace quna {

IOutputStream::~IOutputStream() noexcept(false) = default;
IInputStream::~IInputStream() = default;

} // namespace quna
