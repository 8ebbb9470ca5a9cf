// A worker that is hung up or killed at any moment: no half copy may pass for a whole one, nothing may stay behind,
// and the next run makes the destination equal to the source.

#include "aftermath.h"
#include "appliance_support.h"
#include "job_runs.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace tsbackup::test {

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::microseconds;

constexpr int kJob = 7;
constexpr int kKills = 30;
/// The kills are spread over somewhat more than a whole run; cancels, which flush all disks before they signal, over
/// the first half.
constexpr double kSpread = 1.05;
constexpr double kSpreadOfCancels = 0.5;
constexpr char kSource[] = "/data/Pictures";
constexpr char kDestination[] = "/media/USB/copy";
constexpr std::size_t kMebibyte = 1024UL * 1024;

const ProgramOptions kQuick{.environment = {}, .preload = {kShortWaits}, .program = "/opt/tsbackup/sbin/tsbackup"};

void make_source() {
    TreeOptions options;
    options.seed = 4711;
    options.folders = 25;
    options.files = 240;
    options.largest_file = 16UL * 1024;
    make_tree(kSource, options);

    std::mt19937_64 engine(4712);
    std::string bytes(6 * kMebibyte, '\0');
    std::generate(bytes.begin(), bytes.end(), [&engine] { return static_cast<char>(engine()); });
    for (const auto &[name, size] : {std::pair{"folder0/large", bytes.size()}, {"zlarge", kMebibyte}}) {
        const std::string path = std::string(kSource) + "/" + name;
        write_file(path, bytes.substr(0, size));
        const timespec times[] = {{1'500'000'000, 1}, {1'500'000'000, 123'456'789}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
    // Larger than one piece of progress, and cheap to compare.
    write_file(std::string(kSource) + "/folder1/largest", bytes + bytes + bytes);
    const timespec times[] = {{1'500'000'000, 1}, {1'500'000'001, 999'999'999}};
    ASSERT_EQ(utimensat(AT_FDCWD, (std::string(kSource) + "/folder1/largest").c_str(), times, 0), 0);
}

bool same_time(const timespec &a, const timespec &b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

/// What a kill can leave in the destination for good, because the time stands in the copy before owner, mode and
/// lists do, and an existing folder keeps its metadata: the one entry that was in work.
struct Interrupted {
    std::vector<std::string> lies;   ///< look whole and are not
    std::set<std::string> undressed; ///< whole, without their owner, mode or lists yet
    std::size_t missing = 0;         ///< not there, or to be copied again
};

Interrupted look_at_destination() {
    Interrupted found;
    std::map<std::string, std::string> differing;
    for (const std::string &line : tree_differences(kSource, kDestination)) {
        const std::size_t colon = line.find(": ");
        differing[line.substr(0, colon)] += line.substr(colon + 2) + ";";
    }
    for (const auto &[name, differences] : differing) {
        struct stat source {};
        struct stat copy {};
        const bool both = lstat((std::string(kSource) + "/" + name).c_str(), &source) == 0 &&
                          lstat((std::string(kDestination) + "/" + name).c_str(), &copy) == 0;
        const bool folder = both && S_ISDIR(source.st_mode);
        const bool looks_whole = both && source.st_size == copy.st_size && same_time(source.st_mtim, copy.st_mtim);
        if (!folder && !looks_whole)
            ++found.missing;
        else if (!folder && differences.find("bytes") != std::string::npos)
            found.lies.push_back(name);
        else
            found.undressed.insert(name);
    }
    return found;
}

class Kills : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_VOLUMES();
        reset_appliance();
        make_source();
        JobFile()
            .job(kJob, Settings{{"name", "Interrupted"}, {"opt_full_backup_freq", "NEVER"}} +
                           source_share("data", "Pictures") + destination_usb("1", "copy"))
            .write();
    }

    void TearDown() override {
        if (volumes()) reset_appliance();
    }

    static Microseconds length_of_a_run() {
        const auto start = Clock::now();
        EXPECT_EQ(run_program({"-e", "7"}).status, 0);
        return std::chrono::duration_cast<Microseconds>(Clock::now() - start);
    }

    /// Runs the job again and again and calls `stop` for each at a later moment; `stop` ends the run.
    void interrupt(double spread, const std::function<void(Program &worker)> &stop);
};

void Kills::interrupt(double spread, const std::function<void(Program &worker)> &stop) {
    length_of_a_run();
    remove_tree(kDestination);
    const Microseconds length = length_of_a_run();
    remove_tree(kDestination);
    ASSERT_TRUE(same_trees(kSource, kSource));
    const Baseline baseline;

    int halfway = 0;
    int undressed = 0;
    for (int kill = 0; kill < kKills; ++kill) {
        SCOPED_TRACE("kill " + std::to_string(kill));
        const auto delay = std::chrono::duration_cast<Microseconds>(length * (spread * (kill + 1) / kKills));
        {
            Program worker({"-e", "7"});
            std::this_thread::sleep_for(delay);
            stop(worker);
        }

        Interrupted found;
        if (file_exists(kDestination)) {
            found = look_at_destination();
            EXPECT_EQ(found.lies, std::vector<std::string>{});
            EXPECT_LE(found.undressed.size(), 1U) << *found.undressed.begin() << ", " << *found.undressed.rbegin();
            if (found.missing > 0) ++halfway;
            if (!found.undressed.empty()) ++undressed;
        }
        // Nothing of the killed run, a child on its last command included, is at work any more.
        ASSERT_TRUE(wait_until([] { return shell_output("pgrep -x 'tsbackup|btrfs'").empty(); }));

        const Outcome again = run_program({"-e", "7"});
        EXPECT_EQ(again.status, 0) << again.err;
        EXPECT_EQ(state_of(kJob), "COMPLETED");
        EXPECT_EQ(last_result(kJob), 0);
        EXPECT_EQ(read_file(error_log_path(kJob)), "");
        std::vector<std::string> differences = tree_differences(kSource, kDestination);
        std::erase_if(differences, [&found](const std::string &line) {
            return found.undressed.contains(line.substr(0, line.find(": ")));
        });
        EXPECT_EQ(differences, std::vector<std::string>{});
        EXPECT_TRUE(baseline.restored());
        if (HasFailure()) break;
        remove_tree(kDestination);
    }
    std::printf(
        "%d of %d runs were stopped halfway, %d of them between an entry's time and its owner, mode and lists\n",
        halfway, kKills, undressed);
    // A test whose kills all come too early or too late would prove nothing.
    EXPECT_GE(halfway, 1);
}

} // namespace

namespace {

/// The entries of the job's history that tell of a cancelled run.
int cancelled_entries() {
    std::istringstream history(read_file(history_path(kJob)));
    int entries = 0;
    for (std::string line; std::getline(history, line);)
        entries += line == "status: 11" ? 1 : 0;
    return entries;
}

} // namespace

TEST_F(Kills, ACancelledRunLeavesNoHalfCopyAndTheNextOneCompletesIt) {
    int cancelled = 0;
    interrupt(kSpreadOfCancels, [&cancelled](Program &worker) {
        const int cancelled_before = cancelled_entries();
        const Outcome canceller = run_program({"-k", "7"}, kQuick);
        EXPECT_EQ(canceller.status, 0) << canceller.err;
        // A cancel that comes before the claim finds nothing to stop, and the run goes on to its end.
        const bool stopped = canceller.err.find("killpg(") != std::string::npos;
        const Outcome outcome = worker.wait();
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        if (!stopped) return;
        EXPECT_EQ(state_of(kJob), "CANCELLED");
        if (outcome.err.find("Aborting Backup Job:") == std::string::npos) return;
        ++cancelled;
        // Not always on top: a run that is stopped while it adds its own entry leaves that one in front.
        EXPECT_GT(cancelled_entries(), cancelled_before) << read_file(history_path(kJob));
    });
    EXPECT_GE(cancelled, 1);
}

TEST_F(Kills, AKilledGroupLeavesNoHalfCopyAndTheNextRunCompletesIt) {
    interrupt(kSpread, [](Program &worker) {
        killpg(worker.pid(), SIGKILL);
        worker.wait();
    });
}

TEST_F(Kills, AKilledWorkerLeavesNoHalfCopyAndTheNextRunCompletesIt) {
    interrupt(kSpread, [](Program &worker) {
        worker.signal(SIGKILL);
        worker.wait();
    });
}

// A file that was whole before the run is overwritten by a full run: while its bytes are new and old, its time must
// not be the source's.
TEST_F(Kills, AKilledFullRunOverACompleteCopyNeverPassesHalfFilesOff) {
    JobFile()
        .job(kJob, Settings{{"opt_full_backup_freq", "EVERY_TIME"}} + source_share("data", "Pictures") +
                       destination_usb("1", "copy"))
        .write();
    length_of_a_run();
    const Microseconds length = length_of_a_run();
    int halfway = 0;
    for (int kill = 0; kill < kKills; ++kill) {
        SCOPED_TRACE("kill " + std::to_string(kill));
        {
            Program worker({"-e", "7"});
            std::this_thread::sleep_for(
                std::chrono::duration_cast<Microseconds>(length * (kSpread * (kill + 1) / kKills)));
            killpg(worker.pid(), SIGKILL);
            worker.wait();
        }
        const Interrupted found = look_at_destination();
        ASSERT_EQ(found.lies, std::vector<std::string>{});
        if (found.missing > 0) ++halfway;
    }
    EXPECT_GE(halfway, 1);
    ASSERT_EQ(run_program({"-e", "7"}).status, 0);
    EXPECT_TRUE(same_trees(kSource, kDestination));
}

} // namespace tsbackup::test
