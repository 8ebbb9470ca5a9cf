// The measuring loop: every case runs the copy engine and the program it is compared with in turns, on the same
// volumes, and takes the ratio of each round. Runs in a mount namespace of its own; started by bench/run.

#include "report.h"
#include "tree.h"
#include "tsbackup/owners.h"
#include "volume.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace tsbackup::bench {

namespace {

constexpr std::int64_t kDataVolume = std::int64_t{5} << 30;
constexpr std::int64_t kLogVolume = std::int64_t{256} << 20;
constexpr std::int64_t kMiB = std::int64_t{1} << 20;

struct Case {
    const char *name;
    const char *set;     ///< of the generator
    const char *program; ///< what the engine is compared with
    const char *option;  ///< and its option
    bool cold;           ///< nothing of the source is in memory
    bool unchanged;      ///< the destination holds the copy already
    std::vector<Requirement> required;
};

const Case kCases[] = {
    {"small", "small", "rsync", "-a", false, false, {{Metric::cpu, 1.6, 2.2}, {Metric::wall, 1.3, 1.6}}},
    {"small-cold", "small", "rsync", "-a", true, false, {{Metric::wall, 1.4, 2.5}}},
    {"small-acl", "small-acl", "rsync", "-aA", false, false, {{Metric::cpu, 1.6, 2.2}}},
    {"unchanged", "tiny", "rsync", "-a", false, true, {{Metric::wall, 1.6, 2.1}, {Metric::cpu, 1.6, 2.1}}},
    {"mixed", "mixed", "rsync", "-a", false, false, {{Metric::cpu, 1.6, 2.2}}},
    {"large", "large", "cp", "-a", false, false, {{Metric::wall, 0.85, 1.1}}},
};
constexpr char kMemoryCase[] = "memory";
constexpr Requirement kMemoryRequired{Metric::memory, 8, 4};

struct Options {
    bool quick = false;
    int rounds = 0; ///< counted ones
    FileSystem destination = FileSystem::ext4;
    std::string json;     ///< empty: none
    std::string programs; ///< folder of the benchmark's own programs
    std::string work;
    std::vector<std::string> cases; ///< empty: all
};

/// The volumes and paths that all cases share.
struct Bench {
    const Options &options;
    Volume source;
    Volume destination;
    Volume logs;
    std::string source_tree;
    std::string destination_tree;

    std::string program(const char *name) const { return options.programs + "/" + name; }
};

bool fail(const std::string &what) {
    std::fprintf(stderr, "bench: %s: %s\n", what.c_str(), std::strerror(errno)); // NOLINT(concurrency-mt-unsafe)
    return false;
}

// ---- one run ---------------------------------------------------------------------------------------------------

double now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double seconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

bool sync_volume(const std::string &path) {
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd && syncfs(fd.get()) == 0;
}

/// Runs a command and takes its cost. False after a message when it fails.
bool measure_command(const std::vector<std::string> &command, const std::string &destination, Cost &cost) {
    std::vector<char *> argv;
    argv.reserve(command.size() + 1);
    for (const std::string &word : command)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);

    const double start = now();
    // A plain fork: the child's largest size must not begin with that of this program.
    const pid_t child = fork();
    if (child < 0) return fail("fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    while (wait4(child, &status, 0, &usage) < 0) {
        if (errno != EINTR) return fail("wait");
    }
    const double end = now();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "bench: %s failed (wait status %d)\n", argv[0], status);
        return false;
    }
    if (!sync_volume(destination)) return fail(destination);

    cost.wall = end - start;
    cost.sync = now() - end;
    cost.cpu = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    cost.memory = static_cast<double>(usage.ru_maxrss) * 1024 / static_cast<double>(kMiB);
    return true;
}

std::vector<std::string> our_command(const Bench &bench) {
    return {bench.program("bench_copy_tree"), bench.source_tree, bench.destination_tree, bench.logs.mount_point()};
}

std::vector<std::string> other_command(const Bench &bench, const Case &what) {
    const std::string contents = std::strcmp(what.program, "cp") == 0 ? "/." : "/";
    return {what.program, what.option, bench.source_tree + contents, bench.destination_tree};
}

/// Brings both volumes into the state in which a run of the case starts.
///
/// The destination is made anew last: the memory that its old content gives back is at hand for the new one at once. A
/// virtual machine hands memory that lies idle back to its host, and taking it again would cost more than the copy.
bool prepare_run(Bench &bench, const Case &what) {
    const Reading reading = what.unchanged ? Reading::entries : Reading::contents;
    if (what.cold) {
        if (!bench.source.make_cold(true)) return false;
    } else {
        read_tree(bench.source_tree, reading);
    }
    if (what.unchanged) {
        read_tree(bench.destination_tree, reading);
        return true;
    }
    if (!bench.destination.format_and_mount(bench.options.destination)) return false;
    return mkdir(bench.destination_tree.c_str(), 0755) == 0 || fail(bench.destination_tree);
}

bool run_ours(Bench &bench, const Case &what, Cost &cost) {
    return prepare_run(bench, what) && measure_command(our_command(bench), bench.destination_tree, cost);
}

bool run_other(Bench &bench, const Case &what, Cost &cost) {
    return prepare_run(bench, what) && measure_command(other_command(bench, what), bench.destination_tree, cost);
}

// ---- one case --------------------------------------------------------------------------------------------------

bool make_source(Bench &bench, const Case &what) {
    if (!bench.source.format_and_mount(FileSystem::ext4)) return false;
    if (mkdir(bench.source_tree.c_str(), 0755) != 0) return fail(bench.source_tree);
    const std::string generator = bench.program("bench_generate");
    const char *const argv[] = {generator.c_str(), what.set, bench.source_tree.c_str(),
                                bench.options.quick ? "--quick" : nullptr, nullptr};
    // Read-only from here on: reading changes no access times, and nobody can spoil the set.
    return run_tool(argv) && bench.source.unmount() && bench.source.mount(true);
}

bool populate_destination(Bench &bench) {
    if (!bench.destination.format_and_mount(bench.options.destination)) return false;
    const char *const argv[] = {"cp", "-a", bench.source_tree.c_str(), bench.destination_tree.c_str(), nullptr};
    return run_tool(argv) && sync_volume(bench.destination_tree);
}

bool change_source(Bench &bench) {
    return bench.source.unmount() && bench.source.mount(false) && change_last_file(bench.source_tree) &&
           bench.source.unmount() && bench.source.mount(true);
}

using RunFunction = bool (*)(Bench &, const Case &, Cost &);

/// A run that does not count, after which the copy is compared with the source: what copies wrongly, or finds
/// everything unchanged without looking, cannot win.
bool verified_run(Bench &bench, const Case &what, RunFunction run, Cost &cost) {
    if (what.unchanged && !change_source(bench)) return false;
    return run(bench, what, cost) && same_trees(bench.source_tree, bench.destination_tree);
}

bool measure_round(Bench &bench, const Case &what, bool ours_first, Round &round) {
    if (ours_first) return run_ours(bench, what, round.ours) && run_other(bench, what, round.other);
    return run_other(bench, what, round.other) && run_ours(bench, what, round.ours);
}

/// Fills `rounds`, the first of which is the one that does not count.
bool measure_case(Bench &bench, const Case &what, int counted_rounds, std::vector<Round> &rounds) {
    if (!make_source(bench, what) || (what.unchanged && !populate_destination(bench))) return false;
    const TreeTotals totals = read_tree(bench.source_tree, Reading::entries);
    std::fprintf(stderr, "%s: %lld files in %lld folders, %lld MiB\n", what.name, static_cast<long long>(totals.files),
                 static_cast<long long>(totals.folders), static_cast<long long>(totals.bytes / kMiB));

    rounds.emplace_back();
    if (!verified_run(bench, what, run_ours, rounds.back().ours)) return false;
    if (!verified_run(bench, what, run_other, rounds.back().other)) return false;
    for (int number = 0; number < counted_rounds; ++number) {
        rounds.emplace_back();
        if (!measure_round(bench, what, number % 2 == 0, rounds.back())) return false;
    }
    return true;
}

// ---- the whole -------------------------------------------------------------------------------------------------

/// A run writes its status file under /var/log; in this namespace that is a volume like any appliance's.
bool provide_log_folder(Bench &bench) {
    if (!bench.logs.format_and_mount(FileSystem::ext4)) return false;
    if (::mount(bench.logs.mount_point().c_str(), "/var/log", nullptr, MS_BIND, nullptr) != 0) return fail("/var/log");
    for (const char *folder : {"/var/log/tessera", "/var/log/tessera/backup"}) {
        if (mkdir(folder, 0755) != 0) return fail(folder);
    }
    return true;
}

bool make_volumes(Bench &bench) {
    const std::string &work = bench.options.work;
    if (mkdir(work.c_str(), 0700) != 0 && errno != EEXIST) return fail(work);

    // The mount points stand on a file system that ends with this namespace.
    const std::string mounts = work + "/mounts";
    if (mkdir(mounts.c_str(), 0700) != 0 && errno != EEXIST) return fail(mounts);
    if (::mount("bench", mounts.c_str(), "tmpfs", 0, nullptr) != 0) return fail(mounts);

    std::fprintf(stderr, "preparing the volumes in %s\n", work.c_str());
    if (!bench.source.create(work, kDataVolume, mounts + "/source")) return false;
    if (!bench.destination.create(work, kDataVolume, mounts + "/destination")) return false;
    if (!bench.logs.create(work, kLogVolume, mounts + "/logs")) return false;
    bench.source_tree = bench.source.mount_point() + "/tree";
    bench.destination_tree = bench.destination.mount_point() + "/tree";
    return provide_log_folder(bench);
}

bool wanted(const Options &options, const char *name) {
    return options.cases.empty() || std::find(options.cases.begin(), options.cases.end(), name) != options.cases.end();
}

/// The largest memory of each side, in a round without other figures.
Round largest_memory(const std::vector<Round> &rounds) {
    Round largest;
    for (const Round &round : rounds) {
        largest.ours.memory = std::max(largest.ours.memory, round.ours.memory);
        largest.other.memory = std::max(largest.other.memory, round.other.memory);
    }
    return largest;
}

Figure memory_figure(double largest_ours, double largest_other) {
    Figure figure;
    figure.name = kMemoryCase;
    figure.required = kMemoryRequired;
    figure.ratio = figure.lowest = figure.highest = figure.ours = largest_ours;
    figure.other = largest_other;
    return figure;
}

/// The exit status of the benchmark.
int measure_all(const Options &options) {
    Bench bench{options, {}, {}, {}, {}, {}};
    if (!make_volumes(bench)) return 2;

    // Alone, the memory needs one run of every set.
    const bool memory_alone = options.cases.size() == 1 && options.cases.front() == kMemoryCase;
    std::vector<Figure> figures;
    double largest_ours = 0;
    double largest_other = 0;
    for (const Case &what : kCases) {
        if (!memory_alone && !wanted(options, what.name)) continue;
        std::vector<Round> rounds;
        if (!measure_case(bench, what, memory_alone ? 0 : options.rounds, rounds)) return 2;
        const Round largest = largest_memory(rounds);
        std::fprintf(stderr, "%s: at most %.1f MiB of memory, %s %.1f\n", what.name, largest.ours.memory, what.program,
                     largest.other.memory);
        largest_ours = std::max(largest_ours, largest.ours.memory);
        largest_other = std::max(largest_other, largest.other.memory);
        rounds.erase(rounds.begin());
        if (rounds.empty()) continue;
        for (const Requirement &required : what.required)
            figures.push_back(ratio_figure(what.name, std::string(what.program) + " " + what.option, required, rounds));
    }
    figures.push_back(memory_figure(largest_ours, largest_other));

    print_table(figures);
    if (!options.json.empty() && !write_json(options.json, figures)) return 2;
    return std::all_of(figures.begin(), figures.end(), [](const Figure &figure) { return figure.met(); }) ? 0 : 1;
}

// ---- command line ----------------------------------------------------------------------------------------------

bool is_case(const char *name) {
    return std::strcmp(name, kMemoryCase) == 0 ||
           std::any_of(std::begin(kCases), std::end(kCases),
                       [name](const Case &what) { return std::strcmp(what.name, name) == 0; });
}

/// The folder of this program.
std::string own_folder() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    const std::string text(path, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    return text.substr(0, text.rfind('/'));
}

/// False for an option that is unknown, or whose value is.
bool parse_option(const std::string &option, const char *value, Options &options) {
    if (value == nullptr) return false;
    if (option == "--case") {
        options.cases.emplace_back(value);
        return is_case(value);
    }
    if (option == "--rounds") {
        options.rounds = static_cast<int>(std::strtol(value, nullptr, 10));
        return options.rounds > 0;
    }
    if (option == "--destination") {
        options.destination = std::strcmp(value, "btrfs") == 0 ? FileSystem::btrfs : FileSystem::ext4;
        return std::strcmp(value, "btrfs") == 0 || std::strcmp(value, "ext4") == 0;
    }
    if (option == "--json") {
        options.json = value;
        return true;
    }
    if (option == "--work") {
        options.work = value;
        return true;
    }
    return false;
}

bool parse(int argc, char *argv[], Options &options) {
    options.programs = own_folder();
    options.work = options.programs + "/work";
    for (int index = 1; index < argc; ++index) {
        if (std::strcmp(argv[index], "--quick") == 0) {
            options.quick = true;
            continue;
        }
        if (!parse_option(argv[index], argv[index + 1], options)) {
            std::fprintf(stderr, "bench: wrong argument: %s (try bench/run --help)\n", argv[index]);
            return false;
        }
        ++index;
    }
    if (options.rounds == 0) options.rounds = options.quick ? 5 : 7;
    return true;
}

} // namespace

} // namespace tsbackup::bench

int main(int argc, char *argv[]) {
    tsbackup::bench::Options options;
    if (!tsbackup::bench::parse(argc, argv, options)) return 2;
    return tsbackup::bench::measure_all(options);
}
