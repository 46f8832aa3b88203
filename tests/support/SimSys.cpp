#include "tests/support/SimSys.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <utility>

#include <fcntl.h>

namespace quna {
namespace {

using EKind = SimCall::EKind;

constexpr uint64 FIRST_WALL_CLOCK = 16'000'000'000'000'000; // September 2020

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

} // namespace

SimSys::SimSys(const DiskImage& image, ESimMemory kind) : SimSys(kind, BlocksOf(image)) {}

SimSys::SimSys(ESimMemory kind, SimImage image) : m_initial(std::move(image)), m_kind(kind) {
    for (const auto& [name, content] : m_initial) m_names[name] = NewFile(content);
}

// --- disturbing and looking

void SimSys::FailCall(ESimCall kind, int64 n, int error, bool forever) {
    const std::lock_guard lock(m_mutex);
    m_faults[static_cast<size_t>(kind)] = {m_calls[static_cast<size_t>(kind)] + n, error, forever};
}

void SimSys::Disturb(uint64 seed, int oneIn) {
    const std::lock_guard lock(m_mutex);
    m_random.seed(seed);
    m_oneIn = oneIn;
}

void SimSys::FailIn(const std::string& directory, int error) {
    const std::lock_guard lock(m_mutex);
    m_failingDirectory = directory;
    m_directoryError = error;
}

void SimSys::Heal() {
    const std::lock_guard lock(m_mutex);
    m_faults = {};
    m_directoryError = 0;
    m_oneIn = 0;
}

int64 SimSys::NumCalls(ESimCall kind) const {
    const std::lock_guard lock(m_mutex);
    return m_calls[static_cast<size_t>(kind)];
}

int64 SimSys::NumFailures() const {
    const std::lock_guard lock(m_mutex);
    return m_failures;
}

ssize_t SimSys::NumRecorded() const {
    const std::lock_guard lock(m_mutex);
    return std::ssize(m_record);
}

std::vector<SimCall> SimSys::Record() const {
    const std::lock_guard lock(m_mutex);
    return m_record;
}

std::vector<SimCall> SimSys::TakeRecord() {
    const std::lock_guard lock(m_mutex);
    m_recording = false;
    return std::exchange(m_record, {});
}

DiskImage SimSys::CachedImage() const {
    const std::lock_guard lock(m_mutex);
    DiskImage image;
    for (const auto& [name, file] : m_names) {
        const Inode& inode = m_files[static_cast<size_t>(file)];
        FileBytes bytes(static_cast<size_t>(inode.memory->Size()));
        if (inode.memory->Read(bytes.data(), bytes.size(), 0) != inode.memory->Size())
            throw std::runtime_error("SimSys: a file is shorter than its size");
        image[name] = std::move(bytes);
    }
    return image;
}

void SimSys::StopRecording() {
    const std::lock_guard lock(m_mutex);
    m_recording = false;
    m_record.clear();
}

ssize_t SimSys::NumOpen() const {
    const std::lock_guard lock(m_mutex);
    return std::ssize(m_open);
}

int64 SimSys::NumAllCalls() const {
    const std::lock_guard lock(m_mutex);
    int64 sum = 0;
    for (const int64 n : m_calls) sum += n;
    return sum;
}

void SimSys::TrackReads() {
    const std::lock_guard lock(m_mutex);
    m_trackingReads = true;
    m_reads.clear();
}

std::vector<std::pair<int64, int64>> SimSys::TakeReads() {
    const std::lock_guard lock(m_mutex);
    m_trackingReads = false;
    return std::exchange(m_reads, {});
}

// --- behind the store's back

SimSys::Inode& SimSys::FileNamed(const std::string& name) { return m_files[static_cast<size_t>(m_names.at(name))]; }

const SimSys::Inode& SimSys::FileNamed(const std::string& name) const {
    return m_files[static_cast<size_t>(m_names.at(name))];
}

void SimSys::Poke(const std::string& name, int64 at, const octet_t* bytes, size_t n) {
    const std::lock_guard lock(m_mutex);
    Inode& inode = FileNamed(name);
    if (at + static_cast<int64>(n) > inode.memory->Size())
        throw std::logic_error("SimSys: Poke beyond the end of the file");
    inode.memory->Write(bytes, static_cast<ssize_t>(n), at);
}

void SimSys::PokeSize(const std::string& name, int64 size) {
    const std::lock_guard lock(m_mutex);
    FileNamed(name).memory->Resize(size);
}

FileBytes SimSys::Peek(const std::string& name, int64 at, size_t n) const {
    const std::lock_guard lock(m_mutex);
    FileBytes bytes(n);
    if (FileNamed(name).memory->Read(bytes.data(), n, at) != static_cast<ssize_t>(n))
        throw std::logic_error("SimSys: Peek beyond the end of the file");
    return bytes;
}

int64 SimSys::SizeOf(const std::string& name) const {
    const std::lock_guard lock(m_mutex);
    return FileNamed(name).memory->Size();
}

std::vector<SimCall> SimSys::RestartRecord() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_record, {});
}

// --- helpers

// Counts the call; 0, or the error with which it is to end before it does anything.
int SimSys::Begin(ESimCall kind) {
    const int64 number = ++m_calls[static_cast<size_t>(kind)];
    const Fault& fault = m_faults[static_cast<size_t>(kind)];
    if (fault.at != 0 && (number == fault.at || (fault.forever && number > fault.at))) {
        ++m_failures;
        return -fault.error;
    }
    const bool canBeInterrupted =
        kind != ESimCall::DROP_CACHE && kind != ESimCall::MAP && kind != ESimCall::SIZE && kind != ESimCall::WRITE_BACK;
    if (m_oneIn != 0 && canBeInterrupted && m_random() % static_cast<uint64>(m_oneIn) == 0) return -EINTR;
    return 0;
}

int SimSys::BeginChange(ESimCall kind, const std::string& path) {
    if (const int error = Begin(kind)) return error;
    if (m_directoryError == 0 || DirectoryOf(path) != m_failingDirectory) return 0;
    ++m_failures;
    return -m_directoryError;
}

int SimSys::BeginChange(ESimCall kind, int fd) {
    const Descriptor* const descriptor = Find(fd);
    return BeginChange(kind, descriptor ? descriptor->path : std::string());
}

size_t SimSys::Shortened(size_t n) {
    if (m_oneIn == 0 || n < 2 || m_random() % static_cast<uint64>(m_oneIn) != 0) return n;
    return 1 + m_random() % (n - 1);
}

SimSys::Descriptor* SimSys::Find(int fd) {
    const auto found = m_open.find(fd);
    return found == m_open.end() ? nullptr : &found->second;
}

SimSys::Inode& SimSys::FileOf(int fd) {
    Descriptor* descriptor = Find(fd);
    if (!descriptor) throw std::logic_error("SimSys: call with a descriptor that is not open");
    return m_files[static_cast<size_t>(descriptor->file)];
}

int SimSys::NewFile(const SimBlocks& content) {
    Inode inode;
    inode.memory = std::make_unique<SimMemory>(m_kind, content);
    m_files.push_back(std::move(inode));
    return static_cast<int>(m_files.size()) - 1;
}

void SimSys::Note(SimCall call) {
    if (m_recording) m_record.push_back(std::move(call));
}

// Requires: everything was recorded.
SimDisk SimSys::Disk() const {
    SimDisk disk(m_initial);
    for (const SimCall& call : m_record) disk.Apply(call);
    return disk;
}

// --- the calls

int SimSys::Open(const char* path, int flags, int) {
    const std::lock_guard lock(m_mutex);
    if (const int error = flags & O_CREAT ? BeginChange(ESimCall::OPEN, path) : Begin(ESimCall::OPEN)) return error;
    auto name = m_names.find(path);
    if (name == m_names.end()) {
        if (!(flags & O_CREAT)) return -ENOENT;
        const int file = NewFile(SimBlocks());
        name = m_names.emplace(path, file).first;
        Note({.kind = EKind::CREATE, .file = file, .data = {}, .name = path, .name2 = {}});
    }
    m_open[m_nextDescriptor] = {name->second, (flags & O_ACCMODE) != O_RDONLY, path};
    return m_nextDescriptor++;
}

ssize_t SimSys::Read(int fd, void* p, size_t n, off_t at) {
    const std::lock_guard lock(m_mutex);
    if (const int error = Begin(ESimCall::READ)) return error;
    if (m_trackingReads) m_reads.emplace_back(at, static_cast<int64>(n));
    return FileOf(fd).memory->Read(p, Shortened(n), at);
}

ssize_t SimSys::WriteTo(int fd, const void* p, size_t n, off_t at, EKind kind, ESimCall call) {
    const std::lock_guard lock(m_mutex);
    if (const int error = BeginChange(call, fd)) return error;
    Inode& inode = FileOf(fd);
    if (!Find(fd)->writable) return -EBADF;
    n = Shortened(n);
    inode.memory->Write(p, static_cast<ssize_t>(n), at);
    const octet_t* bytes = static_cast<const octet_t*>(p);
    Note({.kind = kind,
          .file = Find(fd)->file,
          .offset = at,
          .data = FileBytes(bytes, bytes + n),
          .name = {},
          .name2 = {}});
    return static_cast<ssize_t>(n);
}

ssize_t SimSys::Write(int fd, const void* p, size_t n, off_t at) {
    return WriteTo(fd, p, n, at, EKind::WRITE, ESimCall::WRITE);
}

ssize_t SimSys::WriteDurable(int fd, const void* p, size_t n, off_t at) {
    return WriteTo(fd, p, n, at, EKind::WRITE_DURABLE, ESimCall::WRITE_DURABLE);
}

int SimSys::SyncData(int fd) {
    const std::lock_guard lock(m_mutex);
    const int error = BeginChange(ESimCall::SYNC, fd);
    Inode& inode = FileOf(fd);
    const bool lost = error != 0 && error != -EINTR;
    if (lost) inode.lostWrites = true;
    if (error == 0 || lost)
        Note({.kind = lost ? EKind::FAILED_SYNC : EKind::SYNC,
              .file = Find(fd)->file,
              .data = {},
              .name = {},
              .name2 = {}});
    return error;
}

int SimSys::SyncDir(const char* path) {
    const std::lock_guard lock(m_mutex);
    if (const int error = BeginChange(ESimCall::SYNC_DIR, std::string(path) + "/")) return error;
    if (!HasDirectory(path)) return -ENOENT;
    Note({.kind = EKind::SYNC_DIR, .data = {}, .name = path, .name2 = {}});
    return 0;
}

int SimSys::WriteBack(int, off_t, off_t) {
    const std::lock_guard lock(m_mutex);
    return Begin(ESimCall::WRITE_BACK);
}

int SimSys::Allocate(int fd, off_t at, off_t n) {
    const std::lock_guard lock(m_mutex);
    if (const int error = BeginChange(ESimCall::ALLOCATE, fd)) return error;
    Inode& inode = FileOf(fd);
    if (!Find(fd)->writable) return -EBADF;
    if (at + n > inode.memory->Size()) inode.memory->Resize(at + n);
    Note({.kind = EKind::ALLOCATE,
          .file = Find(fd)->file,
          .offset = at,
          .size = n,
          .data = {},
          .name = {},
          .name2 = {}});
    return 0;
}

int SimSys::Truncate(int fd, off_t n) {
    const std::lock_guard lock(m_mutex);
    if (const int error = BeginChange(ESimCall::TRUNCATE, fd)) return error;
    if (!Find(fd)->writable) return -EBADF;
    FileOf(fd).memory->Resize(n);
    Note({.kind = EKind::TRUNCATE, .file = Find(fd)->file, .size = n, .data = {}, .name = {}, .name2 = {}});
    return 0;
}

int SimSys::PunchHole(int fd, off_t at, off_t n) {
    const std::lock_guard lock(m_mutex);
    if (const int error = BeginChange(ESimCall::PUNCH, fd)) return error;
    Inode& inode = FileOf(fd);
    if (!Find(fd)->writable) return -EBADF;
    inode.memory->Zero(at, n);
    Note({.kind = EKind::PUNCH, .file = Find(fd)->file, .offset = at, .size = n, .data = {}, .name = {}, .name2 = {}});
    return 0;
}

int64 SimSys::Size(int fd) {
    const std::lock_guard lock(m_mutex);
    if (const int error = Begin(ESimCall::SIZE)) return error;
    return FileOf(fd).memory->Size();
}

int SimSys::RenameTo(const char* from, const char* to, bool replace) {
    const std::lock_guard lock(m_mutex);
    if (const int error = BeginChange(ESimCall::RENAME, to)) return error;
    const auto name = m_names.find(from);
    if (name == m_names.end()) return -ENOENT;
    if (!replace && m_names.contains(to)) return -EEXIST;
    const int file = name->second;
    const auto replaced = m_names.find(to);
    const int gone = replaced == m_names.end() ? -1 : replaced->second;
    m_names.erase(name);
    m_names[to] = file;
    if (gone >= 0) ReleaseIfUnused(gone);
    Note({.kind = EKind::RENAME, .file = file, .data = {}, .name = from, .name2 = to});
    return 0;
}

int SimSys::Rename(const char* from, const char* to) { return RenameTo(from, to, true); }
int SimSys::RenameNoReplace(const char* from, const char* to) { return RenameTo(from, to, false); }

int SimSys::Remove(const char* path) {
    const std::lock_guard lock(m_mutex);
    if (const int error = BeginChange(ESimCall::REMOVE, path)) return error;
    const auto name = m_names.find(path);
    if (name == m_names.end()) return -ENOENT;
    const int file = name->second;
    m_names.erase(name);
    ReleaseIfUnused(file);
    Note({.kind = EKind::REMOVE, .data = {}, .name = path, .name2 = {}});
    return 0;
}

// A file without a name that nobody has open or mapped: gives its memory back.
void SimSys::ReleaseIfUnused(int file) {
    const auto isIt = [file](const auto& named) { return named.second == file; };
    const auto hasItOpen = [file](const auto& open) { return open.second.file == file; };
    if (std::none_of(m_names.begin(), m_names.end(), isIt) && std::none_of(m_open.begin(), m_open.end(), hasItOpen) &&
        std::none_of(m_mapped.begin(), m_mapped.end(), isIt))
        m_files[static_cast<size_t>(file)].memory.reset();
}

bool SimSys::HasDirectory(const std::string& path) const {
    return m_directories.contains(path) || std::any_of(m_names.begin(), m_names.end(), [&](const auto& name) {
               return DirectoryOf(name.first) == path;
           });
}

// Durable at once: what becomes of a directory in a crash is the file system's business, and no test's.
int SimSys::MakeDirectory(const char* path) {
    const std::lock_guard lock(m_mutex);
    if (const int error = BeginChange(ESimCall::MAKE_DIR, path)) return error;
    if (m_names.contains(path)) return -EEXIST;
    const bool exists = HasDirectory(path);
    if (!exists && !HasDirectory(DirectoryOf(path))) return -ENOENT;
    m_directories.insert(path); // also when the last file in it goes
    return exists ? -EEXIST : 0;
}

int SimSys::ListDirectory(const char* path, std::vector<std::string>& names) {
    const std::lock_guard lock(m_mutex);
    if (const int error = Begin(ESimCall::LIST_DIR)) return error;
    if (!HasDirectory(path)) return -ENOENT;
    names.clear();
    const size_t prefix = std::strlen(path) + 1;
    for (const auto& [name, file] : m_names)
        if (DirectoryOf(name) == path) names.push_back(name.substr(prefix));
    return 0;
}

int SimSys::Lock(int fd, bool exclusive) {
    const std::lock_guard lock(m_mutex);
    if (const int error = Begin(ESimCall::LOCK)) return error;
    Descriptor* self = Find(fd);
    if (!self) return -EBADF;
    for (const auto& [otherFd, other] : m_open)
        if (otherFd != fd && other.file == self->file && other.lock != 0 && (exclusive || other.lock == 2))
            return -EAGAIN;
    self->lock = exclusive ? 2 : 1;
    return 0;
}

int SimSys::NamesFile(const char* path, int fd) {
    const std::lock_guard lock(m_mutex);
    if (const int error = Begin(ESimCall::NAMES_FILE)) return error;
    const auto name = m_names.find(path);
    return name != m_names.end() && Find(fd) && name->second == Find(fd)->file ? 1 : 0;
}

// What a failed sync lost is gone from the cache too; everything else is the same on the disk, or dirty and stays.
int SimSys::DropCache(int fd, off_t at, off_t n) {
    const std::lock_guard lock(m_mutex);
    if (const int error = Begin(ESimCall::DROP_CACHE)) return error;
    Inode& inode = FileOf(fd);
    if (!inode.lostWrites) return 0;
    if (!m_recording) throw std::logic_error("SimSys: the content of the disk is known only while recording");
    const FileBytes bytes = Disk().Content(Find(fd)->file);
    const bool whole = at == 0 && n == 0;
    if (whole) {
        inode.memory->Resize(0);
        inode.memory->Resize(std::ssize(bytes));
    }
    const off_t end = n == 0 ? std::ssize(bytes) : std::min<off_t>(at + n, std::ssize(bytes));
    if (end > at) inode.memory->Write(bytes.data() + at, end - at, at);
    if (whole) inode.lostWrites = false;
    return 0;
}

int SimSys::Map(int fd, size_t n, const octet_t*& base) {
    const std::lock_guard lock(m_mutex);
    if (const int begin = Begin(ESimCall::MAP)) return begin;
    const int file = Find(fd)->file;
    const int error = m_files[static_cast<size_t>(file)].memory->Map(n, base);
    if (error == 0) m_mapped[base] = file;
    return error;
}

int SimSys::Unmap(const octet_t* base, size_t n) {
    const std::lock_guard lock(m_mutex);
    const auto mapped = m_mapped.find(base);
    if (mapped == m_mapped.end()) return -EINVAL;
    const int file = mapped->second;
    m_mapped.erase(mapped);
    const int error = m_files[static_cast<size_t>(file)].memory->Unmap(base, n);
    ReleaseIfUnused(file);
    return error;
}

int SimSys::Load(int fd, const octet_t*, off_t at, size_t n) {
    const std::lock_guard lock(m_mutex);
    if (const int error = Begin(ESimCall::LOAD)) return error;
    if (m_trackingReads) m_reads.emplace_back(at, static_cast<int64>(n));
    const int64 end = (FileOf(fd).memory->Size() + 4095) / 4096 * 4096;
    return at + static_cast<int64>(n) <= end ? 0 : -EFAULT;
}

int SimSys::Close(int fd) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_open.find(fd);
    if (found == m_open.end()) return -EBADF;
    const int file = found->second.file;
    m_open.erase(found);
    ReleaseIfUnused(file);
    return 0;
}

int64 SimSys::MonotonicNanos() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return int64{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

uint64 SimSys::WallClock100ns() {
    const std::lock_guard lock(m_mutex);
    return FIRST_WALL_CLOCK + m_wallClock++;
}

// Another process draws other numbers.
uint64 SimSys::IdentitySeed() const {
    uint64 sum = 1;
    for (const auto& [name, content] : m_initial)
        for (int64 at = 0; at < content.Size(); at += 61) {
            const SimBlocks::Ref& block = content.Blocks()[static_cast<size_t>(at / SimBlocks::BLOCK_BYTES)];
            sum = sum * 31 + (block ? block->bytes[at % SimBlocks::BLOCK_BYTES] : 0u);
        }
    return sum;
}

int SimSys::RandomBytes(void* p, size_t n) {
    const std::lock_guard lock(m_mutex);
    if (!m_identity) m_identity.emplace(IdentitySeed());
    for (size_t i = 0; i < n; ++i) static_cast<octet_t*>(p)[i] = static_cast<octet_t>((*m_identity)());
    return 0;
}

} // namespace quna
