#include "support.h"
#include "tsbackup_utils.h"

#include <filesystem>
#include <sys/stat.h>

namespace tsbackup::test {
namespace {

TEST(MountPoint, IsClosedToAllOthers) {
    const TempFolder folder;
    EXPECT_EQ(mount_point_create(folder / "new"), 0);
    struct stat status {};
    ASSERT_EQ(stat((folder / "new").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, mode_t{S_IFDIR | 0700});
    EXPECT_EQ(mount_point_create(folder / "new"), 0) << "one that is there will do";
    EXPECT_EQ(mount_point_create(folder / "missing/new"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(MountPoint, UnmountingWhereNothingIsMountedDoesNothing) {
    const TempFolder folder;
    write_file(folder / "file", "content");
    mount_point_unmount(folder.path());
    mount_point_unmount(folder / "missing");
    EXPECT_EQ(read_file(folder / "file"), "content");
}

TEST(MountPoint, HoldsWhatLiesBelowIt) {
    const TempFolder folder;
    const std::string at = folder / "at";
    write_file(at + "/a/b/file", "");
    write_file(folder / "at2/file", "");
    std::filesystem::create_symlink("a/b", at + "/inside");
    std::filesystem::create_symlink("../at2", at + "/out");
    std::filesystem::create_symlink("/etc", at + "/absolute");
    std::filesystem::create_symlink("nothing", at + "/dangling");
    std::filesystem::create_symlink("loop", at + "/loop");
    struct Case {
        const char *path;
        bool holds;
    };
    const Case cases[] = {
        {"", true},
        {"/", true},
        {".", true},
        {"a", true},
        {"a/b/", true},
        {"a//b/file", true},
        {"a/b/file/below", true},
        {"new", true},
        {"new/and/more", true},
        {"a/..", true},
        {"a/../a/b", true},
        {"new/../a", true},
        {"...", true},
        {"..a", true},
        {"inside", true},
        {"inside/new", true},
        {"..", false},
        {"../at", false},
        {"../at2", false},
        {"a/../..", false},
        {"./..", false},
        {"new/../../at", false},
        {"out", false},
        {"out/file", false},
        {"out/new", false},
        {"absolute", false},
        {"absolute/new/one", false},
        {"dangling", false},
        {"dangling/new", false},
        {"loop", false},
    };
    for (const Case &test : cases)
        EXPECT_EQ(mount_point_holds(at, test.path), test.holds) << test.path;
}

} // namespace
} // namespace tsbackup::test
