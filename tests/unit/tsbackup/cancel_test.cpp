#include "front_support.h"
#include "tsbackup.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr std::int32_t kJob = 7;

class Cancel : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_system_folders();
        TearDown();
    }
    void TearDown() override {
        if (!in_appliance()) return;
        remove_tree(paths::pid_file(kJob));
        remove_tree(paths::status_file(kJob));
        remove_tree(paths::history(kJob));
        remove_tree(paths::copy_log(kJob));
        remove_tree(paths::job_file);
        rmdir(paths::mount_point(kJob).c_str());
        purge_copy_logs(kJob, "");
    }

    static std::string status() { return read_file(paths::status_file(kJob)); }
    static std::string dequeue_record() { return "dequeue:7\n" + std::string(118, '\0'); }

    static void write_job() {
        write_job_file(job_element(kJob, "<name>A &amp; B</name><src_type>share</src_type>"
                                         "<opt_email_this_to_alert_email>1</opt_email_this_to_alert_email>"));
    }
};

TEST_F(Cancel, job_ids_below_one_are_refused) {
    for (const std::int32_t job_id : {0, -1, -2147483647}) {
        const QueuePipe pipe;
        const EventReceiver events;
        const Diagnostics diagnostics(6);
        job_cancel(job_id);
        const std::string number = std::to_string(job_id);
        std::string expected = "(notice) perform kill job_id=";
        expected.append(number).append("\n(error) Invalid job_id=").append(number).append("\n");
        EXPECT_EQ(diagnostics.without_places(), expected);
        EXPECT_EQ(pipe.received(), "");
    }
    EXPECT_FALSE(file_exists(paths::status_file(0)));
}

// A PID file may also hold what kill() takes for this very group or for every process of the machine.
TEST_F(Cancel, a_job_without_a_live_holder_is_only_dequeued) {
    const std::string contents[] = {"",
                                    "0",
                                    "-1",
                                    "1",
                                    "garbage",
                                    std::to_string(dead_process()),
                                    std::to_string(-getpgrp()),
                                    std::to_string(getpgrp())};
    const pid_t guarded = getpgrp();
    ASSERT_GT(guarded, 0);
    write_job();
    for (const std::string &content : contents) {
        SCOPED_TRACE(content);
        write_file(paths::pid_file(kJob), content);
        const QueuePipe pipe;
        EventReceiver events;
        const Waits waits;
        const Diagnostics diagnostics;
        const std::time_t before = std::time(nullptr);
        job_cancel(kJob);
        EXPECT_EQ(pipe.received(), dequeue_record());
        EXPECT_THAT(events.received(), IsEmpty());
        EXPECT_THAT(waits.seconds(), IsEmpty());
        EXPECT_THAT(diagnostics.without_places(),
                    StartsWith("(notice) perform kill job_id=7\n(debug) Nothing to kill for job_id=7\n"));
        EXPECT_THAT(status(), MatchesRegex("BACKUP_STATUS__CANCELLED!![0-9]+!!notice\n?"));
        EXPECT_THAT(status(), HasSubstr(std::to_string(before).substr(0, 8)));
        EXPECT_FALSE(file_exists(paths::history(kJob)));
    }
}

TEST_F(Cancel, a_running_job_is_hung_up_and_its_books_are_closed) {
    write_job();
    GroupLeader holder([] { return pause(); });
    write_file(paths::pid_file(kJob), std::to_string(holder.pid()));
    write_file(paths::status_file(kJob), "BACKUP_STATUS__IN_PROGRESS,1!!1700000000!!OK\n9!!9!!9\n");
    make_folder(paths::mount_point(kJob));
    const QueuePipe pipe;
    EventReceiver events;
    const Waits waits;
    std::string status_while_waiting;
    Waits::on_next([&] { status_while_waiting = status(); });
    const Diagnostics diagnostics(6);

    job_cancel(kJob);

    const std::string pid = std::to_string(holder.pid());
    const int ended = holder.wait();
    EXPECT_TRUE(WIFSIGNALED(ended));
    EXPECT_EQ(WTERMSIG(ended), SIGHUP);
    EXPECT_THAT(waits.seconds(), ElementsAre(1, 1));
    EXPECT_THAT(status_while_waiting, StartsWith("BACKUP_STATUS__CANCELLING!!"));
    EXPECT_THAT(status(), StartsWith("BACKUP_STATUS__CANCELLED!!"));
    EXPECT_EQ(pipe.received(), dequeue_record());
    EXPECT_THAT(events.received(),
                ElementsAre("backup\nzelkovad\n0 0\n<xs:add-s resource-type=\"Backup\"><backup job-id=\"7\" "
                            "job-name=\"A &amp; B\" status=\"11\" email=\"1\" by-button=\"0\"/></xs:add-s>"));
    EXPECT_THAT(read_file(paths::history(kJob)), StartsWith("name: A & B\nfull: yes\nproto: local\n"));
    EXPECT_THAT(read_file(paths::history(kJob)), HasSubstr("\nstatus: 11\n"));
    EXPECT_FALSE(file_exists(paths::mount_point(kJob)));
    EXPECT_EQ(diagnostics.without_places(), "(notice) perform kill job_id=7\n(notice) killpg(" + pid +
                                                ",SIGHUP)\n(notice) Backup job killed pid=" + pid + "\n");
}

TEST_F(Cancel, the_full_flag_is_the_one_that_the_status_showed) {
    struct Case {
        const char *status;
        const char *history_begin;
    };
    const Case cases[] = {
        {"BACKUP_STATUS__IN_PROGRESS,0!!1700000000!!OK\n", "name: A & B\nfull: no\n"},
        {"BACKUP_STATUS__WOL_WAKING!!1700000000!!OK\n", "name: A & B\nproto: "},
        {"", "name: A & B\nproto: "},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.status);
        write_job();
        remove_tree(paths::history(kJob));
        GroupLeader holder([] { return pause(); });
        write_file(paths::pid_file(kJob), std::to_string(holder.pid()));
        write_file(paths::status_file(kJob), test.status);
        const QueuePipe pipe;
        const EventReceiver events;
        const Waits waits;
        job_cancel(kJob);
        EXPECT_THAT(read_file(paths::history(kJob)), StartsWith(test.history_begin));
    }
}

TEST_F(Cancel, a_job_that_outlives_the_hang_up_is_not_signalled_again) {
    write_job();
    std::signal(SIGHUP, SIG_IGN);
    const GroupLeader holder([] { return pause(); });
    std::signal(SIGHUP, SIG_DFL);
    write_file(paths::pid_file(kJob), std::to_string(holder.pid()));
    const QueuePipe pipe;
    const EventReceiver events;
    const Waits waits;
    job_cancel(kJob);
    EXPECT_THAT(waits.seconds(), ElementsAre(1, 1));
    EXPECT_EQ(waitpid(holder.pid(), nullptr, WNOHANG), 0);
    EXPECT_THAT(status(), StartsWith("BACKUP_STATUS__CANCELLED!!"));
}

TEST_F(Cancel, a_running_job_that_was_deleted_leaves_no_history_and_no_event) {
    write_job_file(job_element(8, ""));
    GroupLeader holder([] { return pause(); });
    write_file(paths::pid_file(kJob), std::to_string(holder.pid()));
    const QueuePipe pipe;
    EventReceiver events;
    const Waits waits;
    job_cancel(kJob);
    EXPECT_TRUE(WIFSIGNALED(holder.wait()));
    EXPECT_EQ(pipe.received(), dequeue_record());
    EXPECT_THAT(events.received(), IsEmpty());
    EXPECT_FALSE(file_exists(paths::history(kJob)));
    EXPECT_THAT(status(), StartsWith("BACKUP_STATUS__CANCELLED!!"));
}

class Staging : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        pid_ = dead_process();
        folder_ = "/tmp/" + std::to_string(pid_);
    }
    void TearDown() override { remove_tree(folder_); }
    pid_t pid_ = 0;
    std::string folder_;
};

TEST_F(Staging, nothing_happens_without_a_folder) {
    const std::vector<std::string> before = list_folder("/tmp");
    staging_clean_up(pid_);
    EXPECT_EQ(list_folder("/tmp"), before);
}

TEST_F(Staging, empty_folders_are_removed) {
    make_folder(folder_ + "/photos");
    make_folder(folder_ + "/with blank");
    staging_clean_up(pid_);
    EXPECT_FALSE(file_exists(folder_));
}

TEST_F(Staging, a_mounted_source_is_released_and_not_touched) {
    const TempFolder source;
    write_file(source / "keep", "data");
    const Mount staging(folder_ + "/photos", source.path());
    if (!staging) GTEST_SKIP() << "cannot mount";
    ASSERT_TRUE(file_exists(folder_ + "/photos/keep"));
    staging_clean_up(pid_);
    EXPECT_FALSE(file_exists(folder_));
    EXPECT_EQ(read_file(source / "keep"), "data");
}

TEST_F(Staging, a_mount_in_use_is_released_all_the_same) {
    const TempFolder source;
    write_file(source / "keep", "data");
    const Mount staging(folder_ + "/photos", source.path());
    if (!staging) GTEST_SKIP() << "cannot mount";
    const UniqueFd user(open((folder_ + "/photos/keep").c_str(), O_RDONLY | O_CLOEXEC));
    staging_clean_up(pid_);
    EXPECT_FALSE(file_exists(folder_));
    EXPECT_EQ(read_file(source / "keep"), "data");
}

TEST_F(Staging, a_source_mounted_on_the_folder_itself_is_released_and_not_touched) {
    const TempFolder source;
    make_folder(source / "empty");
    const Mount first(folder_, source.path());
    const Mount second(folder_, source.path());
    if (!second) GTEST_SKIP() << "cannot mount";
    staging_clean_up(pid_);
    EXPECT_FALSE(file_exists(folder_));
    EXPECT_TRUE(file_exists(source / "empty"));
}

TEST_F(Staging, what_is_not_empty_stays_whole) {
    write_file(folder_ + "/photos/keep", "data");
    write_file(folder_ + "/loose", "data");
    staging_clean_up(pid_);
    EXPECT_EQ(read_file(folder_ + "/photos/keep"), "data");
    EXPECT_EQ(read_file(folder_ + "/loose"), "data");
}

TEST_F(Staging, a_symbolic_link_in_its_place_is_not_followed) {
    const TempFolder other;
    make_folder(other / "empty");
    ASSERT_EQ(symlink(other.path().c_str(), folder_.c_str()), 0);
    staging_clean_up(pid_);
    EXPECT_TRUE(file_exists(other / "empty"));
    unlink(folder_.c_str());
}

TEST_F(Staging, a_folder_of_another_user_is_left_alone) {
    REQUIRE_ROOT();
    make_folder(folder_ + "/empty");
    ASSERT_EQ(chown(folder_.c_str(), 65534, 65534), 0);
    staging_clean_up(pid_);
    EXPECT_TRUE(file_exists(folder_ + "/empty"));
}

} // namespace
} // namespace tsbackup::test
