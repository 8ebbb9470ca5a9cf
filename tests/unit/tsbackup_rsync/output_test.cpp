#include "output.h"

#include "kernel.h"
#include "rsync_support.h"
#include "runner.h"
#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_error.h"
#include "tsbackup_utils.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <limits>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

std::string fixture(const std::string &name) { return read_file(std::string(FIXTURES) + "/rsync/" + name); }

/// What following an output has led to.
struct Result {
    std::string kept;
    std::string carry_over;
    std::int64_t finished = 0;
    std::int64_t in_progress = 0;
    std::int64_t bytes = 0;

    bool operator==(const Result &other) const = default;
};

void PrintTo(const Result &result, std::ostream *out) {
    *out << result.finished << " + " << result.in_progress << " = " << result.bytes << ", left \"" << result.carry_over
         << "\", kept:\n"
         << result.kept;
}

/// Feeds an output in chunks of the sizes that `next_size` gives.
template <typename Sizes> Result follow(std::string_view output, Sizes next_size) {
    RsyncOutput state;
    BackupRun run;
    Result result;
    while (!output.empty()) {
        const std::size_t size = std::min(output.size(), static_cast<std::size_t>(next_size()));
        rsync_output_feed(state, output.substr(0, size), run, result.kept);
        output.remove_prefix(size);
    }
    result.carry_over = state.carry_over;
    result.finished = state.finished;
    result.in_progress = state.in_progress;
    result.bytes = run.bytes;
    return result;
}

Result follow_whole(std::string_view output) {
    return follow(output, [&output] { return output.size(); });
}

// ---- lines -----------------------------------------------------------------------------------------------------

TEST(Output, progress_lines) {
    struct Case {
        const char *name;
        const char *line;
        std::int64_t finished; ///< from 1000
        std::int64_t in_progress;
        bool kept;
    };
    const Case cases[] = {
        {"as the daemon's client prints it", "     12,582,912  40%    5.29MB/s    0:00:02  ", 1000, 12582912, false},
        {"the last one of a file", "     12,582,912 100%    5.29MB/s    0:00:02 (xfr#1, to-chk=1/3)", 12583912, 0,
         true},
        {"without leading blanks", "1,234,567 45% 1.2MB/s 0:00:03", 1000, 1234567, false},
        {"finishing, without leading blanks", "1,234,567 100% 1.2MB/s 0:00:03", 1235567, 0, true},
        {"at its beginning", "              0   0%    0.00kB/s    0:00:00  ", 1000, 0, false},
        {"an error on the same line", "  5,603,328  26%    5.33MB/s    0:00:02  rsync error: received SIGHUP", 1000,
         5603328, false},
        {"no thousands", " 42 7% 1.00kB/s 0:00:00", 1000, 42, false},
        {"nothing but commas", " , 7% 1.00kB/s 0:00:00", 1000, 0, false},
        {"nothing but commas, finishing", " ,,, 100% 1.00kB/s 0:00:00", 1000, 0, true},
        {"more than 100%", " 42 101% 1.00kB/s 0:00:00", 1000, 42, false},
        {"another word for 100%", " 42 100 1.00kB/s 0:00:00", 1000, 42, false},
        {"a letter in the bytes", " 12k 45% 1.2MB/s 0:00:03", 1000, 77, true},
        {"a sign in the bytes", " -12 45% 1.2MB/s 0:00:03", 1000, 77, true},
        {"points between thousands", " 12.582.912 45% 1,2MB/s 0:00:03", 1000, 77, true},
        {"apostrophes between thousands", " 12'582'912 45% 1.2MB/s 0:00:03", 1000, 77, true},
        {"blanks between thousands", " 12 582 912 45% 1.2MB/s 0:00:03", 1000, 77, true},
        {"no-break spaces between thousands", " 12\u202f582 45% 1.2MB/s 0:00:03", 1000, 77, true},
        {"the rate in another field", " 42 45% 0:00:03 1.2MB/s", 1000, 77, true},
        {"three fields", " 42 45% 1.2MB/s", 1000, 77, true},
        {"three fields and blanks", " 42 45% 1.2MB/s   ", 1000, 77, true},
        {"tabs are no blanks", "\t42\t45%\t1.2MB/s\t0:00:03", 1000, 77, true},
        {"no rate", " 42 45% 12 0:00:03", 1000, 77, true},
        {"a rate in bytes per second", "sent 42 bytes  received 3 bytes  9.00 bytes/sec", 1000, 77, true},
        {"a field of 60 digits", " 000000000000000000000000000000000000000000000000000000000042 45% 1B/s 0:00:03", 1000,
         42, false},
        {"a field of 61 digits", " 0000000000000000000000000000000000000000000000000000000000042 45% 1B/s 0:00:03",
         1000, 77, true},
        {"a file that is named like progress", "1 100% 5MB/s x", 1001, 0, true},
        {"a file with a rate in its name", "throughput in MB/s of 3 disks.txt", 1000, 77, true},
        {"a file's name", "a.txt", 1000, 77, true},
        {"an empty line", "", 1000, 77, true},
    };
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        RsyncOutput output;
        output.finished = 1000;
        output.in_progress = 77;
        BackupRun run;
        run.bytes = -1;
        std::string kept;
        rsync_output_feed(output, std::string(test.line) + "\n", run, kept);
        EXPECT_EQ(output.finished, test.finished);
        EXPECT_EQ(output.in_progress, test.in_progress);
        EXPECT_EQ(output.carry_over, "");
        EXPECT_EQ(kept, test.kept ? std::string(test.line) + "\n" : "");
        const bool progress = test.finished != 1000 || test.in_progress != 77;
        EXPECT_EQ(run.bytes, progress ? test.finished + test.in_progress : -1);
    }
}

TEST(Output, a_carriage_return_ends_a_line) {
    const Result result =
        follow_whole("a.txt\n\r  1 50% 1.00kB/s 0:00:00\r  2 100% 1.00kB/s 0:00:00 (xfr#1)\nb.txt\r\n");
    EXPECT_EQ(result.kept, "a.txt\n\n  2 100% 1.00kB/s 0:00:00 (xfr#1)\nb.txt\n\n");
    EXPECT_EQ(result.bytes, 2);
}

TEST(Output, what_has_no_line_end_yet_waits) {
    RsyncOutput output;
    BackupRun run;
    std::string kept;
    rsync_output_feed(output, "  1,234", run, kept);
    EXPECT_EQ(output.carry_over, "  1,234");
    rsync_output_feed(output, ",567 45% 1.2MB/s 0:00:03", run, kept);
    EXPECT_EQ(run.bytes, 0);
    rsync_output_feed(output, "\r", run, kept);
    EXPECT_EQ(run.bytes, 1234567);
    rsync_output_feed(output, "  1,234,568 100% 1.2MB/s 0:00:03\n", run, kept);
    EXPECT_EQ(run.bytes, 1234568);
    rsync_output_feed(output, "  10 10% 1.2MB/s 0:00:03\n", run, kept);
    EXPECT_EQ(run.bytes, 1234578);
    EXPECT_EQ(kept, "  1,234,568 100% 1.2MB/s 0:00:03\n");
}

TEST(Output, absurd_sizes_stay_at_the_largest_number) {
    constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
    const std::string huge = " 99999999999999999999999999 100% 1.00kB/s 0:00:00\n";
    EXPECT_EQ(follow_whole(huge).bytes, kLargest);
    EXPECT_EQ(follow_whole(huge + huge + " 5 5% 1.00kB/s 0:00:00\n").bytes, kLargest);
}

TEST(Output, a_line_without_an_end_is_cut) {
    const std::string endless(3'000'000, 'x');
    const Result result = follow(endless, [] { return 1023; });
    constexpr std::size_t kMebibyte = 1 << 20;
    EXPECT_EQ(result.kept.size(), 2 * (kMebibyte + 1));
    EXPECT_EQ(result.carry_over.size(), endless.size() - 2 * kMebibyte);
    EXPECT_EQ(follow_whole(endless), result);
    // A line of exactly that length is one line.
    EXPECT_EQ(follow_whole(std::string(kMebibyte, 'x') + "\n").kept, std::string(kMebibyte, 'x') + "\n");
}

// ---- any split -------------------------------------------------------------------------------------------------

const char *const kSamples[] = {"auth_bad",    "auth_nopw",        "auth_ok",          "dl_conncut", "dl_del_z_h",
                                "dl_full",     "dl_hup",           "dl_incr_nochange", "dl_nospace", "dl_perm",
                                "dl_vanished", "nomodule",         "refused",          "ssh_nokey",  "ssh_up",
                                "ul_full",     "ul_missingparent", "ul_noacl",         "ul_nospace", "ul_perm",
                                "ul_ro",       "ul_vanished",      "writeonly"};

TEST(Output, the_split_into_chunks_does_not_matter) {
    std::mt19937 random(20240131);
    std::vector<std::string> outputs;
    for (const char *sample : kSamples) {
        outputs.push_back(fixture(std::string(sample) + ".out"));
        ASSERT_FALSE(outputs.back().empty()) << sample;
    }
    // Made up of pieces that nearly form progress lines.
    const std::string pieces[] = {" ",       "1,234",   "100%", "45%",  "1.2MB/s",
                                  "0:00:03", "\r",      "\n",   "\r\n", "B/s",
                                  "a.txt",   "(xfr#1)", "%",    ",",    std::string(1, '\0'),
                                  "\xff"};
    for (int i = 0; i < 200; ++i) {
        std::string output;
        for (std::size_t left = random() % 200; left > 0; --left)
            output += pieces[random() % std::size(pieces)];
        outputs.push_back(output);
    }
    for (const std::string &output : outputs) {
        const Result expected = follow_whole(output);
        for (const unsigned most : {1U, 2U, 7U, 80U, 1023U})
            ASSERT_EQ(follow(output, [&] { return 1 + random() % most; }), expected) << "in chunks of up to " << most;
    }
}

// ---- the reader ------------------------------------------------------------------------------------------------

class Reader : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        make_folder(paths::work_folder);
        make_folder(paths::log_folder);
        remove_tree(paths::copy_log(7));
        remove_tree(paths::status_file(7));
        ASSERT_EQ(pipe(ends_.data()), 0);
    }
    void TearDown() override {
        if (!in_appliance()) return;
        close_writer();
        close(ends_[0]);
        remove_tree(paths::copy_log(7));
        remove_tree(paths::status_file(7));
    }

    /// Has another process write the texts, one write each.
    void writes(const std::vector<std::string> &texts) {
        writer_ = fork();
        if (writer_ == 0) {
            for (const std::string &text : texts)
                if (write(ends_[1], text.data(), text.size()) < 0) _exit(1);
            _exit(0);
        }
        close(ends_[1]);
        ends_[1] = -1;
    }
    void close_writer() {
        if (ends_[1] >= 0) close(ends_[1]);
        ends_[1] = -1;
        if (writer_ > 0) waitpid(writer_, nullptr, 0);
        writer_ = -1;
    }
    int output() const { return ends_[0]; }
    int writing_end() const { return ends_[1]; }
    static std::string copy_log() { return read_file(paths::copy_log(7)); }
    static std::string status() { return read_file(paths::status_file(7)); }

  private:
    std::array<int, 2> ends_ = {-1, -1};
    pid_t writer_ = -1;
};

TEST_F(Reader, real_outputs) {
    struct Case {
        const char *name;
        std::int64_t bytes;
        int error_code;
        int error_lines;
    };
    const Case cases[] = {
        {"auth_bad", 0, 0, 0},
        {"auth_nopw", 0, 0, 0},
        {"auth_ok", 0, 0, 0},
        {"dl_conncut", 5668864, 0, 0},
        {"dl_del_z_h", 713031704, 0, 0},
        {"dl_full", 356515852, 0, 0},
        {"dl_hup", 5603328, 0, 0},
        {"dl_incr_nochange", 0, 0, 0},
        {"dl_nospace", 0, 8, 1},
        {"dl_perm", 3, 7, 2},
        {"dl_vanished", 20971522, 0, 0},
        {"nomodule", 0, 0, 0},
        {"refused", 0, 0, 0},
        {"ssh_nokey", 0, 7, 1},
        // What rsync prints twice for a small file counts twice.
        {"ssh_up", 4, 0, 0},
        {"ul_full", 356515864, 0, 0},
        {"ul_missingparent", 0, 0, 0},
        {"ul_noacl", 0, 0, 0},
        {"ul_nospace", 314572800, 8, 1},
        {"ul_perm", 0, 7, 1},
        {"ul_ro", 0, 0, 0},
        {"ul_vanished", 20971524, 0, 0},
        {"writeonly", 0, 0, 0},
    };
    ASSERT_EQ(std::size(cases), std::size(kSamples));
    for (const Case &test : cases) {
        SCOPED_TRACE(test.name);
        TearDown();
        SetUp();
        LoggedRun run;
        writes({fixture(test.name + std::string(".out"))});
        EXPECT_EQ(_parse_output(&run, output()), 0);
        rsync_finish_copy_log(run, 0);
        EXPECT_EQ(run.bytes, test.bytes);
        EXPECT_EQ(copy_log(), fixture(test.name + std::string(".log")));
        EXPECT_EQ(run.error_code, test.error_code);
        const std::string errors = run.errors();
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), test.error_lines) << errors;
    }
}

TEST_F(Reader, the_copy_log_begins_anew) {
    write_file(paths::copy_log(7), "from the first attempt\n");
    LoggedRun run;
    writes({"a.txt\nb"});
    EXPECT_EQ(_parse_output(&run, output()), 0);
    EXPECT_EQ(copy_log(), "a.txt\nb");
}

TEST_F(Reader, progress_reaches_the_status_file) {
    LoggedRun run;
    run.full = 1;
    writes({"a\n\r  50,000 50% 1.2MB/s 0:00:03", "\r  100,000 100% 1.2MB/s 0:00:03 (xfr#1)\nb\n"});
    EXPECT_EQ(_parse_output(&run, output()), 0);
    EXPECT_EQ(run.bytes, 100000);
    EXPECT_THAT(status(), MatchesRegex("BACKUP_STATUS__IN_PROGRESS,1!!1700000000!!OK\n(9|10)000!!1[01]!!100000\n"));
}

TEST_F(Reader, progress_is_written_while_a_file_is_on_its_way) {
    Kernel kernel;
    std::vector<std::string> before_waits;
    kernel.select = [&before_waits](timeval &) -> std::optional<int> {
        before_waits.push_back(status());
        return std::nullopt;
    };
    LoggedRun run;
    ASSERT_GT(write(writing_end(), "  50,000 50% 1.2MB/s 0:00:03\r", 30), 0);
    close_writer();
    EXPECT_EQ(_parse_output(&run, output()), 0);
    EXPECT_THAT(before_waits, testing::ElementsAre("", HasSubstr("!!50000\n")));
}

TEST_F(Reader, the_last_progress_is_written_whatever_the_time) {
    LoggedRun run;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &run.last_write); // a moment ago
    writes({"  50,000 50% 1.2MB/s 0:00:03\n"});
    EXPECT_EQ(_parse_output(&run, output()), 0);
    EXPECT_THAT(status(), HasSubstr("!!50000\n"));
}

TEST_F(Reader, diagnostics_show_chunks_percentages_and_lines) {
    LoggedRun run;
    run.clock_failed = 1; // no progress lines in between
    write(writing_end(), "a\n 5 50% 1kB/s 0:00\n", 20);
    close_writer();
    const Diagnostics diagnostics;
    EXPECT_EQ(_parse_output(&run, output()), 0);
    EXPECT_EQ(diagnostics.without_places(), "(debug) a\n 5 50% 1kB/s 0:00\n(debug) a\n(debug) percent : 50%");
}

TEST_F(Reader, a_long_silence_ends_it) {
    Kernel kernel;
    std::vector<std::int64_t> waits;
    kernel.select = [&waits](timeval &wait) -> std::optional<int> {
        waits.push_back(wait.tv_sec * 1000000 + wait.tv_usec);
        wait = {0, 50000};
        return std::nullopt;
    };
    const Diagnostics diagnostics(3);
    LoggedRun run;
    ASSERT_EQ(write(writing_end(), "a\nb", 3), 3);
    EXPECT_EQ(_parse_output(&run, output()), kExecCancelled);
    // Each wait begins anew.
    EXPECT_THAT(waits, testing::ElementsAre(10800000000, 10800000000));
    EXPECT_EQ(diagnostics.without_places(), "(error) Can't read info from rsync log. retry rsync.\n");
    EXPECT_EQ(copy_log(), "a\nb");
    EXPECT_NE(status(), "");
}

TEST_F(Reader, a_failing_wait_ends_it_without_an_error) {
    Kernel kernel;
    kernel.select = [](timeval &) { return std::optional<int>(ENOMEM); };
    const Diagnostics diagnostics(3);
    LoggedRun run;
    EXPECT_EQ(_parse_output(&run, output()), 0);
    EXPECT_EQ(diagnostics.without_places(), "(error) select return error -1\n");
}

TEST_F(Reader, no_copy_log_no_reading) {
    make_folder(paths::copy_log(7));
    const Diagnostics diagnostics(3);
    LoggedRun run;
    ASSERT_EQ(write(writing_end(), "a", 1), 1);
    EXPECT_EQ(_parse_output(&run, output()), -5);
    EXPECT_EQ(diagnostics.without_places(), "(error) _parse_output fopen outfile failed.\n");
    char left = 0;
    EXPECT_EQ(read(output(), &left, 1), 1);
    EXPECT_FALSE(file_exists(paths::status_file(7)));
}

TEST_F(Reader, a_copy_log_that_cannot_be_completed) {
    ASSERT_EQ(symlink("/dev/full", paths::copy_log(7).c_str()), 0);
    const Diagnostics diagnostics(3);
    LoggedRun run;
    writes({"no line end"});
    EXPECT_EQ(_parse_output(&run, output()), 0);
    EXPECT_EQ(diagnostics.without_places(), "(error) _parse_output fclose outfile failed.\n");
}

TEST_F(Reader, an_aborted_job_reads_nothing) {
    ASSERT_EQ(write(writing_end(), "a\n", 2), 2);
    when_aborted([this] {
        LoggedRun run;
        EXPECT_EQ(_parse_output(&run, output()), 0);
        EXPECT_TRUE(file_exists(paths::copy_log(7)));
        EXPECT_EQ(copy_log(), "");
    });
    char left = 0;
    EXPECT_EQ(read(output(), &left, 1), 1);
}

TEST_F(Reader, an_abort_is_seen_after_each_chunk) {
    ASSERT_EQ(write(writing_end(), "a\nb", 3), 3);
    const pid_t child = fork();
    if (child == 0) {
        LoggedRun run;
        Kernel kernel;
        int waits = 0;
        kernel.select = [&waits](timeval &) -> std::optional<int> {
            if (++waits == 1) backup_abort_request();
            return std::nullopt;
        };
        const std::int32_t result = _parse_output(&run, output());
        _exit(result == 0 && waits == 1 && copy_log() == "a\nb" ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

} // namespace
} // namespace tsbackup::test
