#include "qxUtils/HPTime.h"

#include <chrono>

namespace quna {

HPTime HPTime::GetCurrentTime() {
    using Ticks = std::chrono::duration<int64, std::ratio<1, 10'000'000>>;
    return HPTime(std::chrono::duration_cast<Ticks>(std::chrono::steady_clock::now().time_since_epoch()).count());
}

} // namespace quna
