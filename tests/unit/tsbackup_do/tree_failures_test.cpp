// What the walk does when a folder or a file fails, and what it hands up.

#include "engine.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <ostream>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class TreeFailure : public EngineTest {
  protected:
    void prepare(const std::string &root) {
        src_ = root + "/src";
        dst_ = root + "/dst";
        make_folder(src_);
    }
    void prepare() { prepare(scratch()); }

    /// Copies the whole tree and notes what it said, down to level 6.
    int copy() {
        run_.src_root_len = static_cast<std::int32_t>(src_.size());
        run_.dst_root_len = static_cast<std::int32_t>(dst_.size());
        const Diagnostics diagnostics(6);
        const int result = do_copy_dir(src_.c_str(), dst_.c_str(), run_);
        diagnostics_ = in_short(diagnostics.without_places());
        return result;
    }
    std::string in_short(const std::string &text) const {
        return with_replaced(with_replaced(text, src_, "SRC"), dst_, "DST");
    }

    std::string src_;
    std::string dst_;
    TestRun run_;
    std::string diagnostics_;
};

// ---- folders that cannot be made, read or asked ----

TEST_F(TreeFailure, DestinationFolderThatCannotBeMade) {
    REQUIRE_VOLUME(Volume::ext4);
    prepare(scratch(Volume::ext4));
    write_file(src_ + "/a/file", "x");
    write_file(src_ + "/b", "x");
    make_folder(dst_);
    const AsUser user;
    run_.full = 1;
    EXPECT_EQ(copy(), EACCES);
    EXPECT_EQ(in_short(run_.failures()), "Cannot create directory a!\n"
                                         "Cannot create file 'DST/b' (error: Permission denied)!\n");
    EXPECT_EQ(run_.error_code, 6);
    EXPECT_EQ(run_.message(), "cannot create directory a!");
    EXPECT_EQ(diagnostics_, "(error) Cannot mkdir(DST/a) ==> 13.\n(error) Cannot create file DST/b (13)\n");
    EXPECT_EQ(run_.copied(), "");
}

TEST_F(TreeFailure, DestinationRootThatCannotBeMade) {
    prepare();
    write_file(src_ + "/file", "x");
    dst_ += "/missing/parent";
    EXPECT_EQ(copy(), ENOENT);
    EXPECT_EQ(run_.failures(), "Cannot create directory !\n");
    EXPECT_EQ(run_.message(), "cannot create directory !");
    EXPECT_EQ(diagnostics_, "(error) Cannot mkdir(DST) ==> 2.\n");
}

TEST_F(TreeFailure, MessagesOfAFolderThatCannotBeMadeStandInTheirOrder) {
    prepare();
    dst_ += "/missing/parent";
    const Diagnostics diagnostics;
    EXPECT_EQ(do_copy_dir(src_.c_str(), dst_.c_str(), run_), ENOENT);
    const std::string text = in_short(diagnostics.without_places());
    EXPECT_EQ(text.substr(0, text.find('\n') + 1), "(debug) do_copy_dir(\"SRC\", \"DST\")\n");
    EXPECT_LT(text.find("cannot create directory"), text.find("Cannot mkdir(DST) ==> 2.\n"));
}

TEST_F(TreeFailure, DanglingLinkInTheWayOfAFolder) {
    prepare();
    write_file(src_ + "/a/file", "x");
    write_file(src_ + "/b", "x");
    make_folder(dst_);
    ASSERT_EQ(symlink("nowhere", (dst_ + "/a").c_str()), 0);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(run_.failures(), "Cannot create directory a!\n");
    EXPECT_EQ(diagnostics_, "(error) Cannot mkdir(DST/a) ==> 17.\n");
    EXPECT_FALSE(file_exists(dst_ + "/nowhere"));
}

TEST_F(TreeFailure, FileInTheWayOfAFolderKeepsItsContent) {
    prepare();
    write_file(src_ + "/a/file", "x");
    write_file(dst_ + "/a", "in the way");
    EXPECT_EQ(copy(), ENOTDIR);
    EXPECT_EQ(in_short(run_.failures()), "Cannot create file 'DST/a/file' (error: Not a directory)!\n");
    EXPECT_EQ(run_.error_code, 13);
    EXPECT_EQ(read_file(dst_ + "/a"), "in the way");
}

TEST_F(TreeFailure, UnreadableFolderIsLeftEmptyAndTheWalkGoesOn) {
    REQUIRE_VOLUME(Volume::ext4);
    prepare(scratch(Volume::ext4));
    write_file(src_ + "/a/file", "x");
    write_file(src_ + "/b/file", "x");
    chmod((src_ + "/a").c_str(), 0700);
    make_folder(dst_);
    chmod(dst_.c_str(), 0777);
    {
        const AsUser user;
        EXPECT_EQ(copy(), 0) << "the last entry's result is the folder's";
    }
    EXPECT_EQ(diagnostics_, "(warning) Failed to scan dir 'SRC/a' (Permission denied)\n");
    EXPECT_EQ(run_.failures(), "");
    EXPECT_EQ(run_.error_code, 0);
    EXPECT_THAT(tree(dst_), ElementsAre("a/", "b/", "b/file"));
}

TEST_F(TreeFailure, MissingSourceRoot) {
    prepare();
    ASSERT_EQ(rmdir(src_.c_str()), 0);
    EXPECT_EQ(copy(), ENOENT);
    EXPECT_EQ(diagnostics_, "(warning) Failed to scan dir 'SRC' (No such file or directory)\n");
    EXPECT_TRUE(file_exists(dst_));
    EXPECT_EQ(run_.copied(), "Copy Folder  \n");
}

TEST_F(TreeFailure, FileAsSourceRoot) {
    prepare();
    ASSERT_EQ(rmdir(src_.c_str()), 0);
    write_file(src_, "x");
    EXPECT_EQ(copy(), ENOTDIR);
    EXPECT_EQ(diagnostics_, "(warning) Failed to scan dir 'SRC' (Not a directory)\n");
}

TEST_F(TreeFailure, ListingThatBreaksOffCopiesNothingOfTheFolder) {
    prepare();
    write_file(src_ + "/file", "x");
    kernel().listing_error = EIO;
    EXPECT_EQ(copy(), EIO);
    EXPECT_EQ(diagnostics_, "(warning) Failed to scan dir 'SRC' (Input/output error)\n");
    kernel() = Kernel{};
    EXPECT_THAT(tree(dst_), IsEmpty());
}

TEST_F(TreeFailure, FileSystemStatisticsOfAFolder) {
    prepare();
    write_file(src_ + "/a/file", "x");
    write_file(src_ + "/b/file", "x");
    kernel().statfs = [this](const std::string &path, struct statfs &) { return path == dst_ + "/a" ? ESTALE : 0; };
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(run_.failures(), "Cannot get filesystem statistics of file 'a' (error: Stale file handle)!\n");
    EXPECT_EQ(diagnostics_, "(error) statfs(DST/a) fail. errno=116\n");
    EXPECT_EQ(run_.error_code, 0);
    EXPECT_THAT(tree(dst_), ElementsAre("a/", "b/", "b/file"));
}

TEST_F(TreeFailure, FileSystemStatisticsOfTheRoot) {
    prepare();
    write_file(src_ + "/file", "x");
    make_folder(dst_);
    kernel().statfs = [this](const std::string &path, struct statfs &) { return path == dst_ ? EIO : 0; };
    EXPECT_EQ(copy(), EIO);
    EXPECT_EQ(run_.failures(), "Cannot get filesystem statistics of file '' (error: Input/output error)!\n");
}

// ---- the result ----

struct ResultCase {
    const char *name;
    std::vector<std::string> failing; ///< of the entries a (file), b (folder with one file), c (file)
    bool last_is_current;             ///< c is up to date
    int expected;
};

std::ostream &operator<<(std::ostream &stream, const ResultCase &c) { return stream << c.name; }

const ResultCase kResultCases[] = {
    {"all_well", {}, false, 0},
    {"first_fails", {"a"}, false, 0},
    {"folder_fails", {"b/file"}, false, 0},
    {"all_but_the_last_fail", {"a", "b/file"}, false, 0},
    {"last_fails", {"c"}, false, EISDIR},
    {"all_fail", {"a", "b/file", "c"}, false, EISDIR},
    {"folder_fails_and_the_last_is_current", {"b/file"}, true, EISDIR},
    {"first_fails_and_the_last_is_current", {"a"}, true, 0},
};

class FolderResult : public TreeFailure, public testing::WithParamInterface<ResultCase> {};

TEST_P(FolderResult, IsThatOfTheLastProcessedEntry) {
    const ResultCase &c = GetParam();
    prepare();
    for (const char *name : {"/a", "/b/file", "/c"})
        write_file(src_ + name, "x");
    for (const std::string &name : c.failing)
        make_folder(dst_ + "/" + name); // a folder in the way of a file
    if (c.last_is_current) {
        write_file(dst_ + "/c", "x");
        set_mtime(src_ + "/c", 1'500'000'000);
        set_mtime(dst_ + "/c", 1'500'000'000);
    }
    EXPECT_EQ(copy(), c.expected);
    EXPECT_EQ(run_.error_code, c.failing.empty() ? 0 : 13);
    for (const char *name : {"a", "b/file", "c"}) {
        const bool failing = std::find(c.failing.begin(), c.failing.end(), name) != c.failing.end();
        EXPECT_EQ(read_file(dst_ + "/" + name), failing ? "" : "x") << "no other file is touched by a failure";
    }
}

INSTANTIATE_TEST_SUITE_P(Results, FolderResult, testing::ValuesIn(kResultCases),
                         [](const auto &about) { return about.param.name; });

TEST_F(TreeFailure, ReservedNameAtTheEndDoesNotChangeTheResult) {
    prepare();
    write_file(src_ + "/-", "x");
    write_file(src_ + "/.vault/file", "x");
    make_folder(dst_ + "/-");
    EXPECT_EQ(copy(), EISDIR);
}

// ---- full and read-only destinations stop every level ----

std::string bailing(const std::string &folder, int error) {
    return "(error) Bailing backing up directory " + folder + " (" + strerrordesc_np(error) + ")\n";
}

TEST_F(TreeFailure, FullDestinationStopsEveryLevel) {
    REQUIRE_VOLUME(Volume::small_ext4);
    for (const Volume kind : {Volume::small_ext4, Volume::small_tmpfs}) {
        prepare(scratch(Volume::ext4));
        dst_ = scratch(kind) + "/dst";
        write_file(src_ + "/a", "first");
        write_file(src_ + "/b/a", "second");
        write_file(src_ + "/b/b/big", pattern(9'000'000));
        write_file(src_ + "/b/b/later", "x");
        write_file(src_ + "/b/c/later", "x");
        write_file(src_ + "/b/d", "x");
        write_file(src_ + "/c", "x");
        TestRun run;
        const Diagnostics diagnostics(6);
        copy_tree(run, src_, dst_);
        const std::string text = in_short(diagnostics.without_places());
        EXPECT_THAT(text, HasSubstr("(error) Copying file 'DST/b/b/big' failed (No space left on device)\n" +
                                    bailing("SRC/b/b", ENOSPC) + bailing("SRC/b", ENOSPC) + bailing("SRC", ENOSPC)));
        EXPECT_EQ(run.error_code, 8);
        EXPECT_THAT(run.message(), HasSubstr("No space left"));
        EXPECT_EQ(run.copied(), "Copy Folder  \nCopy File  a\nCopy Folder  b\nCopy File  b/a\nCopy Folder  b/b\n");
        EXPECT_THAT(tree(dst_), ElementsAre("a", "b/", "b/a", "b/b/", "b/b/big"));
    }
}

TEST_F(TreeFailure, ReadOnlyDestinationStopsEveryLevel) {
    REQUIRE_VOLUME(Volume::small_ext4);
    prepare(scratch(Volume::ext4));
    dst_ = scratch(Volume::small_ext4) + "/dst";
    for (const char *name : {"/a/a/a", "/a/a/b", "/a/b", "/b"})
        write_file(src_ + name, "x");
    make_folder(dst_ + "/a/a");
    int result = 0;
    {
        const ReadOnly volume_is(volume(Volume::small_ext4));
        result = copy();
    }
    EXPECT_EQ(result, EROFS);
    EXPECT_EQ(diagnostics_, "(error) Cannot create file DST/a/a/a (30)\n" + bailing("SRC/a/a", EROFS) +
                                bailing("SRC/a", EROFS) + bailing("SRC", EROFS));
    EXPECT_EQ(in_short(run_.failures()), "Cannot create file 'DST/a/a/a' (error: Read-only file system)!\n");
    EXPECT_EQ(run_.error_code, 13);
    EXPECT_EQ(run_.message(), "Destination is Read-Only.");
}

TEST_F(TreeFailure, FolderThatCannotBeMadeOnAReadOnlyDestinationStopsEveryLevel) {
    REQUIRE_VOLUME(Volume::small_ext4);
    prepare(scratch(Volume::ext4));
    dst_ = scratch(Volume::small_ext4) + "/dst";
    for (const char *name : {"/a/a/a", "/b"})
        write_file(src_ + name, "x");
    make_folder(dst_ + "/a");
    int result = 0;
    {
        const ReadOnly volume_is(volume(Volume::small_ext4));
        result = copy();
    }
    EXPECT_EQ(result, EROFS);
    EXPECT_EQ(diagnostics_,
              "(error) Cannot mkdir(DST/a/a) ==> 30.\n" + bailing("SRC/a", EROFS) + bailing("SRC", EROFS));
    EXPECT_EQ(run_.failures(), "Cannot create directory a/a!\n");
    EXPECT_EQ(run_.error_code, 6);
}

TEST_F(TreeFailure, VolumeWithoutRoomForAnotherFileStopsTheWalk) {
    REQUIRE_VOLUME(Volume::small_ext4);
    prepare(scratch(Volume::ext4));
    const std::string root = scratch(Volume::small_ext4);
    dst_ = root + "/dst";
    for (const char *name : {"/a", "/b"})
        write_file(src_ + name, "");
    make_folder(dst_);
    for (int index = 0;; ++index) {
        const int fd = open((root + "/" + std::to_string(index)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) break;
        close(fd);
    }
    EXPECT_EQ(copy(), ENOSPC);
    EXPECT_EQ(diagnostics_, "(error) Cannot create file DST/a (28)\n" + bailing("SRC", ENOSPC));
    EXPECT_EQ(in_short(run_.failures()), "Cannot create file 'DST/a' (error: No space left on device)!\n");
    EXPECT_EQ(run_.error_code, 13) << "whatever hindered the creation";
}

TEST_F(TreeFailure, OtherFailuresDoNotStopTheWalk) {
    prepare();
    for (const char *name : {"/a", "/b/c", "/d"})
        write_file(src_ + name, "12345");
    kernel().pwrite = [](int, std::size_t, off_t) -> std::optional<ssize_t> { return -EDQUOT; };
    EXPECT_EQ(copy(), EDQUOT);
    EXPECT_THAT(diagnostics_, Not(HasSubstr("Bailing")));
    kernel() = Kernel{};
    EXPECT_THAT(tree(dst_), ElementsAre("a", "b/", "b/c", "d"));
}

// ---- what changes between the listing and the copy ----

TEST_F(TreeFailure, FileThatVanishesIsSilentlySkippedUnlessTheRunIsFull) {
    for (const int full : {0, 1}) {
        prepare();
        for (const char *name : {"/a", "/b", "/c"})
            write_file(src_ + name, "x");
        kernel().listed = [this] { unlink((src_ + "/b").c_str()); };
        TestRun run;
        run.full = full;
        const Diagnostics diagnostics(6);
        copy_tree(run, src_, dst_);
        EXPECT_EQ(run.copied(), "Copy Folder  \nCopy File  a\nCopy File  c\n");
        EXPECT_EQ(run.failures(),
                  full == 0 ? "" : "Failed to get status of file 'b' (error: No such file or directory)!\n");
        EXPECT_EQ(run.error_code, full == 0 ? 0 : 6);
        EXPECT_EQ(in_short(diagnostics.without_places()),
                  full == 0 ? "" : "(warning) Failed to locate file 'SRC/b' (No such file or directory)\n");
        kernel() = Kernel{};
        EXPECT_THAT(tree(dst_), ElementsAre("a", "c"));
    }
}

TEST_F(TreeFailure, FolderThatVanishesIsAScanFailure) {
    prepare();
    make_folder(src_ + "/a");
    write_file(src_ + "/b", "x");
    kernel().listed = [this] { rmdir((src_ + "/a").c_str()); };
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(diagnostics_, "(warning) Failed to scan dir 'SRC/a' (No such file or directory)\n");
}

TEST_F(TreeFailure, FolderReplacedByALinkIsNotFollowed) {
    prepare();
    const std::string outside = scratch();
    write_file(outside + "/secret", "x");
    make_folder(src_ + "/a");
    kernel().listed = [&] {
        rmdir((src_ + "/a").c_str());
        static_cast<void>(symlink(outside.c_str(), (src_ + "/a").c_str()));
    };
    EXPECT_NE(copy(), 0);
    EXPECT_FALSE(file_exists(dst_ + "/a/secret"));
    EXPECT_THAT(diagnostics_, HasSubstr("(warning) Failed to scan dir 'SRC/a' ("));
}

TEST_F(TreeFailure, FileReplacedByALinkIsNotFollowed) {
    for (const int full : {0, 1}) {
        prepare();
        const std::string outside = scratch();
        write_file(outside + "/secret", "secret");
        write_file(src_ + "/a", "x");
        kernel().listed = [&] {
            unlink((src_ + "/a").c_str());
            static_cast<void>(symlink((outside + "/secret").c_str(), (src_ + "/a").c_str()));
        };
        run_.full = full;
        copy();
        kernel() = Kernel{};
        EXPECT_NE(read_file(dst_ + "/a"), "secret");
    }
}

TEST_F(TreeFailure, FileReplacedByAPipeDoesNotHang) {
    prepare();
    write_file(src_ + "/a", "x");
    write_file(src_ + "/b", "x");
    kernel().listed = [&] {
        unlink((src_ + "/a").c_str());
        mkfifo((src_ + "/a").c_str(), 0644);
    };
    run_.full = 1;
    alarm(20);
    EXPECT_EQ(copy(), 0);
    alarm(0);
    EXPECT_EQ(run_.failures(), "Skip to copy 'a' because it is not a regular file!\n");
    EXPECT_EQ(run_.copied(), "Copy Folder  \nCopy File  b\n");
}

TEST_F(TreeFailure, DestinationEntriesThatAreNoFilesAreNotWrittenThrough) {
    prepare();
    for (const char *name : {"/a", "/b"})
        write_file(src_ + name, "x");
    make_folder(dst_);
    ASSERT_EQ(mkfifo((dst_ + "/a").c_str(), 0644), 0);
    alarm(20);
    EXPECT_EQ(copy(), 0);
    alarm(0);
    EXPECT_EQ(in_short(run_.failures()), "Cannot create file 'DST/a' (error: No such device or address)!\n");
    EXPECT_EQ(read_file(dst_ + "/b"), "x");
}

} // namespace
} // namespace tsbackup::test
