#include "tools/qxstore/Program.h"

#include "qxLss/CorruptLSSException.h"
#include "qxUtils/Exceptions.h"
#include "tools/qxstore/CommandLine.h"

#include <exception>
#include <string>

namespace quna::qxstore {

namespace {

int Fail(const CommandLine& line, EExit exitCode, const std::string& text, Console& console) {
    console.out.flush();
    console.err << "qxstore: " << text << ".\n";
    if (line.options.json) console.out << ErrorToJson(line.name, line.options.store, text, exitCode) << std::flush;
    return exitCode;
}

} // namespace

int RunProgram(int argc, const char* const* argv, Console& console) {
    const CommandLine line = ParseCommandLine(argc, argv, console);
    if (!line.command) return line.exitCode;
    if (line.options.quiet) console.showsProgress = false;
    const auto fail = [&](EExit exitCode, const std::string& text) { return Fail(line, exitCode, text, console); };
    try {
        return line.command(line.options, console);
    } catch (const ToolError& e) {
        return fail(e.ExitCode(), e.what());
    } catch (const FileException& e) {
        return fail(EXIT_NO_OPEN, std::string(e.what()) + "; check the disk and the permissions");
    } catch (const CorruptLSSException& e) {
        return fail(EXIT_DAMAGED, WithoutAdvice(e.what()) + "; 'qxstore verify' says what else is damaged");
    } catch (const std::exception& e) {
        return fail(EXIT_INTERNAL,
                    std::string("This is not foreseen: ") + e.what() + "; keep the store and this text for its makers");
    }
}

void Print(const Report& report, const Options& options, Console& console) {
    WriteOut(options.json ? ToJson(report) : ToText(report), console);
}

void WriteOut(std::string_view bytes, Console& console) {
    console.out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!console.out.flush())
        throw ToolError(EXIT_INTERNAL, "Can't write the output; see whether there is room for it");
}

} // namespace quna::qxstore
