// The complete system, with nothing played: a request goes through the queue daemon to its worker, whose event reaches
// the receiver, while the viewer shows what happens.

#include "aftermath.h"
#include "job_runs.h"

#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <memory>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string kPrograms = "/opt/tsbackup/sbin/";
const std::string kEventsTold = "/run/test-events"; ///< what the event receiver tells
const std::string kQueueTold = "/run/test-queue";   ///< what the queue daemon tells
const std::string kQueue = "/var/lib/tsbackup/queue";
const std::string kHold = "/run/test-hold"; ///< while the file is there, snapshots take their time

ProgramOptions in_program(const std::string &program) {
    ProgramOptions options;
    options.program = program;
    return options;
}

/// A daemon whose output goes to a file.
std::unique_ptr<Program> daemon(const std::string &name, const std::string &told) {
    return std::make_unique<Program>(std::vector<std::string>{"-c", "exec " + kPrograms + name + " >" + told + " 2>&1"},
                                     in_program("/bin/sh"));
}

Settings pictures_to_the_vault() {
    return Settings{{"name", "Pictures to the vault"},
                    {"enabled", "1"},
                    {"opt_full_backup_freq", "FIRST_TIME"},
                    {"opt_email_this_to_alert_email", "0"}} +
           source_share("data", "Pictures") + destination_share("vault", "Backup", "pictures");
}

Settings documents_to_usb() {
    return Settings{{"name", "Documents to USB"},
                    {"enabled", "1"},
                    {"opt_full_backup_freq", "FIRST_TIME"},
                    {"opt_email_this_to_alert_email", "0"}} +
           source_share("data", "Documents") + destination_usb("1", "documents");
}

class CompleteSystem : public testing::Test {
  protected:
    void SetUp() override {
        if (!in_appliance()) GTEST_SKIP() << "needs the demonstration appliance's own root";
        if (!file_exists(kPrograms + "tsbackup-q")) GTEST_SKIP() << "the companions are not installed";
        REQUIRE_VOLUMES();
        reset_appliance();
        clear();
        make_tree("/data/Pictures");
        make_tree("/data/Documents");
        JobFile().job(7, pictures_to_the_vault()).job(8, documents_to_usb()).button_jobs({7, 8}).write();
        chmod("/etc/tessera/backup_jobs.conf", 0600);
    }
    void TearDown() override {
        unlink(kHold.c_str());
        queue_.reset();
        events_.reset();
        if (in_appliance()) clear();
    }
    static void clear() {
        shell_output("rm -rf /run/test-* /var/lib/tsbackup /run/tsbackup /run/zelkovad/event; "
                     "rm -f /run/zelkovad/tsbackup-q");
    }

    void start() {
        events_ = daemon("zelkova-eventd", kEventsTold);
        queue_ = daemon("tsbackup-q", kQueueTold);
        ASSERT_TRUE(wait_until([] { return file_exists("/var/run/zelkovad/event") && file_exists(kQueue); }));
    }
    void stop() const {
        for (Program *program : {queue_.get(), events_.get()}) {
            program->signal(SIGTERM);
            EXPECT_EQ(program->wait(20s).status, 0);
        }
    }

    /// How often the event receiver has told a result.
    static std::size_t results(int job, const std::string &name, int status, int by_button = 0) {
        std::string event = result_event(job, name, status, 0, by_button);
        event.erase(0, event.rfind('\n') + 1);
        return count_of(read_file(kEventsTold), "zelkova-eventd: event backup from zelkovad: " + event + "\n");
    }
    static bool has_result(int job, const std::string &name, int status, int by_button = 0) {
        return wait_until([&] { return results(job, name, status, by_button) == 1; }, 120s);
    }
    static bool is_idle() {
        return wait_until([] { return read_file(kQueue).empty(); }, 60s);
    }
    static std::string shown(const std::vector<std::string> &arguments = {}) {
        const Outcome outcome = run_program(arguments, in_program(kPrograms + "tsbackup-status"));
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        return outcome.out;
    }

    std::unique_ptr<Program> events_;
    std::unique_ptr<Program> queue_;
};

TEST_F(CompleteSystem, ARequestIsQueuedRunShownAndReported) {
    const Outcome check = run_program({}, in_program(kPrograms + "tsbackup-check"));
    EXPECT_EQ(check.status, 0) << check.out;
    StatusWatcher status(7);
    start();
    EXPECT_THAT(shown({"7"}), HasSubstr("never run"));
    ASSERT_EQ(run_program({"7"}).status, 0);
    ASSERT_TRUE(has_result(7, "Pictures to the vault", 0));
    EXPECT_TRUE(is_idle());
    EXPECT_THAT(states(status),
                ElementsAre("BACKUP_STATUS__IN_QUEUE!!TIME!!OK", "BACKUP_STATUS__IN_PROGRESS,1!!TIME!!OK",
                            "BACKUP_STATUS__COMPLETED!!TIME!!OK"));
    EXPECT_TRUE(same_trees("/data/Pictures", "/vault/Backup/pictures"));
    EXPECT_THAT(shown({"7"}), AllOf(HasSubstr("state        completed, since "), HasSubstr("full"),
                                    HasSubstr("local     completed\n")));

    change_tree("/data/Pictures", 2);
    ASSERT_EQ(run_program({"7"}).status, 0);
    EXPECT_TRUE(wait_until([] { return results(7, "Pictures to the vault", 0) == 2; }, 120s));
    EXPECT_TRUE(is_idle());
    EXPECT_TRUE(same_trees("/data/Pictures", "/vault/Backup/pictures"));
    EXPECT_THAT(shown({"7"}), HasSubstr("incremental  local     completed\n"));
    EXPECT_EQ(history_entries(7), 2);
    stop();
    EXPECT_THAT(read_file(kQueueTold), Not(HasSubstr("dropped")));
}

TEST_F(CompleteSystem, ARunOfTheQueueIsCancelledFromOutsideAndTheNextOneRuns) {
    start();
    const Baseline before;
    write_file(kHold, "");
    const StandIn slow_snapshots("/sbin/btrfs",
                                 "while [ -e " + kHold + " ]; do sleep 0.05; done\nexec /usr/bin/btrfs \"$@\"");
    ASSERT_EQ(run_program({"7"}).status, 0);
    ASSERT_TRUE(wait_until([&] { return state_of(7) == "IN_PROGRESS" && !slow_snapshots.calls().empty(); }));
    EXPECT_THAT(shown({"7"}), HasSubstr("state        in progress, since "));
    ASSERT_EQ(run_program({"8"}).status, 0);
    ASSERT_TRUE(wait_until([] { return state_of(8) == "IN_QUEUE"; }));

    ASSERT_EQ(run_program({"-k", "7"}).status, 0);
    unlink(kHold.c_str());
    EXPECT_TRUE(has_result(7, "Pictures to the vault", 11));
    EXPECT_EQ(state_of(7), "CANCELLED");
    EXPECT_EQ(last_result(7), 11);
    EXPECT_THAT(shown({"7"}), HasSubstr("state        cancelled, since "));
    EXPECT_EQ(shell_output("find /vault/Backup -type f"), "");

    EXPECT_TRUE(has_result(8, "Documents to USB", 0));
    EXPECT_TRUE(is_idle());
    EXPECT_TRUE(same_trees("/data/Documents", "/media/USB/documents"));
    EXPECT_THAT(snapshots(), IsEmpty());
    EXPECT_TRUE(before.restored());
    stop();
}

TEST_F(CompleteSystem, TheButtonRunsItsJobsAndTheirSummary) {
    start();
    ASSERT_EQ(run_program({"0"}).status, 0);
    ASSERT_TRUE(has_result(0, "button", 0, 1));
    EXPECT_TRUE(is_idle());
    EXPECT_EQ(results(7, "Pictures to the vault", 0), 1U);
    EXPECT_EQ(results(8, "Documents to USB", 0), 1U);
    EXPECT_TRUE(same_trees("/data/Pictures", "/vault/Backup/pictures"));
    EXPECT_TRUE(same_trees("/data/Documents", "/media/USB/documents"));
    EXPECT_THAT(shell_output("sed -n 's/^tsbackup-q: \\(job [0-9]*\\) runs.*/\\1/p' " + kQueueTold),
                "job 7\njob 8\njob 0\n");
    const std::string table = shown();
    EXPECT_EQ(count_of(table, "  completed  "), 3U) << table;
    stop();
}

// --- With a journal ---

/// A journal of the appliance's own while the object lives. Its daemon asks for the control groups of who writes to it.
class Journal {
  public:
    Journal() {
        mounted_ = mount("cgroup2", "/sys/fs/cgroup", "cgroup2", 0, nullptr) == 0;
        if (!mounted_ || !file_exists(kProgram)) return;
        mount(nullptr, "/sys/fs/cgroup", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr);
        shell_output("tr -d - </proc/sys/kernel/random/uuid >/etc/machine-id");
        write_file("/etc/systemd/journald.conf",
                   "[Journal]\nStorage=volatile\nReadKMsg=no\nAudit=no\nRuntimeMaxUse=16M\n");
        daemon_ = std::make_unique<Program>(std::vector<std::string>{}, in_program(kProgram));
        answers_ = wait_until([] { return !shell_output("journalctl --quiet --lines=1 2>/dev/null").empty(); }, 20s);
    }
    ~Journal() {
        daemon_.reset();
        shell_output("rm -rf /run/systemd /run/log /etc/systemd /etc/machine-id");
        if (mounted_) umount2("/sys/fs/cgroup", MNT_DETACH);
    }
    Journal(const Journal &) = delete;
    Journal &operator=(const Journal &) = delete;
    bool answers() const { return answers_; }

  private:
    const std::string kProgram = "/lib/systemd/systemd-journald";
    bool mounted_ = false;
    bool answers_ = false;
    std::unique_ptr<Program> daemon_;
};

TEST_F(CompleteSystem, TheJournalHasEachEventWithItsFields) {
    const Journal journal;
    if (!journal.answers()) GTEST_SKIP() << "needs a journal: systemd-journald, and control groups of version 2";
    start();
    ASSERT_EQ(run_program({"8"}).status, 0);
    const std::string found = "journalctl --quiet --identifier=zelkova-eventd --output=cat ZELKOVA_KIND=backup ";
    ASSERT_TRUE(wait_until([&] { return !shell_output(found).empty(); }, 120s));
    EXPECT_TRUE(is_idle());
    const std::string datagram = result_event(8, "Documents to USB", 0);
    const std::string message = datagram.substr(datagram.rfind('\n') + 1);
    EXPECT_EQ(shell_output(found + "--output-fields=ZELKOVA_MESSAGE"), message + "\n");
    EXPECT_EQ(shell_output(found + "--output-fields=ZELKOVA_SOURCE"), "zelkovad\n");
    EXPECT_EQ(shell_output(found + "--output-fields=ZELKOVA_NUMBERS"), "0 0\n");
    EXPECT_EQ(shell_output(found + "--output-fields=PRIORITY"), "5\n");
    EXPECT_EQ(shell_output(found), "event backup from zelkovad: " + message + "\n");
    EXPECT_EQ(read_file(kEventsTold), "");
    stop();
}

} // namespace
} // namespace tsbackup::test
