// The program itself: what it prints, and its exit status.

#include "appliance_support.h"
#include "job_texts.h"
#include "tsbackup/paths.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::HasSubstr;
using testing::Not;

Outcome check(const std::vector<std::string> &arguments) {
    ProgramOptions options;
    options.program = PROGRAM;
    return run_program(arguments, options);
}

class CheckProgram : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        setenv("LC_ALL", "C.UTF-8", 1);
        unsetenv("JOURNAL_STREAM");
        remove_tree(paths::job_file);
    }
    void TearDown() override { remove_tree(paths::job_file); }
};

TEST_F(CheckProgram, ReadsTheJobFileOfTheSystem) {
    write_file(paths::job_file, job_text({}), 0600);
    const Outcome outcome = check({});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, std::string(paths::job_file) + ": 1 job, all is well\n");
    EXPECT_EQ(outcome.err, "");
}

TEST_F(CheckProgram, SaysWhatIsWrongWithLines) {
    const std::string source = std::string(SOURCE_FOLDER) + "/tests/fixtures/companions/check_jobs.conf";
    write_file("/tmp/jobs.conf", read_file(source), 0644);
    const Outcome outcome = check({"/tmp/jobs.conf"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "");
    EXPECT_TRUE(matches_golden("companions/check_report.txt", outcome.out));
    EXPECT_THAT(outcome.out, Not(HasSubstr("\033")));
    remove_tree("/tmp/jobs.conf");
}

TEST_F(CheckProgram, LooksAtWhoMayReadAndWriteTheFile) {
    const std::string secret = job_text(remote("src", "rsync", "s::m", {{"src_login", "u"}, {"src_password", "p"}}));
    struct Case {
        std::string text;
        mode_t mode;
        const char *finding;
    };
    const Case cases[] = {
        {job_text({}), 0644, nullptr},
        {secret, 0640, nullptr},
        {secret, 0644, "the file holds passwords and every user of the system may read it"},
        {job_text({}), 0602, "every user of the system may change the file, and so what runs as root"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.mode);
        write_file(paths::job_file, c.text);
        ASSERT_EQ(chmod(paths::job_file, c.mode), 0);
        const Outcome outcome = check({});
        EXPECT_EQ(outcome.status, c.finding != nullptr ? 1 : 0);
        const std::string line = c.finding != nullptr ? std::string(paths::job_file) + ": " + c.finding + "\n" : "";
        EXPECT_THAT(outcome.out, HasSubstr(line));
    }
}

TEST_F(CheckProgram, TroubleHasItsOwnStatus) {
    write_file("/tmp/large.conf", "");
    ASSERT_EQ(truncate("/tmp/large.conf", 1L << 34), 0);
    ASSERT_EQ(mkfifo("/tmp/pipe.conf", 0600), 0);
    struct Case {
        std::vector<std::string> arguments;
        const char *error;
    };
    const Case cases[] = {
        {{}, "tsbackup-check: cannot read /etc/tessera/backup_jobs.conf: No such file or directory\n"},
        {{"/tmp/\033[2J"}, "tsbackup-check: cannot read /tmp/?[2J: No such file or directory\n"},
        {{"/tmp"}, "tsbackup-check: cannot read /tmp: Not a regular file\n"},
        {{"/tmp/pipe.conf"}, "tsbackup-check: cannot read /tmp/pipe.conf: Not a regular file\n"},
        {{"/tmp/large.conf"}, "tsbackup-check: /tmp/large.conf is larger than 16 MiB, and no program reads it\n"},
        {{"--all"}, "tsbackup-check: unknown option \"--all\"; see --help\n"},
        {{"a", "b"}, "tsbackup-check: unexpected argument \"b\"; see --help\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.error);
        const Outcome outcome = check(c.arguments);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, c.error);
    }
    remove_tree("/tmp/large.conf");
    remove_tree("/tmp/pipe.conf");
    EXPECT_EQ(check({"--version"}).status, 0);
    EXPECT_THAT(check({"--help"}).out, testing::StartsWith("usage: tsbackup-check "));
}

} // namespace
} // namespace tsbackup::test
