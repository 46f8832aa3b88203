#include "tests/support/CrashHistory.h"

#include <algorithm>

namespace quna {

using EChoice = CrashVariant::EChoice;

void CrashHistory::NoteDurable(ssize_t upTo, ssize_t calls) {
    for (ssize_t i = upTo - 1; i >= 0 && transactions[static_cast<size_t>(i)].durable < 0; --i) {
        Transaction& t = transactions[static_cast<size_t>(i)];
        if (t.closed >= 0) t.durable = calls;
    }
}

ssize_t CrashHistory::Floor(ssize_t calls, bool processDeathOnly) const {
    ssize_t floor = 0;
    for (ssize_t i = 0; i < std::ssize(transactions); ++i) {
        const Transaction& t = transactions[static_cast<size_t>(i)];
        const ssize_t known = processDeathOnly ? t.closed : t.durable;
        if (known >= 0 && known <= calls) floor = i + 1;
    }
    return floor;
}

ssize_t CrashHistory::Ceiling(ssize_t calls) const {
    ssize_t ceiling = 0;
    for (ssize_t i = 0; i < std::ssize(transactions); ++i)
        if (transactions[static_cast<size_t>(i)].closeBegan <= calls) ceiling = i + 1;
    return ceiling;
}

bool CrashHistory::IsInMaintenance(ssize_t calls) const {
    return std::any_of(maintenance.begin(), maintenance.end(),
                       [&](const auto& range) { return calls >= range.first && calls < range.second; });
}

CrashVariant CrashVariantOf(uint64 seed, int64 k, uint64 v) {
    constexpr EChoice FIXED[NUM_FIXED_VARIANTS] = {EChoice::ALL, EChoice::NONE, EChoice::ALL_BUT_LAST,
                                                   EChoice::ONLY_LAST};
    constexpr EChoice RANDOM[] = {EChoice::RANDOM_SUBSET, EChoice::TORN, EChoice::SECTORS};
    if (v < NUM_FIXED_VARIANTS) return {FIXED[v], 0};
    return {RANDOM[v % 3], (seed * 1000003 + static_cast<uint64>(k)) * 1000003 + v};
}

bool IsProcessDeath(const CrashVariant& variant, uint64 v) {
    return variant.choice == EChoice::ALL && v < NUM_FIXED_VARIANTS;
}

} // namespace quna
