#include "support.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <array>
#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup {
namespace {

using std::nullopt;
using test::TempFolder;

struct NormaliseCase {
    const char *path;
    std::optional<std::string> expected;
};

const NormaliseCase kNormaliseCases[] = {
    {"/a/b", "/a/b"},
    {"/a/b/", "/a/b"},
    {"/a/b//", "/a/b"},
    {"//a///b", "/a/b"},
    {"/./a", "/a"},
    {"/a/./b", "/a/b"},
    {"/././x", "/x"},
    {"/a/.//./b", "/a/b"},
    {"/.//./", ""},
    {"/a/./", "/a"},
    {"/a/.", "/a/."}, // only a "." between two slashes goes
    {"/.", "/."},
    {"/a/..", "/a/.."}, // nothing is resolved
    {"/a/../b", "/a/../b"},
    {"/.a/b./c", "/.a/b./c"},
    {"/...//x", "/.../x"},
    {"/a b/\xc3\xa9", "/a b/\xc3\xa9"},
    {"/", ""}, // what is left names nothing
    {"///", ""},
    {"", nullopt},
    {"a/b", nullopt},
    {"./a", nullopt},
    {" /a", nullopt},
    {nullptr, nullopt},
};

TEST(PathNormalise, CollapsesSlashesAndSingleDots) {
    for (const NormaliseCase &c : kNormaliseCases)
        EXPECT_EQ(path_normalise(c.path), c.expected) << (c.path != nullptr ? c.path : "null");
}

TEST(PathNormalise, LeavesItsOwnResultAlone) {
    for (const NormaliseCase &c : kNormaliseCases) {
        if (c.expected && !c.expected->empty()) {
            EXPECT_EQ(path_normalise(c.expected->c_str()), c.expected) << *c.expected;
        }
    }
}

// ---- mkdir_p ---------------------------------------------------------------------------------------------------

bool is_folder(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

TEST(MkdirP, CreatesEveryMissingComponent) {
    const TempFolder folder;
    for (const char *path : {"/a", "/a/b/c/d", "/a/b", "//e///f//", "/g/./h", "/with blank/\xc3\xa9"}) {
        EXPECT_EQ(mkdir_p(folder.path() + path, 0755), 0) << path;
        EXPECT_TRUE(is_folder(folder.path() + path)) << path;
    }
    EXPECT_EQ(mkdir_p(folder / "a/b/c/d", 0755), 0) << "all of it is there";
    EXPECT_EQ(mkdir_p("/", 0755), 0);
    EXPECT_EQ(mkdir_p("///", 0755), 0);
}

TEST(MkdirP, GivesEveryNewComponentTheMode) {
    const TempFolder folder;
    const mode_t before = umask(0);
    EXPECT_EQ(mkdir_p(folder / "a/b", 0711), 0);
    EXPECT_EQ(mkdir_p(folder / "a/b/c", 0750), 0);
    umask(before);
    struct stat status {};
    const std::array<std::pair<const char *, mode_t>, 3> modes = {{{"a", 0711}, {"a/b", 0711}, {"a/b/c", 0750}}};
    for (const auto &[name, mode] : modes) {
        ASSERT_EQ(stat((folder / name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, mode) << name;
    }
}

TEST(MkdirP, TakesARelativePathFromTheWorkingFolder) {
    const TempFolder folder;
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(folder.path());
    EXPECT_EQ(mkdir_p("a/b", 0755), 0);
    std::filesystem::current_path(before);
    EXPECT_TRUE(is_folder(folder / "a/b"));
}

TEST(MkdirP, AcceptsALinkToAFolder) {
    const TempFolder folder;
    test::make_folder(folder / "real");
    ASSERT_EQ(symlink("real", (folder / "link").c_str()), 0);
    EXPECT_EQ(mkdir_p(folder / "link", 0755), 0);
    EXPECT_EQ(mkdir_p(folder / "link/a", 0755), 0);
    EXPECT_TRUE(is_folder(folder / "real/a"));
}

TEST(MkdirP, FailsAtAComponentThatIsNoFolder) {
    const TempFolder folder;
    test::write_file(folder / "file", "kept");
    ASSERT_EQ(symlink("nowhere", (folder / "dangling").c_str()), 0);
    for (const char *path : {"file", "file/a", "file/a/b", "dangling", "dangling/a"}) {
        errno = 0;
        EXPECT_EQ(mkdir_p(folder / path, 0755), -1) << path;
        EXPECT_EQ(errno, ENOTDIR) << path;
    }
    EXPECT_EQ(test::read_file(folder / "file"), "kept");
    EXPECT_EQ(test::list_folder(folder.path()), (std::vector<std::string>{"dangling", "file"}));
}

TEST(MkdirP, FailsWhereNothingCanBeCreated) {
    errno = 0;
    EXPECT_EQ(mkdir_p("", 0755), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(mkdir_p("/proc/no such folder/a", 0755), -1);
    const TempFolder folder;
    EXPECT_EQ(mkdir_p(folder / ("a/" + std::string(300, 'x') + "/b"), 0755), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_TRUE(is_folder(folder / "a")) << "what came before it stays";
}

// ---- unc_split -------------------------------------------------------------------------------------------------

struct UncCase {
    const char *path;
    const char *host;
    const char *share;
    const char *rest;
    int depth;
};

const UncCase kUncCases[] = {
    {"//host/share", "host", "share", "", 0},
    {"//host/share/", "host", "share", "", 0},
    {"//host/share//", "host", "share", "", 0},
    {"//host/share/d1", "host", "share", "d1", 2},
    {"//host/share/d1/d2", "host", "share", "d1/d2", 3},
    {"//host/share/d1/d2/", "host", "share", "d1/d2/", 3},
    {"//host//share///d1//d2", "host", "share", "d1//d2", 3},
    {"\\\\host\\share\\d1\\d2", "host", "share", "d1\\d2", 3},
    {"\\\\host\\share", "host", "share", "", 0},
    {"\\\\host/x\\share/y\\d1/z", "host/x", "share/y", "d1/z", 2}, // the first separator is the whole path's
    {"//host\\x/share/d 1", "host\\x", "share", "d 1", 2},
    {"//host", "host", "", "", 0},
    {"//host/", "host", "", "", 0},
    {"//", "", "", "", 0},
    {"///share/d1", "", "share", "d1", 2}, // the host ends at once
};

TEST(UncSplit, TakesAPathApart) {
    for (const UncCase &c : kUncCases) {
        std::array<char, 64> host{};
        std::array<char, 64> share{};
        int depth = -1;
        const char *rest = unc_split(c.path, host.data(), host.size(), share.data(), share.size(), &depth);
        ASSERT_NE(rest, nullptr) << c.path;
        EXPECT_STREQ(host.data(), c.host) << c.path;
        EXPECT_STREQ(share.data(), c.share) << c.path;
        EXPECT_STREQ(rest, c.rest) << c.path;
        EXPECT_EQ(depth, c.depth) << c.path;
        EXPECT_EQ(unc_split(c.path, host.data(), host.size(), share.data(), share.size(), nullptr), rest) << c.path;
    }
}

TEST(UncSplit, RefusesAnyOtherStart) {
    for (const char *path : {"", "/", "\\", "/host/share", "\\host\\share", "/\\host/share", "\\/host/share",
                             "host/share", " //host/share", "a//host", "aa"}) {
        std::array<char, 64> host{};
        std::array<char, 64> share{};
        int depth = -1;
        EXPECT_EQ(unc_split(path, host.data(), host.size(), share.data(), share.size(), &depth), nullptr) << path;
        EXPECT_EQ(depth, -1) << path;
    }
    EXPECT_EQ(unc_split(nullptr, nullptr, 0, nullptr, 0, nullptr), nullptr);
}

TEST(UncSplit, CutsEachNameToItsBuffer) {
    const std::string host_name(70, 'h');
    const std::string share_name(90, 's');
    const std::string path = "//" + host_name + "/" + share_name + "/rest";
    std::array<char, 128> host{};
    std::array<char, 128> share{};
    host.fill('#');
    share.fill('#');
    EXPECT_STREQ(unc_split(path.c_str(), host.data(), 64, share.data(), 32, nullptr), "rest");
    EXPECT_EQ(std::string(host.data()), host_name.substr(0, 63));
    EXPECT_EQ(std::string(share.data()), share_name.substr(0, 31));
    EXPECT_EQ(host.at(64), '#');
    EXPECT_EQ(share.at(32), '#');

    EXPECT_STREQ(unc_split(path.c_str(), host.data(), 1, share.data(), 0, nullptr), "rest");
    EXPECT_STREQ(host.data(), "");
}

// ---- the system's paths ----------------------------------------------------------------------------------------

struct JobPathCase {
    std::string path;
    const char *expected;
};

TEST(Paths, CarryTheJobNumberInThreeDigits) {
    const JobPathCase cases[] = {
        {paths::pid_file(7), "/var/run/zelkovad/backup_007.pid"},
        {paths::status_file(7), "/var/log/tessera/backup/status_backup_007"},
        {paths::status_file(0), "/var/log/tessera/backup/status_backup_000"},
        {paths::status_file(2147483647), "/var/log/tessera/backup/status_backup_2147483647"},
        {paths::history(42), "/var/log/tessera/backup/backup_042.log"},
        {paths::history_scratch(42), "/var/log/tessera/backup/backup_042.log.4"},
        {paths::copy_log(7), "/apps/.backup/backup_007_copy.log"},
        {paths::kept_copy_log(7, 1700000000), "/var/log/tessera/backup/backup_007_copy.1700000000.log"},
        {paths::kept_copy_log(1000, -1), "/var/log/tessera/backup/backup_1000_copy.-1.log"},
        {paths::kept_copy_log_prefix(7), "backup_007_copy."},
        {paths::error_log(7), "/var/log/tessera/backup/backup_007_error.log"},
        {paths::last_full_record(7), "/var/log/tessera/backup/.last_full_backup_007"},
        {paths::mount_point(7), "/job_007"},
        {paths::mount_point(1234), "/job_1234"},
    };
    for (const JobPathCase &c : cases)
        EXPECT_EQ(c.path, c.expected);
}

TEST(Paths, CarryTheDeviceName) {
    EXPECT_EQ(paths::camera_status_file("Canon_A1"), "/var/log/tessera/backup/status_mtpbackup_Canon_A1");
    EXPECT_EQ(paths::camera_log("Canon_A1"), "/var/log/tessera/backup/mtpbackup_Canon_A1.log");
}

TEST(Paths, AreCutToTheirBuffer) {
    const std::string device(5000, 'd');
    const std::string status = "/var/log/tessera/backup/status_mtpbackup_" + device;
    const std::string log = "/var/log/tessera/backup/mtpbackup_" + device + ".log";
    EXPECT_EQ(paths::camera_status_file(device.c_str()), status.substr(0, 4095));
    EXPECT_EQ(paths::camera_log(device.c_str()), log.substr(0, 4095));
}

TEST(Paths, OfTheSharedFiles) {
    EXPECT_STREQ(paths::job_file, "/etc/tessera/backup_jobs.conf");
    EXPECT_STREQ(paths::usb_storage_table, "/etc/tessera/usb/storage.conf");
    EXPECT_STREQ(paths::services_file, "/etc/default/services");
    EXPECT_STREQ(paths::media_server_file, "/etc/minidlna.conf");
    EXPECT_STREQ(paths::job_queue_pipe, "/var/run/zelkovad/tsbackup-q");
    EXPECT_STREQ(paths::camera_queue_pipe, "/var/run/zelkovad/mtpbackup-q");
    EXPECT_STREQ(paths::log_folder, "/var/log/tessera/backup");
    EXPECT_STREQ(paths::work_folder, "/apps/.backup/");
}

} // namespace
} // namespace tsbackup
