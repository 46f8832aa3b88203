// A table of system calls that makes the real ones, for tests that do something before those that change files.
#pragma once

#include "qxLss/src/SysCalls.h"

#include <string>
#include <vector>

#include <fcntl.h>

namespace quna {

class ForwardingSys : public SysCalls {
public:
    int Open(const char* path, int flags, int mode) override {
        if (flags & O_CREAT) BeforeChange();
        return m_real.Open(path, flags, mode);
    }
    ssize_t Read(int fd, void* p, size_t n, off_t at) override { return m_real.Read(fd, p, n, at); }
    ssize_t Write(int fd, const void* p, size_t n, off_t at) override {
        BeforeChange();
        return m_real.Write(fd, p, n, at);
    }
    ssize_t WriteDurable(int fd, const void* p, size_t n, off_t at) override {
        BeforeChange();
        return m_real.WriteDurable(fd, p, n, at);
    }
    int SyncData(int fd) override {
        BeforeChange();
        return m_real.SyncData(fd);
    }
    int SyncDir(const char* path) override {
        BeforeChange();
        return m_real.SyncDir(path);
    }
    int WriteBack(int fd, off_t at, off_t n) override { return m_real.WriteBack(fd, at, n); }
    int Allocate(int fd, off_t at, off_t n) override {
        BeforeChange();
        return m_real.Allocate(fd, at, n);
    }
    int Truncate(int fd, off_t n) override {
        BeforeChange();
        return m_real.Truncate(fd, n);
    }
    int PunchHole(int fd, off_t at, off_t n) override {
        BeforeChange();
        return m_real.PunchHole(fd, at, n);
    }
    int64 Size(int fd) override { return m_real.Size(fd); }
    int Rename(const char* from, const char* to) override {
        BeforeChange();
        return m_real.Rename(from, to);
    }
    int RenameNoReplace(const char* from, const char* to) override {
        BeforeChange();
        return m_real.RenameNoReplace(from, to);
    }
    int Remove(const char* path) override {
        BeforeChange();
        return m_real.Remove(path);
    }
    int MakeDirectory(const char* path) override {
        BeforeChange();
        return m_real.MakeDirectory(path);
    }
    int ListDirectory(const char* path, std::vector<std::string>& names) override {
        return m_real.ListDirectory(path, names);
    }
    int Lock(int fd, bool exclusive) override { return m_real.Lock(fd, exclusive); }
    int NamesFile(const char* path, int fd) override { return m_real.NamesFile(path, fd); }
    int DropCache(int fd, off_t at, off_t n) override { return m_real.DropCache(fd, at, n); }
    int Map(int fd, size_t n, const octet_t*& base) override { return m_real.Map(fd, n, base); }
    int Unmap(const octet_t* base, size_t n) override { return m_real.Unmap(base, n); }
    int Load(int fd, const octet_t* base, off_t at, size_t n) override { return m_real.Load(fd, base, at, n); }
    int Close(int fd) override { return m_real.Close(fd); }
    int64 MonotonicNanos() override { return m_real.MonotonicNanos(); }
    uint64 WallClock100ns() override { return m_real.WallClock100ns(); }
    int RandomBytes(void* p, size_t n) override { return m_real.RandomBytes(p, n); }

private:
    // At the entry of each call that may change a file or make a change durable.
    virtual void BeforeChange() = 0;

    SysCalls& m_real = RealSysCalls();
};

} // namespace quna
