// What has gone out of an upload, and which files are the same as before.

#include "session.h"
#include "upload.h"

#include "support.h"

#include <cstdint>
#include <vector>

namespace tsbackup::test {
namespace {

// ---- bytes of an upload ----------------------------------------------------------------------------------------

struct Told {
    double total;
    double now;
    std::int64_t bytes; ///< of the run, afterwards
};

std::int64_t bytes_before(const Told *told, const std::vector<Told> &all) {
    return told == all.data() ? 0 : told[-1].bytes;
}

TEST(FtpProgress, Sequences) {
    const struct {
        const char *name;
        std::vector<Told> told;
    } cases[] = {
        {"one file", {{100, 0, 0}, {100, 40, 40}, {100, 100, 100}}},
        {"nothing new", {{100, 40, 40}, {100, 40, 40}, {100, 40, 40}, {100, 41, 41}}},
        {"all at once", {{100, 100, 100}}},
        {"an empty file", {{0, 0, 0}, {0, 0, 0}}},
        {"the next file begins before its size is known", {{100, 100, 100}, {0, 0, 100}, {50, 0, 100}, {50, 50, 150}}},
        {"the next file begins with some bytes", {{100, 100, 100}, {50, 20, 120}, {50, 50, 150}}},
        {"the last bytes of a file were not told", {{100, 70, 70}, {50, 0, 100}, {50, 50, 150}}},
        {"neither its last nor the next one's first", {{100, 70, 70}, {50, 20, 120}, {50, 50, 150}}},
        {"three files, none told to its end",
         {{100, 60, 60}, {200, 10, 110}, {200, 150, 250}, {300, 5, 305}, {300, 300, 600}}},
        // Kept as it is: nothing tells these two files apart.
        {"a larger file that is further on at once", {{100, 60, 60}, {200, 80, 80}, {200, 200, 200}}},
        {"a file of the same size that is as far", {{100, 100, 100}, {100, 100, 100}}},
        {"a tenth is nothing yet", {{100, 0.1, 0}, {100, 0.2, 0}, {100, 0.15, 0}}},
        {"more than a tenth, less than a byte", {{100, 0.5, 0}, {100, 1, 0}, {100, 3, 2}}},
        {"a tenth less is no other file", {{100, 50, 50}, {100, 49.95, 50}, {100, 60, 60}}},
        {"the size shrank: what would be negative is left out", {{0, 70, 70}, {0, 10, 70}, {0, 20, 80}}},
        {"beyond 32 bits", {{6e9, 5e9, 5'000'000'000}, {6e9, 6e9, 6'000'000'000}, {6e9, 0, 6'000'000'000}}},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        BackupRun run;
        run.clock_failed = 1; // no status file
        Upload upload{{}, run, nullptr, nullptr, {}};
        for (const Told &told : test.told) {
            ftp_count_progress(upload, told.total, told.now);
            EXPECT_EQ(run.bytes, told.bytes)
                << told.now << " of " << told.total << ", before " << bytes_before(&told, test.told);
            EXPECT_EQ(upload.progress.total, told.total);
            EXPECT_EQ(upload.progress.now, told.now);
        }
    }
}

TEST(FtpProgress, IsAddedToWhatTheRunHasWrittenBefore) {
    BackupRun run;
    run.clock_failed = 1;
    run.bytes = 1000;
    Upload upload{{}, run, nullptr, nullptr, {}};
    ftp_count_progress(upload, 10, 10);
    EXPECT_EQ(run.bytes, 1010);
}

// ---- times of files --------------------------------------------------------------------------------------------

TEST(FtpTimes, UpToDate) {
    constexpr long kUnit = 100'000;
    const struct {
        const char *name;
        timespec source;
        timespec destination;
        bool expected;
    } cases[] = {
        {"the same second", {100, 0}, {100, 0}, true},
        {"the same instant", {100, 500'000'000}, {100, 500'000'000}, true},
        {"the destination lost the fraction", {100, 999'999'999}, {100, 0}, true},
        {"the source is a second newer", {101, 0}, {100, 0}, false},
        {"the source is almost a second newer", {100, 999'900'000}, {100, 0}, true},
        {"the source is much newer", {5000, 0}, {100, 0}, false},
        {"the source is a second older", {99, 0}, {100, 0}, true},
        {"the source is almost two seconds older", {98, kUnit}, {100, 0}, true},
        {"the source is two seconds older", {98, 0}, {100, 0}, false},
        {"the source is much older", {100, 0}, {5000, 0}, false},
        {"within a unit", {100, kUnit - 1}, {100, 0}, true},
        {"a destination with a fraction, within a unit", {100, kUnit}, {100, 2 * kUnit - 1}, true},
        {"a destination with a fraction, a unit older", {100, 2 * kUnit}, {100, kUnit}, false},
        {"a destination with a fraction, a unit newer", {100, kUnit}, {100, 2 * kUnit}, false},
        {"a destination with a fraction, the source without", {100, 0}, {100, 500'000'000}, false},
        {"the epoch", {0, 0}, {0, 0}, true},
        // What a server that does not tell a time leads to: a file of the epoch's first two seconds at most.
        {"unknown at the source", {-1, 0}, {1'500'000'000, 0}, false},
        {"unknown at the destination", {1'500'000'000, 0}, {-1, 0}, false},
        {"both unknown", {-1, 0}, {-1, 0}, true},
        {"beyond 32 bits", {5'000'000'000, 0}, {5'000'000'000, 0}, true},
        {"2^32 seconds apart", {100, 0}, {4'294'967'396, 0}, false},
    };
    for (const auto &test : cases)
        EXPECT_EQ(ftp_is_up_to_date(test.source, test.destination), test.expected) << test.name;
}

} // namespace
} // namespace tsbackup::test
