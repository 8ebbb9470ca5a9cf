#include "support.h"
#include "tsbackup/codes.h"
#include "tsbackup/log.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace tsbackup {
namespace {

using test::Diagnostics;

const char *const kNoFormat = nullptr;

TEST(ErrorRecord, StartsEmpty) {
    const BackupRun run;
    EXPECT_EQ(run.error_code, 0);
    EXPECT_EQ(run.error_message, std::nullopt);
}

TEST(ErrorRecord, KeepsTheFirstError) {
    BackupRun run;
    EXPECT_EQ(backup_error_set(5, &run, "unit", 1, "'%s' not exists", "/a"), 5);
    EXPECT_EQ(backup_error_set(6, &run, "unit", 2, "later"), 5);
    EXPECT_EQ(backup_error_set(0, &run, "unit", 3, "later"), 5);
    EXPECT_EQ(backup_error_set(5, &run, "unit", 4, kNoFormat), 5);
    EXPECT_EQ(run.error_code, 5);
    EXPECT_EQ(run.error_message, "'/a' not exists");
}

TEST(ErrorRecord, StaysOpenAfterACodeOfZero) {
    BackupRun run;
    EXPECT_EQ(backup_error_set(0, &run, "unit", 1, "first"), 0);
    EXPECT_EQ(run.error_code, 0);
    EXPECT_EQ(run.error_message, "first");
    EXPECT_EQ(backup_error_set(0, &run, "unit", 2, "second"), 0);
    EXPECT_EQ(run.error_message, "second");
    EXPECT_EQ(backup_error_set(8, &run, "unit", 3, "third"), 8);
    EXPECT_EQ(run.error_code, 8);
    EXPECT_EQ(run.error_message, "third");
}

TEST(ErrorRecord, TakesEveryCodeAsItIs) {
    for (const std::int32_t code : {-1, 1, 99, INT32_MAX, INT32_MIN}) {
        BackupRun run;
        EXPECT_EQ(backup_error_set(code, &run, "unit", 1, "m"), code);
        EXPECT_EQ(run.error_code, code);
    }
}

struct MessageCase {
    const char *name;
    const char *unit;
    int line;
    const char *text; // null: no format
    const char *expected;
};

const MessageCase kMessageCases[] = {
    {"a text stands alone", "tsbackup_do", 7, "No SRC", "No SRC"},
    {"an empty text stays empty", "tsbackup_do", 7, "", ""},
    {"a line end is kept", "tsbackup_do", 7, "Malformed path=x\n", "Malformed path=x\n"},
    {"no format: unit, line and a blank", "tsbackup_do", 7, nullptr, "tsbackup_do:7 "},
    {"no format: a folder is left out, its slash is not", "src/tsbackup_do.c", 120, nullptr, "/tsbackup_do.c:120 "},
    {"no format: only the last folder's slash counts", "/a/b/c.c", -1, nullptr, "/c.c:-1 "},
    {"no format: a slash at the end", "src/", 0, nullptr, "/:0 "},
    {"no format: an empty unit", "", 0, nullptr, ":0 "},
};

TEST(ErrorRecord, BuildsItsMessage) {
    for (const MessageCase &c : kMessageCases) {
        BackupRun run;
        if (c.text != nullptr)
            backup_error_set(6, &run, c.unit, c.line, "%s", c.text);
        else
            backup_error_set(6, &run, c.unit, c.line, kNoFormat);
        EXPECT_EQ(run.error_message, c.expected) << c.name;
    }
}

TEST(ErrorRecord, CutsAMessageAt511Characters) {
    for (const std::size_t length : {510U, 511U, 512U, 600U, 5000U}) {
        std::string text;
        while (text.size() < length)
            text += static_cast<char>('a' + text.size() % 26);
        BackupRun run;
        backup_error_set(6, &run, "unit", 1, "%s", text.c_str());
        EXPECT_EQ(run.error_message, text.substr(0, 511)) << length;
    }
    BackupRun run;
    const std::string unit(600, 'u');
    backup_error_set(6, &run, unit.c_str(), 1, kNoFormat);
    EXPECT_EQ(run.error_message, unit.substr(0, 511)) << "without a format";
}

TEST(ErrorRecord, LogsTheMessageAtDebugLevelWithTheFullUnit) {
    const Diagnostics diagnostics;
    BackupRun run;
    backup_error_set(6, &run, "src/unit.c", 31, "cannot read file %s", "x");
    EXPECT_EQ(diagnostics.without_places(), "(debug) src/unit.c:31 cannot read file x\n");
    EXPECT_EQ(diagnostics.text().rfind("tsbackup_error:", 0), 0U) << diagnostics.text();

    backup_error_set(7, &run, "src/unit.c", 32, "dropped");
    EXPECT_EQ(diagnostics.without_places(), "(debug) src/unit.c:31 cannot read file x\n")
        << "a dropped error is not logged";
}

TEST(ErrorRecord, LogsNothingAtTheUsualThreshold) {
    const Diagnostics diagnostics(level::info);
    BackupRun run;
    backup_error_set(6, &run, "unit", 31, "m");
    EXPECT_EQ(diagnostics.text(), "");
}

TEST(ErrorRecord, LogsAMessageWithoutAFormatToo) {
    const Diagnostics diagnostics;
    BackupRun run;
    backup_error_set(6, &run, "src/unit.c", 31, kNoFormat);
    EXPECT_EQ(diagnostics.without_places(), "(debug) src/unit.c:31 /unit.c:31 \n");
}

TEST(ErrorRecord, MayQuoteItsOwnEarlierMessage) {
    BackupRun run;
    backup_error_set(0, &run, "unit", 1, "inner");
    backup_error_set(6, &run, "unit", 1, "outer: %s", run.error_message->c_str());
    EXPECT_EQ(run.error_message, "outer: inner");
}

TEST(ErrorRecord, TheMacroNamesTheUnitAndTheLine) {
    BackupRun run;
    const int line = __LINE__ + 1;
    EXPECT_EQ(TSBACKUP_ERROR_SET(error_code::tool_failed, &run, kNoFormat), 10);
    EXPECT_EQ(run.error_message, std::string(TSBACKUP_UNIT) + ":" + std::to_string(line) + " ");
}

TEST(ErrorRecordDeathTest, StopsTheProcessWithoutARun) {
    EXPECT_DEATH(backup_error_set(6, nullptr, "unit", 1, "m"), "backup_error_set.*Assertion `env' failed");
}

struct CodeCase {
    std::int32_t code;
    std::int32_t number;
};

TEST(ErrorCodes, HaveTheNumbersThatOtherProgramsMatch) {
    const CodeCase cases[] = {
        {error_code::success, 0},          {error_code::source_setup, 1},           {error_code::not_available, 2},
        {error_code::invalid_source, 3},   {error_code::invalid_destination, 4},    {error_code::path_missing, 5},
        {error_code::copy_failed, 6},      {error_code::login_refused, 7},          {error_code::destination_full, 8},
        {error_code::rsync_error_line, 9}, {error_code::tool_failed, 10},           {error_code::cancelled, 11},
        {error_code::rsync_protocol, 12},  {error_code::destination_read_only, 13}, {error_code::cifs_other, 99},
    };
    for (const CodeCase &c : cases)
        EXPECT_EQ(c.code, c.number);
}

TEST(ErrorText, IsTheSystemsDescription) {
    for (int number = 0; number < 140; ++number) {
        std::array<char, 256> buffer{};
        error_text(number, buffer.data(), buffer.size());
        EXPECT_STREQ(buffer.data(), std::strerror(number));
        EXPECT_EQ(error_text(number), buffer.data());
    }
    EXPECT_EQ(error_text(ENOENT), "No such file or directory");
}

// The system composes the text of an unknown number in the caller's buffer, and hands out a constant for a known one.
TEST(ErrorText, IsCutToItsBufferAndTerminated) {
    for (const int number : {ENOENT, 99999}) {
        const std::string whole = error_text(number);
        for (std::size_t size = 1; size <= whole.size() + 2; ++size) {
            std::array<char, 64> buffer{};
            buffer.fill('#');
            error_text(number, buffer.data(), size);
            EXPECT_EQ(std::string(buffer.data()), whole.substr(0, size - 1)) << number << ", size " << size;
            EXPECT_EQ(buffer.at(size), '#') << "one byte behind the buffer";
        }
    }
    EXPECT_EQ(error_text(99999), "Unknown error 99999");
}

TEST(ErrorText, WritesNothingIntoABufferOfNoBytes) {
    char untouched = '#';
    error_text(ENOENT, &untouched, 0);
    EXPECT_EQ(untouched, '#');
}

} // namespace
} // namespace tsbackup
