#include "tsbackup_utils.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace tsbackup {
namespace {

struct TextCase {
    const char *text;
    const char *expected;
};

std::string with_every_byte() {
    std::string text;
    for (int byte = 1; byte < 256; ++byte)
        text += static_cast<char>(byte);
    return text;
}

/// Random texts of 1 to 24 bytes, none of them 0; half of them lean towards what a shell acts on.
std::vector<std::string> random_texts(std::size_t count) {
    std::mt19937 random(20'240'131);
    const std::string acting = " \t\n\r;#~&|<>()$`\\\"'*?[]{}!^=:%,-+@/ab\x01\x7f\xc3\xa9";
    std::vector<std::string> texts;
    while (texts.size() < count) {
        std::string text;
        const std::size_t length = 1 + random() % 24;
        const bool leaning = texts.size() % 2 == 0;
        while (text.size() < length)
            text += leaning ? acting[random() % acting.size()] : static_cast<char>(1 + random() % 255);
        texts.push_back(text);
    }
    return texts;
}

// ---- shell_escape ----------------------------------------------------------------------------------------------

TEST(ShellEscape, PutsABackslashBeforeEachListedCharacterAlone) {
    const std::string listed = "! \t\\&()|^<>?*[]$`\"'{}";
    for (const char character : with_every_byte()) {
        const std::string text = std::string("x") + character + "y";
        const bool escaped = listed.find(character) != std::string::npos;
        EXPECT_EQ(shell_escape(text.c_str()), std::string(escaped ? "x\\" : "x") + character + "y")
            << "byte " << static_cast<int>(static_cast<unsigned char>(character));
    }
}

TEST(ShellEscape, EscapesWholeTexts) {
    const TextCase cases[] = {
        {"", ""},
        {"plain-name_1.txt", "plain-name_1.txt"},
        {"a b'c", "a\\ b\\'c"},
        {"  ", "\\ \\ "},
        {"\\\\server", "\\\\\\\\server"},
        {"caf\xc3\xa9", "caf\xc3\xa9"},
        {"a;b#c~d\ne", "a;b#c~d\ne"}, // outside the table
    };
    for (const TextCase &c : cases)
        EXPECT_EQ(shell_escape(c.text), c.expected);
}

TEST(ShellEscape, HasNoResultForNull) { EXPECT_EQ(shell_escape(nullptr), std::nullopt); }

// ---- shell_word ------------------------------------------------------------------------------------------------

TEST(ShellWord, IsThePlainEscapeWhereNothingElseActs) {
    for (const char *text : {"", "plain", "a b'c", "a#b", "a~b", "a=~", "x:~", "-n", "caf\xc3\xa9", "100%", "a,b@c+d"})
        EXPECT_EQ(shell_word(text), shell_escape(text)) << text;
    for (const std::string &text : random_texts(1000)) {
        const bool more = text.find_first_of(";\n\r") != std::string::npos || text[0] == '#' || text[0] == '~';
        if (!more) {
            EXPECT_EQ(shell_word(text), shell_escape(text.c_str())) << text;
        }
    }
}

TEST(ShellWord, MakesTheRestLiteral) {
    const TextCase cases[] = {
        {";", "\\;"},       {"a;b", "a\\;b"},   {"a; rm -rf b", "a\\;\\ rm\\ -rf\\ b"},
        {"\n", "'\n'"},     {"a\nb", "a'\n'b"}, {"a\r\nb", "a'\r''\n'b"},
        {"'\n", "\\''\n'"}, {"#", "\\#"},       {"#recycle", "\\#recycle"},
        {"##", "\\##"},     {"~", "\\~"},       {"~root", "\\~root"},
        {"\n#", "'\n'#"},   {"a #b", "a\\ #b"},
    };
    for (const TextCase &c : cases)
        EXPECT_EQ(shell_word(c.text), c.expected) << c.text;
}

struct Shell {
    const char *file;
    const char *name; // argv[0]; a bash named "sh" behaves as the system's shell
    const char *locale;
};

const Shell kShells[] = {
    {"/bin/sh", "sh", "LC_ALL=C"},    {"/bin/sh", "sh", "LC_ALL=C.UTF-8"}, {"dash", "sh", "LC_ALL=C"},
    {"dash", "sh", "LC_ALL=C.UTF-8"}, {"bash", "sh", "LC_ALL=C"},          {"bash", "sh", "LC_ALL=C.UTF-8"},
};

std::string output; // of the shell

std::int32_t take_output(BackupRun *, int descriptor) {
    std::array<char, 65536> piece{};
    ssize_t got = 0;
    while ((got = read(descriptor, piece.data(), piece.size())) > 0)
        output.append(piece.data(), static_cast<std::size_t>(got));
    return 0;
}

/// The words that the shell makes of a command's arguments, each ended by a zero byte. The shell finds no program:
/// what slips out of a word does no harm.
std::string words_of(const Shell &shell, const std::string &arguments) {
    std::string name = shell.name;
    std::string option = "-c";
    std::string command = "printf '%s\\0' " + arguments;
    std::string locale = shell.locale;
    std::string path = "PATH=/nowhere";
    const std::array<char *, 4> argv = {name.data(), option.data(), command.data(), nullptr};
    const std::array<char *, 3> envp = {locale.data(), path.data(), nullptr};
    output.clear();
    EXPECT_EQ(_backup_execvp(shell.file, "", nullptr, 0, argv.data(), envp.data(), nullptr, take_output), 0);
    return output;
}

std::vector<std::string> texts_in_every_position() {
    std::vector<std::string> texts;
    for (const char byte : with_every_byte()) {
        const std::string character(1, byte);
        for (const std::string &text : {character, character + "x", "x" + character + "y", "x" + character,
                                        character + character, " " + character, character + "\n", "\\" + character})
            texts.push_back(text);
    }
    for (const char *text :
         {"~root/x", "#a #b", "\xc2\xa0", "\xe3\x80\x80", "caf\xc3\xa9", "caf\xc3", "\xc3 \xc3;\xc3'", "$(touch x)",
          "`x`", "a && b", "a\\\nb", "-e", "%s\\n", "{a,b}", "a{1..3}", "!!", "[!a]"})
        texts.emplace_back(text);
    return texts;
}

void expect_shells_give_back(const std::vector<std::string> &texts) {
    constexpr std::size_t kPerCommand = 1000;
    for (const Shell &shell : kShells) {
        for (std::size_t start = 0; start < texts.size(); start += kPerCommand) {
            const std::size_t end = std::min(texts.size(), start + kPerCommand);
            std::string arguments;
            std::string expected;
            for (std::size_t i = start; i < end; ++i) {
                arguments += shell_word(texts[i]) + " ";
                expected += texts[i] + '\0';
            }
            if (words_of(shell, arguments) == expected) continue;
            for (std::size_t i = start; i < end && !testing::Test::HasFailure(); ++i) // the first one of them
                EXPECT_EQ(words_of(shell, shell_word(texts[i])), texts[i] + '\0')
                    << shell.file << " " << shell.locale << ", text " << testing::PrintToString(texts[i]);
            FAIL() << shell.file << " " << shell.locale << ", words " << start << " to " << end;
        }
    }
}

TEST(ShellWord, ComesBackFromAShellWithEveryByteInEveryPosition) { expect_shells_give_back(texts_in_every_position()); }

TEST(ShellWord, ComesBackFromAShellWhateverItHolds) { expect_shells_give_back(random_texts(4000)); }

TEST(ShellWord, AtTheEndOfACommandStaysInsideIt) {
    for (const Shell &shell : kShells)
        for (const char *text : {"a\n", "a;", "a\\", "a&", "a|", "a#", "a\r"})
            EXPECT_EQ(words_of(shell, shell_word(text) + "; exit 0"), text + std::string(1, '\0')) << text;
}

// ---- url_escape, url_unescape ----------------------------------------------------------------------------------

TEST(UrlEscape, CodesEachListedCharacterAndEverythingOutsideAscii) {
    const std::string listed = " !*'();:@&=+$,?%#[]";
    for (int byte = 1; byte < 256; ++byte) {
        const std::string character(1, static_cast<char>(byte));
        const std::string digits = "0123456789abcdef";
        const std::string code = {'%', digits[static_cast<std::size_t>(byte / 16)],
                                  digits[static_cast<std::size_t>(byte % 16)]};
        const bool coded = byte >= 128 || listed.find(character) != std::string::npos;
        EXPECT_EQ(url_escape(("x" + character + "y").c_str()), "x" + (coded ? code : character) + "y") << byte;
    }
}

TEST(UrlEscape, EscapesWholeTexts) {
    const TextCase cases[] = {
        {"", ""},
        {"a b/caf\xc3\xa9", "a%20b/caf%c3%a9"},
        {"100%", "100%25"},
        {"%41", "%2541"},
        {"hash#x.txt;type=a", "hash%23x.txt%3btype%3da"},
        {"a\tb\nc\\d\"e<f>", "a\tb\nc\\d\"e<f>"}, // outside the table
    };
    for (const TextCase &c : cases)
        EXPECT_EQ(url_escape(c.text), c.expected);
}

TEST(UrlEscape, HasNoResultForNull) { EXPECT_EQ(url_escape(nullptr), std::nullopt); }

TEST(UrlUnescape, DecodesWhereTwoMoreCharactersFollow) {
    const TextCase cases[] = {
        {"", ""},
        {"plain", "plain"},
        {"%41", "A"},
        {"a%20b", "a b"},
        {"%c3%A9", "\xc3\xa9"},
        {"%41%42", "AB"},
        {"%2541", "%41"}, // once
        {"%", "%"},
        {"%4", "%4"},
        {"ab%", "ab%"},
        {"ab%4", "ab%4"},
        {"%41%4", "A%4"},
        {"%4g", "@"},
        {"%%51", "\x05"
                 "1"}, // the second percent sign counts as a digit
        {"a+b", "a+b"},
    };
    for (const TextCase &c : cases) {
        std::string text = c.text;
        EXPECT_EQ(url_unescape(text), c.expected) << c.text;
    }
}

TEST(UrlUnescape, CountsACharacterThatIsNoDigitAsZero) {
    std::string text = "%zz9";
    EXPECT_EQ(url_unescape(text), std::string("\0009", 2));
    text = "a%00b";
    EXPECT_EQ(url_unescape(text), std::string("a\0b", 3));
    text = "%x5%5x";
    EXPECT_EQ(url_unescape(text), "\x05\x50");
}

TEST(UrlUnescape, WorksInPlaceAndReturnsItsArgument) {
    std::string text = "%41";
    EXPECT_EQ(&url_unescape(text), &text);
    EXPECT_EQ(text, "A");
}

TEST(UrlUnescape, UndoesTheEscape) {
    std::vector<std::string> texts = random_texts(2000);
    texts.push_back(with_every_byte());
    for (const std::string &text : texts) {
        std::string escaped = *url_escape(text.c_str());
        EXPECT_EQ(url_unescape(escaped), text);
    }
}

// ---- escape_for_xml --------------------------------------------------------------------------------------------

TEST(EscapeForXml, ReplacesTheFiveMarkupCharactersAlone) {
    for (const char character : with_every_byte()) {
        std::string expected(1, character);
        if (character == '&') expected = "&amp;";
        if (character == '<') expected = "&lt;";
        if (character == '>') expected = "&gt;";
        if (character == '"') expected = "&quot;";
        if (character == '\'') expected = "&apos;";
        EXPECT_EQ(escape_for_xml((std::string("x") + character + "y").c_str()), "x" + expected + "y");
    }
}

TEST(EscapeForXml, EscapesWholeTexts) {
    const TextCase cases[] = {
        {"", ""},
        {"nothing to change", "nothing to change"},
        {"&&", "&amp;&amp;"},
        {"&amp;", "&amp;amp;"},
        {"<a b=\"c\">'d'</a>", "&lt;a b=&quot;c&quot;&gt;&apos;d&apos;&lt;/a&gt;"},
        {"caf\xc3\xa9\n", "caf\xc3\xa9\n"},
    };
    for (const TextCase &c : cases)
        EXPECT_EQ(escape_for_xml(c.text), c.expected);
}

TEST(EscapeForXml, HasNoResultForNull) { EXPECT_EQ(escape_for_xml(nullptr), std::nullopt); }

} // namespace
} // namespace tsbackup
