#include "DpkgStatus.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <map>
#include <string_view>

namespace packagegraph {

namespace {

// A field's value without the lines that continue it, which are descriptions and lists of files.
using Fields = std::map<std::string, std::string, std::less<>>;

std::string_view Trimmed(std::string_view text) {
    const auto isBlank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    return text;
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
    std::vector<std::string_view> parts;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find(separator), text.size());
        if (const std::string_view part = Trimmed(text.substr(0, end)); !part.empty()) parts.push_back(part);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return parts;
}

// "libc6:any (>= 2.34)" asks for libc6.
std::string NameOnly(std::string_view relation) {
    return std::string(Trimmed(relation.substr(0, std::min(relation.find_first_of(":(["), relation.size()))));
}

std::string_view ValueOf(const Fields& fields, std::string_view key) {
    const auto i = fields.find(key);
    return i == fields.end() ? std::string_view() : std::string_view(i->second);
}

bool IsInstalled(const Fields& fields) {
    const std::vector<std::string_view> status = Split(ValueOf(fields, "Status"), ' ');
    return status.size() == 3 && status[2] == "installed";
}

class Reader {
public:
    explicit Reader(const std::string& path) : m_path(path), m_file(path) {
        if (!m_file) throw DpkgStatusError("Cannot open the package database '" + path + "': " + std::strerror(errno));
    }

    std::vector<DpkgEntry> ReadAll() {
        std::string line;
        while (std::getline(m_file, line)) {
            ++m_lineNumber;
            if (line.find('\0') != std::string::npos) Fail("a zero byte, so this is no text");
            if (Trimmed(line).empty())
                EndParagraph();
            else if (std::isspace(static_cast<unsigned char>(line.front())) == 0)
                AddField(line);
            else if (m_fields.empty())
                Fail("a continuation line before the first field");
        }
        if (m_file.bad()) Fail(std::string("reading failed: ") + std::strerror(errno));
        EndParagraph();
        if (m_entries.empty()) Fail("the end of the file, without a single installed package");
        return std::move(m_entries);
    }

private:
    [[noreturn]] void Fail(const std::string& found) const {
        throw DpkgStatusError("The package database '" + m_path + "' is damaged: line " + std::to_string(m_lineNumber) +
                              ": " + found);
    }

    void AddField(std::string_view line) {
        const std::size_t colon = line.find(':');
        if (colon == 0 || colon == std::string_view::npos)
            Fail("expected 'Field: value', found '" + std::string(line.substr(0, 40)) + "'");
        const auto [i, inserted] = m_fields.emplace(line.substr(0, colon), Trimmed(line.substr(colon + 1)));
        if (!inserted) Fail("a second field '" + i->first + "' in one entry");
    }

    void EndParagraph() {
        const Fields fields = std::move(m_fields);
        m_fields.clear();
        if (fields.empty()) return;
        if (ValueOf(fields, "Package").empty()) Fail("the end of an entry without a field 'Package'");
        if (!IsInstalled(fields)) return;
        if (ValueOf(fields, "Version").empty())
            Fail("the end of the entry '" + fields.at("Package") + "' without a field 'Version'");
        m_entries.push_back(MakeEntry(fields));
    }

    DpkgEntry MakeEntry(const Fields& fields) const {
        DpkgEntry entry;
        entry.name = ValueOf(fields, "Package");
        entry.version = ValueOf(fields, "Version");
        entry.section = ValueOf(fields, "Section");
        entry.summary = ValueOf(fields, "Description");
        entry.installedKiB = ReadNumber(ValueOf(fields, "Installed-Size"));
        for (const std::string_view key : {"Pre-Depends", "Depends"}) {
            for (const std::string_view relation : Split(ValueOf(fields, key), ',')) {
                DpkgEntry::Alternatives& alternatives = entry.dependsOn.emplace_back();
                for (const std::string_view name : Split(relation, '|')) alternatives.push_back(NameOnly(name));
            }
        }
        for (const std::string_view name : Split(ValueOf(fields, "Provides"), ','))
            entry.provides.push_back(NameOnly(name));
        return entry;
    }

    // Not every package states its size.
    std::int64_t ReadNumber(std::string_view text) const {
        std::int64_t number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (!text.empty() && (error != std::errc() || end != text.data() + text.size()))
            Fail("expected a size, found '" + std::string(text) + "'");
        return number;
    }

    const std::string m_path;
    std::ifstream m_file;
    long m_lineNumber = 0;
    Fields m_fields; // of the entry being read
    std::vector<DpkgEntry> m_entries;
};

} // namespace

std::vector<DpkgEntry> ReadDpkgStatus(const std::string& path) { return Reader(path).ReadAll(); }

} // namespace packagegraph
