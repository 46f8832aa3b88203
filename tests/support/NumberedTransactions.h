// Transactions that bear numbers from 1 on, each of which changes elements in a way that follows from its number: so whoever
// finds a store can tell which of them it holds, whole and in order.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxUtils/AutoCloser.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace quna {

// What is the same for all transactions of a store.
struct NumberedPlan {
    uint64 seed = 0;
    uint32 numKeys = 300;            // elements with the lows 1..numKeys under high 1
    int64 longest = 150000;          // bytes of the longest elements, which are few
    uint64 mostChanges = 8;          // in a transaction
    bool dropsWhenUnwinding = false; // a transaction that an exception cuts short leaves nothing behind

    static constexpr Seid NUMBER_SEID = ROOT_SEID; // holds the number of the last transaction

    // What transaction `number` does: key -> size, -1 for a deletion.
    std::map<uint32, int64> ChangesOf(uint64 number) const {
        std::mt19937_64 random(number * 7919 + seed);
        std::map<uint32, int64> changes;
        if (number == 1) return changes;
        for (uint64 i = 1 + random() % mostChanges; i > 0; --i) {
            const uint32 key = 1 + static_cast<uint32>(random() % numKeys);
            const uint64 kind = random() % 32;
            changes[key] = kind < 6    ? -1
                           : kind == 6 ? static_cast<int64>(random() % static_cast<uint64>(longest))
                                       : static_cast<int64>(random() % 600);
        }
        return changes;
    }

    static std::vector<octet_t> BytesOf(uint64 number, uint32 key, int64 size) {
        std::vector<octet_t> bytes(static_cast<size_t>(size));
        const uint64 pattern = number * 0x9E3779B97F4A7C15u + key;
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<octet_t>(pattern >> (i % 8 * 8) ^ (i >> 3));
        return bytes;
    }

    // A fresh store gets the identifiers that the transactions use.
    void Prepare(ILogStructuredStore& store) const {
        const SeidHigh high = store.AllocateSeidHigh();
        for (uint64 i = 0; i <= numKeys; ++i) store.AllocateSeid(high);
    }

    // The next one. `closing` is called with its number before it is closed. Returns the number.
    uint64 RunNext(ILogStructuredStore& store, bool flush, const std::function<void(uint64)>& closing = {}) const {
        AutoCloser<ILssTransaction> transaction(store.OpenTransaction());
        if (flush) transaction->RequestFlushToDisk();
        if (dropsWhenUnwinding) transaction->RequestDropWhenUnwinding();
        const uint64 number = ReadNumber(store) + 1; // nobody else writes while we have the transaction
        for (const auto& [key, size] : ChangesOf(number)) {
            if (size < 0)
                transaction->DeleteSerialElement(Seid(key, 1));
            else
                Write(*transaction.Get(), Seid(key, 1), BytesOf(number, key, size).data(), size);
        }
        Write(*transaction.Get(), NUMBER_SEID, &number, sizeof number);
        if (closing) closing(number);
        transaction.Close();
        return number;
    }

    // 0 if there is none yet.
    static uint64 ReadNumber(ILogStructuredStore& store) {
        AutoCloser<IContiguousSerialElement> element(store.OpenSerialElement(NUMBER_SEID));
        if (!element.Get()) return 0;
        uint64 number = 0;
        std::memcpy(&number, element->GetBuffer().buffer, sizeof number);
        return number;
    }

    static void Write(ILssTransaction& transaction, Seid seid, const void* p, ssize_t n) {
        AutoCloser<ICloseableOutputStream> stream(transaction.WriteSerialElement(seid));
        stream->WriteStream(p, n);
        stream.Close();
    }
};

// What the keys hold after transactions 1..number: key -> (transaction, size).
class NumberedModel {
public:
    explicit NumberedModel(const NumberedPlan& plan) : m_plan(plan) {}

    // Forward only.
    void RollTo(uint64 number) {
        while (m_number < number) {
            ++m_number;
            for (const auto& [key, size] : m_plan.ChangesOf(m_number)) {
                if (size < 0)
                    m_elements.erase(key);
                else
                    m_elements[key] = {m_number, size};
            }
        }
    }
    // Empty, or what differs.
    std::string Compare(ILogStructuredStore& store) const {
        ssize_t count = m_number > 0 ? 1 : 0;
        for (uint32 key = 1; key <= m_plan.numKeys; ++key) {
            AutoCloser<IContiguousSerialElement> element(store.OpenSerialElement(Seid(key, 1)));
            const auto expected = m_elements.find(key);
            if (!element.Get() != (expected == m_elements.end()))
                return "key " + std::to_string(key) + (element.Get() ? " should not exist" : " is missing");
            if (!element.Get()) continue;
            ++count;
            const ReadOnlyBuffer buffer = element->GetBuffer();
            const std::vector<octet_t> bytes =
                NumberedPlan::BytesOf(expected->second.number, key, expected->second.size);
            if (!std::equal(buffer.buffer, buffer.buffer + buffer.size, bytes.begin(), bytes.end()))
                return "key " + std::to_string(key) + " has the wrong content";
        }
        LssStats stats;
        store.GetStats(stats);
        if (stats.numLiveHeadPackets != count) return "the count of elements is wrong";
        return {};
    }

private:
    struct Version {
        uint64 number;
        int64 size;
    };
    const NumberedPlan m_plan;
    uint64 m_number = 0;
    std::map<uint32, Version> m_elements;
};

} // namespace quna
