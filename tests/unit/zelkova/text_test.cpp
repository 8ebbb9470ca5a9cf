#include "support.h"
#include "zelkova.h"

#include <array>
#include <cstring>

namespace tsbackup::test {
namespace {

struct SplitCase {
    const char *name;
    const char *line;
    const char *separator;
    std::vector<std::string> fields;
};

const SplitCase kSplitCases[] = {
    {"ten fields of a storage table line",
     "1!!usb1!!2!!3!!4!!sdb1!!6!!7!!8!!9",
     "!!",
     {"1", "usb1", "2", "3", "4", "sdb1", "6", "7", "8", "9"}},
    {"no separator", "alone", "!!", {"alone"}},
    {"empty line", "", "!!", {""}},
    {"half a separator is text", "a!b!!c!", "!!", {"a!b", "c!"}},
    {"the first of overlapping separators counts", "a!!!b", "!!", {"a", "!b"}},
    {"empty fields at the ends and between", "!!a!!!!b!!", "!!", {"", "a", "", "b", ""}},
    {"only a separator", "!!", "!!", {"", ""}},
    {"one character", "a,b,,c", ",", {"a", "b", "", "c"}},
    {"separator longer than the line", "ab", "abc", {"ab"}},
    {"empty separator", "a!!b", "", {"a!!b"}},
    {"null separator", "a!!b", nullptr, {"a!!b"}},
};

TEST(Split, CutsAtEveryWholeSeparator) {
    for (const SplitCase &test : kSplitCases) {
        SCOPED_TRACE(test.name);
        std::string line = test.line;
        std::array<char *, 16> fields{};
        const int count = split(line.data(), test.separator, fields.data(), static_cast<int>(fields.size()));
        ASSERT_EQ(static_cast<std::size_t>(count), test.fields.size());
        for (std::size_t field = 0; field < test.fields.size(); ++field)
            EXPECT_EQ(fields[field], test.fields[field]);
        EXPECT_EQ(fields[test.fields.size()], nullptr);
    }
}

TEST(Split, StoresNoMoreThanAskedForAndCountsAll) {
    for (int room = -1; room <= 5; ++room) {
        SCOPED_TRACE(room);
        char line[] = "a!!b!!c!!d";
        std::array<char *, 6> fields{};
        EXPECT_EQ(split(line, "!!", fields.data(), room), 4);
        const char *const expected[] = {"a", "b", "c", "d"};
        for (int field = 0; field < 6; ++field) {
            if (field < room && field < 4)
                EXPECT_STREQ(fields[static_cast<std::size_t>(field)], expected[field]);
            else
                EXPECT_EQ(fields[static_cast<std::size_t>(field)], nullptr);
        }
    }
}

TEST(Split, CountsWithoutAnyRoom) {
    char line[] = "a!!b";
    EXPECT_EQ(split(line, "!!", nullptr, 0), 2);
}

TEST(Split, FindsNoFieldInANullLine) {
    char *field = nullptr;
    EXPECT_EQ(split(nullptr, "!!", &field, 1), 0);
    EXPECT_EQ(field, nullptr);
}

TEST(Split, PointsIntoTheLine) {
    char line[] = "ab::cd";
    std::array<char *, 2> fields{};
    split(line, "::", fields.data(), 2);
    EXPECT_EQ(fields[0], line);
    EXPECT_EQ(fields[1], line + 4);
}

struct BoundedCase {
    const char *name;
    const char *before; ///< the text in the buffer
    const char *src;
    std::size_t size;
    const char *copied;
    const char *appended;
};

const BoundedCase kBoundedCases[] = {
    {"fits with room", "ab", "cd", 8, "cd", "abcd"},
    {"fits exactly", "ab", "cd", 5, "cd", "abcd"},
    {"one too long", "ab", "cd", 4, "cd", "abc"},
    {"no room to append", "ab", "cdef", 3, "cd", "ab"},
    {"the old text does not fit either", "abcdef", "xyz", 4, "xyz", "abc"},
    {"room for the end alone", "ab", "cd", 1, "", ""},
    {"empty source", "ab", "", 8, "", "ab"},
    {"null source", "ab", nullptr, 8, "", "ab"},
    {"empty buffer", "", "cd", 8, "cd", "cd"},
};

TEST(BoundedText, IsCutToFitAndAlwaysEnded) {
    for (const BoundedCase &test : kBoundedCases) {
        SCOPED_TRACE(test.name);
        for (const bool append : {false, true}) {
            SCOPED_TRACE(append ? "strncat_safe" : "strncpyt");
            std::array<char, 16> buffer{};
            buffer.fill('#');
            std::memcpy(buffer.data(), test.before, std::strlen(test.before) + 1);
            const std::array<char, 16> before = buffer;

            char *result = append ? strncat_safe(buffer.data(), test.src, test.size)
                                  : strncpyt(buffer.data(), test.src, test.size);
            EXPECT_EQ(result, buffer.data());
            EXPECT_STREQ(buffer.data(), append ? test.appended : test.copied);
            EXPECT_EQ(std::memcmp(buffer.data() + test.size, before.data() + test.size, buffer.size() - test.size), 0)
                << "wrote beyond the size";
        }
    }
}

TEST(BoundedText, OfNoSizeIsLeftAlone) {
    char buffer[] = "ab";
    EXPECT_EQ(strncpyt(buffer, "cd", 0), buffer);
    EXPECT_EQ(strncat_safe(buffer, "cd", 0), buffer);
    EXPECT_STREQ(buffer, "ab");
}

TEST(BoundedText, EndsABufferThatHeldNoEnd) {
    char buffer[4] = {'a', 'b', 'c', 'd'};
    strncat_safe(buffer, "e", sizeof buffer);
    EXPECT_STREQ(buffer, "abc");
}

} // namespace
} // namespace tsbackup::test
