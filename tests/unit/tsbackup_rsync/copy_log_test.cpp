#include "rsync_support.h"
#include "runner.h"
#include "tsbackup/paths.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

class CopyLog : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_folder(paths::work_folder);
        for (const std::string &name : list_folder(paths::work_folder))
            remove_tree(paths::work_folder + name);
    }
    void TearDown() override {
        if (in_appliance()) SetUp();
    }
    static std::string filtered_path() { return paths::copy_log(7) + "." + std::to_string(getpid()); }
};

TEST_F(CopyLog, lines) {
    struct Case {
        const char *name;
        std::string log;
        std::string kept;
        int code;
        std::string message;
        std::string errors;
    };
    const std::string long_name(5000, 'n');
    const Case cases[] = {
        {"nothing", "", "", 0, "", ""},
        {"names and blank lines stay", "a\n\nb c\n", "a\n\nb c\n", 0, "", ""},
        {"the head of a download goes", "receiving incremental file list\na\n", "a\n", 0, "", ""},
        {"that of an upload stays", "sending incremental file list\na\n", "sending incremental file list\na\n", 0, "",
         ""},
        {"only as the whole line", "receiving incremental file list \nreceiving incremental file list", //
         "receiving incremental file list \nreceiving incremental file list", 0, "", ""},
        {"progress goes", "a\n 2 100% 1kB/s 0:00\nb 100%.txt\n 2 99%\n", "a\n 2 99%\n", 0, "", ""},
        {"a full disk", "x: No space left on device (28)\n", "x: No space left on device (28)\n", 8,
         "x: No space left on device (28)\n", "x: No space left on device (28)\n"},
        {"a permission inside the line", "r: Permission denied (13)\n", "r: Permission denied (13)\n", 7,
         "r: Permission denied (13)\n", "r: Permission denied (13)\n"},
        {"a permission at its start", "Permission denied.\n", "Permission denied.\n", 9, "Permission denied.\n",
         "Permission denied.\n"},
        {"a blank before it", " Permission denied.\n", " Permission denied.\n", 7, " Permission denied.\n",
         " Permission denied.\n"},
        {"a full disk goes before a permission", "Permission denied: No space left\n",
         "Permission denied: No space left\n", 8, "Permission denied: No space left\n",
         "Permission denied: No space left\n"},
        {"the first is recorded, all are logged", "a Permission denied\nb No space left\nPermission denied\n",
         "a Permission denied\nb No space left\nPermission denied\n", 7, "a Permission denied\n",
         "a Permission denied\nb No space left\nPermission denied\n"},
        {"a refusal in a line that goes", "Permission denied 100%\n", "", 9, "Permission denied 100%\n",
         "Permission denied 100%\n"},
        {"letters decide", "permission denied, no space left\n", "permission denied, no space left\n", 0, "", ""},
        {"nothing is a format", "%s %n No space left\n", "%s %n No space left\n", 8, "%s %n No space left\n",
         "%s %n No space left\n"},
        {"without a line end", "a\nNo space left", "a\nNo space left", 8, "No space left", "No space left"},
        {"a long line is read in pieces", long_name + " 100% Permission denied\n", long_name.substr(0, 4095), 7,
         long_name.substr(4095) + " 100% Permission denied\n", long_name.substr(4095) + " 100% Permission denied\n"},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        write_file(paths::copy_log(7), test.log);
        LoggedRun run;
        rsync_finish_copy_log(run, 0);
        EXPECT_EQ(read_file(paths::copy_log(7)), test.kept);
        EXPECT_EQ(run.error_code, test.code);
        EXPECT_EQ(run.error_message.value_or(""), test.message.substr(0, 511));
        EXPECT_EQ(run.errors(), test.errors);
        EXPECT_FALSE(file_exists(filtered_path()));
    }
}

TEST_F(CopyLog, a_result_is_recorded_after_the_lines) {
    write_file(paths::copy_log(7), "a\n");
    LoggedRun run;
    rsync_finish_copy_log(run, 23);
    EXPECT_EQ(run.error_code, 6);
    EXPECT_EQ(run.error_message, "'rsync' command returns rc=23");
    EXPECT_EQ(run.errors(), "'rsync' command returns rc=23\n");

    write_file(paths::copy_log(7), "No space left\n");
    LoggedRun full;
    rsync_finish_copy_log(full, -62);
    EXPECT_EQ(full.error_code, 8);
    EXPECT_EQ(full.errors(), "No space left\n'rsync' command returns rc=-62\n");
}

TEST_F(CopyLog, an_earlier_error_stays) {
    write_file(paths::copy_log(7), "No space left\n");
    LoggedRun run;
    run.error_code = 10;
    run.error_message = "before";
    rsync_finish_copy_log(run, 5);
    EXPECT_EQ(run.error_code, 10);
    EXPECT_EQ(run.error_message, "before");
    EXPECT_EQ(run.errors(), "No space left\n'rsync' command returns rc=5\n");
}

TEST_F(CopyLog, without_a_copy_log_nothing_happens) {
    LoggedRun run;
    rsync_finish_copy_log(run, 5);
    EXPECT_EQ(run.error_code, 0);
    EXPECT_EQ(run.errors(), "");
    EXPECT_EQ(list_folder(paths::work_folder).size(), 0U);
}

TEST_F(CopyLog, without_room_for_a_new_one_nothing_happens) {
    write_file(paths::copy_log(7), "No space left\n");
    make_folder(filtered_path());
    LoggedRun run;
    rsync_finish_copy_log(run, 5);
    EXPECT_EQ(run.error_code, 0);
    EXPECT_EQ(run.errors(), "");
    EXPECT_EQ(read_file(paths::copy_log(7)), "No space left\n");
}

TEST_F(CopyLog, a_new_one_that_cannot_be_completed_replaces_nothing) {
    if (mount("none", paths::work_folder, "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "cannot mount";
    const std::string log(40000, 'a');
    write_file(paths::copy_log(7), log);
    LoggedRun run;
    rsync_finish_copy_log(run, 5);
    EXPECT_EQ(run.error_code, 6);
    EXPECT_EQ(read_file(paths::copy_log(7)), log);
    EXPECT_FALSE(file_exists(filtered_path()));
    umount(paths::work_folder);
}

TEST_F(CopyLog, a_run_without_an_error_log) {
    write_file(paths::copy_log(7), "No space left\n");
    BackupRun run;
    run.job_id = 7;
    rsync_finish_copy_log(run, 0);
    EXPECT_EQ(run.error_code, 8);
}

} // namespace
} // namespace tsbackup::test
