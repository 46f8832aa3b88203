// The real system calls: how their errors come back, and what stands in for a call that the kernel does not have.
#include "qxLss/src/SysCalls.h"

#include "tests/support/TempDir.h"

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace quna {
namespace {

constexpr size_t MAPPED = 1 << 20;

// A file of `bytes` bytes.
class SysCallsTest : public testing::Test {
protected:
    explicit SysCallsTest(size_t bytes = 5000) : m_path(m_dir.File("f")) {
        m_fd = m_sys.Open(m_path.c_str(), O_RDWR | O_CREAT, 0666);
        const std::vector<octet_t> content(bytes, octet_t{'x'});
        EXPECT_EQ(m_sys.Write(m_fd, content.data(), bytes, 0), static_cast<ssize_t>(bytes));
    }
    ~SysCallsTest() override { m_sys.Close(m_fd); }

    SysCalls& m_sys = RealSysCalls();
    TempDir m_dir;
    const std::string m_path;
    int m_fd = -1;
};

TEST_F(SysCallsTest, AnErrorIsItsNumberWithAMinus) {
    octet_t byte = 0;
    const octet_t* base = nullptr;
    std::vector<std::string> names;
    EXPECT_EQ(m_sys.Open(m_dir.File("none").c_str(), O_RDWR, 0), -ENOENT);
    EXPECT_EQ(m_sys.Read(-1, &byte, 1, 0), -EBADF);
    EXPECT_EQ(m_sys.Write(-1, &byte, 1, 0), -EBADF);
    EXPECT_EQ(m_sys.WriteDurable(-1, &byte, 1, 0), -EBADF);
    EXPECT_EQ(m_sys.SyncData(-1), -EBADF);
    EXPECT_EQ(m_sys.SyncDir(m_dir.File("none").c_str()), -ENOENT);
    EXPECT_EQ(m_sys.Size(-1), -EBADF);
    EXPECT_EQ(m_sys.Map(-1, MAPPED, base), -EBADF);
    EXPECT_EQ(m_sys.Unmap(reinterpret_cast<const octet_t*>(1), 1), -EINVAL);
    EXPECT_EQ(m_sys.ListDirectory(m_dir.File("none").c_str(), names), -ENOENT);
    EXPECT_EQ(m_sys.RandomBytes(nullptr, 16), -EFAULT);
    EXPECT_EQ(m_sys.Close(-1), -EBADF);
}

TEST_F(SysCallsTest, ANameMeansAFileOnlyIfItIsTheSameOneOnTheSameDisk) {
    EXPECT_EQ(m_sys.NamesFile(m_path.c_str(), m_fd), 1);
    EXPECT_EQ(m_sys.NamesFile(m_dir.File("none").c_str(), m_fd), 0);
    EXPECT_EQ(m_sys.NamesFile((m_path + "/below").c_str(), m_fd), -ENOTDIR);
    EXPECT_EQ(m_sys.NamesFile(m_path.c_str(), -1), -EBADF);
    const int elsewhere = ::memfd_create("elsewhere", MFD_CLOEXEC);
    ASSERT_GE(elsewhere, 0);
    EXPECT_EQ(m_sys.NamesFile(m_path.c_str(), elsewhere), 0);
    m_sys.Close(elsewhere);
}

TEST_F(SysCallsTest, LoadingWhatLiesBehindTheEndOfTheFileIsAnError) {
    const octet_t* base = nullptr;
    ASSERT_EQ(m_sys.Map(m_fd, MAPPED, base), 0);
    EXPECT_EQ(m_sys.Load(m_fd, base, 0, 8192), 0); // the last page is cut by the end
    EXPECT_EQ(base[4999], 'x');
    EXPECT_LT(m_sys.Load(m_fd, base, 65536, 4096), 0);
    EXPECT_EQ(m_sys.Unmap(base, MAPPED), 0);
}

// An address that is no page's is refused as an advice that the kernel does not know. That is remembered, so it happens in a
// process of its own.
TEST_F(SysCallsTest, WhereTheKernelCannotPopulateAMappingTheFileIsReadInstead) {
    const octet_t* base = nullptr;
    ASSERT_EQ(m_sys.Map(m_fd, MAPPED, base), 0);
    const auto load = [&] {
        bool good = m_sys.Load(m_fd, base + 1, 0, 5000) == 0;
        good = good && m_sys.Load(m_fd, base, 0, 40000) == 0; // up to the end of the file
        good = good && m_sys.Load(m_fd, base, 0, 5000) == 0;
        good = good && m_sys.Load(-1, base, 0, 5000) == -EBADF;
        std::exit(good ? 0 : 1);
    };
    EXPECT_EXIT(load(), testing::ExitedWithCode(0), "");
    EXPECT_EQ(m_sys.Unmap(base, MAPPED), 0);
}

} // namespace
} // namespace quna
