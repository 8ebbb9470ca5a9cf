// Cancelling a job: what the installed program stops, cleans up and tells in the place of the run that no longer can.

#include "job_runs.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int kJob = 7;
constexpr int kFilesInAFolder = 500;
constexpr int kManyFolders = 30; ///< their copy outlasts every step of a cancel by far
constexpr int kFewFolders = 4;
const std::string kPictures = "/data/Pictures";
const std::string kCopy = "/vault/Backup/copy";
const std::string kCopyLog = std::string(kWorkFolder) + "/backup_007_copy.log";
const std::string kLastFull = std::string(kLogFolder) + "/.last_full_backup_007";

const std::string kCancelling = "BACKUP_STATUS__CANCELLING!!TIME!!notice";
const std::string kCancelled = "BACKUP_STATUS__CANCELLED!!TIME!!notice";

std::string running(int full) { return "BACKUP_STATUS__IN_PROGRESS," + std::to_string(full) + "!!TIME!!OK"; }

Settings job_settings(const std::string &frequency, const Settings &more = {}) {
    return Settings{{"name", "R&D"}, {"opt_full_backup_freq", frequency}, {"opt_max_log_lines", "1000000"}} +
           source_share("data", "Pictures") + destination_share("vault", "Backup", "copy") + more;
}

void make_files(int folders) {
    for (int folder = 100; folder < 100 + folders; ++folder)
        for (int number = 1000; number < 1000 + kFilesInAFolder; ++number)
            write_file(kPictures + "/" + std::to_string(folder) + "/" + std::to_string(number), "text");
}

/// The copy log of a run that copies all of them to an empty folder.
std::string whole_copy_log(int folders) {
    std::string log;
    for (int folder = 100; folder < 100 + folders; ++folder) {
        log += "Copy Folder  " + std::to_string(folder) + "\n";
        for (int number = 1000; number < 1000 + kFilesInAFolder; ++number)
            log += "Copy File  " + std::to_string(folder) + "/" + std::to_string(number) + "\n";
    }
    return log;
}

/// A run of job 7 that has begun to copy.
class CopyingJob : public Program {
  public:
    explicit CopyingJob(const Settings &settings) : Program(prepared(settings)) {
        wait_until([] { return read_file(kCopyLog).size() > 1000; });
    }

  private:
    static std::vector<std::string> prepared(const Settings &settings) {
        remove_tree(kCopyLog);
        JobFile().job(kJob, settings).write();
        return {"-e", std::to_string(kJob)};
    }
};

/// The same, held in the middle of the copy until a hang-up is waiting for it.
class HeldJob : public CopyingJob {
  public:
    explicit HeldJob(const Settings &settings) : CopyingJob(settings) {
        signal(SIGSTOP);
        wait_until([this] { return process_line("State:").find('T') != std::string::npos; });
    }
    /// Cancels the job, which goes on as soon as the hang-up has been sent.
    Outcome cancel(const ProgramOptions &options = {}) {
        Program canceller({"-k", std::to_string(kJob)}, options);
        EXPECT_TRUE(wait_until([this] { return hang_up_waits(); }, 10s));
        signal(SIGCONT);
        return canceller.wait();
    }

  private:
    std::string process_line(const std::string &name) const {
        const std::string status = read_file("/proc/" + std::to_string(pid()) + "/status");
        const std::size_t at = status.find("\n" + name);
        return at == std::string::npos ? "" : status.substr(at + 1, status.find('\n', at + 1) - at - 1);
    }
    bool hang_up_waits() const {
        const std::string pending = process_line("ShdPnd:");
        return !pending.empty() && ((pending.back() - '0') & (1 << (SIGHUP - 1))) != 0;
    }
};

class Cancels : public testing::Test {
  protected:
    void SetUp() override {
        if (!in_appliance()) GTEST_SKIP() << "needs the demonstration appliance's own root";
        reset_appliance();
    }
};

/// What must not be left of a job once it has been cancelled.
std::vector<std::string> remains(pid_t job) {
    std::vector<std::string> left = snapshots();
    for (const pid_t process : group_members(job))
        left.push_back("process " + std::to_string(process));
    if (file_exists("/job_007")) left.emplace_back("/job_007");
    if (read_file("/proc/self/mounts").find("/job_") != std::string::npos) left.emplace_back("a mount of a job");
    for (const std::string &name : list_folder(kWorkFolder))
        left.push_back(std::string(kWorkFolder) + "/" + name);
    return left;
}

std::string cancel_lines(pid_t job, const std::string &between = "") {
    return "tsbackup (notice) perform kill job_id=7\ntsbackup (notice) killpg(" + std::to_string(job) +
           ",SIGHUP)\ntsbackup (notice) Backup job killed pid=" + std::to_string(job) + "\n" + between;
}

std::string told(const Outcome &outcome) { return settled_diagnostics(outcome.err, -1); }

TEST_F(Cancels, ACopyingJobIsStoppedAndItsBooksAreClosed) {
    REQUIRE_VOLUMES();
    make_files(kManyFolders);
    RequestQueue queue;
    EventReceiver events;
    StatusWatcher status(kJob);
    CopyingJob job(job_settings("FIRST_TIME", {{"opt_email_this_to_alert_email", "1"}}));
    ASSERT_THAT(snapshots(), SizeIs(1));
    const std::string snapshot = snapshots().front();
    // A progress line may stand below the state by now; the flag is read from the first line.
    const Outcome cancel = run_program({"-k", "7"});

    EXPECT_EQ(cancel.status, 0);
    EXPECT_EQ(told(cancel),
              cancel_lines(job.pid(), "tsbackup_utils (notice) Clean up old snapshot " + snapshot + "\n"));
    const Outcome outcome = job.wait(10s);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "Aborting Backup Job:\n");
    EXPECT_THAT(states(status), ElementsAre(running(1), kCancelling, kCancelled));
    EXPECT_EQ(queue.received(), request_record("dequeue:7\n"));
    EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "R&amp;D", 11, 1, 0)));
    EXPECT_THAT(remains(job.pid()), IsEmpty());
    EXPECT_TRUE(matches_golden("cancel/full.history", with_placeholders(read_file(history_path(kJob)))));
    // Cancelled full runs count as full runs, from the moment of the cancel on.
    EXPECT_THAT(read_file(history_path(kJob)), HasSubstr("start: " + read_file(kLastFull)));
    EXPECT_EQ(read_file(pid_path(kJob)), std::to_string(job.pid()));

    // The kept log is the beginning of the whole one, in complete lines, and tells the truth.
    const std::string log = read_file(kept_copy_log_path(kJob));
    const std::string whole = whole_copy_log(kManyFolders);
    ASSERT_LT(log.size(), whole.size()) << "the copy was over before the cancel";
    EXPECT_EQ(whole.substr(0, log.size()), log);
    EXPECT_EQ(log.back(), '\n');
    EXPECT_EQ(read_file(error_log_path(kJob)), "");
    std::istringstream lines(log);
    const std::string file = "Copy File  ";
    int files = 0;
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(file) && ++files % 50 == 0) {
            EXPECT_EQ(read_file(kCopy + "/" + line.substr(file.size())), "text") << line;
        }

    // The next run goes on where that one ended.
    EXPECT_EQ(run_program({"-e", "7"}).err, "");
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_TRUE(same_trees(kPictures, kCopy));
    EXPECT_EQ(history_entries(kJob), 2);
}

TEST_F(Cancels, TheOrderInWhichACancelTells) {
    REQUIRE_VOLUMES();
    make_files(kFewFolders);
    RequestQueue queue;
    EventReceiver events;
    HeldJob job(job_settings("NEVER"));
    ProgramOptions options;
    options.preload = {kOrderLog};
    options.environment = {{"ORDER_LOG", "/tmp/order"}};
    job.cancel(options);
    EXPECT_EQ(read_file("/tmp/order"), "sync: BACKUP_STATUS__CANCELLING, history 0, snapshots 1\n"
                                       "signal 1 to the group: BACKUP_STATUS__CANCELLING, history 0, snapshots 1\n"
                                       "wait 1: BACKUP_STATUS__CANCELLING, history 0, snapshots 1\n"
                                       "sync: BACKUP_STATUS__CANCELLING, history 0, snapshots 1\n"
                                       "wait 1: BACKUP_STATUS__CANCELLING, history 0, snapshots 1\n"
                                       "sync: BACKUP_STATUS__CANCELLING, history 0, snapshots 1\n"
                                       "event backup result: BACKUP_STATUS__CANCELLING, history 1, snapshots 0\n");
    EXPECT_EQ(with_placeholders(read_file(status_path(kJob))), kCancelled + "\n");
    // An incremental run: its flag is told, and no full one is noted.
    EXPECT_THAT(read_file(history_path(kJob)), testing::StartsWith("name: R&D\nfull: no\nproto: local\n"));
    EXPECT_FALSE(file_exists(kLastFull));
    EXPECT_EQ(last_result(kJob), 11);
    EXPECT_THAT(remains(job.pid()), IsEmpty());
}

TEST_F(Cancels, AJobThatWasDeletedWhileItRanIsStoppedWithoutHistoryOrEvent) {
    REQUIRE_VOLUMES();
    make_files(kFewFolders);
    RequestQueue queue;
    EventReceiver events;
    StatusWatcher status(kJob);
    HeldJob job(job_settings("FIRST_TIME"));
    const std::string snapshot = snapshots().front();
    JobFile().job(8, job_settings("FIRST_TIME")).write();
    const Outcome cancel = job.cancel();
    EXPECT_EQ(cancel.status, 0);
    EXPECT_EQ(told(cancel),
              cancel_lines(job.pid(), "tsbackup_utils (notice) Clean up old snapshot " + snapshot + "\n"));
    EXPECT_EQ(job.wait(10s).err, "Aborting Backup Job:\n");
    EXPECT_EQ(queue.received(), request_record("dequeue:7\n"));
    EXPECT_THAT(states(status), ElementsAre(running(1), kCancelling, kCancelled));
    EXPECT_THAT(events.received(), IsEmpty());
    EXPECT_FALSE(file_exists(history_path(kJob)));
    EXPECT_FALSE(file_exists(kLastFull));
    EXPECT_THAT(snapshots(), IsEmpty());
    EXPECT_THAT(group_members(job.pid()), IsEmpty());
}

TEST_F(Cancels, OtherJobsAndTheirSnapshotsAreLeftAlone) {
    REQUIRE_VOLUMES();
    make_files(kFewFolders);
    write_file("/data/Music/song", "text");
    HeldJob job(job_settings("FIRST_TIME"));
    const std::string number = std::to_string(job.pid());
    for (const std::string &name : {"b_8_1" + number, "b_" + number + "_1"})
        shell_output("/sbin/btrfs subvolume snapshot -r /data/Pictures /data/._share/Pictures/.snapshot/" + name);
    make_folder("/data/._share/Music/.snapshot");
    shell_output("/sbin/btrfs subvolume snapshot -r /data/Music /data/._share/Music/.snapshot/b_9_" + number);
    const RequestQueue queue;
    EXPECT_EQ(run_program({"-k", "8"}).status, 0);
    EXPECT_TRUE(job.running());
    EXPECT_THAT(snapshots(), SizeIs(4));
    job.cancel();
    EXPECT_THAT(snapshots(), testing::UnorderedElementsAre("/data/._share/Pictures/.snapshot/b_8_1" + number,
                                                           "/data/._share/Pictures/.snapshot/b_" + number + "_1"));
    EXPECT_EQ(with_placeholders(read_file(status_path(8))), kCancelled + "\n");
}

TEST_F(Cancels, AQueuedJobIsOnlyDequeued) {
    JobFile().job(kJob, job_settings("FIRST_TIME")).write();
    RequestQueue queue;
    EventReceiver events;
    const std::string lines = "tsbackup (notice) perform kill job_id=7\ntsbackup (debug) Nothing to kill for "
                              "job_id=7\ntsbackup_utils (debug) write(/var/log/tessera/backup/status_backup_007,"
                              "BACKUP_STATUS__CANCELLED!!TIME!!notice)\n";
    // No file, and files that name no living process.
    for (const char *content : {static_cast<const char *>(nullptr), "", "4194304", "none", "0"}) {
        if (content != nullptr) write_file(pid_path(kJob), content, 0600);
        remove_tree(status_path(kJob));
        StatusWatcher status(kJob);
        ProgramOptions options;
        options.preload = {kShortWaits};
        options.environment = {{"SHORT_WAITS_LOG", "/tmp/waits"}};
        const Outcome outcome = run_program({"-v", "7", "-k", "7"}, options);
        EXPECT_EQ(read_file("/tmp/waits"), "");
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(told(outcome), lines) << (content != nullptr ? content : "no file");
        EXPECT_EQ(queue.received(), request_record("dequeue:7\n"));
        EXPECT_THAT(states(status), ElementsAre(kCancelled));
    }
    EXPECT_THAT(events.received(), IsEmpty());
    EXPECT_THAT(list_folder(kLogFolder), ElementsAre("status_backup_007"));
    EXPECT_EQ(read_file(pid_path(kJob)), "0");
}

TEST_F(Cancels, AnUnknownJobIsDequeuedLikeAnyOther) {
    RequestQueue queue;
    EXPECT_EQ(run_program({"-k", "1234"}).status, 0);
    EXPECT_EQ(queue.received(), request_record("dequeue:1234\n"));
    EXPECT_EQ(with_placeholders(read_file(std::string(kLogFolder) + "/status_backup_1234")), kCancelled + "\n");
}

TEST_F(Cancels, WithoutAQueueDaemonTheStatusIsWrittenAllTheSame) {
    EXPECT_EQ(told(run_program({"-k", "7"})),
              "tsbackup (notice) perform kill job_id=7\ntsbackup (error) Cannot open /var/run/zelkovad/tsbackup-q, "
              "because tsbackup-q is not running\n");
    EXPECT_EQ(with_placeholders(read_file(status_path(kJob))), kCancelled + "\n");
}

TEST_F(Cancels, TheButtonsJobIsRefused) {
    JobFile().button_jobs({1, 2}).write();
    RequestQueue queue;
    EventReceiver events;
    for (const char *id : {"0", "x", "4294967296"}) {
        const Outcome outcome = run_program({"-k", id});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(told(outcome), "tsbackup (notice) perform kill job_id=0\ntsbackup (error) Invalid job_id=0\n");
    }
    EXPECT_EQ(queue.received(), "");
    EXPECT_THAT(events.received(), IsEmpty());
    EXPECT_THAT(list_folder(kLogFolder), IsEmpty());
}

TEST_F(Cancels, AJobThatWaitsForItsMachineHasNoFullFlag) {
    REQUIRE_VOLUMES();
    REQUIRE_BROADCAST_NETWORK();
    set_service("ANTIVIRUS", "1");
    JobFile().job(kJob, job_settings("NEVER", {{"wol_addr", "00:11:22:33:44:55"}, {"time_to_wait", "60"}})).write();
    RequestQueue queue;
    EventReceiver events;
    StatusWatcher status(kJob);
    Program job({"-e", "7"});
    ASSERT_TRUE(wait_until([] { return !read_file(status_path(kJob)).empty(); }));
    // What a backend of the job would have left mounted, for everybody to see.
    make_folder("/job_007");
    shell_output("mount -t tmpfs none /job_007");
    const Outcome cancel = run_program({"-k", "7"});
    EXPECT_EQ(told(cancel), cancel_lines(job.pid()));
    EXPECT_EQ(job.wait(10s).err, "Aborting Backup Job:\n");
    EXPECT_THAT(states(status), ElementsAre("BACKUP_STATUS__WOL_WAKING!!TIME!!OK", kCancelling, kCancelled));
    EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "R&amp;D", 11)));
    EXPECT_TRUE(matches_golden("cancel/waking.history", with_placeholders(read_file(history_path(kJob)))));
    // The undecided flag counts as a full run there: kept so.
    EXPECT_THAT(read_file(history_path(kJob)), HasSubstr("start: " + read_file(kLastFull)));
    EXPECT_THAT(remains(job.pid()), IsEmpty());
    EXPECT_EQ(kept_copy_log_path(kJob), "");
}

TEST_F(Cancels, AClaimedJobCanBeCancelledFromItsFirstInstantOn) {
    REQUIRE_VOLUMES();
    make_files(kManyFolders);
    JobFile().job(kJob, job_settings("FIRST_TIME")).write();
    for (const auto delay : {0us, 2000us, 10000us}) {
        SCOPED_TRACE(delay.count());
        remove_tree(pid_path(kJob));
        remove_tree(status_path(kJob));
        remove_tree(kLastFull);
        const int entries = history_entries(kJob);
        RequestQueue queue;
        EventReceiver events;
        Program job({"-e", "7"});
        ASSERT_TRUE(wait_until([&] { return read_file(pid_path(kJob)) == std::to_string(job.pid()); }));
        usleep(static_cast<useconds_t>(delay.count()));
        const Outcome cancel = run_program({"-k", "7"});
        EXPECT_EQ(cancel.status, 0);
        const Outcome outcome = job.wait(60s);
        // Claimed means that it can be cancelled: the handler is in place before.
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.err, "Aborting Backup Job:\n");
        EXPECT_EQ(with_placeholders(read_file(status_path(kJob))), kCancelled + "\n");
        EXPECT_EQ(queue.received(), request_record("dequeue:7\n"));
        EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "R&amp;D", 11)));
        EXPECT_EQ(history_entries(kJob), entries + 1);
        EXPECT_EQ(last_result(kJob), 11);
        EXPECT_THAT(remains(job.pid()), IsEmpty());
    }
}

TEST_F(Cancels, BeforeTheClaimThereIsNothingToCancelAndTheRunGoesOn) {
    REQUIRE_VOLUMES();
    write_file(kPictures + "/a", "text");
    JobFile().job(kJob, job_settings("FIRST_TIME")).write();
    // Held where it deletes a left-over snapshot, ahead of its claim.
    make_folder("/data/._share/Pictures/.snapshot/b_1_1");
    const StandIn btrfs("/sbin/btrfs", "while [ ! -e /tmp/go ]; do sleep 0.01; done; exec /usr/bin/btrfs \"$@\"");
    RequestQueue queue;
    Program job({"-e", "7"});
    ASSERT_TRUE(wait_until([&] { return !btrfs.calls().empty(); }));
    run_program({"-k", "7"});
    EXPECT_EQ(queue.received(), request_record("dequeue:7\n"));
    EXPECT_EQ(with_placeholders(read_file(status_path(kJob))), kCancelled + "\n");
    write_file("/tmp/go", "");
    EXPECT_EQ(job.wait().status, 0);
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(with_placeholders(read_file(status_path(kJob))), "BACKUP_STATUS__COMPLETED!!TIME!!OK\n");
}

TEST_F(Cancels, AHangUpAloneLeavesTheStatusForTheCanceller) {
    REQUIRE_VOLUMES();
    make_files(kFewFolders);
    EventReceiver events;
    HeldJob job(job_settings("FIRST_TIME"));
    const std::string log = read_file(kCopyLog);
    job.signal(SIGHUP);
    job.signal(SIGCONT);
    const Outcome outcome = job.wait(10s);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "Aborting Backup Job:\n");
    EXPECT_EQ(with_placeholders(read_file(status_path(kJob))), running(1) + "\n");
    EXPECT_EQ(read_file(kCopyLog), log);
    EXPECT_THAT(events.received(), IsEmpty());
    EXPECT_FALSE(file_exists(history_path(kJob)));
    ASSERT_THAT(snapshots(), SizeIs(1));
    // The next run of any job takes away what is left, and this job's claim is free.
    EXPECT_EQ(told(run_program({"-e", "7"})),
              "tsbackup_utils (notice) Clean up old snapshot /data/._share/Pictures/.snapshot/b_7_" +
                  std::to_string(job.pid()) + "\n");
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_THAT(remains(job.pid()), IsEmpty());
}

TEST_F(Cancels, TheHangUpReachesTheChildrenOfAJob) {
    REQUIRE_VOLUMES();
    // A job whose tool hangs: it is the whole group that is hung up.
    const StandIn btrfs("/sbin/btrfs", "case $2 in snapshot) exec sleep 600;; esac");
    JobFile().job(kJob, job_settings("FIRST_TIME")).write();
    const RequestQueue queue;
    Program job({"-e", "7"});
    ASSERT_TRUE(wait_until([&] { return group_members(job.pid()).size() >= 2 && !btrfs.calls().empty(); }));
    EXPECT_EQ(run_program({"-k", "7"}).status, 0);
    EXPECT_EQ(job.wait(10s).status, 0);
    EXPECT_THAT(group_members(job.pid()), IsEmpty());
    EXPECT_EQ(last_result(kJob), 11);
}

} // namespace
} // namespace tsbackup::test
