// The file that a command makes.
#pragma once

#include <initializer_list>
#include <string>

namespace quna::qxstore {

// Throws ToolError when `target` can't be made: it is one of the sources, it is no file, its folder is missing, or a file
// stands there and `force` is false. `sources` are files or folders.
void CheckTarget(const std::string& target, std::initializer_list<std::string> sources, bool force);

} // namespace quna::qxstore
