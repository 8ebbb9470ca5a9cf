// Jobs onto and from disks with the file systems of cameras, televisions and other systems, and back.

#include "guest.h"

#include <algorithm>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <ostream>
#include <sys/mount.h>
#include <sys/stat.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

const std::string kSource = "/data/Pictures";
const std::string kDiskPath = "/media/DISK";
constexpr char kDiskPort[] = "3";

/// What a file system keeps, and what of that makes an unchanged file be copied again. Its times are compared in steps
/// of a second on FAT and of 100 microseconds elsewhere, so that a step that it does not keep looks like a change.
struct Kept {
    const DiskFormat *format;
    long step_ns;                    ///< times are cut to multiples of this
    std::vector<std::string> always; ///< files of dated_tree() that every run copies
    bool owners;
    bool access_lists;
};
const Kept kKept[] = {
    {&kFat, 2'000'000'000, {"odd second"}, false, false},
    {&kExfat, 10'000'000, {"microseconds", "nanoseconds"}, false, false},
    {&kNtfs3, 100, {}, true, false},
    {&kNtfs3g, 100, {}, false, false},
    {&kXfs, 1, {}, true, true},
};

void PrintTo(const Kept &kept, std::ostream *out) { *out << kept.format->name; }

struct Dated {
    const char *name;
    timespec time;
};
const Dated kDated[] = {
    {"even second", {1'600'000'000, 0}},
    {"hundredths", {1'600'000'002, 120'000'000}},
    {"microseconds", {1'600'000'004, 123'456'000}},
    {"nanoseconds", {1'600'000'006, 987'654'321}},
    {"odd second", {1'600'000'001, 0}},
};

void make_dated_tree(const std::string &folder) {
    for (const Dated &file : kDated)
        write_dated(folder + "/" + file.name, file.name, file.time);
}

timespec cut(const timespec &time, long step_ns) {
    constexpr long kSecond = 1'000'000'000;
    const long left = step_ns > kSecond ? time.tv_sec % (step_ns / kSecond) : 0;
    return {time.tv_sec - left, step_ns > kSecond ? 0 : time.tv_nsec - time.tv_nsec % step_ns};
}

std::vector<std::string> all_names() {
    std::vector<std::string> names;
    for (const Dated &file : kDated)
        names.emplace_back(file.name);
    return names;
}

Settings job_to_disk(const char *full = "NEVER") {
    return Settings{{"name", "To a disk"}, {"opt_full_backup_freq", full}, {"opt_max_log_lines", "1000"}} +
           source_share("data", "Pictures") + destination_usb(kDiskPort, "copy");
}

class UsbDisks : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_GUEST();
        start_in_guest();
        write_file("/etc/tessera/usb/storage.conf", storage_line("DISK", "sdz1", kDiskPort));
    }
};

class EachFormat : public UsbDisks, public testing::WithParamInterface<Kept> {
  protected:
    void SetUp() override {
        UsbDisks::SetUp();
        if (IsSkipped()) return;
        if (!kernel_has(*GetParam().format)) GTEST_SKIP() << "needs a kernel with " << GetParam().format->kernel_type;
    }
};

INSTANTIATE_TEST_SUITE_P(Formats, EachFormat, testing::ValuesIn(kKept), [](const auto &kept) {
    std::string name = kept.param.format->name;
    std::erase(name, ' ');
    return name;
});

void expect_success(const Outcome &outcome) {
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(state_of(kJob), "COMPLETED");
    EXPECT_EQ(error_log(), "");
}

} // namespace

// ---- times -----------------------------------------------------------------------------------------------------

TEST_P(EachFormat, AnUnchangedFileIsCopiedAgainOnlyWhereItsTimeCannotBeKept) {
    Disk disk(*GetParam().format, kDiskPath);
    make_dated_tree(kSource);
    expect_success(run_job(job_to_disk()));
    EXPECT_THAT(copied_files(), ElementsAreArray(all_names()));

    disk.remount();
    for (const Dated &file : kDated) {
        SCOPED_TRACE(file.name);
        const timespec expected = cut(file.time, GetParam().step_ns);
        const timespec found = modification_time(disk / "copy/" + file.name);
        EXPECT_EQ(found.tv_sec, expected.tv_sec);
        EXPECT_EQ(found.tv_nsec, expected.tv_nsec);
        EXPECT_EQ(read_file(disk / "copy/" + file.name), file.name);
    }

    expect_success(run_job(job_to_disk()));
    EXPECT_THAT(copied_files(), ElementsAreArray(GetParam().always));

    expect_success(run_job(job_to_disk("EVERY_TIME")));
    EXPECT_THAT(copied_files(), ElementsAreArray(all_names()));
}

TEST_P(EachFormat, AChangeOfTheSameSizeIsNoticed) {
    const Disk disk(*GetParam().format, kDiskPath);
    write_dated(kSource + "/changed", "before", {1'600'000'000, 0});
    write_dated(kSource + "/older", "before", {1'600'000'000, 0});
    write_dated(kSource + "/same", "before", {1'600'000'000, 0});
    expect_success(run_job(job_to_disk()));

    write_dated(kSource + "/changed", "after!", {1'600'000'002, 0});
    write_dated(kSource + "/older", "after!", {1'599'999'998, 0});
    write_dated(kSource + "/longer", "new", {1'600'000'000, 0});
    expect_success(run_job(job_to_disk()));
    EXPECT_THAT(copied_files(), testing::ElementsAre("changed", "longer", "older"));
    EXPECT_EQ(read_file(disk / "copy/changed"), "after!");
    EXPECT_EQ(read_file(disk / "copy/older"), "after!");
    EXPECT_EQ(read_file(disk / "copy/longer"), "new");
    EXPECT_EQ(read_file(disk / "copy/same"), "before");
}

// ---- owners, modes, lists --------------------------------------------------------------------------------------

TEST_P(EachFormat, OwnersModesAndListsArriveWhereTheyCanBeKeptAndFailNothingElsewhere) {
    Disk disk(*GetParam().format, kDiskPath);
    write_dated(kSource + "/folder/file", "content", {1'600'000'000, 0});
    ASSERT_EQ(chown((kSource + "/folder/file").c_str(), 1001, 1002), 0);
    ASSERT_EQ(chmod((kSource + "/folder/file").c_str(), 0640), 0);
    ASSERT_EQ(chown((kSource + "/folder").c_str(), 1002, 1001), 0);
    ASSERT_EQ(chmod((kSource + "/folder").c_str(), 0750), 0);
    shell_output("setfacl -m u:1001:r,d:u:1002:rw " + kSource + "/folder; setfacl -m u:98:rw " + kSource +
                 "/folder/file");
    expect_success(run_job(job_to_disk()));

    disk.remount();
    EXPECT_EQ(read_file(disk / "copy/folder/file"), "content");
    if (GetParam().access_lists) {
        EXPECT_TRUE(same_trees(kSource, disk / "copy"));
    } else if (GetParam().owners) {
        struct stat status {};
        ASSERT_EQ(stat((disk / "copy/folder/file").c_str(), &status), 0);
        EXPECT_EQ(status.st_uid, 1001U);
        EXPECT_EQ(status.st_gid, 1002U);
    }
}

// ---- names -----------------------------------------------------------------------------------------------------

TEST_P(EachFormat, NamesThatTheFormatAllowsArrive) {
    Disk disk(*GetParam().format, kDiskPath);
    const std::string long_name = std::string(120, 'l') + std::string(120, 'm') + ".txt";
    std::vector<std::string> names = {
        " leading blank",
        "-rf",
        ".hidden",
        "100% (1) [x] {y} 'z' & $HOME `id` ~ # ; !,=+^@",
        "a  b",
        "aux",
        "dots..in..the middle",
        long_name,
        "long file name with 1.text",
        "long file name with 2.text",
        "Straße äöü.txt",
        "日本語のファイル名.jpg",
        "\xF0\x9F\x93\xB7 photo",
    };
    for (const std::string &name : names) {
        write_dated(kSource + "/" + name, name, {1'600'000'000, 0});
        write_dated(kSource + "/" + name + ".d/inside", name, {1'600'000'000, 0});
    }
    expect_success(run_job(job_to_disk()));
    disk.remount();
    for (const std::string &name : names) {
        EXPECT_EQ(read_file(disk / "copy/" + name), name);
        EXPECT_EQ(read_file(disk / "copy/" + name + ".d/inside"), name);
    }
    EXPECT_EQ(list_folder(disk / "copy"), list_folder(kSource));

    expect_success(run_job(job_to_disk()));
    EXPECT_THAT(copied_files(), IsEmpty());
}

TEST_F(UsbDisks, NamesThatFatRefusesAreReportedAndTheRestIsCopied) {
    const char *const kRefused[] = {"a:b", "a\"b", "a*b", "a<b", "a>b", "a?b", "a\\b", "a|b"};
    for (const DiskFormat &format : {kFat, kExfat}) {
        SCOPED_TRACE(format.name);
        start_in_guest();
        write_file("/etc/tessera/usb/storage.conf", storage_line("DISK", "sdz1", kDiskPort));
        const Disk disk(format, kDiskPath);
        for (const char *name : kRefused)
            write_dated(kSource + "/" + name, name, {1'600'000'000, 0});
        write_dated(kSource + "/folder:/inside", "lost", {1'600'000'000, 0});
        write_dated(kSource + "/ok", "fine", {1'600'000'000, 0});
        write_dated(kSource + "/z ok", "fine", {1'600'000'000, 0});

        EXPECT_EQ(run_job(job_to_disk()).status, 0);
        EXPECT_EQ(state_of(kJob), "FAILED");
        EXPECT_EQ(last_result(kJob), 13);
        for (const char *name : kRefused)
            EXPECT_THAT(error_log(),
                        HasSubstr("Cannot create file '" + (disk / "copy/") + name + "' (error: Invalid argument)!\n"));
        EXPECT_THAT(error_log(), HasSubstr("Cannot create directory folder:!\n"));
        EXPECT_THAT(copied_files(), testing::ElementsAre("ok", "z ok"));
        EXPECT_THAT(list_folder(disk / "copy"), testing::ElementsAre("ok", "z ok"));
    }
}

// ---- full, read-only -------------------------------------------------------------------------------------------

TEST_P(EachFormat, AFullDiskStopsTheRunAndTheNextOneFinishesIt) {
    constexpr std::size_t kMebibyte = 1 << 20;
    Disk disk(*GetParam().format, kDiskPath);
    write_file(kSource + "/a", "first");
    write_file(kSource + "/b/big", std::string(6 * kMebibyte, 'b'));
    write_file(kSource + "/c", "third");
    shell_output("dd if=/dev/zero of=" + (disk / "filler") + " bs=64k; sync; truncate -s -2M " + (disk / "filler"));
    disk.remount();

    EXPECT_EQ(run_job(job_to_disk()).status, 0);
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 8);
    EXPECT_EQ(error_log(), "Cannot write file 'b/big' (error: No space left on device)!\n"
                           "Failed to copy file 'b/big' (error: No space left on device)!\n");
    EXPECT_THAT(copied_files(), testing::ElementsAre("a"));
    EXPECT_FALSE(file_exists(disk / "copy/c"));

    remove_tree(disk / "filler");
    run_job(job_to_disk());
    EXPECT_EQ(state_of(kJob), "COMPLETED");
    EXPECT_TRUE(same_trees(kSource, disk / "copy",
                           {.owners = false, .modes = false, .access_lists = false, .file_times = false}));
}

TEST_P(EachFormat, AReadOnlyDiskEndsTheRunWithItsFirstFile) {
    Disk disk(*GetParam().format, kDiskPath);
    make_folder(disk / "copy");
    disk.remount("ro");
    write_file(kSource + "/a", "first");
    write_file(kSource + "/b", "second");
    EXPECT_EQ(run_job(job_to_disk()).status, 0);
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 13);
    EXPECT_EQ(error_log(), "Cannot create file '" + (disk / "copy/a") + "' (error: Read-only file system)!\n");
}

// ---- a disk as the source --------------------------------------------------------------------------------------

TEST_P(EachFormat, ADiskIsCopiedToAShareOnce) {
    Disk disk(*GetParam().format, kDiskPath);
    make_dated_tree(disk / "album");
    disk.remount();
    const Settings job = Settings{{"name", "From a disk"}, {"opt_full_backup_freq", "NEVER"}} +
                         source_usb(kDiskPort, "album") + destination_share("vault", "Backup", "album");
    expect_success(run_job(job));
    EXPECT_THAT(copied_files(), ElementsAreArray(all_names()));
    EXPECT_TRUE(same_trees(disk / "album", "/vault/Backup/album", {.access_lists = GetParam().access_lists}));

    disk.remount();
    expect_success(run_job(job));
    EXPECT_THAT(copied_files(), IsEmpty());
}

} // namespace tsbackup::test
