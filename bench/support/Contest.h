// Measures several implementations of the same work beside each other and prints the medians with their ratios.
#pragma once

#include "qxUtils/BasicTypes.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <regex>
#include <string>
#include <utility>
#include <vector>

namespace quna {

inline double SecondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Rows of one run. A contestant does its work once per round and reports what each row cost it; the contestants take
// turns, so that a slow spell of the machine meets all of them, and rows are comparable with each other.
class Contest {
public:
    static constexpr int NUM_ROUNDS = 5;

    class Report {
    public:
        explicit Report(Contest& contest, std::size_t contestant) : m_contest(contest), m_contestant(contestant) {}
        // `items` took `seconds`.
        void Time(const std::string& row, double items, double seconds) {
            m_contest.Note(row, m_contestant, items / seconds / 1e6, "M/s");
        }
        void Value(const std::string& row, double value, ConstStringZ unit) {
            m_contest.Note(row, m_contestant, value, unit);
        }

    private:
        Contest& m_contest;
        std::size_t m_contestant;
    };
    using Work = std::function<void(Report&)>;

    // Takes in contestants whose names contain a match of a regular expression.
    explicit Contest(const std::string& contestants = "") : m_filter(contestants) {}

    // The first one is what the others are compared with.
    void Add(std::string name, Work work) {
        if (std::regex_search(name, m_filter)) m_contestants.push_back({std::move(name), std::move(work)});
    }

    void Run(ConstStringZ title, int numRounds = NUM_ROUNDS) {
        std::printf("%s, medians of %d rounds\n", title, numRounds);
        for (int round = 0; round < numRounds; ++round) {
            for (std::size_t i = 0; i < m_contestants.size(); ++i) {
                Report report(*this, i);
                m_contestants[i].m_work(report);
            }
        }
        for (Row& row : m_rows) Print(row);
        std::fflush(stdout);
    }

private:
    struct Contestant {
        std::string m_name;
        Work m_work;
    };
    struct Row {
        std::string m_name;
        std::string m_unit;
        std::vector<std::vector<double>> m_values; // by contestant
    };

    static double Median(std::vector<double>& values) {
        std::sort(values.begin(), values.end());
        return values[values.size() / 2];
    }

    void Note(const std::string& name, std::size_t contestant, double value, ConstStringZ unit) {
        auto row = std::find_if(m_rows.begin(), m_rows.end(), [&](const Row& r) { return r.m_name == name; });
        if (row == m_rows.end()) row = m_rows.insert(row, Row{name, unit, {}});
        row->m_values.resize(m_contestants.size());
        row->m_values[contestant].push_back(value);
    }

    void Print(Row& row) const {
        double ours = 0;
        for (std::size_t i = 0; i < m_contestants.size(); ++i) {
            if (row.m_values[i].empty()) continue;
            const double median = Median(row.m_values[i]);
            std::printf("  %-34s %-22s %12.3f %-5s (%.3f to %.3f)", row.m_name.c_str(), m_contestants[i].m_name.c_str(),
                        median, row.m_unit.c_str(), row.m_values[i].front(), row.m_values[i].back());
            if (i == 0) ours = median;
            if (i > 0 && ours > 0) std::printf("   %s / this %.2f", m_contestants[0].m_name.c_str(), ours / median);
            std::printf("\n");
        }
    }

    std::regex m_filter;
    std::vector<Contestant> m_contestants;
    std::vector<Row> m_rows;
};

// Argument i of a program, empty when there is none. Options are for programs of another kind that run in the same
// command, and end the arguments here.
inline std::string ArgumentOrNothing(int argc, char** argv, int i) {
    for (int k = 1; k <= i; ++k)
        if (k >= argc || argv[k][0] == '-') return {};
    return argv[i];
}

} // namespace quna
