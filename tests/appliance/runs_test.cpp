// Whole runs of a job between local ends: what the installed program copies, writes and tells, in which order.

#include "aftermath.h"
#include "job_runs.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <regex>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;

constexpr int kJob = 7;
const std::string kPictures = "/data/Pictures";
const std::string kBackup = "/vault/Backup";

const std::string kRunning[] = {"BACKUP_STATUS__IN_PROGRESS,0!!TIME!!OK", "BACKUP_STATUS__IN_PROGRESS,1!!TIME!!OK"};
const std::string kCompleted = "BACKUP_STATUS__COMPLETED!!TIME!!OK";
const std::string kFailed = "BACKUP_STATUS__FAILED!!TIME!!warn";
const std::string kWaking = "BACKUP_STATUS__WOL_WAKING!!TIME!!OK";

std::string last_full_path(int job_id) {
    return std::string(kLogFolder) + "/.last_full_backup_" + std::string(job_id < 10 ? "00" : "0") +
           std::to_string(job_id);
}

/// A job of share "Pictures" to a folder of share "Backup".
Settings pictures_to_backup(const Settings &more = {}) {
    return Settings{{"name", "Pictures"}, {"opt_full_backup_freq", "FIRST_TIME"}} + source_share("data", "Pictures") +
           destination_share("vault", "Backup", "copy") + more;
}

/// A file whose content and time are always the same.
void put(const std::string &path, const std::string &content, const std::string &time = "2024-02-29 12:00:00.5Z") {
    write_file(path, content);
    shell_output("touch -d '" + time + "' '" + path + "'");
}

std::string copy_log(int job_id = kJob) { return read_file(kept_copy_log_path(job_id)); }

auto line_count(const std::string &text) { return std::count(text.begin(), text.end(), '\n'); }

/// Standard output without what the file system's own tool says there.
std::string said(const Outcome &outcome) {
    std::istringstream lines(outcome.out);
    std::string rest;
    for (std::string line; std::getline(lines, line);)
        if (!line.starts_with("Create a readonly snapshot of ") && !line.starts_with("Delete subvolume "))
            rest += line + "\n";
    return rest;
}

/// The lines of a text whose level is at most "notice", as they are told without any -v.
std::string told(const Outcome &outcome, pid_t pid = -1) { return settled_diagnostics(outcome.err, pid); }

class Runs : public testing::Test {
  protected:
    void SetUp() override {
        if (!in_appliance()) GTEST_SKIP() << "needs the demonstration appliance's own root";
        reset_appliance();
    }

    /// Runs job 7 with these settings.
    Outcome run(const Settings &settings, const std::vector<std::string> &options = {},
                const ProgramOptions &program_options = {}) {
        JobFile().job(kJob, settings).write();
        return run_again(options, program_options);
    }

    Outcome run_again(const std::vector<std::string> &options = {}, const ProgramOptions &program_options = {}) {
        std::vector<std::string> arguments = options;
        arguments.insert(arguments.end(), {"-e", std::to_string(kJob)});
        Program program(arguments, program_options);
        pid_ = program.pid();
        return program.wait();
    }

    pid_t pid_ = -1; ///< process of the last run
};

// --- A run as a whole ---

TEST_F(Runs, AFullRunBetweenSharesLeavesTheseTraces) {
    REQUIRE_VOLUMES();
    put(kPictures + "/a & b.txt", "first\n");
    put(kPictures + "/Empty", "");
    put(kPictures + "/Folder with blanks/-dash", "second\n");
    put(kPictures + "/Folder with blanks/deep/\xc3\xa9t\xc3\xa9", "third\n");
    make_folder(kPictures + "/Folder with blanks/empty");
    put(kPictures + "/.snapshot/old", "never");
    put(kPictures + "/._snap-1", "never");
    put(kPictures + "/deep/.apps/app", "never");
    put(kPictures + "/deep/.vault", "never");
    put(kPictures + "/deep/.snapshots", "copied");
    put(kPictures + "/.apps2/x", "copied");
    std::filesystem::create_symlink("/etc/passwd", kPictures + "/link");
    mkfifo((kPictures + "/pipe").c_str(), 0666);

    const RequestQueue queue;
    EventReceiver events;
    StatusWatcher status(kJob);
    const Outcome outcome =
        run(pictures_to_backup({{"name", "Night & <\"day\">"}, {"opt_email_this_to_alert_email", "1"}}), {"-v", "7"});

    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(said(outcome), "");
    EXPECT_TRUE(matches_golden("runs/full.diagnostics", told(outcome, pid_)));
    EXPECT_TRUE(matches_golden("runs/full.history", with_placeholders(read_file(history_path(kJob)))));
    EXPECT_TRUE(matches_golden("runs/full.copy.log", copy_log()));
    EXPECT_EQ(read_file(error_log_path(kJob)), "");
    EXPECT_THAT(states(status), ElementsAre(kRunning[1], kCompleted));
    EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "Night &amp; &lt;&quot;day&quot;&gt;", 0, 1)));
    EXPECT_EQ(shell_output("cd " + kBackup + "/copy && find . | sort"),
              ".\n./.apps2\n./.apps2/x\n./Empty\n./Folder with blanks\n./Folder with blanks/-dash\n"
              "./Folder with blanks/deep\n./Folder with blanks/deep/\xc3\xa9t\xc3\xa9\n./Folder with blanks/empty\n"
              "./a & b.txt\n./deep\n./deep/.snapshots\n");
    EXPECT_EQ(shell_output("find /apps /var/log/tessera/backup /var/run/zelkovad -type f -printf '%m %P\\n' | "
                           "sed -E 's/[0-9]{10}/TIME/' | LC_ALL=C sort"),
              "600 backup_007.pid\n644 .last_full_backup_007\n644 backup_007.log\n644 backup_007_copy.TIME.log\n"
              "644 backup_007_error.log\n644 status_backup_007\n");
    EXPECT_EQ(read_file(pid_path(kJob)), std::to_string(pid_));
    EXPECT_THAT(snapshots(), IsEmpty());

    // One start time stands in all of them.
    const std::string start = read_file(last_full_path(kJob));
    EXPECT_THAT(read_file(history_path(kJob)), HasSubstr("start: " + start));
    EXPECT_THAT(kept_copy_log_path(kJob), HasSubstr("_copy." + start.substr(0, 10) + ".log"));
    EXPECT_THAT(read_file(status_path(kJob)), HasSubstr("!!" + start.substr(0, 10) + "!!"));
}

TEST_F(Runs, TreesArriveWithOwnersModesListsAndTimes) {
    REQUIRE_VOLUMES();
    make_tree(kPictures + "/tree", {.seed = 3, .folders = 20, .files = 150});
    const Settings settings =
        pictures_to_backup() + source_share("data", "Pictures", "tree") + destination_share("vault", "Backup", "a/b");
    run(settings);
    EXPECT_EQ(last_result(kJob), 0) << read_file(error_log_path(kJob));
    EXPECT_TRUE(same_trees(kPictures + "/tree", kBackup + "/a/b"));

    run(settings + destination_usb("1", "tree copy"));
    EXPECT_EQ(last_result(kJob), 0) << read_file(error_log_path(kJob));
    EXPECT_TRUE(same_trees(kPictures + "/tree", "/media/USB/tree copy"));
}

TEST_F(Runs, ToAUsbDiskWithEjectTellsInThisOrder) {
    REQUIRE_VOLUMES();
    put(kPictures + "/a", "first");
    EventReceiver events;
    StatusWatcher status(kJob);
    ProgramOptions options;
    options.preload = {kOrderLog};
    options.environment = {{"ORDER_LOG", "/tmp/order"}};
    run(pictures_to_backup({{"name", "x&y"}, {"dst_eject", "1"}}) + destination_usb("1", "kept/here"), {}, options);

    EXPECT_EQ(read_file("/media/USB/kept/here/a"), "first");
    EXPECT_THAT(events.received(),
                ElementsAre("ui\nzelkovad\n0 0\n<xs:delete-s resource-type=\"HotPlug\" resource-id=\"UsbStorage\" "
                            "action=\"eject\" device=\"sdq1\"></xs:delete-s>",
                            "backup\nzelkovad\n0 0\n<xs:add-s resource-type=\"Log\" resource-id=\"Log\"><Log "
                            "severity=\"notice\" category=\"system\" message-tag=\"LOGMSG_USB_EJECT_BY_BACKUP\"><args "
                            "ShareName=\"USB\" JobName=\"x&amp;y\"/></Log></xs:add-s>",
                            result_event(kJob, "x&amp;y", 0)));
    // The snapshot is gone before the eject, the history is written before the result, the final status comes last.
    EXPECT_EQ(read_file("/tmp/order"), "sync: BACKUP_STATUS__IN_PROGRESS, history 0, snapshots 0\n"
                                       "event ui eject: BACKUP_STATUS__IN_PROGRESS, history 0, snapshots 0\n"
                                       "event backup notice: BACKUP_STATUS__IN_PROGRESS, history 0, snapshots 0\n"
                                       "event backup result: BACKUP_STATUS__IN_PROGRESS, history 1, snapshots 0\n");
    EXPECT_THAT(states(status), ElementsAre(kRunning[1], kCompleted));
    EXPECT_TRUE(matches_golden("runs/usb.history", with_placeholders(read_file(history_path(kJob)))));
}

TEST_F(Runs, EjectIsTheDisksThatTheFailedRunUsedToo) {
    REQUIRE_VOLUMES();
    EventReceiver events;
    run(pictures_to_backup({{"src_eject", "1"}, {"dst_eject", "1"}}) + source_usb("2", "none") + destination_usb("1"));
    EXPECT_EQ(last_result(kJob), 5);
    const std::vector<std::string> received = events.received();
    ASSERT_THAT(received, SizeIs(3)) << testing::PrintToString(received);
    EXPECT_THAT(received[0], HasSubstr("device=\"sdq1\""));
    EXPECT_EQ(received[2], result_event(kJob, "Pictures", 5));
}

TEST_F(Runs, WithoutAManagementDaemonTheRunIsTheSame) {
    REQUIRE_VOLUMES();
    put(kPictures + "/a", "first");
    const Outcome outcome = run(pictures_to_backup());
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(with_placeholders(read_file(status_path(kJob))), kCompleted + "\n");
    EXPECT_EQ(read_file(kBackup + "/copy/a"), "first");
}

TEST_F(Runs, StatusShowsTheProgressBelowTheState) {
    REQUIRE_VOLUMES();
    constexpr int kFiles = 500;
    for (int number = 0; number < kFiles; ++number)
        write_file(kPictures + "/" + std::to_string(number), std::string(1000, 'x'));
    JobFile().job(kJob, pictures_to_backup()).write();
    StatusWatcher status(kJob);
    Program job({"-e", "7"});
    ASSERT_TRUE(wait_until([&] { return !read_file(std::string(kWorkFolder) + "/backup_007_copy.log").empty(); }));
    // No rate can be told before a whole second has passed.
    job.signal(SIGSTOP);
    usleep(1'100'000);
    job.signal(SIGCONT);
    EXPECT_EQ(job.wait().status, 0);

    static const std::regex progress("BACKUP_STATUS__IN_PROGRESS,1!!([0-9]{10})!!OK\n([0-9]+)!!([0-9]+)!!([0-9]+)\n");
    int lines = 0;
    long long last_bytes = 0;
    for (const std::string &content : status.seen()) {
        std::smatch match;
        if (std::count(content.begin(), content.end(), '\n') < 2) continue;
        ASSERT_TRUE(std::regex_match(content, match, progress)) << content;
        const long long rate = std::stoll(match[2]);
        const long long seconds = std::stoll(match[3]);
        const long long bytes = std::stoll(match[4]);
        EXPECT_GE(seconds, 1);
        EXPECT_EQ(rate, bytes / seconds);
        EXPECT_GT(bytes, last_bytes);
        EXPECT_LE(bytes, kFiles * 1000);
        last_bytes = bytes;
        ++lines;
    }
    EXPECT_GT(lines, 1);
    EXPECT_EQ(with_placeholders(read_file(status_path(kJob))), kCompleted + "\n");
}

TEST_F(Runs, NamesAreNeverCommands) {
    REQUIRE_VOLUMES();
    const std::string share = "My $(reboot) pictures; echo `id` & \"x\" #";
    make_share("data", share);
    make_share("vault", share);
    put("/data/" + share + "/d $(touch x)/a", "first");
    const Outcome outcome =
        run(pictures_to_backup({{"opt_chown_to_share_owner", "1"}}) + source_share("data", share, "d $(touch x)") +
            destination_share("vault", share, "to; touch y"));
    EXPECT_EQ(said(outcome), "");
    EXPECT_EQ(told(outcome), "");
    EXPECT_EQ(last_result(kJob), 0) << read_file(error_log_path(kJob));
    EXPECT_EQ(read_file("/vault/" + share + "/to; touch y/a"), "first");
    EXPECT_THAT(snapshots(), IsEmpty());
}

// --- One run after another ---

TEST_F(Runs, TheNextRunCopiesWhatChangedAndDeletesNothing) {
    REQUIRE_VOLUMES();
    for (const char *name :
         {"/changed", "/grown", "/touched", "/touched a little", "/same", "/gone", "/d/same", "/d/moved"})
        put(kPictures + name, "text of ten\n");
    put(kBackup + "/copy/foreign", "not from the source");
    run(pictures_to_backup());
    ASSERT_EQ(last_result(kJob), 0);

    put(kPictures + "/changed", "text of TEN\n", "2024-03-01 12:00:00.5Z");
    put(kPictures + "/grown", "text of ten\nand more\n");
    put(kPictures + "/touched", "text of ten\n", "2023-01-01 12:00:00Z");
    put(kPictures + "/touched a little", "text of ten\n", "2024-02-29 12:00:00.5001Z");
    put(kPictures + "/d/new folder/new", "new");
    std::filesystem::rename(kPictures + "/d/moved", kPictures + "/d/new folder/moved");
    std::filesystem::remove(kPictures + "/gone");
    shell_output("sleep 1.1");

    EventReceiver events;
    StatusWatcher status(kJob);
    run_again();
    EXPECT_TRUE(matches_golden("runs/next.copy.log", copy_log()));
    EXPECT_TRUE(matches_golden("runs/next.history", with_placeholders(read_file(history_path(kJob)))));
    EXPECT_THAT(states(status), ElementsAre(kCompleted, kRunning[0], kCompleted));
    EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "Pictures", 0)));
    for (const char *kept : {"/gone", "/d/moved", "/foreign"})
        EXPECT_TRUE(file_exists(kBackup + "/copy" + kept)) << kept;
    EXPECT_EQ(read_file(kBackup + "/copy/changed"), "text of TEN\n");
    EXPECT_EQ(read_file(kBackup + "/copy/grown"), "text of ten\nand more\n");
    for (const char *left : {"/gone", "/d/moved", "/foreign"})
        remove_tree(kBackup + "/copy" + left);
    EXPECT_TRUE(same_trees(kPictures, kBackup + "/copy"));

    // The newest entry is on top, the full run before it still the last full one.
    std::istringstream history(read_file(history_path(kJob)));
    std::vector<long> starts;
    for (std::string word; history >> word;)
        if (word == "start:" && history >> word) starts.push_back(std::stol(word));
    ASSERT_THAT(starts, SizeIs(2));
    EXPECT_GT(starts[0], starts[1]);
    EXPECT_EQ(read_file(last_full_path(kJob)), std::to_string(starts[1]) + "\n");

    run_again();
    EXPECT_EQ(copy_log(), "");
    EXPECT_EQ(history_entries(kJob), 3);
}

TEST_F(Runs, AFullRunCopiesEverythingAndWipesOnRequest) {
    REQUIRE_VOLUMES();
    put(kPictures + "/a", "first");
    put(kBackup + "/copy/foreign/x", "not from the source");
    const struct {
        const char *frequency;
        const char *remove;
        bool foreign_stays;
        const char *copied;
    } cases[] = {
        {"EVERY_TIME", "0", true, "Copy File  a\n"},
        {"NEVER", "1", true, ""},
        {"EVERY_TIME", "x", true, "Copy File  a\n"},
        {"EVERY_TIME", "1", false, "Copy File  a\n"},
    };
    for (const auto &[frequency, remove, foreign_stays, copied] : cases) {
        run(Settings{{"opt_full_backup_freq", frequency}, {"opt_remove_previous_backup", remove}} +
            source_share("data", "Pictures") + destination_share("vault", "Backup", "copy"));
        EXPECT_EQ(copy_log(), copied) << frequency << " " << remove;
        EXPECT_EQ(file_exists(kBackup + "/copy/foreign/x"), foreign_stays) << frequency << " " << remove;
        EXPECT_EQ(read_file(kBackup + "/copy/a"), "first");
    }
}

TEST_F(Runs, FullOrNotFollowsTheKeywordAndTheRecord) {
    REQUIRE_VOLUMES();
    const long now = std::time(nullptr);
    const long week = 604201;
    const long slack = 60; // the run starts a little later than now
    const struct {
        const char *name;
        Settings frequency;
        std::string record; ///< empty: none
        bool full;
        bool is_unknown;
    } cases[] = {
        {"first time, none", {{"opt_full_backup_freq", "FIRST_TIME"}}, "", true, false},
        {"first time, zero", {{"opt_full_backup_freq", "FIRST_TIME"}}, "0\n", true, false},
        {"first time, any", {{"opt_full_backup_freq", "FIRST_TIME"}}, "5\n", false, false},
        {"first time, unreadable", {{"opt_full_backup_freq", "FIRST_TIME"}}, "soon\n", true, false},
        {"never, none", {{"opt_full_backup_freq", "NEVER"}}, "", false, false},
        {"every time", {{"opt_full_backup_freq", "EVERY_TIME"}}, std::to_string(now) + "\n", true, false},
        {"a week", {{"opt_full_backup_freq", "EVERY_WEEK"}}, std::to_string(now - week) + "\n", true, false},
        {"not a week", {{"opt_full_backup_freq", "EVERY_WEEK"}}, std::to_string(now - week + slack), false, false},
        {"not two", {{"opt_full_backup_freq", "EVERY_2_WEEKS"}}, std::to_string(now - 2 * week), false, false},
        {"four", {{"opt_full_backup_freq", "EVERY_4_WEEKS"}}, std::to_string(now - 2418601), true, false},
        {"not four", {{"opt_full_backup_freq", "EVERY_4_WEEKS"}}, std::to_string(now - 2418601 + slack), false, false},
        {"in the future", {{"opt_full_backup_freq", "EVERY_WEEK"}}, std::to_string(now + week), false, false},
        {"small letters", {{"opt_full_backup_freq", "every_time"}}, "5\n", true, true},
        {"absent", {}, "5\n", true, true},
    };
    int job_id = 0;
    JobFile file;
    for (const auto &test : cases)
        file.job(++job_id,
                 test.frequency + source_share("data", "Pictures") + destination_share("vault", "Backup", "copy"));
    file.write();

    job_id = 0;
    for (const auto &test : cases) {
        ++job_id;
        const std::string path = last_full_path(job_id);
        if (!test.record.empty()) write_file(path, test.record);
        const Outcome outcome = run_program({"-e", std::to_string(job_id)});
        const std::string history = read_file(history_path(job_id));
        EXPECT_THAT(history, HasSubstr(test.full ? "\nfull: yes\n" : "\nfull: no\n")) << test.name;
        const std::size_t start = history.find("start: ") + 7;
        EXPECT_EQ(read_file(path), test.full ? history.substr(start, 11) : test.record) << test.name;
        const std::string value = test.frequency.empty() ? "" : test.frequency.front().second;
        EXPECT_EQ(told(outcome),
                  test.is_unknown ? "tsbackup (error) Unknown full_backup_freq=" + value + "\n" : std::string())
            << test.name;
    }
}

TEST_F(Runs, AFailedFullRunStillRestartsTheInterval) {
    REQUIRE_VOLUMES();
    run(pictures_to_backup({{"opt_full_backup_freq", "EVERY_WEEK"}}) + source_share("data", "Pictures", "none"));
    EXPECT_EQ(last_result(kJob), 5);
    const std::string record = read_file(last_full_path(kJob));
    EXPECT_THAT(read_file(history_path(kJob)), HasSubstr("full: yes\nproto: local\n"));
    EXPECT_THAT(read_file(history_path(kJob)), HasSubstr("start: " + record));
    put(kPictures + "/a", "first");
    run(pictures_to_backup({{"opt_full_backup_freq", "EVERY_WEEK"}}));
    EXPECT_THAT(read_file(history_path(kJob)), StartsWith("name: Pictures\nfull: no\n"));
    EXPECT_EQ(read_file(last_full_path(kJob)), record);
}

TEST_F(Runs, KeptCopyLogIsCappedAndReplacesOlderOnes) {
    REQUIRE_VOLUMES();
    for (int number = 10; number < 30; ++number)
        put(kPictures + "/f" + std::to_string(number), "text");
    const std::string log = std::string(kLogFolder) + "/";
    for (const char *name : {"backup_007_copy.1.log", "backup_007_copy.1234567890.log", "backup_007_copy.x",
                             "backup_070_copy.1.log", "backup_0071_copy.1.log"})
        write_file(log + name, "older");
    run(pictures_to_backup({{"opt_max_log_lines", "5"}, {"opt_full_backup_freq", "EVERY_TIME"}}));
    EXPECT_TRUE(matches_golden("runs/capped.copy.log", copy_log()));
    EXPECT_TRUE(file_exists(log + "backup_070_copy.1.log"));
    EXPECT_TRUE(file_exists(log + "backup_0071_copy.1.log"));
    EXPECT_FALSE(file_exists(std::string(kWorkFolder) + "/backup_007_copy.log"));

    // Ten lines beyond the cap, the last ten, are kept as they are: nothing is left out.
    run(pictures_to_backup({{"opt_max_log_lines", "10"}, {"opt_full_backup_freq", "EVERY_TIME"}}));
    EXPECT_THAT(copy_log(), testing::Not(HasSubstr("TRUNCATED")));
    EXPECT_EQ(line_count(copy_log()), 20);
    run(pictures_to_backup({{"opt_max_log_lines", "0"}, {"opt_full_backup_freq", "EVERY_TIME"}}));
    EXPECT_EQ(line_count(copy_log()), 20);
}

// --- Runs that fail ---

TEST_F(Runs, AnUnknownJobIsOneLineAndNothingElse) {
    const RequestQueue queue;
    EventReceiver events;
    const std::string line = "tsbackup (error) Job_id 7 is not found\n";
    EXPECT_EQ(told(run_again()), line);
    write_file("/etc/tessera/backup_jobs.conf", "<jobs><unfinished>");
    EXPECT_EQ(told(run_again()), line);
    write_file("/etc/tessera/backup_jobs.conf", "");
    EXPECT_EQ(told(run_again()), line);
    JobFile().job(8, pictures_to_backup()).raw("<backupJob><name>no id</name></backupJob>").write();
    const Outcome outcome = run_again();
    EXPECT_EQ(told(outcome), line);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(said(outcome), "");
    EXPECT_THAT(events.received(), IsEmpty());
    EXPECT_THAT(list_folder(kLogFolder), IsEmpty());
    EXPECT_THAT(list_folder(kWorkFolder), IsEmpty());
    EXPECT_EQ(read_file(pid_path(kJob)), std::to_string(pid_));
}

TEST_F(Runs, TheFirstJobWithTheIdCountsAndUnknownElementsAreTold) {
    REQUIRE_VOLUMES();
    put(kPictures + "/a", "first");
    JobFile()
        .button_jobs({7})
        .job(2, {{"colour", "red"}})
        .job(kJob, pictures_to_backup({{"Name", "other"}}))
        .job(kJob, {{"never_read", ""}})
        .write();
    EXPECT_EQ(told(run_again()), "tsbackup (error) Unknown element <backupButtonJob> found\n"
                                 "tsbackup (error) Unknown element <colour> found\n"
                                 "tsbackup (error) Unknown element <Name> found\n");
    EXPECT_EQ(last_result(kJob), 0);
}

struct Failure {
    const char *name;
    Settings ends;
    int result;
    std::string told;
    std::string error_log;
};

TEST_F(Runs, FailuresAreToldEverywhere) {
    REQUIRE_VOLUMES();
    make_folder("/vault/Plain");
    put("/vault/Archive/file", "text");
    put("/vault/Archive/many/one", "text");
    const MountedFor ram("-t tmpfs none", "/media/RAM");
    const Settings source = source_share("data", "Pictures");
    const Settings destination = destination_share("vault", "Backup");
    const Settings remote_source = {{"src_type", "remote"}, {"src_path", "host:/x"}};
    const Settings remote_destination = {{"dst_type", "remote"}, {"dst_path", "host:/x"}};
    const Failure cases[] = {
        {"no destination share", source + destination_share("vault", "Nowhere"), 4,
         "tsbackup (error) Path /vault/Nowhere not exists or not a directory\n", ""},
        {"no destination volume", source + destination_share("nowhere", "Backup"), 4,
         "tsbackup (error) Path /nowhere/Backup not exists or not a directory\n", ""},
        {"no source share", source_share("data", "Nowhere") + destination, 3,
         "tsbackup (error) Path /data/Nowhere not exists or not a directory\n", ""},
        {"neither share: the destination is looked at first",
         source_share("data", "Nowhere") + destination_share("vault", "Nowhere"), 4,
         "tsbackup (error) Path /vault/Nowhere not exists or not a directory\n", ""},
        {"share on its volume's own device", source + destination_share("vault", "Plain"), 4,
         "tsbackup (error) Path /vault not exists or the same device as /vault/Plain\n", ""},
        {"share that is a file", source + destination_share("vault/Archive", "file"), 4,
         "tsbackup (error) Path /vault/Archive/file not exists or not a directory\n", ""},
        {"share on the root's device", source + destination_share("vault/../srv", "x/../../../media"), 4,
         "tsbackup (error) Path /vault/../srv/x/../../../media not exists or not a directory\n", ""},
        {"tmpfs", source + destination_share("media", "RAM", "x"), 2, "", ""},
        {"the root", source + Settings{{"dst_type", "volume"}, {"dst_share_vol", "srv"}, {"dst_share_proto", "x"}}, 2,
         "", ""},
        {"no source path", source_share("data", "Pictures", "none/here/") + destination, 5, "",
         "Path /data/Pictures/none/here/ does not exist!\n"},
        {"no disk at the source's port", source_usb("9") + destination, 3, "",
         "No USB storage was found at usb_port_9!\n"},
        {"no disk at the destination's port", source + destination_usb("9"), 4, "",
         "No USB storage was found at usb_port_9!\n"},
        {"no port", source + destination_usb("1") + Settings{{"dst_share_proto", "1"}}, 4, "", ""},
        {"unknown kind of source", Settings{{"src_type", "Share"}} + destination, 3, "", ""},
        {"no kind of destination", source, 4, "", ""},
        {"unknown source user", Settings{{"src_type", "home"}, {"src_share_proto", "ghost"}} + destination, 4,
         "tsbackup (error) path = /home/ghost does not exist!!!!\n",
         "Can't find username ghost in password database!\n"},
        {"every user as a destination", source + Settings{{"dst_type", "home"}, {"dst_share_proto", "*"}}, 4, "",
         "Can't find username * in password database!\n"},
        {"share name with a number sign of its own", source_share("data", "abc~1") + destination, 3,
         "tsbackup (error) Path /data/abc~1 not exists or not a directory\n", ""},
        {"file in the destination's way", source + destination_share("vault", "Archive", "file/x"), 4, "",
         "Cannot create directory /vault/Archive/file/x!\n"},
        {"remote to remote", remote_source + Settings{{"src_share_proto", "nfs"}} + remote_destination, 4, "", ""},
        {"protocol in capitals", remote_source + Settings{{"src_share_proto", "RSYNC"}} + destination, 3, "", ""},
        {"no protocol", remote_source + destination, 3, "", ""},
        {"source protocol as a destination", source + remote_destination + Settings{{"dst_share_proto", "http"}}, 4, "",
         ""},
        {"archive as a destination", source + remote_destination + Settings{{"dst_share_proto", "cifs-ab"}}, 4, "", ""},
        {"remote destination, no source",
         source_share("data", "Nowhere") + remote_destination + Settings{{"dst_share_proto", "sftp"}}, 3,
         "tsbackup (error) Path /data/Nowhere not exists or not a directory\n", ""},
        {"remote source, no destination",
         remote_source + Settings{{"src_share_proto", "rsync"}} + destination_share("vault", "Nowhere"), 4,
         "tsbackup (error) Path /vault/Nowhere not exists or not a directory\n", ""},
    };
    for (const Failure &test : cases) {
        SCOPED_TRACE(test.name);
        remove_tree(status_path(kJob));
        remove_tree(history_path(kJob));
        EventReceiver events;
        StatusWatcher status(kJob);
        const StandIn helper("/sbin/mkhomedir_helper", "");
        const Outcome outcome = run(Settings{{"name", "n"}, {"opt_full_backup_freq", "NEVER"}} + test.ends);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(said(outcome), "");
        EXPECT_EQ(told(outcome), test.told);
        EXPECT_EQ(read_file(error_log_path(kJob)), test.error_log);
        EXPECT_EQ(last_result(kJob), test.result);
        EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "n", test.result)));
        EXPECT_THAT(states(status), ElementsAre(kRunning[0], kFailed));
        EXPECT_THAT(snapshots(), IsEmpty());
        EXPECT_EQ(copy_log(), "");
    }
    EXPECT_EQ(read_file("/vault/Archive/file"), "text");
}

TEST_F(Runs, DiagnosticsOfAFailedRunNameTheFirstErrorAlone) {
    REQUIRE_VOLUMES();
    const Outcome outcome =
        run(pictures_to_backup() + source_share("data", "Pictures", "none") + destination_share("vault", "Backup"),
            {"-v", "7"});
    EXPECT_TRUE(matches_golden("runs/failed.diagnostics", told(outcome, pid_)));

    const Outcome refused = run(pictures_to_backup() + destination_share("vault", "Nowhere"), {"-v", "7"});
    EXPECT_TRUE(matches_golden("runs/refused.diagnostics", told(refused, pid_)));
}

TEST_F(Runs, AMediaShareMayBeOnTheRootsDeviceAsASourceOnly) {
    REQUIRE_VOLUMES();
    put("/media/STICK/a", "first");
    run(pictures_to_backup() + source_share("media", "STICK"));
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(read_file(kBackup + "/copy/a"), "first");
}

TEST_F(Runs, AFullDiskStopsTheRunAndIsTold) {
    REQUIRE_VOLUMES();
    const std::string half(20 << 20, 'x');
    put(kPictures + "/a", half);
    put(kPictures + "/b", half);
    put(kPictures + "/c", "never reached");
    EventReceiver events;
    StatusWatcher status(kJob);
    const Outcome outcome = run(pictures_to_backup() + destination_usb("2", "copy"));
    EXPECT_TRUE(matches_golden("runs/disk_full.diagnostics", told(outcome, pid_)));
    EXPECT_EQ(read_file(error_log_path(kJob)),
              "Failed to allocate space for file 'b' (error: No space left on device)!\n"
              "Failed to copy file 'b' (error: No space left on device)!\n");
    EXPECT_EQ(copy_log(), "Copy File  a\n");
    EXPECT_EQ(last_result(kJob), 8);
    EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "Pictures", 8)));
    EXPECT_EQ(states(status).back(), kFailed);
    EXPECT_FALSE(file_exists("/media/STICK/copy/c"));
    EXPECT_THAT(snapshots(), IsEmpty());
}

TEST_F(Runs, AReadOnlyDiskIsTold) {
    REQUIRE_VOLUMES();
    put(kPictures + "/a", "first");
    make_folder("/media/STICK/there");
    shell_output("mount -o remount,ro /media/STICK");
    run(pictures_to_backup() + destination_usb("2", "copy"));
    EXPECT_EQ(last_result(kJob), 4);
    EXPECT_EQ(read_file(error_log_path(kJob)), "Cannot create directory /media/STICK/copy!\n");
    run(pictures_to_backup() + destination_usb("2", "there"));
    EXPECT_EQ(last_result(kJob), 13);
    EXPECT_EQ(read_file(error_log_path(kJob)),
              "Cannot create file '/media/STICK/there/a' (error: Read-only file system)!\n");
    shell_output("mount -o remount,rw /media/STICK");
}

TEST_F(Runs, WithoutAPlaceForItsLogsARunDoesNotStart) {
    JobFile().job(kJob, pictures_to_backup()).write();
    EventReceiver events;
    {
        const Missing apps("/apps");
        const Outcome outcome = run_again();
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(told(outcome),
                  "tsbackup (error) mkdir(/apps/.backup/) failed.\n"
                  "tsbackup (error) Failed to create copy log file /apps/.backup/backup_007_copy.log!\n");
        EXPECT_THAT(list_folder(kLogFolder), IsEmpty());
    }
    write_file(status_path(kJob), "what it held\n");
    {
        const Missing logs(kLogFolder);
        const Outcome outcome = run_again();
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(told(outcome), "tsbackup (error) Failed to create error log file "
                                 "/var/log/tessera/backup/backup_007_error.log!\n");
    }
    EXPECT_EQ(read_file(status_path(kJob)), "what it held\n");
    EXPECT_THAT(events.received(), IsEmpty());
}

// --- The claim ---

TEST_F(Runs, AJobThatRunsIsNotStartedAgain) {
    REQUIRE_VOLUMES();
    REQUIRE_BROADCAST_NETWORK();
    put(kPictures + "/a", "first");
    JobFile().job(kJob, pictures_to_backup({{"wol_addr", "00:11:22:33:44:55"}, {"time_to_wait", "1"}})).write();
    Program first({"-e", "7"});
    ASSERT_TRUE(wait_until([] { return !read_file(status_path(kJob)).empty(); }));
    EXPECT_EQ(read_file(pid_path(kJob)), std::to_string(first.pid()));
    const std::string status = read_file(status_path(kJob));
    EventReceiver events;
    const Outcome second = run_again();
    EXPECT_EQ(second.status, 0);
    EXPECT_EQ(told(second), "tsbackup (error) Cannot write pidfile for job_id=7. May be already running.\n");
    EXPECT_EQ(read_file(pid_path(kJob)), std::to_string(first.pid()));
    EXPECT_EQ(read_file(status_path(kJob)), status);
    EXPECT_THAT(events.received(), IsEmpty());
    EXPECT_TRUE(first.running());
}

TEST_F(Runs, RunsOfDifferentJobsGoOnSideBySide) {
    REQUIRE_VOLUMES();
    for (int number = 0; number < 500; ++number)
        write_file("/media/USB/" + std::to_string(number), "text");
    put(kPictures + "/a", "first");
    JobFile()
        .job(kJob, pictures_to_backup() + source_usb("1") + destination_share("vault", "Archive", "disk"))
        .job(8, pictures_to_backup())
        .write();
    EventReceiver events;
    Program first({"-e", "7"});
    ASSERT_TRUE(wait_until([&] { return !read_file(std::string(kWorkFolder) + "/backup_007_copy.log").empty(); }));
    first.signal(SIGSTOP);
    EXPECT_EQ(run_program({"-e", "8"}).err, "");
    EXPECT_TRUE(first.running());
    EXPECT_EQ(last_result(8), 0);
    EXPECT_EQ(last_result(kJob), -1);
    first.signal(SIGCONT);
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_TRUE(same_trees("/media/USB", "/vault/Archive/disk"));
    EXPECT_THAT(events.received(), ElementsAre(result_event(8, "Pictures", 0), result_event(kJob, "Pictures", 0)));
}

// The start of any job deletes every job snapshot, that of a running job included. What a job holds open it still
// reads.
TEST_F(Runs, AJobThatLosesItsSnapshotToAnotherOneFailsAndSpoilsNothing) {
    REQUIRE_VOLUMES();
    for (const char *folder : {"a", "b/deep", "c"}) {
        for (int number = 0; number < 500; ++number)
            write_file(kPictures + "/" + folder + "/" + std::to_string(number), number % 7 == 0 ? "" : "text");
    }
    JobFile()
        .job(kJob, pictures_to_backup())
        .job(8, pictures_to_backup() + source_usb("1") + destination_share("vault", "Archive"))
        .write();
    Program first({"-e", "7"});
    ASSERT_TRUE(wait_until([&] { return !read_file(std::string(kWorkFolder) + "/backup_007_copy.log").empty(); }));
    first.signal(SIGSTOP);
    ASSERT_EQ(last_result(kJob), -1) << "the copy was too quick to be held";
    ASSERT_EQ(snapshots().size(), 1U);
    run_program({"-e", "8"});
    ASSERT_EQ(snapshots().size(), 0U);
    first.signal(SIGCONT);
    EXPECT_EQ(first.wait().status, 0);
    EXPECT_EQ(last_result(kJob), 5);
    EXPECT_THAT(read_file(error_log_path(kJob)),
                MatchesRegex("Path /data/._share/Pictures/.snapshot/b_7_[0-9]+ does not exist!\n"));
    EXPECT_EQ(shell_output("diff -rq " + kPictures + " " + kBackup + "/copy | grep -v '^Only in " + kPictures + "'"),
              "");
    EXPECT_EQ(list_folder(kBackup + "/copy/a").size(), 500U);

    run_program({"-e", "7"});
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(shell_output("diff -r " + kPictures + " " + kBackup + "/copy"), "");
}

TEST_F(Runs, StaleClaimsAreTakenOver) {
    REQUIRE_VOLUMES();
    put(kPictures + "/a", "first");
    for (const char *content : {"", "4194304", "no number", "0", "-1", "99999999999\n"}) {
        write_file(pid_path(kJob), content, 0600);
        remove_tree(history_path(kJob));
        EXPECT_EQ(told(run(pictures_to_backup())), "") << content;
        EXPECT_EQ(last_result(kJob), 0) << content;
        EXPECT_EQ(read_file(pid_path(kJob)), std::to_string(pid_)) << content;
    }
}

// --- Homes ---

TEST_F(Runs, HomesAreSourceAndDestination) {
    REQUIRE_VOLUMES();
    // The system's own disk is no place for backups; homes lie on a disk of their own.
    const MountedFor homes("--bind /vault/Archive", "/home");
    put("/home/alice/work/a", "alice's");
    put("/home/bob/b", "bob's");
    run(pictures_to_backup() + Settings{{"src_type", "home"},
                                        {"src_share_proto", "alice"},
                                        {"src_path", "work"},
                                        {"dst_type", "home"},
                                        {"dst_share_proto", "bob"},
                                        {"dst_path", "from alice"}});
    EXPECT_EQ(last_result(kJob), 0) << read_file(error_log_path(kJob));
    EXPECT_EQ(read_file("/home/bob/from alice/a"), "alice's");

    run(pictures_to_backup() + Settings{{"src_type", "home"}, {"src_share_proto", "*"}, {"src_path", "ignored"}});
    EXPECT_EQ(last_result(kJob), 0) << read_file(error_log_path(kJob));
    EXPECT_TRUE(same_trees("/home", kBackup + "/copy"));
    EXPECT_TRUE(file_exists(kBackup + "/copy/bob/from alice/a"));
}

TEST_F(Runs, AMissingHomeIsMadeByTheHelper) {
    REQUIRE_VOLUMES();
    const StandIn helper("/sbin/mkhomedir_helper", "mkdir -p /home/$1 && echo welcome >/home/$1/.profile; exit 3");
    remove_tree("/home/bob");
    const Outcome outcome =
        run(pictures_to_backup() + Settings{{"src_type", "home"}, {"src_share_proto", "bob"}, {"src_path", ""}});
    EXPECT_EQ(helper.calls(), "bob\n");
    EXPECT_EQ(told(outcome), "tsbackup (error) path = /home/bob does not exist!!!!\n");
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(read_file(kBackup + "/copy/.profile"), "welcome\n");
    run_again();
    EXPECT_EQ(helper.calls(), "bob\n");
}

// --- The owner of the copy ---

TEST_F(Runs, TheCopyIsGivenToTheOwnerOfItsFolderWhenAsked) {
    REQUIRE_VOLUMES();
    put(kPictures + "/d/a", "first");
    shell_output("chown -R 1002:1002 " + kPictures + "/d");
    make_folder(kBackup + "/it's $(here)");
    shell_output("chown 1001:98 '" + kBackup + "/it'\\''s $(here)'");
    const std::string copied = kBackup + "/it's $(here)/d/a";
    const auto owner = [&copied] {
        struct stat status {};
        stat(copied.c_str(), &status);
        return std::pair(status.st_uid, status.st_gid);
    };
    const Settings settings = pictures_to_backup() + destination_share("vault", "Backup", "it's $(here)");
    run(settings);
    EXPECT_EQ(owner(), std::pair(1002U, 1002U));
    for (const char *other : {"11", "1 ", "0", ""}) {
        run(settings + Settings{{"opt_chown_to_share_owner", other}});
        EXPECT_EQ(owner(), std::pair(1002U, 1002U)) << other;
    }
    const Outcome outcome = run(settings + Settings{{"opt_chown_to_share_owner", "1"}});
    EXPECT_EQ(told(outcome), "");
    EXPECT_EQ(owner(), std::pair(1001U, 98U));

    // After a failed transfer too.
    shell_output("chown 0:0 \"" + kBackup + "/it's \\$(here)/d/a\"");
    ASSERT_EQ(owner(), std::pair(0U, 0U));
    run(settings + Settings{{"opt_chown_to_share_owner", "1"}, {"src_path", "none"}});
    EXPECT_EQ(last_result(kJob), 5);
    EXPECT_EQ(owner(), std::pair(1001U, 98U));
}

TEST_F(Runs, LookingForTheOwnerResolvesTheDestinationAheadOfTheRun) {
    REQUIRE_VOLUMES();
    // Each of the two looks tells that there is no disk.
    const std::string line = "No USB storage was found at usb_port_9!\n";
    run(pictures_to_backup({{"opt_chown_to_share_owner", "1"}}) + destination_usb("9"));
    EXPECT_EQ(read_file(error_log_path(kJob)), line + line);
    EXPECT_EQ(last_result(kJob), 4);
}

TEST_F(Runs, TheOwnersCommandStandsInTheDiagnosticsAndItsFailureFailsNothing) {
    REQUIRE_VOLUMES();
    put(kPictures + "/a", "first");
    const StandIn chown("/sbin/chown", "exit 1");
    ProgramOptions options;
    options.environment = {{"PATH", "/sbin:/usr/bin:/bin"}};
    EventReceiver events;
    StatusWatcher status(kJob);
    const Outcome outcome =
        run(pictures_to_backup({{"opt_chown_to_share_owner", "1"}}) + destination_share("vault", "Backup"), {"-v", "7"},
            options);
    EXPECT_EQ(chown.calls(), "-R 98:98 /vault/Backup\n");
    EXPECT_THAT(told(outcome), HasSubstr("tsbackup_utils (debug) cmd=chown -R 98:98 /vault/Backup\n"));
    EXPECT_THAT(told(outcome), HasSubstr("tsbackup (error) Chown error,the errono is "));
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_THAT(events.received(), ElementsAre(result_event(kJob, "Pictures", 0)));
    EXPECT_THAT(states(status), ElementsAre(kRunning[1], kCompleted));

    run(pictures_to_backup({{"opt_chown_to_share_owner", "1"}, {"dst_type", "remote"}, {"dst_share_proto", "sftp"}}),
        {}, options);
    EXPECT_EQ(chown.calls(), "-R 98:98 /vault/Backup\n");
}

// --- Waking the remote machine ---

TEST_F(Runs, AMachineIsWokenAndWaitedFor) {
    REQUIRE_VOLUMES();
    REQUIRE_BROADCAST_NETWORK();
    put(kPictures + "/a", "first");
    const std::string sent = "tsbackup (error) Fail to send WOL packet. (rc:0)\n";
    const std::string not_sent = "tsbackup (error) Fail to send WOL packet. (rc:-1)\n";
    const std::string packet = magic_packet(std::string("\x00\x11\x22\xaa\xbb\xff", 6));
    const struct {
        const char *name;
        Settings settings;
        bool sent;
        std::string waited;
        std::string told;
    } cases[] = {
        {"no address", {{"time_to_wait", "1"}}, false, "", ""},
        {"empty address", {{"wol_addr", ""}, {"time_to_wait", "1"}}, false, "", ""},
        {"no wait", {{"wol_addr", "00:11:22:AA:bb:ff"}}, true, "", sent},
        {"a wait of nothing", {{"wol_addr", "00-11-22-aa-bb-ff"}, {"time_to_wait", "0"}}, true, "", sent},
        {"a wait that is no number", {{"wol_addr", "001122aabbff"}, {"time_to_wait", "x"}}, true, "", sent},
        {"a negative wait", {{"wol_addr", "001122aabbff"}, {"time_to_wait", "-1"}}, true, "", sent},
        {"a wait", {{"wol_addr", "00:11:22:aa:bb:ff"}, {"time_to_wait", "2"}}, true, "120.000000\n", ""},
        {"a wrong address", {{"wol_addr", "00:11:22:aa:bb"}, {"time_to_wait", "1"}}, false, "", not_sent},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        remove_tree(status_path(kJob));
        remove_tree("/tmp/waits");
        WakeReceiver receiver;
        StatusWatcher status(kJob);
        ProgramOptions options;
        options.preload = {kShortWaits};
        options.environment = {{"SHORT_WAITS_LOG", "/tmp/waits"}};
        const Outcome outcome =
            run(pictures_to_backup({{"opt_full_backup_freq", "NEVER"}}) + test.settings, {}, options);
        EXPECT_EQ(told(outcome), test.told);
        EXPECT_EQ(read_file("/tmp/waits"), test.waited);
        const std::vector<std::string> packets = receiver.received();
        EXPECT_EQ(!packets.empty(), test.sent);
        for (const std::string &received : packets)
            EXPECT_EQ(received, packet);
        if (test.waited.empty())
            EXPECT_THAT(states(status), ElementsAre(kRunning[0], kCompleted));
        else
            EXPECT_THAT(states(status), ElementsAre(kWaking, kRunning[0], kCompleted));
        EXPECT_EQ(last_result(kJob), 0);
    }
}

TEST_F(Runs, WithoutANetworkThePacketIsNotSentAndTheJobGoesOn) {
    REQUIRE_VOLUMES();
    put(kPictures + "/a", "first");
    ProgramOptions options;
    options.program = "/usr/bin/unshare";
    JobFile().job(kJob, pictures_to_backup({{"wol_addr", "00:11:22:33:44:55"}, {"time_to_wait", "1"}})).write();
    const Outcome outcome = run_program({"--net", "/opt/tsbackup/sbin/tsbackup", "-e", "7"}, options);
    EXPECT_EQ(told(outcome), "tsbackup (error) Fail to send WOL packet. (rc:-1)\n");
    EXPECT_EQ(last_result(kJob), 0);
}

// --- Job 0 ---

TEST_F(Runs, TheButtonsSummaryFollowsTheStatusOfItsJobs) {
    const struct {
        const char *name;
        std::vector<int> jobs;
        std::vector<std::string> status; ///< of jobs 1, 2, 3
        bool failed;
    } cases[] = {
        {"all completed", {1, 2, 3}, {"BACKUP_STATUS__COMPLETED!!1!!OK\n"}, false},
        {"the second failed", {1, 2, 3}, {"x", "BACKUP_STATUS__FAILED!!1!!warn\n", "x"}, true},
        {"another failed", {1, 3}, {"x", "BACKUP_STATUS__FAILED!!1!!warn\n", "x"}, false},
        {"cancelled and running",
         {1, 2},
         {"BACKUP_STATUS__CANCELLED!!1!!notice\n", "BACKUP_STATUS__IN_PROGRESS,1"},
         false},
        {"none has run", {1, 2, 3}, {}, false},
        {"the last failed", {3, 2, 1}, {"BACKUP_STATUS__FAILED!!1!!warn\n"}, true},
        {"failed in its second line only", {1}, {"BACKUP_STATUS__COMPLETED\nBACKUP_STATUS__FAILED\n"}, false},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        for (int id = 0; id < 4; ++id)
            remove_tree(status_path(id));
        for (std::size_t at = 0; at < test.status.size(); ++at)
            write_file(status_path(static_cast<int>(at) + 1), test.status[at]);
        JobFile().button_jobs(test.jobs).write();
        EventReceiver events;
        StatusWatcher status(0);
        const Outcome outcome = run_program({"-e", "0"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.err, "");
        const std::string end = test.failed ? kFailed : kCompleted;
        // Without root a content that is replaced within a moment can be missed.
        if (is_real_root())
            EXPECT_THAT(states(status), ElementsAre(kRunning[0], end));
        else
            EXPECT_EQ(states(status).back(), end);
        EXPECT_THAT(events.received(),
                    ElementsAre("backup\nzelkovad\n0 0\n<xs:add-s resource-type=\"Backup\"><backup job-id=\"0\" "
                                "job-name=\"button\" status=\"" +
                                std::string(test.failed ? "1" : "0") + "\" email=\"0\" by-button=\"1\"/></xs:add-s>"));
        EXPECT_FALSE(file_exists(history_path(0)));
        EXPECT_TRUE(file_exists(pid_path(0)));
    }
}

TEST_F(Runs, WithoutAListTheButtonHasNothingToSumUp) {
    EventReceiver events;
    for (const std::string &xml : {std::string(), JobFile().job(1, {}).xml(), JobFile().button_jobs({}).xml()}) {
        if (!xml.empty()) write_file("/etc/tessera/backup_jobs.conf", xml);
        const Outcome outcome = run_program({"-e", "0"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.out + outcome.err, "");
    }
    EXPECT_THAT(events.received(), IsEmpty());
    EXPECT_THAT(list_folder(kLogFolder), IsEmpty());
}

// --- Snapshots ---

TEST_F(Runs, TheCopyIsOfOneInstant) {
    REQUIRE_VOLUMES();
    constexpr int kFiles = 500;
    for (int number = 0; number < kFiles; ++number)
        write_file(kPictures + "/a/" + std::to_string(number), "before");
    put(kPictures + "/zz changed", "before");
    put(kPictures + "/zz removed", "before");
    JobFile().job(kJob, pictures_to_backup()).write();
    Program job({"-e", "7"});
    const std::string log = std::string(kWorkFolder) + "/backup_007_copy.log";
    ASSERT_TRUE(wait_until([&] { return !read_file(log).empty(); }));
    job.signal(SIGSTOP);
    const std::vector<std::string> taken = snapshots();
    put(kPictures + "/zz changed", "after the start");
    put(kPictures + "/zz added", "after the start");
    remove_tree(kPictures + "/zz removed");
    ASSERT_THAT(taken, ElementsAre("/data/._share/Pictures/.snapshot/b_7_" + std::to_string(job.pid())));
    EXPECT_EQ(open((taken[0] + "/probe").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666), -1);
    EXPECT_EQ(errno, EROFS);
    ASSERT_THAT(read_file(log), testing::Not(HasSubstr("zz "))) << "the change came too late to prove anything";

    job.signal(SIGCONT);
    EXPECT_EQ(job.wait().status, 0);
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(read_file(kBackup + "/copy/zz changed"), "before");
    EXPECT_EQ(read_file(kBackup + "/copy/zz removed"), "before");
    EXPECT_FALSE(file_exists(kBackup + "/copy/zz added"));
    EXPECT_THAT(snapshots(), IsEmpty());
}

void take_snapshot(const std::string &share, const std::string &at) {
    run_command({"/sbin/btrfs", "-q", "subvolume", "snapshot", "-r", share, at});
}

TEST_F(Runs, LeftOverSnapshotsGoWhenARunStarts) {
    REQUIRE_VOLUMES();
    const std::pair<const char *, const char *> left_over[] = {
        {"/data/Pictures", "/data/._share/Pictures/.snapshot/b_7_1"},
        {"/data/Music", "/data/._share/Music/.snapshot/b_3_4711"},
        {"/vault/Backup", "/vault/._share/Backup/.snapshot/b_"},
        {"/data/Music", "/data/._share/Music/.snapshot/daily"},
    };
    for (const auto &[share, at] : left_over) {
        make_folder(std::filesystem::path(at).parent_path());
        take_snapshot(share, at);
    }
    write_file("/data/._share/Music/.snapshot/b_file", "text");
    ASSERT_THAT(snapshots(), SizeIs(5));
    const std::string err = told(run_program({"-e", "9"}));
    std::vector<std::string> lines;
    std::istringstream stream(err);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    ASSERT_THAT(lines, SizeIs(4));
    EXPECT_EQ(lines.back(), "tsbackup (error) Job_id 9 is not found") << "the clean-up comes before the job";
    lines.pop_back();
    const std::string notice = "tsbackup_utils (notice) Clean up old snapshot ";
    EXPECT_THAT(lines, testing::UnorderedElementsAre(notice + "/data/._share/Pictures/.snapshot/b_7_1",
                                                     notice + "/data/._share/Music/.snapshot/b_3_4711",
                                                     notice + "/vault/._share/Backup/.snapshot/b_"));
    EXPECT_THAT(snapshots(),
                ElementsAre("/data/._share/Music/.snapshot/b_file", "/data/._share/Music/.snapshot/daily"));
    // A job that is only queued or cancelled deletes none.
    make_folder("/data/._share/Pictures/.snapshot");
    take_snapshot("/data/Pictures", "/data/._share/Pictures/.snapshot/b_7_2");
    const RequestQueue queue;
    run_program({"1"});
    run_program({"-k", "7"});
    EXPECT_THAT(snapshots(), SizeIs(3));
}

TEST_F(Runs, TheSharesOwnSnapshotFolderIsNotCopied) {
    REQUIRE_VOLUMES();
    put(kPictures + "/shots/monday/a", "old");
    put(kPictures + "/d/shots/a", "kept: not the share's own");
    put(kPictures + "/a", "first");
    make_folder("/data/._share/Pictures");
    write_file("/data/._share/Pictures/snapdir.conf", "/data/Pictures/shots  \nmore\n");
    run(pictures_to_backup());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(copy_log(), "Copy File  a\nCopy Folder  d\nCopy Folder  d/shots\nCopy File  d/shots/a\n");
}

} // namespace
} // namespace tsbackup::test
