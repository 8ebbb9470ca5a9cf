// The choice of the time resolution. FAT, NTFS and network mounts are not at hand on every machine: the type of the
// destination's file system is put in place of the kernel's answer, everything else is real.

#include "engine.h"
#include "walk.h"

#include <gmock/gmock.h>
#include <ostream>

namespace tsbackup::test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr long kFat = 0x4D44;
constexpr long kNtfs = 0x5346544E;
constexpr long kSmb2 = 0xFE534D42;
constexpr long kCifs = 0xFF534D42;
constexpr long kExt4 = 0xEF53;
constexpr long kBtrfs = 0x9123683E;
constexpr long kNfs = 0x6969;
constexpr long kExfat = 0x2011BAB0;

constexpr char kFullSecond[] = "(debug) Doing full-second timestamp resolution for destination FS type.\n";
constexpr char kDefault[] = "(debug) Doing default timestamp resolution for destination FS type.\n";
constexpr char kRemote[] = "(debug) Backing up to remote destination.\n";

void pretend_type(const std::string &folder, long type) {
    kernel().statfs = [folder, type](const std::string &path, struct statfs &statistics) {
        if (path.compare(0, folder.size(), folder) == 0) statistics.f_type = type;
        return 0;
    };
}

struct ResolutionCase {
    const char *name;
    long type;
    std::int32_t resolution_before;
    std::int32_t coarse_before;
    std::int32_t resolution_after;
    std::int32_t coarse_after;
    std::string texts;
};

std::ostream &operator<<(std::ostream &stream, const ResolutionCase &c) { return stream << c.name; }

const ResolutionCase kResolutionCases[] = {
    {"FAT", kFat, 100'000, 0, 1'000'000'000, 0, kFullSecond},
    {"FAT again", kFat, 1'000'000'000, 0, 1'000'000'000, 0, ""},
    {"FAT after a network mount", kFat, 100'000, 1, 1'000'000'000, 1, kFullSecond},
    {"NTFS", kNtfs, 100'000, 0, 1'000'000'000, 0, kFullSecond},
    {"SMB2", kSmb2, 100'000, 0, 100'000, 1, kRemote},
    {"SMB2 again", kSmb2, 100'000, 1, 100'000, 1, ""},
    {"SMB2 after FAT", kSmb2, 1'000'000'000, 0, 100'000, 1, std::string(kRemote) + kDefault},
    {"CIFS", kCifs, 100'000, 0, 100'000, 1, kRemote},
    {"ext4", kExt4, 100'000, 0, 100'000, 0, ""},
    {"ext4 after FAT", kExt4, 1'000'000'000, 0, 100'000, 0, kDefault},
    {"ext4 after a network mount", kExt4, 100'000, 1, 100'000, 1, ""},
    {"btrfs after FAT on a network mount's day", kBtrfs, 1'000'000'000, 1, 100'000, 1, kDefault},
    {"NFS is no coarse destination", kNfs, 100'000, 0, 100'000, 0, ""},
    {"exFAT is not FAT", kExfat, 100'000, 0, 100'000, 0, ""},
    {"one bit off SMB2", 0xFE534D43, 100'000, 0, 100'000, 0, ""},
    {"one bit off FAT", 0x4D45, 100'000, 0, 100'000, 0, ""},
};

class Resolution : public EngineTest, public testing::WithParamInterface<ResolutionCase> {};

TEST_P(Resolution, FollowsTheDestination) {
    const ResolutionCase &c = GetParam();
    const std::string root = scratch();
    make_folder(root + "/src");
    make_folder(root + "/dst");
    pretend_type(root + "/dst", c.type);
    timestamp_resolution_ns = c.resolution_before;
    coarse_dst_times = c.coarse_before;

    TestRun run;
    const Diagnostics diagnostics;
    EXPECT_EQ(do_copy_dir((root + "/src").c_str(), (root + "/dst").c_str(), run), 0);

    const std::string first = "(debug) do_copy_dir(\"" + root + "/src\", \"" + root + "/dst\")\n";
    EXPECT_EQ(diagnostics.without_places(), first + c.texts);
    EXPECT_EQ(timestamp_resolution_ns, c.resolution_after);
    EXPECT_EQ(coarse_dst_times, c.coarse_after);
}

INSTANTIATE_TEST_SUITE_P(Types, Resolution, testing::ValuesIn(kResolutionCases));

TEST_F(Resolution, TheSourcesTypeCountsForNothing) {
    const std::string root = scratch();
    make_folder(root + "/src/a");
    pretend_type(root + "/src", kFat);
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(timestamp_resolution_ns, 100'000);
    EXPECT_EQ(coarse_dst_times, 0);
}

TEST_F(Resolution, IsChosenAnewInEveryFolder) {
    const std::string root = scratch();
    make_folder(root + "/src/a");
    make_folder(root + "/src/b");
    write_file(root + "/src/a/file", "x");
    write_file(root + "/src/b/file", "x");
    pretend_type(root + "/dst/a", kFat);
    TestRun run;
    const Diagnostics diagnostics;
    copy_tree(run, root + "/src", root + "/dst");
    const std::string text = diagnostics.text();
    EXPECT_LT(text.find("full-second"), text.find("default timestamp"));
    EXPECT_EQ(timestamp_resolution_ns, 100'000);
}

struct SecondRunCase {
    const char *name;
    long type;
    timespec src;
    timespec dst;
    bool copied;
};

std::ostream &operator<<(std::ostream &stream, const SecondRunCase &c) { return stream << c.name; }

const SecondRunCase kSecondRunCases[] = {
    {"ext4, only the sub-second part differs", kExt4, {1'600'000'000, 500'000'000}, {1'600'000'000, 0}, true},
    {"ext4, below the resolution", kExt4, {1'600'000'000, 99'999}, {1'600'000'000, 0}, false},
    {"CIFS, only the sub-second part differs", kCifs, {1'600'000'000, 500'000'000}, {1'600'000'000, 0}, false},
    {"CIFS, destination with a sub-second part", kCifs, {1'600'000'000, 0}, {1'600'000'000, 500'000'000}, true},
    {"CIFS, one second newer", kCifs, {1'600'000'001, 0}, {1'600'000'000, 0}, true},
    {"SMB2, one and a half seconds older", kSmb2, {1'599'999'998, 500'000'000}, {1'600'000'000, 0}, false},
    {"SMB2, two seconds older", kSmb2, {1'599'999'998, 0}, {1'600'000'000, 0}, true},
    {"FAT, one and a half seconds newer", kFat, {1'600'000'001, 500'000'000}, {1'600'000'000, 0}, true},
    {"FAT, within the second", kFat, {1'600'000'000, 999'999'999}, {1'600'000'000, 0}, false},
    {"FAT, one second older", kFat, {1'599'999'999, 0}, {1'600'000'000, 0}, true},
};

class SecondRun : public EngineTest, public testing::WithParamInterface<SecondRunCase> {};

TEST_P(SecondRun, CopiesWhatIsNotCurrentForTheDestinationsType) {
    const SecondRunCase &c = GetParam();
    const std::string root = scratch();
    write_file(root + "/src/file", "new");
    write_file(root + "/dst/file", "old");
    set_mtime(root + "/src/file", c.src.tv_sec, c.src.tv_nsec);
    set_mtime(root + "/dst/file", c.dst.tv_sec, c.dst.tv_nsec);
    pretend_type(root + "/dst", c.type);
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(read_file(root + "/dst/file"), c.copied ? "new" : "old");
    EXPECT_EQ(run.copied(), c.copied ? "Copy File  file\n" : "");
    EXPECT_EQ(run.bytes, c.copied ? 3 : 0);
}

INSTANTIATE_TEST_SUITE_P(Types, SecondRun, testing::ValuesIn(kSecondRunCases));

TEST_F(Resolution, StaysFromOneCallToTheNext) {
    const std::string root = scratch();
    make_folder(root + "/src");
    make_folder(root + "/fat");
    pretend_type(root + "/fat", kFat);
    TestRun run;
    copy_tree(run, root + "/src", root + "/fat");
    copy_tree(run, root + "/src", root + "/fat");
    EXPECT_EQ(timestamp_resolution_ns, 1'000'000'000);
    const Diagnostics diagnostics;
    copy_tree(run, root + "/src", root + "/plain");
    EXPECT_THAT(diagnostics.text(), HasSubstr("Doing default"));
    EXPECT_THAT(diagnostics.text(), Not(HasSubstr("remote destination")));
    EXPECT_EQ(timestamp_resolution_ns, 100'000);
}

} // namespace
} // namespace tsbackup::test
