// The figures of the benchmark: a table for people, JSON for programs.

#pragma once

#include <string>
#include <vector>

namespace tsbackup::bench {

/// What one run of one program cost.
struct Cost {
    double wall = 0;   ///< seconds until the program had ended
    double cpu = 0;    ///< seconds, user and system, of the program and its children
    double sync = 0;   ///< seconds that a sync of the destination took afterwards
    double memory = 0; ///< largest resident size in MiB
};

/// The two programs of one round, which ran right after each other.
struct Round {
    Cost ours;
    Cost other;
};

enum class Metric { cpu, wall, memory };

/// One figure and what is required of it. For memory the limits are upper ones, else lower ones; 0: there is none.
struct Requirement {
    Metric metric = Metric::cpu;
    double must = 0;
    double aim = 0;
};

struct Figure {
    std::string name;    ///< of the case
    std::string against; ///< the other program's command, empty for memory
    Requirement required;
    double ratio = 0;  ///< median over the rounds of the other's cost divided by ours; memory: ours in MiB
    double lowest = 0; ///< of the rounds
    double highest = 0;
    double ours = 0;            ///< median cost in seconds (memory: MiB)
    double other = 0;           ///< median cost in seconds (memory: MiB)
    double ratio_with_sync = 0; ///< wall time alone: the same when the time of the sync counts too

    bool met() const { return reaches(required.must); }
    bool aim_met() const { return required.aim > 0 && reaches(required.aim); }
    bool reaches(double limit) const {
        return limit <= 0 || (required.metric == Metric::memory ? ratio <= limit : ratio >= limit);
    }
};

/// The figure of a case's rounds for a ratio metric.
Figure ratio_figure(const std::string &name, const std::string &against, const Requirement &required,
                    const std::vector<Round> &rounds);

void print_table(const std::vector<Figure> &figures);

/// False after a message when the file cannot be written.
bool write_json(const std::string &path, const std::vector<Figure> &figures);

} // namespace tsbackup::bench
