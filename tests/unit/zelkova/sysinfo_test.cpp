#include "support.h"
#include "zelkova.h"

namespace tsbackup::test {
namespace {

constexpr char kSysInfo[] = "/etc/tessera/sysinfo";
constexpr int kStale = 99;

class SysInfo : public testing::Test {
  protected:
    void SetUp() override { REQUIRE_APPLIANCE(); }
    void TearDown() override {
        if (in_appliance()) remove_tree(kSysInfo);
    }
};

TEST_F(SysInfo, ReadsTheHardwareType) {
    const struct {
        const char *content;
        int expected;
    } cases[] = {
        {"HARDWARE_TYPE=3\n", 3},
        {"HARDWARE_TYPE=12", 12},
        {"HARDWARE_TYPE=3\r\n", 3},
        {"HARDWARE_TYPE= 3 \n", 3},
        {"HARDWARE_TYPE=010\n", 10},
        {"HARDWARE_TYPE=-1\n", -1},
        {"MODEL=x\nHARDWARE_TYPE=3\nHARDWARE_TYPE=4\n", 3},
        {"HARDWARE_TYPE=2147483647\n", 2147483647},
        {"HARDWARE_TYPE=2147483648\n", 0},
        {"HARDWARE_TYPE=99999999999999999999\n", 0},
        {"HARDWARE_TYPE=\n", 0},
        {"HARDWARE_TYPE=x3\n", 0},
        {"HARDWARE_TYPE=3x\n", 0},
        {"HARDWARE_TYPES=3\n", 0},
        {"MODEL=x\n", 0},
        {"", 0},
    };
    for (const auto &test : cases) {
        SCOPED_TRACE(test.content);
        write_file(kSysInfo, test.content);
        sys_info info{kStale};
        EXPECT_EQ(get_sys_info(&info), 0);
        EXPECT_EQ(info.hardware_type, test.expected);
    }
}

TEST_F(SysInfo, ZeroesTheRecordWhenTheFileCannotBeRead) {
    remove_tree(kSysInfo);
    sys_info missing{kStale};
    EXPECT_EQ(get_sys_info(&missing), -1);
    EXPECT_EQ(missing.hardware_type, 0);

    make_folder(kSysInfo);
    sys_info folder{kStale};
    EXPECT_EQ(get_sys_info(&folder), -1);
    EXPECT_EQ(folder.hardware_type, 0);

    EXPECT_EQ(get_sys_info(nullptr), -1);
}

} // namespace
} // namespace tsbackup::test
