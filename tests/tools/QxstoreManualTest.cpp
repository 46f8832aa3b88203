// What docs/qxstore.md shows is what the program prints.
#include "tests/tools/ToolRun.h"

#include <regex>

namespace quna {

namespace {

constexpr const char* PROMPT = "    $ qxstore ";

struct Example {
    std::string arguments;
    std::vector<std::string> lines; // up to "...", where there is one
};

std::string WithoutIndentation(const std::string& line) { return line.substr(std::min<size_t>(4, line.size())); }

// An example ends where a line is not indented, or begins the next one.
std::vector<Example> ReadExamples() {
    std::vector<Example> examples;
    std::ifstream manual(QXSTORE_MANUAL);
    bool isInside = false;
    for (std::string line; std::getline(manual, line);) {
        if (line.starts_with(PROMPT)) {
            examples.push_back({line.substr(std::string(PROMPT).size()), {}});
            isInside = true;
        } else if (!line.empty() && (!line.starts_with("    ") || line == "    ...")) {
            isInside = false;
        } else if (isInside) {
            examples.back().lines.push_back(WithoutIndentation(line));
        }
    }
    for (Example& example : examples) {
        while (!example.lines.empty() && example.lines.back().empty()) example.lines.pop_back();
    }
    return examples;
}

// The store's id and what depends on the timing of the background writer differ from run to run; so do, by some bytes, the
// sizes that the records of transactions add to.
std::string Masked(const std::string& line) {
    static const std::regex varying(
        "^(store id|newest checkpoint|transactions|last transaction|up to transaction|checkpoints|dead packets|live "
        "data|"
        "share of the file|packets|segments|written|size of the (store|copy)|log|index|free)( .*|$)");
    return std::regex_replace(line, varying, "$1");
}

TEST_F(ToolTest, TheManualShowsWhatTheProgramPrints) {
    int numCompared = 0;
    for (const Example& example : ReadExamples()) {
        if (example.arguments.starts_with("restore") || example.lines.empty() ||
            example.lines[0].starts_with("qxstore: "))
            continue; // needs more than the one store
        ImportPackages();
        std::istringstream out(Qxstore(example.arguments).out);
        std::string printed;
        for (const std::string& line : example.lines) {
            ASSERT_TRUE(std::getline(out, printed)) << example.arguments << ": " << line;
            EXPECT_EQ(Masked(printed), Masked(line)) << example.arguments;
            ++numCompared;
        }
    }
    EXPECT_GE(numCompared, 80);
}

} // namespace

} // namespace quna
