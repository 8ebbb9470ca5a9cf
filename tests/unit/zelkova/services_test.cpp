#include "support.h"
#include "zelkova.h"

#include "tsbackup/owners.h"

namespace tsbackup::test {
namespace {

constexpr char kServices[] = "/etc/default/services";

class Services : public testing::Test {
  protected:
    void SetUp() override { REQUIRE_APPLIANCE(); }
    void TearDown() override {
        if (in_appliance()) remove_tree(kServices);
    }
};

constexpr const char *kNull = nullptr;

TEST_F(Services, GivesTheValueOfTheFirstLineWithTheWholeName) {
    const std::string long_value(100'000, 'v');
    const struct {
        const char *name;
        std::string content;
        const char *setting;
        const char *expected;
    } cases[] = {
        {"plain", "ANTIVIRUS=1\n", "ANTIVIRUS", "1"},
        {"among others", "FTP=0\nANTIVIRUS=1\nRSYNC=1\n", "ANTIVIRUS", "1"},
        {"the first counts", "ANTIVIRUS=0\nANTIVIRUS=1\n", "ANTIVIRUS", "0"},
        {"an empty first counts", "ANTIVIRUS=\nANTIVIRUS=1\n", "ANTIVIRUS", ""},
        {"last line without an end", "FTP=0\nANTIVIRUS=1", "ANTIVIRUS", "1"},
        {"empty last line without an end", "ANTIVIRUS=", "ANTIVIRUS", ""},
        {"all text to the end of the line", "A= \"x\" = y # z \n", "A", " \"x\" = y # z "},
        {"a carriage return stays", "ANTIVIRUS=1\r\n", "ANTIVIRUS", "1\r"},
        {"a long value", "A=" + long_value + "\n", "A", long_value.c_str()},
        {"behind a long line", long_value + "=x\nA=1\n", "A", "1"},
        {"longer name", "ANTIVIRUS_SCAN=1\n", "ANTIVIRUS", kNull},
        {"shorter name", "ANTI=1\n", "ANTIVIRUS", kNull},
        {"name at the end of another", "MY_ANTIVIRUS=1\n", "ANTIVIRUS", kNull},
        {"other case", "antivirus=1\n", "ANTIVIRUS", kNull},
        {"commented out", "#ANTIVIRUS=1\n", "ANTIVIRUS", kNull},
        {"blank before the sign", "ANTIVIRUS =1\n", "ANTIVIRUS", kNull},
        {"no sign", "ANTIVIRUS\n", "ANTIVIRUS", kNull},
        {"in a value", "A=ANTIVIRUS=1\n", "ANTIVIRUS", kNull},
        {"a name with the sign in it", "A=B=1\n", "A=B", kNull},
        {"empty file", "", "ANTIVIRUS", kNull},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.name);
        write_file(kServices, test.content);
        const UniqueText value(get_ts_services_setting(test.setting));
        EXPECT_STREQ(value.get(), test.expected);
    }
}

TEST_F(Services, GivesNothingWithoutAFileOrAName) {
    remove_tree(kServices);
    EXPECT_EQ(get_ts_services_setting("ANTIVIRUS"), nullptr);
    make_folder(kServices);
    EXPECT_EQ(get_ts_services_setting("ANTIVIRUS"), nullptr);
    EXPECT_EQ(get_ts_services_setting(nullptr), nullptr);
}

} // namespace
} // namespace tsbackup::test
