#include "display.h"

#include <clocale>
#include <gtest/gtest.h>

namespace tsbackup::test {
namespace {

class Display : public testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr); }
    void TearDown() override { std::setlocale(LC_CTYPE, "C"); }
};

struct ShownCase {
    const char *name;
    std::string text;
    const char *shown;
    std::size_t width;
};

const ShownCase kShown[] = {
    {"nothing", "", "", 0},
    {"plain", "Photos (2020)", "Photos (2020)", 13},
    {"letters beyond ASCII", "Käse", "Käse", 4},
    {"wide letters", "日本", "日本", 4},
    {"a combining accent", "e\u0301x", "e\u0301x", 2},
    {"a terminal's escape sequence", "a\033[31mb", "a?[31mb", 7},
    {"line ends and tabs", "a\nb\r\tc", "a?b??c", 6},
    {"a zero byte", std::string("a\0b", 3), "a?b", 3},
    {"an escape sequence in one character", "a\u009b31mb", "a?31mb", 6},
    {"a delete", "a\177b", "a?b", 3},
    {"bytes that are no UTF-8", "a\xff\xfe\xc3", "a???", 4},
    {"a letter cut in two", "a\xe6\x97", "a??", 3},
    {"too long a form of a slash", "\xc0\xaf", "??", 2},
    {"a reversed order", "a\u202eb\u2066c", "a?b?c", 5},
    {"nothing to be seen", "a\u200bb\ufeff", "a?b?", 4},
};

TEST_F(Display, ShowsNothingThatMovesTheCursor) {
    for (const ShownCase &c : kShown) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(display_text(c.text), c.shown);
        EXPECT_EQ(display_width(c.shown), c.width);
    }
}

TEST(DisplayWithoutLocale, ShowsAsciiAlone) {
    EXPECT_EQ(display_text("Käse \033"), "K??se ?");
    EXPECT_EQ(display_width("K??se ?"), 7U);
}

TEST_F(Display, CutsAtColumnsAndNotWithinALetter) {
    struct Case {
        const char *text;
        std::size_t columns;
        const char *cut;
    };
    for (const Case &c : {Case{"abcdef", 6, "abcdef"}, Case{"abcdefg", 6, "abc..."}, Case{"ääääääää", 6, "äää..."},
                          Case{"日本日本", 8, "日本日本"}, Case{"日本日本日", 8, "日本..."}, Case{"日本日", 4, "..."},
                          Case{"abcdef", 2, ".."}, Case{"abc", 0, ""}, Case{"", 0, ""}}) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(display_cut(c.text, c.columns), c.cut);
        EXPECT_LE(display_width(c.cut), c.columns);
    }
}

TEST_F(Display, PadsByColumns) {
    EXPECT_EQ(display_padded("日", 4), "日  ");
    EXPECT_EQ(display_padded("ä", 3, true), "  ä");
    EXPECT_EQ(display_padded("abcd", 3), "abcd");
}

} // namespace
} // namespace tsbackup::test
