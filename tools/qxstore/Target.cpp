#include "tools/qxstore/Target.h"

#include "tools/qxstore/ToolError.h"

#include <filesystem>
#include <system_error>

namespace quna::qxstore {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void Refuse(const std::string& target, const std::string& why) {
    throw ToolError(EXIT_NO_TARGET, "Can't make the store '" + target + "': " + why);
}

} // namespace

void CheckTarget(const std::string& target, std::initializer_list<std::string> sources, bool force) {
    std::error_code error; // a failed question is none: making the file fails then, and says why
    for (const std::string& source : sources) {
        if (fs::equivalent(source, target, error)) Refuse(target, "it would be made of itself; name another file");
    }
    const fs::path folder = fs::path(target).parent_path();
    if (!folder.empty() && !fs::is_directory(folder, error))
        Refuse(target, "there is no folder '" + folder.string() + "'; make it, or name another file");
    if (!fs::exists(target, error)) return;
    if (!fs::is_regular_file(target, error)) Refuse(target, "what stands there is no file; name another one");
    if (!force) Refuse(target, "there is a file of that name; --force replaces it");
}

} // namespace quna::qxstore
