#include "qxLss/src/VictimPolicy.h"

#include "qxLss/src/Format.h"

#include <algorithm>
#include <cmath>

namespace quna {

namespace {

constexpr double MAX_UTILISATION = 0.95;
constexpr ssize_t SPARE_SEGMENTS = 4; // dead space that is left alone, so that small stores are not cleaned for ever
constexpr int64 BANDS = 256;                // of pressure in the allowance
constexpr int64 LEAST_BAND = int64{2} << 20; // bytes
constexpr double MILLISEC_A_BAND = 0.5;
constexpr double QUIET_MILLISEC = 2;         // of waiting, to which it rises
constexpr double QUIET_BANDS = 32;           // up to which it stays there
constexpr double MAX_MILLISEC = 100;
constexpr double AGE_EXPONENT = 0.75;
constexpr ssize_t MIN_BATCH = 4;
constexpr ssize_t MAX_BATCH = 64;
constexpr ssize_t LEAST_DEAD = 64; // a victim has at least segmentSize / LEAST_DEAD dead bytes
constexpr double TAIL_PREFERENCE = 4;

} // namespace

CleaningGoal::CleaningGoal(double percent, ssize_t segmentSize)
    : m_utilisation(std::clamp(percent / 100, 0.0, MAX_UTILISATION)), m_segmentSize(segmentSize) {}

double CleaningGoal::Allowed(int64 live) const {
    return static_cast<double>(live) / m_utilisation + static_cast<double>(SPARE_SEGMENTS * m_segmentSize);
}

bool CleaningGoal::IsMissed(int64 used, int64 live) const {
    return IsEnabled() && static_cast<double>(used) > Allowed(live);
}

double CleaningGoal::Pressure(int64 used, int64 live) const {
    if (!IsEnabled()) return 0;
    const double allowed = Allowed(live);
    const double band = std::max(allowed / BANDS, static_cast<double>(LEAST_BAND));
    return (static_cast<double>(used) - allowed) / band - 1;
}

double WaitMilliseconds(double pressure) {
    if (pressure <= 0) return 0;
    if (pressure < QUIET_BANDS) return std::min(pressure * MILLISEC_A_BAND, QUIET_MILLISEC);
    return std::min(QUIET_MILLISEC + (pressure - QUIET_BANDS) * MILLISEC_A_BAND, MAX_MILLISEC);
}

double VictimScore(ssize_t liveBytes, ssize_t segmentSize, uint64 age) {
    const double u = std::min(1.0, static_cast<double>(liveBytes) / static_cast<double>(segmentSize));
    return (1 - u) / (1 + u) * std::pow(static_cast<double>(age) + 1, AGE_EXPONENT);
}

int AgeClassOf(uint64 age, int64 liveBytes) {
    const uint64 live = static_cast<uint64>(std::max<int64>(liveBytes, 0));
    if (age < live / 16) return 0;
    if (age < live / 2) return 1;
    return age < 4 * live ? 2 : 3;
}

// Small segments bound the batch: all moves of one long element, of which each victim holds up to four parts, must fit one
// RELOC packet, that is one segment.
ssize_t BatchSize(ssize_t usedSegments, ssize_t segmentSize) {
    return std::min(std::clamp(usedSegments / 50, MIN_BATCH, MAX_BATCH), segmentSize / 128);
}

std::vector<VictimCandidate> ChooseVictims(std::vector<VictimCandidate> candidates, const VictimLimits& limits) {
    std::erase_if(candidates, [&](const VictimCandidate& c) {
        return !limits.alsoFull && c.usedBytes - c.liveBytes < limits.segmentSize / LEAST_DEAD;
    });
    for (VictimCandidate& c : candidates) {
        c.score = VictimScore(c.liveBytes, limits.segmentSize, c.age);
        if (limits.preferFrom >= 0 && c.slot >= limits.preferFrom) c.score *= TAIL_PREFERENCE;
    }
    const ssize_t n = std::min(limits.maxVictims, static_cast<ssize_t>(candidates.size()));
    std::partial_sort(candidates.begin(), candidates.begin() + n, candidates.end(),
                      [](const VictimCandidate& a, const VictimCandidate& b) {
                          return a.score != b.score ? a.score > b.score : a.slot < b.slot;
                      });
    candidates.resize(static_cast<size_t>(n));
    ssize_t liveBytes = 0;
    size_t fit = 0;
    for (; fit < candidates.size(); ++fit) {
        liveBytes += candidates[fit].liveBytes;
        if (liveBytes > limits.maxLiveBytes) break;
    }
    candidates.resize(fit);
    return candidates;
}

} // namespace quna
