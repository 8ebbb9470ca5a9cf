// What a backup costs over rsync called by hand; started by bench/rsync_overhead inside an appliance.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr double kMostWallRatio = 1.05;
constexpr char kSource[] = "/data/Pictures";
constexpr char kDestination[] = "/vault/Backup";

[[noreturn]] void give_up(const std::string &reason) {
    std::fprintf(stderr, "rsync_overhead: %s\n", reason.c_str());
    std::exit(2); // NOLINT(concurrency-mt-unsafe): no second thread
}

struct Cost {
    double wall = 0;
    double cpu = 0; ///< of the program itself, without its children
};

pid_t start(std::vector<std::string> words) {
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
        dup2(nothing, STDIN_FILENO);
        dup2(nothing, STDOUT_FILENO);
        dup2(nothing, STDERR_FILENO);
        execvp(argv.front(), argv.data());
        _exit(127);
    }
    return child;
}

/// Runs a program to its end.
Cost measure(const std::vector<std::string> &words) {
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = start(words);
    siginfo_t ended{};
    waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT);
    Cost cost;
    cost.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    std::ifstream schedule("/proc/" + std::to_string(child) + "/schedstat");
    double nanoseconds = 0;
    schedule >> nanoseconds;
    cost.cpu = nanoseconds / 1e9;
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) give_up(words.front() + " failed");
    return cost;
}

void make_file(const std::string &path, std::size_t size, std::mt19937_64 &random) {
    std::ofstream file(path, std::ios::binary);
    std::vector<std::uint64_t> block(8192);
    for (std::size_t left = size; left > 0;) {
        std::generate(block.begin(), block.end(), std::ref(random));
        const std::size_t length = std::min(left, block.size() * sizeof block[0]);
        file.write(reinterpret_cast<const char *>(block.data()), static_cast<std::streamsize>(length));
        left -= length;
    }
    if (!file) give_up("cannot write " + path);
}

struct Case {
    const char *name;
    void (*make)(std::mt19937_64 &random);
    std::uintmax_t files;
};

constexpr Case kCases[] = {
    {"large", [](std::mt19937_64 &random) { make_file(std::string(kSource) + "/large", std::size_t{1} << 30, random); },
     1},
    {"small",
     [](std::mt19937_64 &random) {
         for (int folder = 0; folder < 400; ++folder) {
             const std::string path = std::string(kSource) + "/folder" + std::to_string(folder);
             fs::create_directory(path);
             for (int file = 0; file < 50; ++file)
                 make_file(path + "/file" + std::to_string(file), 1024 + random() % 15360, random);
         }
     },
     20000},
};

void empty(const char *folder) {
    for (const auto &entry : fs::directory_iterator(folder))
        fs::remove_all(entry.path());
    sync();
}

std::uintmax_t files_in(const char *folder) {
    std::uintmax_t count = 0;
    for (const auto &entry : fs::recursive_directory_iterator(folder))
        count += entry.is_regular_file() ? 1 : 0;
    return count;
}

void write_text(const std::string &path, const std::string &text) {
    std::ofstream file(path);
    file << text;
    file.close();
    if (!file) give_up("cannot write " + path);
}

/// What the program's backup of job 1 runs, by hand.
const std::vector<std::string> kByHand = {"nice",
                                          "-n 10",
                                          "rsync",
                                          "-vP",
                                          "-8",
                                          "--timeout=1800",
                                          "--recursive",
                                          "--links",
                                          "--times",
                                          "--omit-dir-times",
                                          "--devices",
                                          "--specials",
                                          "--one-file-system",
                                          "--ignore-times",
                                          "--owner",
                                          "--group",
                                          "--acls",
                                          "--exclude=.snapshot",
                                          "--port=8730",
                                          "127.0.0.1::source",
                                          kDestination};

void write_job() {
    write_text("/etc/tessera/backup_jobs.conf",
               "<backupJobs><backupJob><job_id>1</job_id><opt_full_backup_freq>EVERY_TIME</opt_full_backup_freq>"
               "<opt_max_log_lines>1000000</opt_max_log_lines><src_type>remote</src_type>"
               "<src_share_proto>rsync</src_share_proto><src_path>127.0.0.1::source</src_path>"
               "<src_port>8730</src_port><dst_type>share</dst_type><dst_share_vol>vault</dst_share_vol>"
               "<dst_share_proto>Backup</dst_share_proto><dst_path></dst_path></backupJob></backupJobs>");
}

pid_t start_daemon() {
    write_text("/srv/rsyncd.conf",
               std::string("use chroot = no\nuid = 0\ngid = 0\n[source]\npath = ") + kSource + "\n");
    const pid_t daemon = start({"rsync", "--daemon", "--no-detach", "--address=127.0.0.1", "--port=8730",
                                "--config=/srv/rsyncd.conf", "--log-file=/srv/rsyncd.log"});
    std::this_thread::sleep_for(std::chrono::seconds(1));
    return daemon;
}

/// One copy into the emptied destination.
Cost copy(const Case &test, const std::vector<std::string> &words) {
    empty(kDestination);
    const Cost cost = measure(words);
    if (files_in(kDestination) != test.files) give_up("the copy is not complete");
    return cost;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

/// Prints the case's line; whether the ratio is within its limit.
bool run_case(const Case &test, int rounds) {
    std::mt19937_64 random(20240131);
    empty(kSource);
    test.make(random);
    std::vector<double> ratios;
    std::vector<double> ours;
    std::vector<double> by_hand;
    std::vector<double> cpu;
    // The first round warms everything up and does not count; who begins alternates.
    for (int round = 0; round <= rounds; ++round) {
        std::array<Cost, 2> costs;
        for (int turn = 0; turn < 2; ++turn) {
            const bool backup = (turn + round) % 2 == 0;
            costs[backup ? 0 : 1] = copy(test, backup ? std::vector<std::string>{"tsbackup", "-e", "1"} : kByHand);
        }
        if (round == 0) continue;
        ratios.push_back(costs[0].wall / costs[1].wall);
        ours.push_back(costs[0].wall);
        by_hand.push_back(costs[1].wall);
        cpu.push_back(costs[0].cpu);
    }
    const auto [lowest, highest] = std::minmax_element(ratios.begin(), ratios.end());
    const double ratio = median(ratios);
    std::printf("%-6s  backup %6.3f s  rsync %6.3f s  ratio %.3f (%.3f-%.3f, must be at most %.2f)  own CPU %.3f s\n",
                test.name, median(ours), median(by_hand), ratio, *lowest, *highest, kMostWallRatio, median(cpu));
    std::fflush(stdout);
    return ratio <= kMostWallRatio;
}

} // namespace

int main(int argc, char **argv) {
    int rounds = 7;
    std::vector<std::string> wanted;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--rounds") == 0)
            rounds = std::max(1, static_cast<int>(std::strtol(argv[i + 1], nullptr, 10)));
        else if (std::strcmp(argv[i], "--case") == 0)
            wanted.emplace_back(argv[i + 1]);
        else
            give_up(std::string("unknown option ") + argv[i]);
    }
    write_job();
    const pid_t daemon = start_daemon();
    bool met = true;
    for (const Case &test : kCases)
        if (wanted.empty() || std::find(wanted.begin(), wanted.end(), test.name) != wanted.end())
            met = run_case(test, rounds) && met;
    kill(daemon, SIGTERM);
    waitpid(daemon, nullptr, 0);
    return met ? 0 : 1;
}
