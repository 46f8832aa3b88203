// The work of the benchmarks that overwrite random elements of a store that stays as large as it is.
#pragma once

#include "qxUtils/BasicTypes.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace quna {

// Sizes of elements, evenly between `least` and `most`, until with `headerBytes` each they make up `total` bytes. An
// element keeps its size.
inline std::vector<ssize_t> RandomSizes(double total, ssize_t least, ssize_t most, ssize_t headerBytes) {
    std::mt19937_64 random(3);
    std::vector<ssize_t> sizes;
    for (double bytes = 0; bytes < total;) {
        sizes.push_back(least + static_cast<ssize_t>(random() % static_cast<uint64>(most - least + 1)));
        bytes += static_cast<double>((sizes.back() + headerBytes + 7) / 8 * 8);
    }
    return sizes;
}

// 0..n-1, shuffled.
inline std::vector<std::size_t> RandomOrder(std::size_t n) {
    std::vector<std::size_t> order(n);
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::shuffle(order.begin(), order.end(), std::mt19937_64(5));
    return order;
}

// Which element is overwritten next: "uniform"; "90/10": nine of ten times one of a tenth; "zipf": exponent 0.99.
class Chooser {
public:
    Chooser(const std::string& kind, std::size_t n)
        : m_isUniform(kind == "uniform"), m_isSplit(kind == "90/10"), m_n(n), m_order(RandomOrder(n)) {}

    std::size_t operator()() {
        if (m_isUniform) return m_random() % m_n;
        if (m_isSplit) {
            const std::size_t hot = m_n / 10;
            return m_order[m_random() % 10 != 0 ? m_random() % hot : m_random() % m_n];
        }
        // By the inverse of its continuous form.
        constexpr double A = 1 - 0.99;
        const double x = static_cast<double>(m_random() >> 11) / 9007199254740992.0;
        const double v = std::pow(x * (std::pow(static_cast<double>(m_n), A) - 1) + 1, 1 / A);
        return m_order[std::min(m_n - 1, static_cast<std::size_t>(v - 1))];
    }

private:
    const bool m_isUniform;
    const bool m_isSplit;
    const std::size_t m_n;
    const std::vector<std::size_t> m_order;
    std::mt19937_64 m_random{11};
};

// Bytes that no compression makes smaller.
class RandomContent {
public:
    explicit RandomContent(ssize_t mostBytes) : m_pool(static_cast<std::size_t>(POOL_BYTES + mostBytes)) {
        std::mt19937_64 random(7);
        for (octet_t& byte : m_pool) byte = static_cast<octet_t>(random());
    }
    // Others each time.
    const octet_t* Next() {
        m_at = (m_at + 4099) % POOL_BYTES;
        return m_pool.data() + m_at;
    }

private:
    static constexpr ssize_t POOL_BYTES = 1 << 20;

    std::vector<octet_t> m_pool;
    ssize_t m_at = 0;
};

} // namespace quna
