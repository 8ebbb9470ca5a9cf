// What the program shows, for people and for scripts.

#include "appliance_support.h"
#include "collect.h"
#include "json.h"
#include "status_files.h"
#include "table.h"
#include "tsbackup/paths.h"

#include <array>
#include <clocale>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

std::function<void()> during_pause; ///< called once, in place of the next pause

} // namespace

// Takes the place of the C library's function in this program.
extern "C" int nanosleep(const timespec *request, timespec *rest) {
    if (!during_pause) return clock_nanosleep(CLOCK_REALTIME, 0, request, rest);
    std::exchange(during_pause, nullptr)();
    return 0;
}

namespace tsbackup::test {

std::vector<StatusFile> sample_files() {
    const std::string folder = std::string(paths::log_folder) + "/";
    const auto run = [](const std::string &name, const char *full, int start, int finish, int status) {
        return "name: " + name + "\n" + full + "proto: local\nsrc: [share:Pictures]/\ndst: [usb:usb_port_1]/copy\n" +
               "start: " + std::to_string(start) + "\nfinish: " + std::to_string(finish) +
               "\nstatus: " + std::to_string(status) + "\nlog:\n";
    };
    const std::string jobs =
        JobFile()
            .job(1, source_share("data", "Pictures") + destination_usb("1", "copy") + Settings{{"name", "Pictures"}})
            .job(2, Settings{{"name", "Köln 日本 \u202e"},
                             {"src_type", "remote"},
                             {"src_share_proto", "cifs"},
                             {"src_path", "//server/share"},
                             {"src_password", "geheim"},
                             {"dst_type", "home"},
                             {"dst_share_proto", "alice"},
                             {"dst_path", "/mail"}})
            .job(3, Settings{{"name", "A name that is far too long for a column of a table in a terminal"}})
            .job(4, Settings{{"name", "Two\nlines"}, {"Unknown", "x"}})
            .job(5, Settings{{"name", "Cancelled"}})
            .job(6, Settings{{"name", "Waking"}})
            .job(8, Settings{})
            .button_jobs({1, 2})
            .xml();
    return {
        {paths::job_file, jobs},
        {folder + "status_backup_000", "BACKUP_STATUS__COMPLETED!!1700000000!!OK\n"},
        {folder + "status_backup_001", "BACKUP_STATUS__IN_PROGRESS,1!!1700000000!!OK\n1048576!!3601!!3775922176\n7\n"},
        {folder + "backup_001.log", run("Pictures", "full: no\n", 1699900000, 1699900067, 0) +
                                        run("Pictures", "full: yes\n", 1699800000, 1699990000, 6)},
        {folder + "backup_001_error.log", "cannot read file a\n"},
        {folder + "status_backup_002", "BACKUP_STATUS__FAILED!!1700000000!!warn\n"},
        {folder + "backup_002.log", run("Köln", "full: no\n", 1700000000, 1700000100, 7)},
        {folder + "backup_002_error.log", "\033]0;owned\aLogin \xff refused\n\nsecond line\nthird line without an end"},
        {folder + "status_backup_003", "BACKUP_STATUS__COMPLETED!!1700000000!!OK\n"},
        {folder + "backup_003.log", run("Old name", "full: yes\n", 1700000000, 1700003000, 0)},
        {folder + "status_backup_004", "BACKUP_STATUS__IN_QUEUE!!1700000000!!OK\n"},
        {folder + "status_backup_005", "BACKUP_STATUS__CANCELLED!!1700000000!!notice\n"},
        {folder + "backup_005.log", run("Cancelled", "", 1700000000, 1700000003, 11)},
        {folder + "status_backup_006", "BACKUP_STATUS__WOL_WAKING!!1700000000!!OK\n"},
        {folder + "status_backup_007", "BACKUP_STATUS__IN_PROGRESS,-1!!1700000000!!OK\n"},
        {folder + "backup_007.log", run("Removed \033[31m", "full: no\n", 1690000000, 1690000001, 99)},
        {folder + "status_backup_1234", "BACKUP_STATUS__UNHEARD_OF!!1!!OK\n"},
        {folder + "status_backup_0009", "BACKUP_STATUS__COMPLETED!!1!!OK\n"},
        {folder + "status_backup_x", "BACKUP_STATUS__COMPLETED!!1!!OK\n"},
        {folder + "backup_010_copy.1700000000.log", "Copy File  a\n"},
        {folder + "status_mtpbackup_Canon_IXUS",
         "MBACKUP_STATUS__ACTIVE_COPYING!!1700000000!!OK!!1000000!!250000!!4!!1!!1234.500000\n"},
        {folder + "status_mtpbackup_\033[2J", "rubbish\n"},
    };
}

void write_files(const std::vector<StatusFile> &files) {
    remove_tree(paths::log_folder);
    make_folder(paths::log_folder);
    remove_tree(paths::job_file);
    for (const StatusFile &file : files) {
        write_file(file.path, file.content);
        const std::array<timespec, 2> times = {timespec{kNow - 5, 0}, timespec{kNow - 5, 0}};
        utimensat(AT_FDCWD, file.path.c_str(), times.data(), 0);
    }
}

namespace {

class Output : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
        setenv("LC_ALL", "C.UTF-8", 1);
        setenv("TZ", "UTC", 1);
        tzset();
        write_files(sample_files());
    }
    void TearDown() override {
        unsetenv("LC_ALL");
        std::setlocale(LC_CTYPE, "C");
    }
};

std::string text_of(const std::vector<TableLine> &lines, std::size_t columns = 0, bool coloured = false) {
    std::string text;
    for (const TableLine &line : lines)
        text += table_line_text(line, columns, coloured) + "\n";
    return text;
}

Outcome status(const std::vector<std::string> &arguments) {
    ProgramOptions options;
    options.program = PROGRAM;
    return run_program(arguments, options);
}

TEST_F(Output, TheTableOfAllJobs) {
    Overview overview = collect_all(1);
    overview.now = kNow;
    EXPECT_TRUE(overview.problems.empty());
    EXPECT_TRUE(matches_golden("companions/status_table.txt", text_of(overview_table(overview))));
}

TEST_F(Output, TheJsonOfAllJobs) {
    Overview overview = collect_all(1);
    overview.now = kNow;
    const std::string json = overview_json(overview);
    EXPECT_TRUE(matches_golden("companions/status.json", json));
    EXPECT_TRUE(nlohmann::json::accept(json));
    EXPECT_EQ(json.find("geheim"), std::string::npos);
}

TEST_F(Output, OneJobAndItsRuns) {
    std::vector<std::string> problems;
    std::string text;
    std::string json;
    for (const std::int32_t job_id : {1, 2, 7}) {
        const std::optional<JobStatus> job = collect_job(job_id, 20, problems);
        ASSERT_TRUE(job);
        text += text_of(job_table(*job, kNow)) + "\n";
        json += job_json(*job, kNow);
    }
    EXPECT_TRUE(matches_golden("companions/status_job.txt", text));
    EXPECT_TRUE(matches_golden("companions/status_job.json", json));
}

TEST_F(Output, OnlyAsManyRunsAsAsked) {
    std::vector<std::string> problems;
    const std::optional<JobStatus> job = collect_job(1, 1, problems);
    ASSERT_TRUE(job);
    EXPECT_EQ(job->history.size(), 1U);
    EXPECT_TRUE(job->history_goes_on);
    EXPECT_THAT(text_of(job_table(*job, kNow)),
                testing::HasSubstr("older runs: /var/log/tessera/backup/backup_001.log\n"));
    EXPECT_FALSE(collect_job(1, 2, problems)->history_goes_on);
}

TEST_F(Output, ColoursEncloseTheStateAndCutsKeepThemWhole) {
    TableLine line{"abc failed xyz", 4, 6, "31"};
    EXPECT_EQ(table_line_text(line, 0, true), "abc \033[31mfailed\033[0m xyz");
    EXPECT_EQ(table_line_text(line, 0, false), "abc failed xyz");
    EXPECT_EQ(table_line_text(line, 13, true), "abc \033[31mfailed\033[0m...");
    EXPECT_EQ(table_line_text(line, 9, true), "abc fa...");
}

TEST_F(Output, TheProgramWritesTheTableWithoutColours) {
    const Outcome outcome = status({});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    const Overview overview = collect_all(1);
    EXPECT_TRUE(same_text(text_of(overview_table(overview)), outcome.out));
    EXPECT_EQ(outcome.out.find('\033'), std::string::npos);
}

TEST_F(Output, TheProgramKnowsNoUtf8WithoutALocale) {
    setenv("LC_ALL", "C", 1);
    const Outcome outcome = status({"2"});
    EXPECT_EQ(outcome.status, 0);
    for (const char letter : outcome.out)
        EXPECT_TRUE(letter == '\n' || (letter >= ' ' && letter < 0x7f)) << static_cast<int>(letter);
}

struct CommandLineCase {
    const char *name;
    std::vector<std::string> arguments;
    int status;
    const char *error;
};

const CommandLineCase kCommandLines[] = {
    {"one job", {"1"}, 0, ""},
    {"one job in JSON", {"--json", "1"}, 0, ""},
    {"all runs", {"--runs", "1000000", "1"}, 0, ""},
    {"a job that does not exist", {"99"}, 1, "tsbackup-status: there is no job 99\n"},
    {"a job that does not exist, in JSON", {"99", "--json"}, 1, "tsbackup-status: there is no job 99\n"},
    {"a name", {"Pictures"}, 2, "tsbackup-status: \"Pictures\" is no job number\n"},
    {"an empty name", {""}, 2, "tsbackup-status: \"\" is no job number\n"},
    {"a negative number", {"--", "-1"}, 2, "tsbackup-status: \"-1\" is no job number\n"},
    {"a number beyond 32 bits", {"2147483648"}, 2, "tsbackup-status: \"2147483648\" is no job number\n"},
    {"an escape sequence", {"\033[2J"}, 2, "tsbackup-status: \"?[2J\" is no job number\n"},
    {"two jobs", {"1", "2"}, 2, "tsbackup-status: unexpected argument \"2\"; see --help\n"},
    {"an unknown option", {"--jsn"}, 2, "tsbackup-status: unknown option \"--jsn\"; see --help\n"},
    {"no number of runs", {"--runs"}, 2, "tsbackup-status: \"--runs\" needs a value; see --help\n"},
    {"an empty number of runs", {"--runs", ""}, 2, "tsbackup-status: \"\" is no number of runs\n"},
    {"too many runs", {"--runs", "1000001"}, 2, "tsbackup-status: \"1000001\" is no number of runs\n"},
    {"a live view in a file", {"--watch"}, 2, "tsbackup-status: --watch needs a terminal\n"},
    {"a live view in JSON", {"--watch", "--json"}, 2, "tsbackup-status: --watch and --json exclude one another\n"},
};

TEST_F(Output, ExitStatusAndErrors) {
    unsetenv("JOURNAL_STREAM");
    for (const CommandLineCase &c : kCommandLines) {
        SCOPED_TRACE(c.name);
        const Outcome outcome = status(c.arguments);
        EXPECT_EQ(outcome.status, c.status);
        EXPECT_EQ(outcome.err, c.error);
        EXPECT_EQ(outcome.out.empty(), c.status != 0);
    }
    EXPECT_EQ(status({"--version"}).status, 0);
    EXPECT_THAT(status({"--help"}).out, testing::StartsWith("usage: tsbackup-status "));
}

TEST_F(Output, WithoutAnyFileThereAreNoJobs) {
    remove_tree(paths::log_folder);
    remove_tree(paths::job_file);
    const Outcome outcome = status({});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "no jobs\n");
    EXPECT_EQ(outcome.err, "");
    const Outcome json = status({"--json"});
    EXPECT_EQ(json.status, 0);
    EXPECT_EQ(nlohmann::json::parse(json.out)["jobs"], nlohmann::json::array());
}

TEST_F(Output, AJobFileThatCannotBeReadIsToldAndTheRestIsShown) {
    unsetenv("JOURNAL_STREAM");
    struct Case {
        const char *name;
        void (*spoil)();
        const char *error;
    };
    const Case cases[] = {
        {"half written", [] { write_file(paths::job_file, "<backupJobs><backupJob>"); },
         ": Not well-formed; no job can run (see tsbackup-check)\n"},
        {"empty", [] { write_file(paths::job_file, ""); }, ": Not well-formed; no job can run (see tsbackup-check)\n"},
        {"a folder", [] { make_folder(paths::job_file); }, ": Not a regular file\n"},
        {"a pipe", [] { ASSERT_EQ(mkfifo(paths::job_file, 0600), 0); }, ": Not a regular file\n"},
        {"far too large",
         [] {
             write_file(paths::job_file, "");
             ASSERT_EQ(truncate(paths::job_file, 1L << 34), 0);
         },
         ": Too large\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        remove_tree(paths::job_file);
        c.spoil();
        const Outcome outcome = status({});
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.err, std::string("tsbackup-status: ") + paths::job_file + c.error);
        EXPECT_THAT(outcome.out, testing::HasSubstr("\n   1  Pictures (removed)"));
        const Outcome json = status({"--json"});
        EXPECT_EQ(json.status, 1);
        EXPECT_EQ(nlohmann::json::parse(json.out)["problems"].size(), 1U);
    }
    remove_tree(paths::job_file);
}

TEST_F(Output, AStatusFileThatIsCompletedAMomentLaterIsRead) {
    write_file(paths::status_file(1), "");
    write_file(paths::camera_status_file("Canon_IXUS"), "MBACKUP");
    during_pause = [] { write_files(sample_files()); };
    const Overview overview = collect_all(1);
    EXPECT_FALSE(during_pause);
    ASSERT_GE(overview.jobs.size(), 2U);
    EXPECT_TRUE(overview.jobs[1].progress);
    ASSERT_EQ(overview.imports.size(), 2U);
    EXPECT_TRUE(overview.imports[1].status);

    write_file(paths::status_file(1), "BACKUP_STA");
    during_pause = [] { write_files(sample_files()); };
    std::vector<std::string> problems;
    EXPECT_TRUE(collect_job(1, 1, problems)->progress);
    EXPECT_FALSE(during_pause);
}

TEST_F(Output, AStatusFileThatStaysEmptyIsUnknown) {
    write_file(paths::status_file(1), "");
    std::vector<std::string> problems;
    const std::optional<JobStatus> job = collect_job(1, 1, problems);
    ASSERT_TRUE(job);
    EXPECT_EQ(state_in_words(*job), "unknown");
}

} // namespace
} // namespace tsbackup::test
