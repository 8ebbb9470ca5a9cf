// The button on hardware with a card slot: an inserted card is copied into the share that the media server publishes.

#include "job_runs.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string kCard = "/media/USB"; // the disk that plays the card
const std::string kPictures = "/data/Pictures";
const std::string kTableLine = "sd!!USB!!SDCARD_SLOT!!ext4!!1!!mmcblk0p1!!0!!rw!!7!!ok\n";
const std::string kLastFull = std::string(kLogFolder) + "/.last_full_backup_000";

const std::string kStarting = "BACKUP_STATUS__IN_PROGRESS,0!!TIME!!OK";
const std::string kFullRun = "BACKUP_STATUS__IN_PROGRESS,1!!TIME!!OK";
const std::string kCompleted = "BACKUP_STATUS__COMPLETED!!TIME!!OK";
const std::string kFailed = "BACKUP_STATUS__FAILED!!TIME!!warn";

std::string summary_event(int status) { return result_event(0, "button", status, 0, 1); }

class SdCards : public testing::Test {
  protected:
    void SetUp() override {
        if (!in_appliance()) GTEST_SKIP() << "needs the demonstration appliance's own root";
        REQUIRE_VOLUMES();
        reset_appliance();
        write_file("/etc/tessera/sysinfo", "HARDWARE_TYPE=23\n");
        write_file("/etc/tessera/usb/storage.conf", kTableLine);
        write_file("/etc/minidlna.conf", "port=8200\nmedia_dir=P,/data/Pictures\n");
        write_file(kCard + "/DCIM/100/IMG 1.jpg", "first");
        write_file(kCard + "/DCIM/100/IMG 2.jpg", "second");
    }

    /// Presses the button.
    static Outcome press(const ProgramOptions &options = {}) {
        Outcome outcome = run_program({"-e", "0"}, options);
        EXPECT_EQ(outcome.status, 0);
        return outcome;
    }

    static std::string last_entry() { return with_placeholders(read_file(history_path(0))); }
};

TEST_F(SdCards, ACardIsCopiedIntoAFolderOfItsNameInTheMediaShare) {
    EventReceiver events;
    StatusWatcher status(0);
    const Outcome outcome = press();
    EXPECT_EQ(outcome.err, "");
    EXPECT_TRUE(same_trees(kCard, kPictures + "/USB"));
    EXPECT_THAT(states(status), ElementsAre(kStarting, kFullRun, kCompleted));
    EXPECT_THAT(events.received(), ElementsAre(result_event(0, "SD_to_Pictures", 0, 0, 1), summary_event(0)));
    EXPECT_TRUE(same_text("name: SD_to_Pictures\nfull: yes\nproto: local\nsrc: [share:USB]/\n"
                          "dst: [share:Pictures]/USB\nstart: TIME\nfinish: TIME\nstatus: 0\nlog:\n",
                          last_entry()));
    // Neither the run's copy log nor its error log exists, and nothing is kept of them.
    EXPECT_EQ(shell_output("cd /apps/.backup && ls; cd /var/log/tessera/backup && ls -A"),
              ".last_full_backup_000\nbackup_000.log\nstatus_backup_000\n");
    EXPECT_THAT(snapshots(), IsEmpty());
    EXPECT_EQ(read_file(pid_path(0)).empty(), false);
}

TEST_F(SdCards, OnlyTheFirstCopyIsFull) {
    press();
    const std::string record = read_file(kLastFull);
    write_file(kCard + "/DCIM/100/IMG 3.jpg", "third");
    write_file(kPictures + "/USB/DCIM/100/kept.jpg", "not on the card");
    EventReceiver events;
    StatusWatcher status(0);
    press();
    EXPECT_THAT(states(status), ElementsAre(kCompleted, kStarting, kCompleted));
    EXPECT_THAT(events.received(), ElementsAre(result_event(0, "SD_to_Pictures", 0, 0, 1), summary_event(0)));
    EXPECT_THAT(last_entry(), testing::StartsWith("name: SD_to_Pictures\nfull: no\n"));
    EXPECT_EQ(history_entries(0), 2);
    EXPECT_EQ(read_file(kLastFull), record);
    EXPECT_EQ(read_file(kPictures + "/USB/DCIM/100/IMG 3.jpg"), "third");
    EXPECT_EQ(read_file(kPictures + "/USB/DCIM/100/kept.jpg"), "not on the card");
}

TEST_F(SdCards, TheButtonsSummarySharesTheBooks) {
    // The record of job 0 decides for the card, whoever wrote it.
    write_file(kLastFull, "5\n");
    press();
    EXPECT_THAT(last_entry(), HasSubstr("full: no\n"));
    EXPECT_EQ(read_file(kLastFull), "5\n");
}

TEST_F(SdCards, EventsComeBeforeTheFinalStatusAndTheSummaryLast) {
    ProgramOptions options;
    options.preload = {kOrderLog};
    options.environment = {{"ORDER_LOG", "/tmp/order"}};
    EventReceiver events;
    // The log of the order shows job 7's files: let them be those of job 0.
    std::filesystem::create_symlink("status_backup_000", status_path(7));
    std::filesystem::create_symlink("backup_000.log", history_path(7));
    press(options);
    std::string order;
    std::istringstream lines(read_file("/tmp/order"));
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("event")) order += line + "\n";
    EXPECT_EQ(order, "event backup result: BACKUP_STATUS__IN_PROGRESS, history 1, snapshots 0\n"
                     "event backup result: BACKUP_STATUS__COMPLETED, history 1, snapshots 0\n");
    EXPECT_THAT(events.received(), ElementsAre(result_event(0, "SD_to_Pictures", 0, 0, 1), summary_event(0)));
}

TEST_F(SdCards, ACopyThatFailsFailsTheButton) {
    const struct {
        const char *target;
        const char *escaped_name;
        int result;
    } cases[] = {
        {"/data/Nowhere", "SD_to_Nowhere", 4}, // no such share
        {"/data/A & B", "SD_to_A &amp; B", 4},
        {"/srv/x", "SD_to_x", 4},
    };
    for (const auto &[target, name, result] : cases) {
        SCOPED_TRACE(target);
        remove_tree(status_path(0));
        write_file("/etc/minidlna.conf", std::string("media_dir=V,") + target + "\n");
        EventReceiver events;
        StatusWatcher status(0);
        press();
        EXPECT_THAT(states(status), testing::Contains(kFailed));
        EXPECT_EQ(states(status).back(), kFailed);
        EXPECT_THAT(events.received(), ElementsAre(result_event(0, name, result, 0, 1), summary_event(1)));
        EXPECT_EQ(last_result(0), result);
    }
    // A failed first copy still was the full one.
    EXPECT_TRUE(file_exists(kLastFull));
}

TEST_F(SdCards, ACardThatIsNotMountedFails) {
    write_file("/etc/tessera/usb/storage.conf", "sd!!GONE!!SDCARD_SLOT!!ext4!!1!!mmcblk0p1!!0!!rw!!7!!ok\n");
    make_folder("/media/GONE");
    EventReceiver events;
    EXPECT_EQ(settled_diagnostics(press().err, -1),
              "tsbackup (error) Path /media not exists or the same device as /media/GONE\n");
    EXPECT_THAT(events.received(), ElementsAre(result_event(0, "SD_to_Pictures", 3, 0, 1), summary_event(1)));
}

TEST_F(SdCards, ACardWithoutATargetFails) {
    for (const bool has_file : {true, false}) {
        remove_tree("/etc/minidlna.conf");
        remove_tree(status_path(0));
        if (has_file) write_file("/etc/minidlna.conf", "media_dir=V,/data\n");
        EventReceiver events;
        StatusWatcher status(0);
        const Outcome outcome = press();
        EXPECT_EQ(outcome.err, "");
        EXPECT_THAT(states(status), ElementsAre(kStarting, kFailed));
        EXPECT_THAT(events.received(), ElementsAre(result_event(0, "SD_to_", 4, 0, 1), summary_event(1)));
        EXPECT_FALSE(file_exists(history_path(0)));
        EXPECT_FALSE(file_exists(kLastFull));
        EXPECT_FALSE(file_exists(kPictures + "/USB"));
    }
}

TEST_F(SdCards, WithoutAnEnabledCardNothingIsWrittenOrTold) {
    EventReceiver events;
    for (const std::string table : {"", "sd!!USB!!SDCARD_SLOT!!ext4!!0!!mmcblk0p1!!0!!rw!!7!!ok\n"}) {
        write_file("/etc/tessera/usb/storage.conf", table);
        EXPECT_EQ(press().err, "");
    }
    remove_tree("/etc/tessera/usb/storage.conf");
    EXPECT_EQ(press().err, "");
    EXPECT_THAT(events.received(), IsEmpty());
    EXPECT_THAT(list_folder(kLogFolder), IsEmpty());
    EXPECT_THAT(list_folder(kPictures), IsEmpty());
}

TEST_F(SdCards, ButtonJobsAndOtherHardwareLeaveTheCardAlone) {
    JobFile().button_jobs({1}).write();
    {
        EventReceiver events;
        press();
        EXPECT_THAT(events.received(), ElementsAre(summary_event(0)));
    }
    remove_tree("/etc/tessera/backup_jobs.conf");
    remove_tree(status_path(0));
    for (const char *hardware : {"HARDWARE_TYPE=1\n", "HARDWARE_TYPE=230\n", ""}) {
        write_file("/etc/tessera/sysinfo", hardware);
        EventReceiver events;
        press();
        EXPECT_THAT(events.received(), IsEmpty());
        EXPECT_FALSE(file_exists(status_path(0)));
    }
    EXPECT_THAT(list_folder(kPictures), IsEmpty());
}

TEST_F(SdCards, TheCopyShowsItsProgressSinceItsOwnStart) {
    constexpr int kFiles = 500;
    for (int number = 0; number < kFiles; ++number)
        write_file(kCard + "/" + std::to_string(number), std::string(1000, 'x'));
    StatusWatcher status(0);
    Program job({"-e", "0"});
    ASSERT_TRUE(wait_until([] { return !list_folder(kPictures).empty(); }));
    job.signal(SIGSTOP);
    usleep(2'100'000);
    job.signal(SIGCONT);
    EXPECT_EQ(job.wait().status, 0);
    bool shown = false;
    for (const std::string &content : status.seen()) {
        std::istringstream lines(content);
        std::string state;
        long rate = 0;
        long seconds = 0;
        char mark = 0;
        if (!std::getline(lines, state) || !(lines >> rate >> mark >> mark >> seconds)) continue;
        shown = true;
        EXPECT_GE(seconds, 1);
        EXPECT_LT(seconds, 600);
    }
    EXPECT_TRUE(shown);
    EXPECT_EQ(with_placeholders(read_file(status_path(0))), kCompleted + "\n");
}

} // namespace
} // namespace tsbackup::test
