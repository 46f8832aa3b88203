#include "tools/qxstore/Commands.h"
#include "tools/qxstore/DecodedRecord.h"
#include "tools/qxstore/Directory.h"
#include "tools/qxstore/OpenedStore.h"
#include "tools/qxstore/Units.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <optional>
#include <string_view>

namespace quna::qxstore {

namespace {

// 1 to 8 hexadecimal digits and nothing else.
bool ParseHalf(std::string_view text, uint32& half) {
    if (text.empty() || text.size() > 8) return false;
    const std::from_chars_result end = std::from_chars(text.data(), text.data() + text.size(), half, 16);
    return end.ec == std::errc() && end.ptr == text.data() + text.size();
}

std::optional<OID> ParseOid(std::string_view text) {
    const size_t colon = text.find(':');
    uint32 high = 0;
    uint32 low = 0;
    if (colon == std::string_view::npos || !ParseHalf(text.substr(0, colon), high) ||
        !ParseHalf(text.substr(colon + 1), low))
        return std::nullopt;
    return OID(low, high);
}

void FindRoots(const Space& space, const std::string& name, std::vector<OID>& found) {
    for (const NamedOid& root : space.roots.roots) {
        if (root.name == name) found.push_back(root.oid);
    }
}

// Both names may have slashes in them, so that each is tried.
void FindRootsWithSpace(const Directory& directory, const std::string& path, std::vector<OID>& found) {
    for (const Space& space : directory.Spaces()) {
        if (path.size() > space.name.size() && path.compare(0, space.name.size(), space.name) == 0 &&
            path[space.name.size()] == '/')
            FindRoots(space, path.substr(space.name.size() + 1), found);
    }
}

// A name goes before an OID that is spelled like it only with --space.
OID FindObject(const Directory& directory, const Options& options) {
    if (options.space.empty()) {
        if (const std::optional<OID> oid = ParseOid(options.object)) return *oid;
    }
    std::vector<OID> found;
    if (!options.space.empty()) {
        FindRoots(directory.SpaceNamed(options.space), options.object, found);
    } else {
        for (const Space& space : directory.Spaces()) FindRoots(space, options.object, found);
        if (found.empty()) FindRootsWithSpace(directory, options.object, found);
    }
    if (found.size() == 1) return found[0];
    if (found.empty())
        throw ToolError(EXIT_NOT_FOUND, "The store '" + options.store + "' has no root '" + options.object +
                                            "'; 'qxstore roots' lists those that it has, an OID is spelled 1:2a");
    throw ToolError(EXIT_NOT_FOUND, "The store '" + options.store + "' has " + std::to_string(found.size()) +
                                        " roots '" + options.object + "'; say which with --space");
}

void AddHex(const ReadOnlyBuffer& record, int64 maxBytes, Report& report) {
    const int64 shown = maxBytes ? std::min<int64>(maxBytes, record.size) : record.size;
    report.hasBytes = true;
    report.bytes.assign(reinterpret_cast<const char*>(record.buffer), static_cast<size_t>(shown));
    if (shown < record.size) {
        report.Add("bytesNotShown", "bytes not shown", Bytes(record.size - shown));
        report.conclusion = Counted(record.size - shown, "byte more", "bytes more") + "; --bytes 0 shows all";
    }
}

} // namespace

EExit RunDump(const Options& options) {
    OpenedStore store(options.store);
    const Directory directory(store, [](const std::string&) {}); // of a damaged store each record can be looked at
    const OID oid = FindObject(directory, options);
    Report report("dump", options.store);
    report.Add("oid", "element", Text(OidText(oid)));
    const bool exists = store.WithElement(oid, [&](const ReadOnlyBuffer& record) {
        if (options.raw) {
            std::fwrite(record.buffer, 1, static_cast<size_t>(record.size), stdout);
            return;
        }
        report.Add("bytes", "size", Bytes(record.size));
        AddDecoded(directory, oid, record, options.maxRows, report);
        AddHex(record, options.maxBytes, report);
    });
    if (!exists)
        throw ToolError(EXIT_NOT_FOUND, "The store '" + options.store + "' has no element " + OidText(oid) +
                                            "; 'qxstore roots' lists objects to begin with");
    if (!options.raw) Print(report, options);
    return EXIT_GOOD;
}

} // namespace quna::qxstore
