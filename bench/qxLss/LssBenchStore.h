// A store in a file of its own for the benchmarks of the LSS.
#pragma once

#include "qxLss/ILogStructuredStore.h"
#include "qxUtils/AutoCloser.h"

#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

namespace quna {

// Created in the system's temporary directory (TMPDIR), removed at the end.
class BenchStore {
public:
    explicit BenchStore(const std::string& name, LssSettings settings = Settings())
        : m_path((std::filesystem::temp_directory_path() / (name + "-" + std::to_string(::getpid()))).string()) {
        bool createdNew = false;
        m_lss = CreateOrOpenLSS(m_path.c_str(), nullptr, createdNew, OM_CREATE_ALWAYS, settings);
        m_high = m_lss->AllocateSeidHigh();
    }
    BenchStore(const BenchStore&) = delete;
    BenchStore& operator=(const BenchStore&) = delete;
    ~BenchStore() {
        m_lss->Close();
        std::filesystem::remove(m_path);
    }

    static LssSettings Settings() { return {}; }

    ILogStructuredStore& operator*() const { return *m_lss; }
    ILogStructuredStore* operator->() const { return m_lss; }
    SeidHigh High() const { return m_high; }
    const std::string& Path() const { return m_path; }

    // Writes `n` new elements of `bytes` bytes in transactions of 1,000.
    std::vector<Seid> Fill(ssize_t n, ssize_t bytes) {
        const std::vector<octet_t> content(static_cast<size_t>(bytes), octet_t{7});
        std::vector<Seid> seids;
        for (ssize_t i = 0; i < n;) {
            AutoCloser<ILssTransaction> txn(m_lss->OpenTransaction());
            for (ssize_t k = 0; k < 1000 && i < n; ++k, ++i) {
                seids.push_back(m_lss->AllocateSeid(m_high));
                Write(*txn, seids.back(), content.data(), bytes);
            }
            txn.Close();
        }
        return seids;
    }

    static void Write(ILssTransaction& txn, Seid seid, const void* p, ssize_t n) {
        ICloseableOutputStream* const os = txn.WriteSerialElement(seid);
        os->WriteStream(p, n);
        os->Close();
    }

private:
    const std::string m_path;
    ILogStructuredStore* m_lss = nullptr;
    SeidHigh m_high = 0;
};

} // namespace quna
