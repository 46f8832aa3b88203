// qxstore: looks into a store file without the classes of the application that wrote it. docs/qxstore.md shows it at work.
#include "qxLss/CorruptLSSException.h"
#include "qxUtils/Exceptions.h"
#include "tools/qxstore/CommandLine.h"

#include <cstdio>
#include <exception>
#include <string>

namespace quna::qxstore {

namespace {

int Fail(const CommandLine& line, EExit exitCode, const std::string& text) {
    std::fflush(stdout);
    std::fprintf(stderr, "qxstore: %s.\n", text.c_str());
    if (line.options.json) std::fputs(ErrorToJson(line.name, line.options.store, text, exitCode).c_str(), stdout);
    return exitCode;
}

int Run(const CommandLine& line) {
    try {
        return line.command(line.options);
    } catch (const ToolError& e) {
        return Fail(line, e.ExitCode(), e.what());
    } catch (const FileException& e) {
        return Fail(line, EXIT_NO_OPEN, std::string(e.what()) + "; check the disk and the permissions");
    } catch (const CorruptLSSException& e) {
        return Fail(line, EXIT_DAMAGED, std::string(e.what()) + "; 'qxstore verify' says what else is damaged");
    } catch (const std::exception& e) {
        return Fail(line, EXIT_INTERNAL,
                    std::string("This is not foreseen: ") + e.what() + "; keep the store and this text for its makers");
    }
}

} // namespace

void Print(const Report& report, const Options& options) {
    const std::string text = options.json ? ToJson(report) : ToText(report);
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0)
        throw ToolError(EXIT_INTERNAL, "Can't write the output; see whether there is room for it");
}

} // namespace quna::qxstore

int main(int argc, char** argv) {
    const quna::qxstore::CommandLine line = quna::qxstore::ParseCommandLine(argc, argv);
    return line.command ? quna::qxstore::Run(line) : line.exitCode;
}
