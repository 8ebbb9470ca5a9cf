// The pipeline's output: which of its lines tell of a file, which of a failure, and what the copy log becomes.

#include "archive_log.h"

#include "remote_run.h"
#include "tsbackup/paths.h"

#include <sys/mount.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

constexpr int kJob = 7;

std::string fixture(const std::string &name) { return read_file(std::string(FIXTURES) + "/smbclient/" + name); }

// ---- lines -----------------------------------------------------------------------------------------------------

TEST(ArchiveLines, Kinds) {
    const struct {
        const char *name;
        const char *line;
        int connection_error;
        int status_error;
        const char *kept;
        bool extracted;
    } cases[] = {
        {"a file that arrived", "./a.txt\n", 0, 0, "./a.txt\n", true},
        {"a folder that arrived", "./d1/d2/\n", 0, 0, "./d1/d2/\n", true},
        {"a name that begins with a dot", ".hidden\n", 0, 0, ".hidden\n", true},
        {"a dot", ".", 0, 0, ".", true},
        {"a blank before the dot", " ./a.txt\n", 0, 0, "", false},
        {"how many were read", "tar: dumped 11 files and 0 directories\n", 0, 0,
         "\nCopied 11 files and 0 directories\n", false},
        {"nothing behind it", "tar: dumped \n", 0, 0, "\nCopied \n", false},
        {"no blank behind it", "tar: dumped\n", 0, 0, "", false},
        {"not at the start", " tar: dumped 11 files\n", 0, 0, "", false},
        {"other words of tar", "tar: This does not look like a tar archive\n", 0, 0, "", false},
        {"the bytes", "Total bytes written: 5242898 (73.3 MiB/s)\n", 0, 0, "", false},
        {"the total", "Total: 3 files\n", 0, 0, "", false},
        {"the domain", "Domain=[WORKGROUP] OS=[Unix] Server=[Samba]\n", 0, 0, "", false},
        {"anything else", "Anonymous login successful\n", 0, 0, "", false},
        {"an empty line", "\n", 0, 0, "", false},
        {"nothing", "", 0, 0, "", false},

        {"no connection", "Connection to server failed (Error NT_STATUS_HOST_UNREACHABLE)\n", 1, 0, "", false},
        {"right behind the words", "Connection tofailed\n", 1, 0, "", false},
        {"a connection that did not fail", "Connection to server\n", 0, 0, "", false},
        {"failed before the words", "failed: Connection to server\n", 0, 0, "", false},
        {"other words at the start", "No Connection to server failed\n", 0, 0, "", false},
        {"as newer clients say it", "do_connect: Connection to server failed (Error NT_STATUS_IO_TIMEOUT)\n", 1, 0, "",
         false},
        {"as newer clients say it, without a failure", "do_connect: Connection to server\n", 0, 0, "", false},
        {"other words of theirs", "do_connect: failed\n", 0, 0, "", false},
        {"no connection goes before no space", "Connection to No space left failed\n", 1, 0, "", false},
        {"a connection that did not fail for lack of space", "Connection to No space left\n", 8, 0, "", false},
        {"no space", "tar: ./a: Cannot write: No space left on device\n", 8, 0, "", false},
        {"a file that is named so", "./No space left\n", 8, 0, "./No space left\n", true},
        {"other letters", "no space left\n", 0, 0, "", false},

        {"a failed log-in", "NT_STATUS_LOGON_FAILURE\n", 0, 7, "", false},
        {"a wrong password", "NT_STATUS_WRONG_PASSWORD\n", 0, 7, "", false},
        {"access denied", "NT_STATUS_ACCESS_DENIED opening remote file \\a\n", 0, 7, "", false},
        {"access denied, later in the line", "NT_STATUS_X and NT_STATUS_ACCESS_DENIED\n", 0, 7, "", false},
        {"another status", "NT_STATUS_NO_SUCH_FILE listing \\nope\n", 0, 99, "", false},
        {"something of a status", "NT_", 0, 99, "", false},
        {"a status and no space", "NT_STATUS_DISK_FULL No space left\n", 8, 99, "", false},
        {"a status elsewhere", "tar:814  do_list failed on nope (NT_STATUS_NO_SUCH_FILE)\n", 0, 0, "", false},
        {"a status of a bit that could not be reset", "cli_setatr failed: NT_STATUS_ACCESS_DENIED\n", 0, 0, "", false},
        {"a log-in that newer clients tell of", "session setup failed: NT_STATUS_LOGON_FAILURE\n", 0, 7, "", false},
        {"another status of theirs", "session setup failed: NT_STATUS_IO_TIMEOUT\n", 0, 99, "", false},
        {"a share that newer clients tell of", "tree connect failed: NT_STATUS_ACCESS_DENIED\n", 0, 7, "", false},
        {"an unknown share", "tree connect failed: NT_STATUS_BAD_NETWORK_NAME\n", 0, 99, "", false},
        {"such words without a status", "tree connect failed: no\n", 0, 0, "", false},
        {"such words later in the line", "x tree connect failed: NT_STATUS_ACCESS_DENIED\n", 0, 0, "", false},

        {"a file that could not be read", "Error reading file \\a : NT_STATUS_ACCESS_DENIED\n", 0, 6, "", false},
        {"a file that could not be read for lack of space", "Error reading file: No space left\n", 8, 6, "", false},
        {"such words later in the line", "x Error reading file\n", 0, 0, "", false},
        {"other words", "Error reading a file\n", 0, 0, "", false},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const ArchiveLine line = archive_line(test.line);
        EXPECT_EQ(line.connection_error, test.connection_error);
        EXPECT_EQ(line.status_error, test.status_error);
        EXPECT_EQ(line.kept, test.kept);
        EXPECT_EQ(line.extracted, test.extracted);
    }
}

TEST(ArchiveLines, Summary) {
    EXPECT_EQ(archive_summary(0), "");
    EXPECT_EQ(archive_summary(1), "\nCopied 1 file and directory\n");
    EXPECT_EQ(archive_summary(2), "\nCopied 2 files and directories\n");
    EXPECT_EQ(archive_summary(18446744073709551615U), "\nCopied 18446744073709551615 files and directories\n");
}

// ---- whole outputs ---------------------------------------------------------------------------------------------

class ArchiveLog : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        clean();
    }
    void TearDown() override {
        if (in_appliance()) clean();
    }
    static void clean() {
        remove_tree(paths::work_folder);
        make_folder(paths::work_folder);
    }
    static std::string copy_log() { return read_file(paths::copy_log(kJob)); }
    static std::string parsed_path() { return paths::copy_log(kJob) + "." + std::to_string(getpid()); }
};

TEST_F(ArchiveLog, RealOutputs) {
    const std::string full_disk = "tar: ./it's d/q: Cannot write: No space left on device\n";
    const struct {
        const char *name;
        int status;
        int code;
        std::string message;
        std::string error_log;
    } cases[] = {
        {"guest_full", 0, 0, "", ""},
        {"guest_d1_d2", 0, 0, "", ""},
        {"guest_file", 0, 0, "", ""},
        {"auth_ok", 0, 0, "", ""},
        {"inc_two", 0, 0, "", ""},
        {"ea_full", 0, 0, "", ""},
        {"ea_inc", 0, 0, "", ""},
        {"sp_all", 0, 0, "", ""},
        {"ro_full", 0, 0, "", ""},
        {"auth_bad", 512, 7, "tree connect failed: NT_STATUS_ACCESS_DENIED\n",
         "tree connect failed: NT_STATUS_ACCESS_DENIED\n"},
        {"noshare", 512, 99, "tree connect failed: NT_STATUS_BAD_NETWORK_NAME\n",
         "tree connect failed: NT_STATUS_BAD_NETWORK_NAME\n"},
        {"connref", 512, 6, "'cp' command returns rc=512", ""},
        {"nohost", 512, 6, "'cp' command returns rc=512", ""},
        {"guest_missing", 0, 99, "NT_STATUS_NO_SUCH_FILE listing \\nope\n", "NT_STATUS_NO_SUCH_FILE listing \\nope\n"},
        {"guest_missing2", 0, 99, "NT_STATUS_OBJECT_NAME_NOT_FOUND listing \\nope\\x\n",
         "NT_STATUS_OBJECT_NAME_NOT_FOUND listing \\nope\\x\n"},
        {"unread", 0, 7, "NT_STATUS_ACCESS_DENIED opening remote file \\unread.txt\n",
         "NT_STATUS_ACCESS_DENIED opening remote file \\unread.txt\nNT_STATUS_ACCESS_DENIED listing \\d1\\d2\\*\n"},
        {"full", 512, 8, full_disk,
         full_disk + "tar: ./d1/b.txt: Cannot write: No space left on device\n"
                     "tar: ./sp dir/e.txt: Cannot write: No space left on device\n"
                     "tar: ./br[ab]/x: Cannot write: No space left on device\n"
                     "tar: ./d1/d2/c.txt: Cannot write: No space left on device\n"
                     "tar: ./d1/d2/d3/d e.txt: Cannot write: No space left on device\n"},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        const std::string output = fixture(std::string(test.name) + ".log");
        ASSERT_NE(output, "");
        write_file(paths::copy_log(kJob), output);
        LoggedRun run;
        cifsab_parse_log(run, test.status);
        EXPECT_EQ(copy_log(), fixture(std::string(test.name) + ".copied"));
        EXPECT_EQ(run.error_code, test.code);
        EXPECT_EQ(run.error_message.value_or(""), test.message);
        EXPECT_EQ(run.errors(), test.error_log);
        EXPECT_FALSE(file_exists(parsed_path()));
    }
}

TEST_F(ArchiveLog, Rules) {
    const std::string long_name(5000, 'n');
    const struct {
        const char *name;
        std::string output;
        std::string copied;
        int code;
        std::string message;
        std::string errors;
    } cases[] = {
        {"nothing", "", "", 0, "", ""},
        {"one entry", "./a\n", "./a\n\nCopied 1 file and directory\n", 0, "", ""},
        {"two entries", "./a\n./b/\n", "./a\n./b/\n\nCopied 2 files and directories\n", 0, "", ""},
        {"the client's sum is no entry", "tar: dumped 2 files and 0 directories\n",
         "\nCopied 2 files and 0 directories\n", 0, "", ""},
        {"both sums", "./a\ntar: dumped 1 files and 0 directories\nTotal: 1\nDomain=x\n./b\n",
         "./a\n\nCopied 1 files and 0 directories\n./b\n\nCopied 2 files and directories\n", 0, "", ""},
        {"the first failure is recorded, all are logged",
         "Error reading file a\n./a\nNT_STATUS_LOGON_FAILURE\nNo space left\nConnection to x failed\n",
         "./a\n\nCopied 1 file and directory\n", 6, "Error reading file a\n",
         "Error reading file a\nNT_STATUS_LOGON_FAILURE\nNo space left\nConnection to x failed\n"},
        {"a line with two failures is logged twice", "NT_STATUS_X No space left\n", "", 8,
         "NT_STATUS_X No space left\n", "NT_STATUS_X No space left\nNT_STATUS_X No space left\n"},
        {"nothing is a format", "NT_%s%n\n./%s%n\n", "./%s%n\n\nCopied 1 file and directory\n", 99, "NT_%s%n\n",
         "NT_%s%n\n"},
        {"without a line end", "./a\n./b", "./a\n./b\nCopied 2 files and directories\n", 0, "", ""},
        {"a long line is read in pieces", "./" + long_name + "\n",
         "./" + long_name.substr(0, 4093) + "\nCopied 1 file and directory\n", 0, "", ""},
        {"a piece can look like a line", std::string(4095, 'x') + "./a\n", "./a\n\nCopied 1 file and directory\n", 0,
         "", ""},
        {"a message is cut", "NT_" + long_name.substr(0, 1000) + "\n", "", 99, "NT_" + long_name.substr(0, 508),
         "NT_" + long_name.substr(0, 1000) + "\n"},
    };
    for (const auto &test : cases)
        for (const int status : {0, 512}) {
            SCOPED_TRACE(std::string(test.name) + ", status " + std::to_string(status));
            write_file(paths::copy_log(kJob), test.output);
            LoggedRun run;
            cifsab_parse_log(run, status);
            EXPECT_EQ(copy_log(), test.copied);
            const bool by_status = test.code == 0 && status != 0;
            EXPECT_EQ(run.error_code, by_status ? 6 : test.code);
            EXPECT_EQ(run.error_message.value_or(""), by_status ? "'cp' command returns rc=512" : test.message);
            EXPECT_EQ(run.errors(), test.errors);
        }
}

TEST_F(ArchiveLog, AnEarlierErrorStays) {
    write_file(paths::copy_log(kJob), "NT_STATUS_LOGON_FAILURE\n");
    LoggedRun run;
    run.error_code = 2;
    run.error_message = "before";
    cifsab_parse_log(run, 512);
    EXPECT_TRUE(run.recorded(2, "before", "NT_STATUS_LOGON_FAILURE\n"));
}

TEST_F(ArchiveLog, WithoutAnOutputNothingIsReported) {
    LoggedRun run;
    cifsab_parse_log(run, 512);
    EXPECT_TRUE(run.silent());
    EXPECT_TRUE(list_folder(paths::work_folder).empty());
}

TEST_F(ArchiveLog, WithoutRoomForTheListFailuresAreReportedAndTheOutputStays) {
    for (const int status : {0, 512}) {
        clean();
        write_file(paths::copy_log(kJob), "./a\nNT_STATUS_LOGON_FAILURE\n");
        make_folder(parsed_path());
        LoggedRun run;
        cifsab_parse_log(run, status);
        EXPECT_TRUE(run.recorded(7, "NT_STATUS_LOGON_FAILURE\n", "NT_STATUS_LOGON_FAILURE\n"));
        EXPECT_EQ(copy_log(), "./a\nNT_STATUS_LOGON_FAILURE\n");
    }
}

TEST_F(ArchiveLog, AListThatCannotBeCompletedReplacesNothing) {
    if (mount("none", paths::work_folder, "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "cannot mount";
    std::string output;
    while (output.size() < 40000)
        output += "./" + std::string(900, 'a') + "\n";
    write_file(paths::copy_log(kJob), output);
    LoggedRun run;
    cifsab_parse_log(run, 512);
    EXPECT_TRUE(run.recorded(6, "'cp' command returns rc=512", ""));
    EXPECT_EQ(copy_log(), output);
    EXPECT_FALSE(file_exists(parsed_path()));
    umount(paths::work_folder);
}

TEST_F(ArchiveLog, ARunWithoutAnErrorLog) {
    write_file(paths::copy_log(kJob), "NT_STATUS_LOGON_FAILURE\n");
    BackupRun run;
    run.job_id = kJob;
    cifsab_parse_log(run, 0);
    EXPECT_EQ(run.error_code, 7);
}

} // namespace
} // namespace tsbackup::test
