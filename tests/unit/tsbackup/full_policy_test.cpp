#include "front_support.h"
#include "tsbackup.h"
#include "tsbackup/paths.h"

#include <gtest/gtest.h>
#include <optional>
#include <unistd.h>

namespace tsbackup::test {
namespace {

constexpr std::int32_t kStart = 1'700'000'000;
constexpr std::int32_t kJob = 5;

/// A record that is so many seconds old when the run starts.
std::string aged(std::int32_t seconds) { return std::to_string(kStart - seconds) + "\n"; }

struct Case {
    const char *name;
    std::optional<std::string> keyword;
    std::optional<std::string> record; ///< no value: there is no file
    int full;
};

const Case kCases[] = {
    {"every time, no record", "EVERY_TIME", std::nullopt, 1},
    {"every time, fresh record", "EVERY_TIME", aged(1), 1},
    {"never, no record", "NEVER", std::nullopt, 0},
    {"never, old record", "NEVER", aged(100'000'000), 0},
    {"first time, no record", "FIRST_TIME", std::nullopt, 1},
    {"first time, empty record", "FIRST_TIME", "", 1},
    {"first time, record of zero", "FIRST_TIME", "0\n", 1},
    {"first time, garbage", "FIRST_TIME", "yesterday\n", 1},
    {"first time, record", "FIRST_TIME", aged(100'000'000), 0},
    {"first time, record of one", "FIRST_TIME", "1", 0},
    {"first time, negative record", "FIRST_TIME", "-1", 0},
    {"week, one second short", "EVERY_WEEK", aged(604'200), 0},
    {"week, reached", "EVERY_WEEK", aged(604'201), 1},
    {"week, no record", "EVERY_WEEK", std::nullopt, 1},
    {"week, garbage", "EVERY_WEEK", "x1699999999\n", 1},
    {"week, leading white space", "EVERY_WEEK", " \n" + aged(604'200), 0},
    {"week, number with a tail", "EVERY_WEEK", std::to_string(kStart - 604'200) + "x", 0},
    {"week, record in the future", "EVERY_WEEK", aged(-3600), 0},
    {"week, far future", "EVERY_WEEK", "2147483647\n", 0},
    {"week, distance beyond 32 bits", "EVERY_WEEK", "-2147483647\n", 1},
    {"two weeks, one second short", "EVERY_2_WEEKS", aged(1'209'000), 0},
    {"two weeks, reached", "EVERY_2_WEEKS", aged(1'209'001), 1},
    {"two weeks, future", "EVERY_2_WEEKS", aged(-1), 0},
    {"three weeks, one second short", "EVERY_3_WEEKS", aged(1'813'800), 0},
    {"three weeks, reached", "EVERY_3_WEEKS", aged(1'813'801), 1},
    {"four weeks, one second short", "EVERY_4_WEEKS", aged(2'418'600), 0},
    {"four weeks, reached", "EVERY_4_WEEKS", aged(2'418'601), 1},
};

const Case kUnknownKeywords[] = {
    {"small letters", "every_time", aged(1), 1}, {"blank behind", "NEVER ", aged(1), 1},
    {"beginning of one", "EVERY", aged(1), 1},   {"empty", "", aged(1), 1},
    {"missing", std::nullopt, aged(1), 1},
};

class FullPolicy : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_system_folders();
    }
    void TearDown() override { unlink(paths::last_full_record(kJob).c_str()); }

    /// Runs the policy on one case; the run's `full` starts out undecided.
    static int decide(const Case &test) {
        const std::string path = paths::last_full_record(kJob);
        unlink(path.c_str());
        if (test.record) write_file(path, *test.record);
        BackupJob job;
        job.job_id = kJob;
        job.opt_full_backup_freq = test.keyword;
        BackupRun run;
        run.job_id = kJob;
        run.start_time = kStart;
        run.full = -1;
        EXPECT_EQ(full_policy_decide(job, run), 0);
        return run.full;
    }
};

TEST_F(FullPolicy, follows_the_keyword_and_the_age_of_the_last_full_run) {
    for (const Case &test : kCases) {
        SCOPED_TRACE(test.name);
        const Diagnostics diagnostics;
        EXPECT_EQ(decide(test), test.full);
        EXPECT_EQ(diagnostics.text(), "");
    }
}

TEST_F(FullPolicy, an_unknown_keyword_is_logged_and_full) {
    for (const Case &test : kUnknownKeywords) {
        SCOPED_TRACE(test.name);
        const Diagnostics diagnostics;
        EXPECT_EQ(decide(test), test.full);
        EXPECT_EQ(diagnostics.without_places(), "(error) Unknown full_backup_freq=" + test.keyword.value_or("") + "\n");
    }
}

TEST_F(FullPolicy, a_record_that_is_a_folder_counts_as_none) {
    const std::string path = paths::last_full_record(kJob);
    unlink(path.c_str());
    make_folder(path);
    BackupJob job;
    job.opt_full_backup_freq = "FIRST_TIME";
    BackupRun run;
    run.job_id = kJob;
    full_policy_decide(job, run);
    EXPECT_EQ(run.full, 1);
    remove_tree(path);
}

TEST(FullPolicyKeywords, are_known_exactly) {
    for (const char *keyword :
         {"EVERY_TIME", "FIRST_TIME", "EVERY_WEEK", "EVERY_2_WEEKS", "EVERY_3_WEEKS", "EVERY_4_WEEKS", "NEVER"})
        EXPECT_TRUE(full_policy_knows(keyword)) << keyword;
    for (const char *text : {"", "every_time", "EVERY_5_WEEKS", " NEVER", "EVERY_WEEK "})
        EXPECT_FALSE(full_policy_knows(text)) << text;
}

} // namespace
} // namespace tsbackup::test
