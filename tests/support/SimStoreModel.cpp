#include "tests/support/SimStoreModel.h"

#include <charconv>

namespace quna {
namespace {

// Appends numbers, each with a blank before it.
class Line {
public:
    Line(std::string& text, const char* head) : m_text(text) { m_text += head; }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    ~Line() { m_text += '\n'; }

    template <class Integer>
    Line& operator<<(Integer value) {
        char digits[24];
        const auto result = std::to_chars(digits, digits + sizeof digits, value);
        m_text += ' ';
        m_text.append(digits, result.ptr);
        return *this;
    }
    void Dangles() { m_text += " !"; }

private:
    std::string& m_text;
};

} // namespace

int64 SimSpaceModel::Sum() const {
    int64 sum = 0;
    for (const auto& [number, account] : accounts) sum += account.balance;
    return sum;
}

int64 SimSpaceModel::NumObjects() const {
    return std::ssize(accounts) + std::ssize(branches) + numNotes + (exists ? 1 : 0);
}

std::vector<uint64> SimSpaceModel::SubTreeOf(uint64 branch) const {
    std::vector<uint64> found{branch};
    for (size_t i = 0; i < found.size(); ++i)
        for (uint64 child : branches.at(found[i]).children)
            if (branches.contains(child)) found.push_back(child);
    return found;
}

std::string SimSpaceModel::Text() const {
    std::string text;
    if (!exists) return text;
    text.reserve(64 * accounts.size() + 16 * numbers.size() + 64 * branches.size());
    const auto put = [&](Line& line, uint64 branch) {
        if (branch == 0 || branches.contains(branch))
            line << branch;
        else
            line.Dangles();
    };
    Line(text, "changes") << changes;
    for (const auto& [number, account] : accounts) {
        Line line(text, "account");
        line << number << account.balance << account.size;
        put(line, account.mentions);
    }
    for (const auto& [key, value] : numbers) Line(text, "number") << key << value;
    for (const auto& [name, number] : notes) Line(text, name.c_str()) << number;
    {
        Line line(text, "forest");
        for (uint64 branch : forest) put(line, branch);
    }
    std::vector<uint64> stack(forest.rbegin(), forest.rend());
    while (!stack.empty()) {
        const uint64 number = stack.back();
        stack.pop_back();
        const auto found = branches.find(number);
        if (found == branches.end()) continue;
        const Branch& branch = found->second;
        Line line(text, "branch");
        line << number << int{branch.isSubTree} << branch.size;
        put(line, branch.parent);
        for (uint64 child : branch.children) put(line, child);
        stack.insert(stack.end(), branch.children.rbegin(), branch.children.rend());
    }
    return text;
}

} // namespace quna
