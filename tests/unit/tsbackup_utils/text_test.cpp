#include "support.h"
#include "tsbackup_utils.h"

#include <array>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup {
namespace {

using std::nullopt;
using test::TempFolder;
using test::write_file;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kChecksAddresses = true;
#elif defined(__has_feature)
constexpr bool kChecksAddresses = __has_feature(address_sanitizer);
#else
constexpr bool kChecksAddresses = false;
#endif

// A wide character that no text can hold: what uses it cannot be formatted.
const std::array<wchar_t, 2> kNoCharacter = {static_cast<wchar_t>(0x7fffffff), L'\0'};

TEST(Hexval, KnowsTheDigitsAndCountsTheRestAsZero) {
    const std::string digits = "0123456789abcdef";
    for (int byte = 0; byte < 256; ++byte) {
        const char character = static_cast<char>(byte);
        const char lower = character >= 'A' && character <= 'F' ? static_cast<char>(character + 32) : character;
        const std::size_t at = digits.find(lower);
        EXPECT_EQ(hexval(character), at == std::string::npos ? 0 : static_cast<int>(at)) << "byte " << byte;
    }
}

struct NumberCase {
    const char *text;
    std::int32_t expected;
};

const NumberCase kNumberCases[] = {
    {"7", 7},
    {"007", 7},
    {" \t\n+12abc", 12},
    {"-5", -5},
    {"- 5", 0},
    {"", 0},
    {"abc", 0},
    {"0x10", 0},
    {"2147483647", INT32_MAX},
    {"2147483648", INT32_MIN}, // the low 32 bits
    {"-2147483649", INT32_MAX},
    {"4294967296", 0},
    {"4294967303", 7},
    {"9223372036854775807", -1},
    {"99999999999999999999", -1}, // saturates at 64 bits before the bits are taken
    {"-99999999999999999999", 0},
};

TEST(DecimalValue, TakesTheLow32BitsOfWhatALongHolds) {
    for (const NumberCase &c : kNumberCases) {
        EXPECT_EQ(decimal_value(c.text), c.expected) << c.text;
        EXPECT_EQ(decimal_value(JobText(c.text)), c.expected) << c.text;
    }
    EXPECT_EQ(decimal_value(JobText()), 0);
    EXPECT_EQ(decimal_value(static_cast<const char *>(nullptr)), 0);
}

TEST(TextOrEmpty, ShowsAMissingTextAsAnEmptyOne) {
    EXPECT_STREQ(text_or_empty(JobText()), "");
    EXPECT_STREQ(text_or_empty(JobText("")), "");
    const JobText text("text");
    EXPECT_EQ(text_or_empty(text), text->c_str());
}

// ---- formatters ------------------------------------------------------------------------------------------------

TEST(StrPrintf, FormatsATextOfAnyLength) {
    EXPECT_EQ(str_printf("%s-%03d", "a", 7), "a-007");
    EXPECT_EQ(str_printf("%s", ""), "");
    const std::string text(200'000, 'x');
    EXPECT_EQ(str_printf("%s", text.c_str()), text);
}

TEST(StrPrintf, HasNoResultForWhatCannotBeFormatted) { EXPECT_EQ(str_printf("%ls", kNoCharacter.data()), nullopt); }

struct FormatCase {
    const char *text;
    std::size_t size;
    const char *cut;
    const char *whole;
};

const FormatCase kFormatCases[] = {
    {"abcdef", 16, "abcdef", "abcdef"},
    {"abcdef", 7, "abcdef", "abcdef"}, // fits exactly
    {"abcdef", 6, "abcde", ""},        // one byte too long
    {"abcdef", 2, "a", ""},
    {"abcdef", 1, "", ""},
    {"", 1, "", ""},
    {"", 8, "", ""},
};

TEST(BoundedFormatters, OneCutsAndTheOtherEmptiesATextThatDoesNotFit) {
    for (const FormatCase &c : kFormatCases) {
        std::array<char, 32> buffer{};
        buffer.fill('#');
        EXPECT_EQ(str_snprintf(buffer.data(), c.size, "%s", c.text), buffer.data());
        EXPECT_STREQ(buffer.data(), c.cut) << c.text << " in " << c.size;
        EXPECT_EQ(buffer.at(c.size), '#') << "one byte behind the buffer";

        buffer.fill('#');
        EXPECT_EQ(str_snprintf_whole(buffer.data(), c.size, "%s", c.text), buffer.data());
        EXPECT_STREQ(buffer.data(), c.whole) << c.text << " in " << c.size;
        EXPECT_EQ(buffer.at(c.size), '#') << "one byte behind the buffer";
    }
}

TEST(BoundedFormatters, WriteNothingIntoABufferOfNoBytes) {
    char untouched = '#';
    EXPECT_EQ(str_snprintf(&untouched, 0, "%s", "text"), &untouched);
    EXPECT_EQ(str_snprintf_whole(&untouched, 0, "%s", "text"), &untouched);
    EXPECT_EQ(untouched, '#');
}

TEST(BoundedFormatters, LeaveATerminatedTextWhenFormattingFails) {
    std::array<char, 8> buffer{};
    buffer.fill('#');
    str_snprintf(buffer.data(), buffer.size(), "ab%ls", kNoCharacter.data());
    EXPECT_LT(strnlen(buffer.data(), buffer.size()), buffer.size());
    buffer.fill('#');
    str_snprintf_whole(buffer.data(), buffer.size(), "ab%ls", kNoCharacter.data());
    EXPECT_STREQ(buffer.data(), "");
}

TEST(StrConcat, AppendsInOrder) {
    EXPECT_EQ(str_concat("a", {"b", "", "cd"}), "abcd");
    EXPECT_EQ(str_concat(nullopt, {"b", "c"}), "bc");
    EXPECT_EQ(str_concat("a", {}), "a");
    EXPECT_EQ(str_concat(nullopt, {}), "");
}

// ---- editing in place ------------------------------------------------------------------------------------------

struct EditCase {
    const char *text;
    const char *expected;
};

TEST(BackslashStrip, RemovesEveryBackslash) {
    const EditCase cases[] = {{"", ""},     {"plain", "plain"}, {"a\\ b\\'c", "a b'c"},
                              {"\\\\", ""}, {"\\a\\", "a"},     {"/a\\\\b", "/ab"}};
    for (const EditCase &c : cases) {
        std::string text = c.text;
        EXPECT_EQ(&backslash_strip(text), &text);
        EXPECT_EQ(text, c.expected) << c.text;
    }
}

TEST(RtrimSpace, NeverTakesTheFirstCharacter) {
    const EditCase cases[] = {
        {"", ""},           {"a", "a"},   {"a \t\n\v\f\r", "a"}, {" a b ", " a b"}, {" ", " "},
        {"   ", " "},       {" \n", " "}, {"\n", "\n"},          {"\t \n", "\t"},   {"\xc3\xa9\xa0 ", "\xc3\xa9\xa0"},
        {"a\xa0", "a\xa0"},
    };
    for (const EditCase &c : cases) {
        std::string text = c.text;
        rtrim_space(text);
        EXPECT_EQ(text, c.expected) << testing::PrintToString(c.text);
    }
}

TEST(TrimSpace, TakesBothEnds) {
    const EditCase cases[] = {
        {"", ""},    {"a", "a"},  {" \t\n\v\f\ra b\r\n ", "a b"}, {"   ", ""},
        {"a ", "a"}, {" a", "a"}, {"\xa0 a", "\xa0 a"},
    };
    for (const EditCase &c : cases) {
        std::string text = c.text;
        EXPECT_EQ(&trim_space(text), &text);
        EXPECT_EQ(text, c.expected) << testing::PrintToString(c.text);
    }
}

TEST(RemoveChar, RemovesEveryOccurrence) {
    const EditCase cases[] = {{"", ""}, {",", ""}, {"1,234,567", "1234567"}, {",,a,,", "a"}, {"abc", "abc"}};
    for (const EditCase &c : cases) {
        std::string text = c.text;
        remove_char(text, ',');
        EXPECT_EQ(text, c.expected) << c.text;
    }
}

TEST(ReplaceChar, ReplacesEveryOccurrence) {
    const EditCase cases[] = {{"", ""}, {"\r", "\n"}, {"a\rb\r\r", "a\nb\n\n"}, {"abc", "abc"}};
    for (const EditCase &c : cases) {
        std::string text = c.text;
        replace_char(text, '\r', '\n');
        EXPECT_EQ(text, c.expected) << c.text;
    }
}

// ---- read_first_line -------------------------------------------------------------------------------------------

struct FirstLineCase {
    const char *content;
    std::size_t size;
    std::optional<std::string> expected;
};

TEST(ReadFirstLine, ReadsOneLineWithoutTheWhiteSpaceAtItsEnd) {
    const FirstLineCase cases[] = {
        {"one\ntwo\n", 100, "one"}, {"one", 100, "one"},    {"  one \t\r\ntwo", 100, "  one"},
        {"", 100, nullopt},         {"\n", 100, "\n"}, // the first character stays, whatever it is
        {" \n", 100, " "},          {"\ntwo\n", 100, "\n"}, {"abcdef\n", 7, "abcdef"},
        {"abcdef\n", 5, "abcd"},                                                      // one less than the size
        {"abc def\n", 5, "abc"},    {"abcdef\n", 2, "a"},   {"abcdef\n", 1, nullopt}, // no room for any character
        {"abcdef\n", 0, nullopt},
    };
    const TempFolder folder;
    for (const FirstLineCase &c : cases) {
        write_file(folder / "file", c.content);
        EXPECT_EQ(read_first_line((folder / "file").c_str(), c.size), c.expected) << c.content << " in " << c.size;
    }
}

TEST(ReadFirstLine, ReadsALongLineUpToItsSize) {
    const TempFolder folder;
    const std::string line(10'000, 'x');
    write_file(folder / "file", line + "\nsecond\n");
    EXPECT_EQ(read_first_line((folder / "file").c_str(), 4096), line.substr(0, 4095));
    EXPECT_EQ(read_first_line((folder / "file").c_str(), 20'000), line);
}

TEST(ReadFirstLine, HasNoResultForWhatCannotBeRead) {
    const TempFolder folder;
    EXPECT_EQ(read_first_line((folder / "missing").c_str(), 100), nullopt);
    EXPECT_EQ(read_first_line(folder.path().c_str(), 100), nullopt) << "a folder";
}

// ---- splitting -------------------------------------------------------------------------------------------------

struct SkipCase {
    const char *text;
    char character;
    std::size_t passed;
};

TEST(SkipToChar, AdvancesToTheCharacterOrTheEnd) {
    const SkipCase cases[] = {
        {"abc/def", '/', 3}, {"/abc", '/', 0}, {"abc", '/', 3}, {"", '/', 0}, {"a//b", '/', 1}, {"abc", '\0', 3},
    };
    for (const SkipCase &c : cases) {
        const char *cursor = c.text;
        EXPECT_EQ(skip_to_char(cursor, c.character), c.passed) << c.text;
        EXPECT_EQ(cursor, c.text + c.passed) << c.text;
        EXPECT_EQ(skip_to_char(cursor, c.character), 0U) << "standing on it already: " << c.text;
    }
}

struct SplitCase {
    const char *text;
    const char *separator;
    std::vector<std::string> pieces;
    std::optional<std::string> rest; // behind the first separator
};

const SplitCase kSplitCases[] = {
    {"a!!b!!c", "!!", {"a", "b", "c"}, "b!!c"},
    {"a", "!!", {"a"}, nullopt},
    {"", "!!", {""}, nullopt},
    {"!!", "!!", {"", ""}, nullopt}, // no text follows
    {"a!!", "!!", {"a", ""}, nullopt},
    {"!!a", "!!", {"", "a"}, "a"},
    {"a!!!!b", "!!", {"a", "", "b"}, "!!b"},
    {"a!!!b", "!!", {"a", "!b"}, "!b"}, // the leftmost whole separator
    {"a!b", "!!", {"a!b"}, nullopt},
    {"a!", "!!", {"a!"}, nullopt},
    {"a,b", ",", {"a", "b"}, "b"},
    {"a,b", "", {"a,b"}, nullopt}, // an empty separator separates nothing
};

TEST(Strtokstr, ReturnsEveryPieceEmptyOnesToo) {
    for (const SplitCase &c : kSplitCases) {
        std::string text = c.text;
        std::vector<std::string> pieces;
        char *save = nullptr;
        for (char *piece = strtokstr_r(text.data(), c.separator, &save); piece != nullptr;
             piece = strtokstr_r(nullptr, c.separator, &save))
            pieces.emplace_back(piece);
        EXPECT_EQ(pieces, c.pieces) << c.text;
        EXPECT_EQ(strtokstr_r(nullptr, c.separator, &save), nullptr) << "stays at the end: " << c.text;
    }
}

TEST(Strtokstr, CutsInPlaceAndMayChangeTheSeparatorOnTheWay) {
    std::string text = "key=>a, b";
    char *save = nullptr;
    EXPECT_EQ(strtokstr_r(text.data(), "=>", &save), text.data());
    EXPECT_STREQ(text.data(), "key");
    EXPECT_EQ(strtokstr_r(nullptr, ", ", &save), text.data() + 5);
    EXPECT_STREQ(strtokstr_r(nullptr, ", ", &save), "b");
    EXPECT_EQ(strtokstr_r(nullptr, ", ", &save), nullptr);
}

TEST(StrtokstrDeathTest, StopsTheProcessWithoutASavePointer) {
    std::string text = "a";
    EXPECT_DEATH(strtokstr_r(text.data(), ",", nullptr), "Assertion `saveptr' failed");
}

TEST(StrSplitFirst, CutsAtTheFirstSeparator) {
    for (const SplitCase &c : kSplitCases) {
        std::optional<std::string> rest = "from before";
        EXPECT_EQ(str_split_first(c.text, c.separator, rest), c.pieces.front()) << c.text;
        EXPECT_EQ(rest, c.rest) << c.text;
    }
}

TEST(StrSplitFirst, MayReplaceItsOwnInput) {
    std::optional<std::string> text = "a,b,c";
    EXPECT_EQ(str_split_first(*text, ",", text), "a");
    EXPECT_EQ(text, "b,c");
}

TEST(StrSplitAll, ReturnsEveryPiece) {
    for (const SplitCase &c : kSplitCases)
        EXPECT_EQ(str_split_all(c.text, c.separator), c.pieces) << c.text;
}

// ---- memory ----------------------------------------------------------------------------------------------------

TEST(ReallocOrFree, KeepsTheContentOfAGrownBlock) {
    auto *block = static_cast<char *>(realloc_or_free(nullptr, 4));
    ASSERT_NE(block, nullptr);
    std::memcpy(block, "abc", 4);
    block = static_cast<char *>(realloc_or_free(block, 100'000));
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(block, "abc");
    EXPECT_EQ(realloc_or_free(block, 0), nullptr); // freed: a leak checker would tell
}

TEST(ReallocOrFree, FreesTheBlockWhenItCannotGrow) {
    if (kChecksAddresses) GTEST_SKIP() << "the address checker ends the process instead";
    void *block = realloc_or_free(nullptr, 16);
    ASSERT_NE(block, nullptr);
    volatile std::size_t too_much = PTRDIFF_MAX;
    EXPECT_EQ(realloc_or_free(block, too_much), nullptr);
}

struct Node {
    explicit Node(Node *behind, int &count) : next(behind), living(count) { ++living; }
    ~Node() { --living; }
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;
    Node *next;
    int &living;
};

TEST(ListFree, FreesEveryNode) {
    int living = 0;
    Node *list = nullptr;
    for (int i = 0; i < 5; ++i)
        list = new Node(list, living);
    EXPECT_EQ(living, 5);
    list_free(list);
    EXPECT_EQ(living, 0);
    list_free(static_cast<Node *>(nullptr));
}

} // namespace
} // namespace tsbackup
