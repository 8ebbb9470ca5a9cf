#include "disk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kMountinfo[] = "22 1 8:2 / / rw,relatime shared:1 - ext4 /dev/sda2 rw\n"
                              "30 22 65:1 / /media/USB rw,relatime shared:5 master:2 - vfat /dev/sdq1 rw,uid=0\n"
                              "31 22 65:17 / /media/OTHER rw - vfat /dev/sdr1 rw\n"
                              "32 22 0:45 / /media/MY\\040DISK\\134\\011x rw - btrfs /dev/sdq1 rw\n"
                              "33 30 65:1 /folder /media/USB/again rw - vfat /dev/sdq1 rw\n"
                              "34 22 0:46 / /media/NET rw - nfs host:/dev/sdq1 rw\n"
                              "35 22 65:10 / /media/TEN rw - vfat /dev/sdq10 rw\n"
                              "nonsense\n";

TEST(Disk, is_found_among_the_mounts_by_its_number_or_name) {
    EXPECT_THAT(mount_points_in(kMountinfo, {"sdq1", "65:1"}),
                ElementsAre("/media/USB", "/media/MY DISK\\\tx", "/media/USB/again"));
    EXPECT_THAT(mount_points_in(kMountinfo, {"sdr1", "65:17"}), ElementsAre("/media/OTHER"));
    EXPECT_THAT(mount_points_in(kMountinfo, {"sdz", "1:1"}), IsEmpty());
    EXPECT_THAT(mount_points_in("", {"sdz", "1:1"}), IsEmpty());
}

TEST(Disk, that_is_not_there_is_not_found) { EXPECT_FALSE(disk_find("no-such-disk")); }

} // namespace
} // namespace tsbackup::test
