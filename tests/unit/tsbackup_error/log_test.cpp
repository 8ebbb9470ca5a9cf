#include "support.h"
#include "tsbackup/log.h"

#include <array>
#include <cerrno>
#include <climits>
#include <gtest/gtest.h>
#include <string>

namespace tsbackup {
namespace {

using test::Diagnostics;

struct LevelCase {
    int level;
    const char *name;
};

const LevelCase kLevelCases[] = {
    {0, "emerg"},  {1, "alert"},  {2, "crit"},   {3, "error"}, {4, "warning"},
    {5, "notice"}, {6, "info"},   {7, "debug"},  {8, "emerg"}, // beyond the table the low three bits pick the name
    {9, "alert"},  {15, "debug"}, {-1, "debug"},
};

TEST(DiagnosticLog, NamesALevelByItsLowThreeBits) {
    for (const LevelCase &c : kLevelCases) {
        const Diagnostics diagnostics(15);
        diagnostic_log("unit", 12, c.level, "message\n");
        EXPECT_EQ(diagnostics.text(), std::string("unit:12 (") + c.name + ") message\n") << "level " << c.level;
    }
}

TEST(DiagnosticLog, LevelNumbersAreThoseOfTheSystemLog) {
    const std::array<int, 8> levels = {level::emerg,   level::alert,  level::crit, level::error,
                                       level::warning, level::notice, level::info, level::debug};
    for (int number = 0; number < 8; ++number)
        EXPECT_EQ(levels.at(static_cast<std::size_t>(number)), number);
}

TEST(DiagnosticLog, WritesWhatIsAtOrBelowTheThreshold) {
    for (int threshold = -2; threshold <= 9; ++threshold) {
        for (int message_level = 0; message_level <= 9; ++message_level) {
            const Diagnostics diagnostics(threshold);
            diagnostic_log("unit", 1, message_level, "x");
            EXPECT_EQ(!diagnostics.text().empty(), message_level <= threshold)
                << "level " << message_level << ", threshold " << threshold;
        }
    }
}

TEST(DiagnosticLog, AcceptsEveryThreshold) {
    {
        const Diagnostics diagnostics(INT_MIN);
        diagnostic_log("unit", 1, level::emerg, "x");
        EXPECT_EQ(diagnostics.text(), "");
    }
    const Diagnostics diagnostics(INT_MAX);
    diagnostic_log("unit", 1, INT_MAX, "x");
    EXPECT_EQ(diagnostics.text(), "unit:1 (debug) x");
}

TEST(DiagnosticLog, ShowsNoticesButNoInformationAtStart) {
    const auto print_all = [] {
        diagnostic_stream_set(stderr); // a process that never set a threshold
        diagnostic_log("unit", 1, level::notice, "shown ");
        diagnostic_log("unit", 2, level::info, "hidden ");
        diagnostic_log("unit", 3, level::debug, "hidden ");
        diagnostic_log("unit", 4, level::emerg, "end");
        std::_Exit(0);
    };
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(print_all(), testing::ExitedWithCode(0), "unit:1 \\(notice\\) shown unit:4 \\(emerg\\) end");
    testing::GTEST_FLAG(death_test_style) = "fast";
}

TEST(DiagnosticLog, HasNoStreamAtStart) {
    const auto print = [] {
        diagnostic_log("unit", 1, level::emerg, "never seen");
        std::_Exit(0);
    };
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(print(), testing::ExitedWithCode(0), "^$");
    testing::GTEST_FLAG(death_test_style) = "fast";
}

// "%n" notes how far the formatting got, so it tells whether any took place.
TEST(DiagnosticLog, FormatsOnlyWhatIsWritten) {
    int formatted = -1;
    {
        const Diagnostics diagnostics(level::notice);
        diagnostic_log("unit", 1, level::info, "four%n", &formatted);
        EXPECT_EQ(diagnostics.text(), "");
        EXPECT_EQ(formatted, -1) << "hidden by the threshold";

        diagnostic_stream_set(nullptr);
        diagnostic_log("unit", 1, level::error, "four%n", &formatted);
        EXPECT_EQ(formatted, -1) << "without a stream";
    }
    const Diagnostics diagnostics(level::notice);
    diagnostic_log("unit", 1, level::notice, "four%n", &formatted);
    EXPECT_EQ(diagnostics.text(), "unit:1 (notice) four");
    EXPECT_EQ(formatted, 4);
}

TEST(DiagnosticLog, NeitherAddsNorRemovesLineEnds) {
    const Diagnostics diagnostics;
    diagnostic_log("unit", 1, level::error, "runs on");
    diagnostic_log("unit", 2, level::error, "blanks \t");
    diagnostic_log("unit", 3, level::error, "two ends\n\n");
    diagnostic_log("unit", 4, level::error, "%s", "");
    EXPECT_EQ(diagnostics.text(), "unit:1 (error) runs onunit:2 (error) blanks \tunit:3 (error) two ends\n\n"
                                  "unit:4 (error) ");
}

TEST(DiagnosticLog, FormatsItsArguments) {
    const Diagnostics diagnostics;
    diagnostic_log("unit", INT_MAX, level::debug, "%s,%d,%.1f,%%\n", "text", -7, 2.5);
    EXPECT_EQ(diagnostics.text(), "unit:2147483647 (debug) text,-7,2.5,%\n");
}

TEST(DiagnosticLog, WritesAMessageOfAnyLength) {
    const Diagnostics diagnostics;
    const std::string message(100'000, 'm');
    diagnostic_log("unit", 1, level::error, "%s\n", message.c_str());
    EXPECT_EQ(diagnostics.text(), "unit:1 (error) " + message + "\n");
}

TEST(DiagnosticLog, PrintsTheNameItWasGivenAsItIs) {
    const Diagnostics diagnostics;
    diagnostic_log("folder/%s.cpp", 5, level::error, "m");
    EXPECT_EQ(diagnostics.text(), "folder/%s.cpp:5 (error) m");
}

TEST(DiagnosticLog, DropsAMessageThatCannotBeFormatted) {
    const Diagnostics diagnostics;
    const std::array<wchar_t, 2> no_character = {static_cast<wchar_t>(0x7fffffff), L'\0'};
    diagnostic_log("unit", 1, level::error, "text %ls\n", no_character.data());
    EXPECT_EQ(diagnostics.text(), "");
}

TEST(DiagnosticLog, LeavesErrnoAlone) {
    const Diagnostics diagnostics;
    const std::array<wchar_t, 2> no_character = {static_cast<wchar_t>(0x7fffffff), L'\0'};
    errno = EXDEV;
    diagnostic_log("unit", 1, level::error, "%ls", no_character.data());
    EXPECT_EQ(errno, EXDEV);
}

TEST(DiagnosticLog, TheMacroNamesTheUnitAndTheLine) {
    const Diagnostics diagnostics;
    const int line = __LINE__ + 1;
    TSBACKUP_LOG(level::error, "%s\n", "m");
    EXPECT_EQ(diagnostics.text(), std::string(TSBACKUP_UNIT) + ":" + std::to_string(line) + " (error) m\n");
}

} // namespace
} // namespace tsbackup
