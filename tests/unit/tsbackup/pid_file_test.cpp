#include "front_support.h"
#include "tsbackup.h"
#include "tsbackup/paths.h"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

constexpr std::int32_t kJob = 7;
constexpr uid_t kSomebody = 65534;

class PidFile : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_system_folders();
        remove_tree(path());
    }
    void TearDown() override { remove_tree(path()); }

    static std::string path() { return paths::pid_file(kJob); }
    static std::string own_group() { return std::to_string(getpgrp()); }
};

TEST_F(PidFile, a_first_claim_writes_the_own_group_and_nothing_else) {
    umask(0);
    const Diagnostics diagnostics;
    EXPECT_EQ(pid_file_claim(kJob), 0);
    umask(022);
    EXPECT_EQ(path(), "/var/run/zelkovad/backup_007.pid");
    EXPECT_EQ(read_file(path()), own_group());
    struct stat status {};
    ASSERT_EQ(stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(PidFile, negative_job_ids_are_refused) {
    EXPECT_EQ(pid_file_claim(-1), -1);
    EXPECT_EQ(pid_file_read(-1), -1);
}

TEST_F(PidFile, a_live_holder_keeps_the_claim) {
    GroupLeader holder([] { return pause(); });
    for (const char *tail : {"", "\n", " something"}) {
        const std::string content = std::to_string(holder.pid()) + tail;
        write_file(path(), content);
        EXPECT_EQ(pid_file_claim(kJob), holder.pid());
        EXPECT_EQ(pid_file_read(kJob), holder.pid());
        EXPECT_EQ(read_file(path()), content);
    }
}

// Numbers that kill() takes for whole groups, and texts that are no number, must never pass for a process.
TEST_F(PidFile, what_names_no_live_process_is_taken_over) {
    const std::string contents[] = {
        "",
        "0",
        "-1",
        "-0",
        "garbage",
        " \n",
        "x12",
        "99999999999999999999",
        "-99999999999999999999",
        "4294967297",
        "2147483647",
        std::to_string(dead_process()),
        std::to_string(dead_process()) + std::string(200, ' '),
        std::string("\0\0\0\0", 4),
        std::string(300, ' '),
    };
    for (const std::string &content : contents) {
        SCOPED_TRACE(content);
        write_file(path(), content);
        EXPECT_EQ(pid_file_read(kJob), 0);
        const Diagnostics diagnostics;
        EXPECT_EQ(pid_file_claim(kJob), 0);
        EXPECT_EQ(read_file(path()), own_group());
        EXPECT_EQ(diagnostics.text(), "");
    }
}

TEST_F(PidFile, reading_without_a_file_finds_nobody) { EXPECT_EQ(pid_file_read(kJob), 0); }

TEST_F(PidFile, a_file_that_cannot_be_opened_is_logged) {
    make_folder(path());
    const Diagnostics diagnostics;
    EXPECT_EQ(pid_file_claim(kJob), -2);
    EXPECT_EQ(diagnostics.without_places(),
              "(debug) Cannot open /var/run/zelkovad/backup_007.pid errno=" + std::to_string(EISDIR) + "\n");
    EXPECT_EQ(pid_file_read(kJob), 0);
}

TEST_F(PidFile, a_lock_of_another_claimant_is_not_waited_for) {
    write_file(path(), "kept");
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const GroupLeader claimant([&] {
        const int fd = open(path().c_str(), O_RDWR);
        const char result = lockf(fd, F_LOCK, 0) == 0 ? '1' : '0';
        return write(ready[1], &result, 1) == 1 ? pause() : 1;
    });
    char locked = 0;
    ASSERT_EQ(read(ready[0], &locked, 1), 1);
    ASSERT_EQ(locked, '1');
    close(ready[0]);
    close(ready[1]);

    const Diagnostics diagnostics;
    EXPECT_EQ(pid_file_claim(kJob), -3);
    EXPECT_EQ(diagnostics.without_places(),
              "(debug) Cannot lock /var/run/zelkovad/backup_007.pid errno=" + std::to_string(EAGAIN) + "\n");
    EXPECT_EQ(read_file(path()), "kept");
}

TEST_F(PidFile, a_claim_keeps_no_lock) {
    ASSERT_EQ(pid_file_claim(kJob), 0);
    GroupLeader other([] {
        const int fd = open(path().c_str(), O_RDWR);
        return fd >= 0 && lockf(fd, F_TLOCK, 0) == 0 ? 0 : 1;
    });
    EXPECT_EQ(other.wait(), 0);
}

TEST_F(PidFile, who_may_not_be_signalled_holds_the_claim_but_is_not_read) {
    REQUIRE_ROOT();
    const GroupLeader holder([] { return pause(); });
    write_file(path(), std::to_string(holder.pid()), 0666);
    const pid_t pid = holder.pid();
    GroupLeader somebody([pid] {
        if (setgid(kSomebody) != 0 || setuid(kSomebody) != 0) return 1;
        if (pid_file_claim(kJob) != pid) return 2;
        if (pid_file_read(kJob) != 0) return 3;
        return 0;
    });
    EXPECT_EQ(somebody.wait(), 0);
}

} // namespace
} // namespace tsbackup::test
