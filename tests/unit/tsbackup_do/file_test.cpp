// Content and metadata of a copied file, on every pair of file systems.

#include "engine.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <ostream>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::HasSubstr;

struct Pair {
    const char *name;
    Volume src;
    Volume dst;
    bool native;
};

std::ostream &operator<<(std::ostream &stream, const Pair &pair) { return stream << pair.name; }

const Pair kPairs[] = {
    {"ext4_to_ext4", Volume::ext4, Volume::ext4, true},    {"ext4_to_btrfs", Volume::ext4, Volume::btrfs, true},
    {"btrfs_to_ext4", Volume::btrfs, Volume::ext4, true},  {"btrfs_to_btrfs", Volume::btrfs, Volume::btrfs, true},
    {"tmpfs_to_ext4", Volume::tmpfs, Volume::ext4, false}, {"btrfs_to_tmpfs", Volume::btrfs, Volume::tmpfs, false},
};

class OnEveryPair : public EngineTest, public testing::WithParamInterface<Pair> {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        REQUIRE_VOLUME(GetParam().src);
        REQUIRE_VOLUME(GetParam().dst);
        src_ = scratch(GetParam().src);
        dst_ = scratch(GetParam().dst);
    }
    int copy(const std::string &src, const std::string &dst) {
        return do_copy_file((src_ + "/" + src).c_str(), (dst_ + "/" + dst).c_str(), run_);
    }

    std::string src_;
    std::string dst_;
    TestRun run_;
};

INSTANTIATE_TEST_SUITE_P(Volumes, OnEveryPair, testing::ValuesIn(kPairs),
                         [](const auto &about) { return about.param.name; });

TEST_P(OnEveryPair, ContentOfEverySizeArrives) {
    constexpr std::size_t kKiB = 1024;
    constexpr std::size_t kMiB = 1024 * kKiB;
    const std::string content = pattern(17 * kMiB);
    std::int64_t total = 0;
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, std::size_t{4095}, 4 * kKiB, 64 * kKiB - 1, 64 * kKiB, 64 * kKiB + 1,
          256 * kKiB - 1, 256 * kKiB, 256 * kKiB + 1, 16 * kMiB, 16 * kMiB + 1}) {
        write_file(src_ + "/file", content.substr(0, size));
        const Diagnostics diagnostics;
        EXPECT_EQ(copy("file", "file"), 0) << size;
        EXPECT_TRUE(read_file(dst_ + "/file") == content.substr(0, size)) << size;
        total += static_cast<std::int64_t>(size);
        EXPECT_EQ(run_.bytes, total);
        EXPECT_THAT(diagnostics.text(), HasSubstr(GetParam().native ? "_do_copy_mmap" : "_do_copy_dumb"));
    }
    EXPECT_EQ(run_.failures(), "");
}

TEST_P(OnEveryPair, LongerDestinationIsCutAndShorterOneGrows) {
    for (const std::size_t before : std::initializer_list<std::size_t>{0, 3, 100'000, 400'000}) {
        write_file(src_ + "/file", pattern(100'000));
        write_file(dst_ + "/file", std::string(before, 'o'));
        EXPECT_EQ(copy("file", "file"), 0);
        EXPECT_TRUE(read_file(dst_ + "/file") == pattern(100'000)) << before;
    }
    write_file(src_ + "/file", "");
    EXPECT_EQ(copy("file", "file"), 0);
    EXPECT_EQ(read_file(dst_ + "/file"), "");
}

TEST_P(OnEveryPair, HolesReadAsZeros) {
    const std::string path = src_ + "/sparse";
    write_file(path, "begin");
    ASSERT_EQ(truncate(path.c_str(), off_t{17} * 1024 * 1024), 0);
    EXPECT_EQ(copy("sparse", "sparse"), 0);
    const std::string copied = read_file(dst_ + "/sparse");
    EXPECT_EQ(copied.size(), 17u * 1024 * 1024);
    EXPECT_EQ(copied.find_first_not_of('\0', 5), std::string::npos);
    EXPECT_EQ(copied.substr(0, 5), "begin");
}

TEST_P(OnEveryPair, TimesArriveToTheNanosecond) {
    for (const char *content : {"", "content"}) {
        write_file(src_ + "/file", content);
        const std::array<timespec, 2> times = {timespec{1'500'000'001, 987'654'321},
                                               timespec{1'400'000'001, 123'456'789}};
        ASSERT_EQ(utimensat(AT_FDCWD, (src_ + "/file").c_str(), times.data(), 0), 0);
        EXPECT_EQ(copy("file", "file"), 0);
        const struct stat status = status_of(dst_ + "/file");
        EXPECT_EQ(status.st_mtim.tv_sec, 1'400'000'001);
        EXPECT_EQ(status.st_mtim.tv_nsec, 123'456'789);
        EXPECT_EQ(status.st_atim.tv_sec, status_of(src_ + "/file").st_atim.tv_sec);
        EXPECT_EQ(status.st_atim.tv_nsec, status_of(src_ + "/file").st_atim.tv_nsec);
    }
}

TEST_P(OnEveryPair, AccessTimeIsTheSources) {
    // An empty file is not read, so that its access time is still the one that was set.
    write_file(src_ + "/file", "");
    const std::array<timespec, 2> times = {timespec{1'500'000'001, 987'654'321}, timespec{1'400'000'001, 123'456'789}};
    ASSERT_EQ(utimensat(AT_FDCWD, (src_ + "/file").c_str(), times.data(), 0), 0);
    EXPECT_EQ(copy("file", "file"), 0);
    EXPECT_EQ(status_of(dst_ + "/file").st_atim.tv_sec, 1'500'000'001);
    EXPECT_EQ(status_of(dst_ + "/file").st_atim.tv_nsec, 987'654'321);
}

TEST_P(OnEveryPair, TimesBefore1970Arrive) {
    write_file(src_ + "/file", "content");
    set_mtime(src_ + "/file", -1000, 250'000'000);
    EXPECT_EQ(copy("file", "file"), 0);
    EXPECT_EQ(mtime_of(dst_ + "/file"), mtime_of(src_ + "/file"));
}

TEST_P(OnEveryPair, OwnerAndModeArrive) {
    for (const mode_t mode : {0644u, 0600u, 0777u, 0000u, 04755u, 02755u, 06711u, 01777u, 04000u}) {
        for (const bool existing : {false, true}) {
            const std::string name = "m" + std::to_string(mode) + (existing ? "e" : "n");
            write_file(src_ + "/" + name, "content");
            ASSERT_EQ(chown((src_ + "/" + name).c_str(), 1001, 1002), 0);
            ASSERT_EQ(chmod((src_ + "/" + name).c_str(), mode), 0);
            if (existing) write_file(dst_ + "/" + name, "old");
            EXPECT_EQ(copy(name, name), 0);
            EXPECT_EQ(mode_of(dst_ + "/" + name), mode) << name;
            EXPECT_EQ(status_of(dst_ + "/" + name).st_uid, 1001u);
            EXPECT_EQ(status_of(dst_ + "/" + name).st_gid, 1002u);
        }
    }
}

TEST_P(OnEveryPair, ModeIsRepairedWhereOnlyTheOwnerOrOnlyTheModeDiffers) {
    struct Case {
        uid_t uid;
        gid_t gid;
        mode_t mode;
    };
    for (const Case &before :
         {Case{1001, 1002, 06755}, Case{1001, 1002, 0600}, Case{7, 1002, 06755}, Case{1001, 7, 06755}}) {
        write_file(src_ + "/file", "content");
        write_file(dst_ + "/file", "old");
        for (const auto &[path, state] :
             {std::pair{src_ + "/file", Case{1001, 1002, 06755}}, {dst_ + "/file", before}}) {
            ASSERT_EQ(chown(path.c_str(), state.uid, state.gid), 0);
            ASSERT_EQ(chmod(path.c_str(), state.mode), 0);
        }
        EXPECT_EQ(copy("file", "file"), 0);
        EXPECT_EQ(mode_of(dst_ + "/file"), 06755u);
        EXPECT_EQ(status_of(dst_ + "/file").st_uid, 1001u);
        EXPECT_EQ(status_of(dst_ + "/file").st_gid, 1002u);
    }
}

TEST_P(OnEveryPair, SetIdBitsThatTheWritingTakesAwayAreRepaired) {
    for (const char *side : {"src", "dst"}) {
        const std::string path = (side == std::string("src") ? src_ : dst_) + "/file";
        write_file(path, side);
        ASSERT_EQ(chmod(path.c_str(), 06755), 0);
    }
    // As file servers do that map root to an ordinary user.
    kernel().pwrite = [](int fd, std::size_t, off_t) -> std::optional<ssize_t> {
        EXPECT_EQ(fchmod(fd, 0755), 0);
        return std::nullopt;
    };
    EXPECT_EQ(copy("file", "file"), 0);
    EXPECT_EQ(mode_of(dst_ + "/file"), 06755u);
}

TEST_P(OnEveryPair, WithoutOwnersOnlyTheTimesArrive) {
    write_file(src_ + "/new", "content");
    write_file(src_ + "/old", "content");
    write_file(dst_ + "/old", "before");
    for (const char *name : {"/new", "/old"}) {
        ASSERT_EQ(chown((src_ + name).c_str(), 1001, 1002), 0);
        ASSERT_EQ(chmod((src_ + name).c_str(), 0750), 0);
        set_access_list(src_ + name, "u::rwx,u:1003:rwx,g::r-x,m::rwx,o::---");
        set_mtime(src_ + name, 1'400'000'000, 5);
    }
    ASSERT_EQ(chown((dst_ + "/old").c_str(), 7, 8), 0);
    ASSERT_EQ(chmod((dst_ + "/old").c_str(), 0604), 0);
    set_access_list(dst_ + "/old", "u::rw-,u:9:r--,g::---,m::r--,o::r--");
    const std::string list_before = access_list(dst_ + "/old");
    run_.no_chown = 1;
    EXPECT_EQ(copy("new", "new"), 0);
    EXPECT_EQ(copy("old", "old"), 0);
    EXPECT_EQ(status_of(dst_ + "/new").st_uid, 0u);
    EXPECT_EQ(mode_of(dst_ + "/new"), 0644u);
    EXPECT_EQ(access_list(dst_ + "/new"), "");
    EXPECT_EQ(status_of(dst_ + "/old").st_uid, 7u);
    EXPECT_EQ(status_of(dst_ + "/old").st_gid, 8u);
    EXPECT_EQ(access_list(dst_ + "/old"), list_before);
    for (const char *name : {"/new", "/old"})
        EXPECT_EQ(mtime_of(dst_ + name), 1'400'000'000'000'000'005);
}

TEST_P(OnEveryPair, AccessListsArrive) {
    const std::string list = "u::rw-,u:1003:rwx,g::r--,g:1004:-wx,m::rwx,o::---";
    write_file(src_ + "/file", "content");
    set_access_list(src_ + "/file", list);
    const std::string expected = access_list(src_ + "/file");
    ASSERT_THAT(expected, HasSubstr("1003"));
    for (const bool existing : {false, true}) {
        if (existing) set_access_list(dst_ + "/file", "u::rw-,u:77:rwx,g::r--,m::rwx,o::---");
        EXPECT_EQ(copy("file", "file"), 0);
        EXPECT_EQ(access_list(dst_ + "/file"), expected);
        EXPECT_EQ(mode_of(dst_ + "/file"), mode_of(src_ + "/file"));
    }
}

TEST_P(OnEveryPair, ListInheritedOrLeftBehindIsTakenAwayWhereTheSourceHasNone) {
    write_file(src_ + "/file", "content");
    chmod((src_ + "/file").c_str(), 0664);
    write_file(dst_ + "/left", "old");
    set_access_list(dst_ + "/left", "u::rw-,u:1003:rwx,g::r--,m::rwx,o::---");
    set_default_list(dst_, "u::rwx,u:1003:rwx,g::r-x,m::rwx,o::---");
    for (const char *name : {"inherited", "left"}) {
        EXPECT_EQ(copy("file", name), 0);
        EXPECT_EQ(access_list(dst_ + "/" + name), "");
        EXPECT_EQ(mode_of(dst_ + "/" + name), 0664u);
    }
}

TEST_P(OnEveryPair, TreeWithListsArrives) {
    const std::string top = src_ + "/top";
    make_folder(top + "/sub");
    make_folder(top + "/plain");
    set_access_list(top, "u::rwx,u:1003:r-x,g::r-x,m::r-x,o::---");
    set_default_list(top, "u::rwx,u:1003:rwx,g::r-x,g:1004:rwx,m::rwx,o::---");
    set_default_list(top + "/sub", "u::rwx,g::r-x,o::r-x");
    write_file(top + "/listed", "x");
    set_access_list(top + "/listed", "u::rw-,u:1005:r--,g::r--,m::r--,o::---");
    write_file(top + "/sub/bare", "x");
    write_file(top + "/bare", "x");
    set_access_list(top + "/bare", "u::rw-,g::r--,o::r--");
    for (const int full : {0, 1}) {
        run_.full = full;
        copy_tree(run_, top, dst_ + "/top");
        for (const char *name : {"", "/sub", "/plain", "/listed", "/sub/bare", "/bare"}) {
            EXPECT_EQ(access_list(dst_ + "/top" + name), access_list(top + name)) << name;
            EXPECT_EQ(default_list(dst_ + "/top" + name), default_list(top + name)) << name;
            EXPECT_EQ(mode_of(dst_ + "/top" + name), mode_of(top + name)) << name;
        }
    }
    ASSERT_THAT(access_list(dst_ + "/top/listed"), HasSubstr("1005"));
    ASSERT_THAT(default_list(dst_ + "/top"), HasSubstr("1004"));
}

TEST_P(OnEveryPair, EmptySourceGivesAnEmptyCopyWithItsTimes) {
    write_file(src_ + "/tree/empty", "");
    set_mtime(src_ + "/tree/empty", 1'300'000'000, 42);
    copy_tree(run_, src_ + "/tree", dst_ + "/tree");
    EXPECT_EQ(status_of(dst_ + "/tree/empty").st_size, 0);
    EXPECT_EQ(mtime_of(dst_ + "/tree/empty"), 1'300'000'000'000'000'042);
    EXPECT_EQ(run_.bytes, 0);
    TestRun second;
    copy_tree(second, src_ + "/tree", dst_ + "/tree");
    EXPECT_EQ(second.copied(), "");
}

TEST_P(OnEveryPair, SourceThatGrowsMeanwhileIsCopiedAgainNextTime) {
    make_folder(src_ + "/tree");
    const std::string path = src_ + "/tree/file";
    write_file(path, pattern(300'000));
    set_mtime(path, 1'400'000'000);
    bool grown = false;
    kernel().pread = [&](int, std::size_t, off_t) -> std::optional<ssize_t> {
        if (!grown) write_file(path, pattern(300'000) + "more");
        grown = true;
        return std::nullopt;
    };
    copy_tree(run_, src_ + "/tree", dst_ + "/tree");
    EXPECT_EQ(status_of(dst_ + "/tree/file").st_size, 300'000);
    kernel() = Kernel{};
    TestRun second;
    copy_tree(second, src_ + "/tree", dst_ + "/tree");
    EXPECT_TRUE(read_file(dst_ + "/tree/file") == pattern(300'000) + "more");
}

TEST_P(OnEveryPair, SourceRewrittenMeanwhileIsCopiedAgainNextTime) {
    make_folder(src_ + "/tree");
    const std::string path = src_ + "/tree/file";
    write_file(path, std::string(300'000, 'a'));
    set_mtime(path, 1'400'000'000);
    bool done = false;
    kernel().pread = [&](int, std::size_t, off_t offset) -> std::optional<ssize_t> {
        if (!done && offset > 0) {
            done = true;
            write_file(path, std::string(300'000, 'b'));
        }
        return std::nullopt;
    };
    copy_tree(run_, src_ + "/tree", dst_ + "/tree");
    EXPECT_TRUE(done);
    kernel() = Kernel{};
    TestRun second;
    copy_tree(second, src_ + "/tree", dst_ + "/tree");
    EXPECT_TRUE(read_file(dst_ + "/tree/file") == std::string(300'000, 'b'));
}

TEST_P(OnEveryPair, InterruptedAndShortTransfersAreContinued) {
    write_file(src_ + "/file", pattern(300'000));
    int calls = 0;
    kernel().pread = [&](int, std::size_t, off_t) -> std::optional<ssize_t> {
        return ++calls % 3 == 1 ? std::optional<ssize_t>(-EINTR) : std::nullopt;
    };
    kernel().pwrite = [&](int, std::size_t size, off_t) -> std::optional<ssize_t> {
        return ++calls % 2 == 1 ? std::optional<ssize_t>(-EINTR) : static_cast<ssize_t>((size + 1) / 2);
    };
    EXPECT_EQ(copy("file", "file"), 0);
    kernel() = Kernel{};
    EXPECT_TRUE(read_file(dst_ + "/file") == pattern(300'000));
    EXPECT_EQ(run_.bytes, 300'000);
}

TEST_P(OnEveryPair, TheWholeSizeIsReservedFirstBetweenNativeFileSystems) {
    write_file(src_ + "/file", pattern(300'000));
    std::vector<off_t> reserved;
    kernel().fallocate = [&](int, off_t size) {
        reserved.push_back(size);
        return 0;
    };
    kernel().pwrite = [&](int, std::size_t, off_t) -> std::optional<ssize_t> {
        EXPECT_EQ(reserved.size(), GetParam().native ? 1u : 0u);
        return std::nullopt;
    };
    EXPECT_EQ(copy("file", "file"), 0);
    EXPECT_EQ(reserved, GetParam().native ? std::vector<off_t>{300'000} : std::vector<off_t>{});
    EXPECT_EQ(status_of(dst_ + "/file").st_size, 300'000);
}

TEST_P(OnEveryPair, FileSystemThatCannotReserveIsWrittenAtItsEndFirst) {
    write_file(src_ + "/file", pattern(300'000));
    kernel().fallocate = [](int, off_t) { return EOPNOTSUPP; };
    std::vector<std::pair<off_t, std::size_t>> writes;
    kernel().pwrite = [&](int, std::size_t size, off_t offset) -> std::optional<ssize_t> {
        writes.emplace_back(offset, size);
        return std::nullopt;
    };
    EXPECT_EQ(copy("file", "file"), 0);
    ASSERT_FALSE(writes.empty());
    const std::pair<off_t, std::size_t> at_the_end{299'999, 1};
    EXPECT_EQ(writes.front() == at_the_end, GetParam().native);
    EXPECT_TRUE(read_file(dst_ + "/file") == pattern(300'000));
}

TEST_P(OnEveryPair, ProgressIsWritten) {
    REQUIRE_APPLIANCE();
    make_folder("/var/log/tessera/backup");
    const std::string status_file = "/var/log/tessera/backup/status_backup_042";
    remove_tree(status_file);
    write_file(src_ + "/file", pattern(std::size_t{17} * 1024 * 1024));
    run_.clock_failed = 0;
    run_.job_id = 42;
    run_.start_time = 1'600'000'000;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &run_.started);
    run_.started.tv_sec -= 10;
    std::int64_t bytes_at_first_write = -1;
    kernel().pread = [&](int, std::size_t, off_t) -> std::optional<ssize_t> {
        if (bytes_at_first_write < 0 && file_exists(status_file)) bytes_at_first_write = run_.bytes;
        return std::nullopt;
    };
    EXPECT_EQ(copy("file", "file"), 0);
    EXPECT_EQ(bytes_at_first_write, 16 * 1024 * 1024) << "written after the first slice of 16 MiB";
    const std::string text = read_file(status_file);
    EXPECT_EQ(text.substr(0, text.find('\n')), "BACKUP_STATUS__IN_PROGRESS,0!!1600000000!!OK");
    EXPECT_THAT(text, HasSubstr("!!17825792\n"));
    remove_tree(status_file);
}

// ---- do_copy_meta ----

class Meta : public EngineTest {};

TEST_F(Meta, GivesTheErrorOfTheSource) {
    const std::string root = scratch();
    write_file(root + "/file", "x");
    const TestRun run;
    EXPECT_EQ(do_copy_meta((root + "/missing").c_str(), (root + "/file").c_str(), run), ENOENT);
    EXPECT_EQ(do_copy_meta((root + "/file/below").c_str(), (root + "/file").c_str(), run), ENOTDIR);
}

TEST_F(Meta, IgnoresWhatTheDestinationRefuses) {
    const std::string root = scratch();
    write_file(root + "/file", "x");
    const TestRun run;
    const Diagnostics diagnostics;
    EXPECT_EQ(do_copy_meta((root + "/file").c_str(), (root + "/missing").c_str(), run), 0);
    EXPECT_EQ(diagnostics.without_places(), "(info) Cannot chown(" + root + "/missing). errno=2\n(info) Cannot chmod(" +
                                                root + "/missing). errno=2\n");
    EXPECT_EQ(run.failures(), "");
    EXPECT_EQ(run.error_code, 0);
}

TEST_F(Meta, CopiesTimesOwnerModeAndBothLists) {
    REQUIRE_VOLUME(Volume::ext4);
    const std::string root = scratch(Volume::ext4);
    make_folder(root + "/a");
    make_folder(root + "/b");
    ASSERT_EQ(chown((root + "/a").c_str(), 1001, 1002), 0);
    ASSERT_EQ(chmod((root + "/a").c_str(), 02750), 0);
    set_access_list(root + "/a", "u::rwx,u:1003:r-x,g::r-x,m::r-x,o::---");
    set_default_list(root + "/a", "u::rwx,u:1004:rwx,g::r-x,m::rwx,o::---");
    set_mtime(root + "/a", 1'400'000'000, 7);
    const TestRun run;
    EXPECT_EQ(do_copy_meta((root + "/a").c_str(), (root + "/b").c_str(), run), 0);
    EXPECT_EQ(mtime_of(root + "/b"), 1'400'000'000'000'000'007);
    EXPECT_EQ(status_of(root + "/b").st_atim.tv_sec, status_of(root + "/a").st_atim.tv_sec);
    EXPECT_EQ(status_of(root + "/b").st_uid, 1001u);
    EXPECT_EQ(mode_of(root + "/b"), mode_of(root + "/a"));
    EXPECT_EQ(access_list(root + "/b"), access_list(root + "/a"));
    EXPECT_EQ(default_list(root + "/b"), default_list(root + "/a"));
}

TEST_F(Meta, FolderWithoutADefaultListTakesTheCopysAway) {
    REQUIRE_VOLUME(Volume::ext4);
    const std::string root = scratch(Volume::ext4);
    make_folder(root + "/a");
    make_folder(root + "/b");
    set_default_list(root + "/b", "u::rwx,u:1004:rwx,g::r-x,m::rwx,o::---");
    const TestRun run;
    EXPECT_EQ(do_copy_meta((root + "/a").c_str(), (root + "/b").c_str(), run), 0);
    EXPECT_EQ(default_list(root + "/b"), "");
}

struct RefusalCase {
    const char *name;
    int chown_error;
    int chmod_error;
    bool chown_logged;
    bool chmod_logged;
};

std::ostream &operator<<(std::ostream &stream, const RefusalCase &c) { return stream << c.name; }

const RefusalCase kRefusalCases[] = {
    {"owner, permission denied", EACCES, 0, false, false}, {"owner, not permitted", EPERM, 0, false, false},
    {"owner, read-only", EROFS, 0, true, false},           {"owner, input/output", EIO, 0, true, false},
    {"mode, permission denied", 0, EACCES, false, false},  {"mode, not permitted", 0, EPERM, false, false},
    {"mode, not supported", 0, EOPNOTSUPP, false, true},   {"both", EDQUOT, EIO, true, true},
};

class MetaRefusal : public EngineTest, public testing::WithParamInterface<RefusalCase> {};

TEST_P(MetaRefusal, IsLoggedUnlessPermissionWasDenied) {
    const RefusalCase &c = GetParam();
    const std::string root = scratch();
    write_file(root + "/src/sub/file", "x");
    if (is_real_root()) {
        EXPECT_EQ(chown((root + "/src/sub/file").c_str(), 1001, 1002), 0);
    }
    chmod((root + "/src/sub/file").c_str(), 0751);
    set_mtime(root + "/src/sub/file", 1'400'000'000);
    kernel().chown = [&c] { return c.chown_error; };
    kernel().chmod = [&c] { return c.chmod_error; };
    TestRun run;
    const Diagnostics diagnostics;
    copy_tree(run, root + "/src", root + "/dst");
    for (const std::string name : {"", "/sub", "/sub/file"}) {
        const std::string path = root + "/dst" + name;
        const std::string owner = "(info) Cannot chown(" + path + "). errno=" + std::to_string(c.chown_error) + "\n";
        const std::string mode = "(info) Cannot chmod(" + path + "). errno=" + std::to_string(c.chmod_error) + "\n";
        EXPECT_EQ(diagnostics.without_places().find(owner) != std::string::npos, c.chown_logged) << name;
        EXPECT_EQ(diagnostics.without_places().find(mode) != std::string::npos, c.chmod_logged) << name;
    }
    EXPECT_EQ(run.failures(), "");
    EXPECT_EQ(run.error_code, 0);
    EXPECT_EQ(mtime_of(root + "/dst/sub/file"), 1'400'000'000'000'000'000);
}

INSTANTIATE_TEST_SUITE_P(Errors, MetaRefusal, testing::ValuesIn(kRefusalCases));

} // namespace
} // namespace tsbackup::test
