// Runs qxstore on files as a user does, and makes the files for it.
#pragma once

#include "tests/support/TempDir.h"
#include "tools/qxstore/Program.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

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

// In a folder of its own, which is the current one meanwhile: no path of this machine stands in an output.
class ToolTest : public ::testing::Test {
protected:
    ToolTest() : m_startFolder(std::filesystem::current_path()) { std::filesystem::current_path(m_dir.Path()); }
    ~ToolTest() override { std::filesystem::current_path(m_startFolder); }

    std::string Path(const std::string& name) const { return m_dir.File(name); }

    // A program in a process of its own.
    ToolResult Run(const std::string& program, const std::string& arguments) const {
        const int status = std::system(("'" + program + "' " + arguments + " >out.txt 2>err.txt").c_str());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ContentOf("out.txt"), ContentOf("err.txt")};
    }

    // Within this process: the arguments are parted by single spaces.
    ToolResult Qxstore(const std::string& arguments) const {
        std::vector<std::string> words = {"qxstore"};
        std::istringstream in(arguments);
        for (std::string word; std::getline(in, word, ' ');) words.push_back(word);
        std::vector<const char*> argv;
        for (const std::string& word : words) argv.push_back(word.c_str());
        std::ostringstream out;
        std::ostringstream err;
        qxstore::Console console{out, err};
        const int status = qxstore::RunProgram(static_cast<int>(argv.size()), argv.data(), console);
        return {status, out.str(), err.str()};
    }

    // "packages.store": what the package graph example makes of its sample database, for the first test that asks.
    void ImportPackages() const {
        static const std::string content = MakePackages();
        WriteFile("packages.store", content);
    }

    // The command ends with this status and says `text` on standard error; the file is as before.
    void ExpectRefusal(const std::string& arguments, const std::string& file, int status,
                       const std::string& text) const {
        const std::string before = ContentOf(file);
        const ToolResult result = Qxstore(arguments);
        EXPECT_EQ(result.status, status) << arguments << "\n" << result.out << result.err;
        EXPECT_EQ(result.err, "qxstore: " + text + "\n") << arguments;
        EXPECT_EQ(ContentOf(file), before) << arguments;
    }

private:
    std::string MakePackages() const {
        std::filesystem::copy_file(PACKAGE_DATABASE, "sample");
        const ToolResult result = Run(PACKAGEGRAPH_PROGRAM, "import packages.store sample");
        EXPECT_EQ(result.status, 0) << result.err;
        return ContentOf("packages.store");
    }

    TempDir m_dir;
    const std::filesystem::path m_startFolder;
};

} // namespace quna
