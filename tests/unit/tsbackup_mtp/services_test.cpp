// The switches of media import: how the table of services is read, and what counts as enabled.

#include "services.h"

#include "support.h"

#include <array>
#include <cstring>

namespace tsbackup::test {
namespace {

constexpr char kServices[] = "/etc/default/services";

class Services : public testing::Test {
  protected:
    void SetUp() override { REQUIRE_APPLIANCE(); }
    void TearDown() override {
        if (in_appliance()) write_file(kServices, "ANTIVIRUS=0\n");
    }
};

struct GetCase {
    const char *name;
    std::string content;
    std::string key;
    std::string value; ///< "untouched": the key is absent
};

TEST_F(Services, ValuesAreFoundByTheirWholeKey) {
    const std::string longest_key(127, 'k');
    const std::string longest_value(4095, 'v');
    const GetCase cases[] = {
        {"only line", "A=1\n", "A", "1"},
        {"last line without an end", "B=2\nA=1", "A", "1"},
        {"first of two lines", "A=1\nA=2\n", "A", "1"},
        {"absent", "B=1\n", "A", "untouched"},
        {"empty file", "", "A", "untouched"},
        {"longer key", "AB=1\n", "A", "untouched"},
        {"shorter key", "A=1\n", "AB", "untouched"},
        {"other case", "a=1\n", "A", "untouched"},
        {"blank before the key", " A=1\n", "A", "untouched"},
        {"blank behind the key", "A =1\n", "A", "untouched"},
        {"commented out", "#A=1\nA=2\n", "A", "2"},
        {"blanks are part of a value", "A= 1 2 \n", "A", " 1 2 "},
        {"equals signs are part of a value", "A=b=c\n", "A", "b=c"},
        {"quotes are part of a value", "A=\"1\"\n", "A", "\"1\""},
        {"no value", "A=\nA=1\n", "A", ""},
        {"no equals sign", "A\nA=1\n", "A", "1"},
        {"no key", "=1\n", "A", "untouched"},
        {"empty lines", "\n\nA=1\n", "A", "1"},
        {"longest key", longest_key + "=1\n", longest_key, "1"},
        {"key that is too long", longest_key + "k=1\n", longest_key + "k", "untouched"},
        {"longest value", "A=" + longest_value + "\n", "A", longest_value},
        {"value that is too long", "A=" + longest_value + "w\n", "A", longest_value},
        {"longest line", longest_key + "=" + longest_value + "\nA=1\n", longest_key, longest_value},
        {"behind a line that is too long", "B=" + std::string(9000, 'b') + "A=2\nA=1\n", "A", "1"},
        {"the end of a line that is too long is no line", "B=" + std::string(4222, 'b') + "A=2\n", "A", "untouched"},
    };
    for (const GetCase &test : cases) {
        write_file(kServices, test.content);
        std::array<char, 5000> value{"untouched"};
        EXPECT_EQ(services_get(test.key.c_str(), value.data(), value.size()), 0) << test.name;
        EXPECT_EQ(std::string(value.data()), test.value) << test.name;
    }
}

TEST_F(Services, AValueThatFillsItsBufferIsNotTerminated) {
    write_file(kServices, "A=12345678\nB=123456789\nC=1234567\n");
    const struct {
        const char *key;
        std::string bytes;
    } cases[] = {{"A", "12345678#"}, {"B", "12345678#"}, {"C", std::string("1234567\0#", 9)}};
    for (const auto &[key, bytes] : cases) {
        std::string value(9, '#');
        EXPECT_EQ(services_get(key, value.data(), 8), 0);
        EXPECT_EQ(value, bytes) << key;
    }
}

TEST_F(Services, MissingArgumentsAreRefused) {
    std::array<char, 8> value{"kept"};
    const Diagnostics diagnostics;
    EXPECT_EQ(services_get(nullptr, value.data(), value.size()), -1);
    EXPECT_EQ(services_get("A", nullptr, value.size()), -1);
    EXPECT_EQ(services_get("A", value.data(), 0), -1);
    EXPECT_STREQ(value.data(), "kept");
    EXPECT_EQ(diagnostics.without_places(), "(error) Invalid input\n(error) Invalid input\n(error) Invalid input\n");
}

TEST_F(Services, WithoutTheFileNothingIsKnown) {
    std::array<char, 8> value{"kept"};
    for (const bool folder : {false, true}) {
        remove_tree(kServices);
        if (folder) make_folder(kServices);
        const Diagnostics diagnostics;
        EXPECT_EQ(services_get("A", value.data(), value.size()), -1);
        EXPECT_STREQ(value.data(), "kept");
        const std::string failed = "(error) Failed to open service file /etc/default/services!\n";
        EXPECT_EQ(diagnostics.without_places(), failed);
        EXPECT_EQ(mtpbackup_enabled(), -1);
        EXPECT_EQ(diagnostics.without_places(), failed + failed + "(error) Get MTPBACKUP tag error.\n");
    }
    remove_tree(kServices);
}

TEST_F(Services, OnlyTheNumberOneEnablesImport) {
    const struct {
        const char *content;
        int enabled;
    } cases[] = {
        {"MTPBACKUP=1\n", 1},     {"MTPBACKUP=01\n", 1},
        {"MTPBACKUP=+1\n", 1},    {"MTPBACKUP= 1\n", 1},
        {"MTPBACKUP=1\r\n", 1},   {"MTPBACKUP=0\n", 0},
        {"MTPBACKUP=2\n", 0},     {"MTPBACKUP=-1\n", 0},
        {"MTPBACKUP=11\n", 0},    {"MTPBACKUP=4294967297\n", 0},
        {"MTPBACKUP=yes\n", 0},   {"MTPBACKUP=\"1\"\n", 0},
        {"MTPBACKUP=\n", 0},      {"MTPBACKUP=\nMTPBACKUP=1\n", 0},
        {"MTPBACKUP_DIR=1\n", 0}, {"", 0},
    };
    for (const auto &[content, enabled] : cases) {
        write_file(kServices, content);
        const Diagnostics diagnostics;
        EXPECT_EQ(mtpbackup_enabled(), enabled) << content;
        EXPECT_EQ(diagnostics.without_places(), enabled == 1 ? "" : "(info) Automatically media backup is disabled.\n");
    }
}

} // namespace
} // namespace tsbackup::test
