// Runs qxstore on a file as a user does, and makes the files for it.
#pragma once

#include "tests/support/TempDir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>
#include <sys/wait.h>

namespace quna {

struct ToolResult {
    int status = -1;
    std::string out;
    std::string err;
};

inline std::string ContentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

// In a folder of its own, in which the commands run, so that no path of this machine stands in their output.
class ToolTest : public ::testing::Test {
protected:
    std::string Path(const std::string& name) const { return m_dir.File(name); }

    ToolResult Run(const std::string& program, const std::string& arguments) const {
        const std::string out = Path("out.txt");
        const std::string err = Path("err.txt");
        const std::string command =
            "cd '" + m_dir.Path().string() + "' && '" + program + "' " + arguments + " >out.txt 2>err.txt";
        const int status = std::system(command.c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ContentOf(out), ContentOf(err)};
    }
    ToolResult Qxstore(const std::string& arguments) const { return Run(QXSTORE_PROGRAM, arguments); }

    // "packages.store": what the package graph example makes of its sample database.
    void ImportPackages() const {
        std::filesystem::copy_file(PACKAGE_DATABASE, Path("sample"));
        const ToolResult result = Run(PACKAGEGRAPH_PROGRAM, "import packages.store sample");
        ASSERT_EQ(result.status, 0) << result.err;
    }

    // The command ends with this status and says `text` on standard error; the file is as before.
    void ExpectRefusal(const std::string& arguments, const std::string& file, int status,
                       const std::string& text) const {
        const std::string before = ContentOf(Path(file));
        const ToolResult result = Qxstore(arguments);
        EXPECT_EQ(result.status, status) << arguments << "\n" << result.out << result.err;
        EXPECT_EQ(result.err, "qxstore: " + text + "\n") << arguments;
        EXPECT_EQ(ContentOf(Path(file)), before) << arguments;
    }

    TempDir m_dir;
};

} // namespace quna
