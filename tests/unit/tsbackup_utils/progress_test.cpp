#include "tsbackup_utils.h"

#include "kernel.h"
#include "support.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace tsbackup;
using namespace tsbackup::test;

namespace {

const std::string kFolder = "/var/log/tessera/backup/";
const std::string kFile = kFolder + "status_backup_007";

constexpr bool operator==(const timespec &a, const timespec &b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

void expect_instant(const timespec &actual, const timespec &expected) {
    EXPECT_TRUE(actual == expected) << actual.tv_sec << " s " << actual.tv_nsec << " ns instead of " << expected.tv_sec
                                    << " s " << expected.tv_nsec << " ns";
}

TEST(WholeSecondsBetween, IsTheFloorAndNormalisesInPlace) {
    const struct {
        const char *name;
        timespec now, earlier;
        std::int64_t seconds;
        timespec normalised;
    } cases[] = {
        {"the same instant", {100, 5}, {100, 5}, 0, {100, 5}},
        {"whole seconds", {103, 5}, {100, 5}, 3, {100, 5}},
        {"a little more than three", {103, 6}, {100, 5}, 3, {100, 5}},
        {"a little less than three", {103, 4}, {100, 5}, 2, {101, -999'999'995}},
        {"almost a second", {101, 0}, {100, 1}, 0, {101, -999'999'999}},
        {"1.9 seconds", {102, 400'000'000}, {100, 500'000'000}, 1, {101, -500'000'000}},
        {"backwards by half a second", {100, 0}, {100, 500'000'000}, -1, {101, -500'000'000}},
        {"backwards by whole seconds", {100, 0}, {103, 0}, -3, {103, 0}},
        {"nanoseconds of several seconds", {103, 0}, {100, 2'500'000'000}, 0, {103, -500'000'000}},
        {"nanoseconds of exactly one second", {103, 0}, {100, 1'000'000'000}, 1, {102, -1'000'000'000}},
        {"normalised before, within the second", {104, 400'000'000}, {101, -500'000'000}, 3, {101, -500'000'000}},
        {"normalised before, more than a second behind",
         {104, 600'000'000},
         {101, -500'000'000},
         4,
         {100, 500'000'000}},
        {"normalised before, exactly a second behind", {104, 500'000'000}, {101, -500'000'000}, 3, {101, -500'000'000}},
        {"several seconds behind in nanoseconds", {104, 999'999'999}, {101, -2'500'000'000}, 6, {98, 500'000'000}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        timespec earlier = c.earlier;
        EXPECT_EQ(whole_seconds_between(c.now, earlier), c.seconds);
        expect_instant(earlier, c.normalised);
    }
}

class Progress : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        remove_tree(kFolder);
        make_folder(kFolder);
        run_.job_id = 7;
        run_.start_time = 1700000000;
        run_.full = 1;
        run_.started = {100, 0};
        run_.last_write = {100, 0};
        kernel_.clock = [this]() -> std::optional<timespec> {
            ++readings_;
            return now_;
        };
    }

    /// Whether a call at that instant wrote the status file.
    bool writes_at(const timespec &now, std::int32_t interval) {
        now_ = now;
        remove_tree(kFile);
        backup_progress_record(&run_, interval);
        return file_exists(kFile);
    }

    Kernel kernel_;
    BackupRun run_;
    std::optional<timespec> now_;
    int readings_ = 0;
};

TEST_F(Progress, WritesTheStateAndTheNumbers) {
    const struct {
        const char *name;
        std::int32_t full, start_time, rate, elapsed;
        std::int64_t bytes;
        const char *content;
    } cases[] = {
        {"a full run", 1, 1700000000, 1048576, 4, 4194304,
         "BACKUP_STATUS__IN_PROGRESS,1!!1700000000!!OK\n1048576!!4!!4194304\n"},
        {"an incremental run, nothing copied", 0, 5, 0, 1, 0, "BACKUP_STATUS__IN_PROGRESS,0!!5!!OK\n0!!1!!0\n"},
        {"an undecided run, a large count", -1, 5, -7, 2, 9'000'000'000'000,
         "BACKUP_STATUS__IN_PROGRESS,-1!!5!!OK\n-7!!2!!9000000000000\n"},
        {"the largest texts", INT32_MIN, INT32_MIN, INT32_MIN, INT32_MIN, INT64_MIN,
         "BACKUP_STATUS__IN_PROGRESS,-2147483648!!-2147483648!!OK\n"
         "-2147483648!!-2147483648!!-9223372036854775808\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        run_.full = c.full;
        run_.start_time = c.start_time;
        run_.rate = c.rate;
        run_.elapsed = c.elapsed;
        run_.bytes = c.bytes;
        remove_tree(kFile);
        backup_progress_write(&run_);
        EXPECT_EQ(read_file(kFile), c.content);
    }
    EXPECT_EQ(readings_, 0) << "writing alone needs no clock";
}

TEST_F(Progress, LeavesTheEndOfALongerContentBehind) {
    write_file(kFile, "BACKUP_STATUS__IN_PROGRESS,1!!1700000000!!OK\n1048576!!1234!!123456789012\nthe third line\n");
    run_.rate = 5;
    run_.elapsed = 6;
    run_.bytes = 7;
    backup_progress_write(&run_);
    EXPECT_EQ(read_file(kFile), "BACKUP_STATUS__IN_PROGRESS,1!!1700000000!!OK\n5!!6!!7\n!1234!!123456789012\n"
                                "the third line\n");
}

TEST_F(Progress, CreatesAFileThatOthersMayRead) {
    const mode_t mask = umask(0);
    backup_progress_write(&run_);
    umask(mask);
    struct stat status {};
    ASSERT_EQ(stat(kFile.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
}

TEST_F(Progress, NeverShowsOneLineWithoutTheOther) {
    int writes = 0;
    kernel_.write = [&writes](int, std::size_t size) {
        ++writes;
        return static_cast<ssize_t>(size);
    };
    backup_progress_write(&run_);
    EXPECT_EQ(writes, 1);
}

TEST_F(Progress, AFileThatCannotBeOpenedIsLogged) {
    make_folder(kFile);
    const Diagnostics diagnostics(3);
    backup_progress_write(&run_);
    EXPECT_EQ(diagnostics.without_places(), "(error) Failed to open " + kFile + " for write operation.\n");
}

TEST_F(Progress, AFileThatCannotBeClosedIsLogged) {
    kernel_.close = [](int) { return ENOSPC; };
    const Diagnostics diagnostics(3);
    backup_progress_write(&run_);
    kernel_.close = nullptr;
    EXPECT_EQ(diagnostics.without_places(), "(error) Failed to close file " + kFile + ". errnor = 28\n");
}

TEST_F(Progress, NoRunIsNoProgress) {
    const Diagnostics diagnostics;
    backup_progress_write(nullptr);
    backup_progress_record(nullptr, 0);
    EXPECT_EQ(readings_, 0);
    EXPECT_EQ(list_folder(kFolder), std::vector<std::string>{});
    EXPECT_EQ(diagnostics.text(), "");
}

TEST_F(Progress, WritesOnlyWhenMoreThanTheIntervalHasPassed) {
    const struct {
        const char *name;
        timespec started, last_write, now;
        std::int32_t interval;
        bool writes;
    } cases[] = {
        {"at once", {100, 0}, {200, 0}, {200, 0}, 1, false},
        {"after one second", {100, 0}, {200, 0}, {201, 0}, 1, false},
        {"after 1.9 seconds", {100, 0}, {200, 500'000'000}, {202, 400'000'000}, 1, false},
        {"after almost two seconds", {100, 0}, {200, 0}, {201, 999'999'999}, 1, false},
        {"after two seconds", {100, 0}, {200, 0}, {202, 0}, 1, true},
        {"after two seconds, second half", {100, 0}, {200, 500'000'000}, {202, 500'000'000}, 1, true},
        {"after a long time", {100, 0}, {200, 0}, {999, 0}, 1, true},
        {"five, after 5.9 seconds", {100, 0}, {200, 0}, {205, 900'000'000}, 5, false},
        {"five, after six seconds", {100, 0}, {200, 0}, {206, 0}, 5, true},
        {"none, at once", {100, 0}, {200, 0}, {200, 0}, 0, true},
        {"none, at the first whole second", {100, 0}, {100, 0}, {101, 0}, 0, true},
        {"none, within the first second", {100, 0}, {100, 0}, {100, 999'999'999}, 0, false},
        {"negative counts as none", {100, 0}, {200, 0}, {200, 0}, -1, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        run_.started = c.started;
        run_.last_write = c.last_write;
        EXPECT_EQ(writes_at(c.now, c.interval), c.writes);
    }
}

TEST_F(Progress, WithinTheFirstSecondOnlyTheInstantIsNoted) {
    run_.bytes = 1000;
    EXPECT_FALSE(writes_at({100, 900'000'000}, 0));
    expect_instant(run_.last_write, {100, 900'000'000});
    EXPECT_EQ(run_.rate, 0);
    EXPECT_EQ(run_.elapsed, 0);
}

TEST_F(Progress, ACallThatIsTooEarlyKeepsTheLastInstant) {
    EXPECT_TRUE(writes_at({110, 0}, 1));
    EXPECT_FALSE(writes_at({111, 0}, 1));
    expect_instant(run_.last_write, {110, 0});
    EXPECT_EQ(run_.elapsed, 10);
    EXPECT_TRUE(writes_at({112, 0}, 1)) << "two seconds after the last write, not after the last call";
    EXPECT_EQ(run_.elapsed, 12);
}

TEST_F(Progress, EarlyCallsOfASecondDoNotAddUp) {
    // The stored instant is rewritten by every comparison and still means the same instant.
    run_.last_write = {200, 700'000'000};
    EXPECT_FALSE(writes_at({201, 100'000'000}, 1));
    EXPECT_FALSE(writes_at({201, 800'000'000}, 1));
    EXPECT_FALSE(writes_at({202, 100'000'000}, 1));
    EXPECT_FALSE(writes_at({202, 600'000'000}, 1));
    EXPECT_TRUE(writes_at({202, 800'000'000}, 1));
    expect_instant(run_.last_write, {202, 800'000'000});
}

TEST_F(Progress, TheRateIsBytesBySecondsInThirtyTwoBits) {
    const struct {
        const char *name;
        std::int64_t bytes;
        timespec now;
        std::int32_t rate, elapsed;
    } cases[] = {
        {"divided evenly", 4194304, {104, 0}, 1048576, 4},
        {"rounded down", 11, {104, 0}, 2, 4},
        {"a part of a second does not count", 10, {101, 999'999'999}, 10, 1},
        {"the largest rate", 2147483647, {101, 0}, 2147483647, 1},
        {"one more", 2147483648, {101, 0}, -2147483647 - 1, 1},
        {"beyond 32 bits", 10737418240, {102, 0}, 1073741824, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        run_.started = {100, 0};
        run_.bytes = c.bytes;
        EXPECT_TRUE(writes_at(c.now, 0));
        EXPECT_EQ(run_.rate, c.rate);
        EXPECT_EQ(run_.elapsed, c.elapsed);
        EXPECT_EQ(read_file(kFile), "BACKUP_STATUS__IN_PROGRESS,1!!1700000000!!OK\n" + std::to_string(c.rate) + "!!" +
                                        std::to_string(c.elapsed) + "!!" + std::to_string(c.bytes) + "\n");
    }
}

TEST_F(Progress, TheCommonPathReadsTheClockOnceAndTouchesNoFile) {
    int touched = 0;
    kernel_.write = [&touched](int, std::size_t size) {
        ++touched;
        return static_cast<ssize_t>(size);
    };
    kernel_.close = [&touched](int) {
        ++touched;
        return 0;
    };
    now_ = {101, 0};
    for (int i = 0; i < 1000; ++i)
        backup_progress_record(&run_, 1);
    EXPECT_EQ(readings_, 1000);
    EXPECT_EQ(touched, 0);
    EXPECT_EQ(list_folder(kFolder), std::vector<std::string>{});
}

TEST_F(Progress, AFailedClockEndsTheProgressOfTheRun) {
    const Diagnostics diagnostics(3);
    now_ = std::nullopt;
    backup_progress_record(&run_, 0);
    EXPECT_NE(run_.clock_failed, 0);
    now_ = {200, 0};
    backup_progress_record(&run_, 0);
    backup_progress_record(&run_, 1);
    EXPECT_EQ(readings_, 1);
    EXPECT_EQ(diagnostics.without_places(), "(error) backup_progress_record clock_gettime failed !!!\n");
    EXPECT_EQ(list_folder(kFolder), std::vector<std::string>{});
    expect_instant(run_.last_write, {100, 0});
}

TEST(ProgressLine, OnlyAWholeLineIsRead) {
    const auto progress = backup_progress_parse("2147483647!!61!!9223372036854775807");
    ASSERT_TRUE(progress);
    EXPECT_EQ(progress->rate, 2147483647);
    EXPECT_EQ(progress->elapsed, 61);
    EXPECT_EQ(progress->bytes, 9223372036854775807);
    EXPECT_EQ(backup_progress_parse("-1!!0!!-5")->bytes, -5);
    for (const char *line : {"", "1!!2", "1!!2!!", "1!!2!!3!!", "1!!2!!3 ", " 1!!2!!3", "2147483648!!2!!3",
                             "1!!2!!9223372036854775808", "a!!b!!c"})
        EXPECT_FALSE(backup_progress_parse(line)) << line;
}

} // namespace
