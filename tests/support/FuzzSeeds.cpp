// Writes first inputs for the fuzz targets that read the file of a store: fuzz_seeds FOLDER makes FOLDER/NAME/... from the
// valid stores that the targets know.
#include "tests/support/FuzzStore.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace quna {
namespace {

using Path = std::filesystem::path;

void Write(const Path& folder, const std::string& name, const std::vector<octet_t>& bytes) {
    std::filesystem::create_directories(folder);
    std::ofstream file(folder / name, std::ios::binary);
    file.write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
}

void WriteAll(const Path& folder) {
    constexpr octet_t USES[] = {0x00, 0x03, 0x7C, 0x38};
    int number = 0;
    for (const FileBytes& file : FuzzBaseStores()) {
        for (const octet_t use : USES) {
            std::vector<octet_t> input = EncodeSparseFile(file);
            input.insert(input.begin(), use);
            const std::string name = "store" + std::to_string(number) + "-" + std::to_string(use);
            Write(folder / "OpenRawFuzz", name, input);
            Write(folder / "OpenFixedFuzz", name, input);
            // No edit, a checksum made right, some operations.
            Write(folder / "OpenOpsFuzz", name,
                  {static_cast<octet_t>(number), use, 1, 0x00, 0x31, 0x2A, 0x37, 0x04, 0x51, 0x02, 0x05});
        }
        ++number;
    }
}

} // namespace
} // namespace quna

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    quna::WriteAll(argv[1]);
    return 0;
}
