// What the walk through a tree copies, in which order, and what it leaves out.

#include "engine.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <ostream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class Tree : public EngineTest {};

TEST_F(Tree, IsCopiedInByteOrderOfTheNames) {
    const std::string root = scratch();
    for (const char *name : {"b", "B", "_", "10", "9", "\xc3\xa4", "z", "a b", "a.b", "a/inner", "-"})
        write_file(root + "/src/" + name, "x");
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(run.copied(), "Copy Folder  \n"
                            "Copy File  -\n"
                            "Copy File  10\n"
                            "Copy File  9\n"
                            "Copy File  B\n"
                            "Copy File  _\n"
                            "Copy Folder  a\n"
                            "Copy File  a/inner\n"
                            "Copy File  a b\n"
                            "Copy File  a.b\n"
                            "Copy File  b\n"
                            "Copy File  z\n"
                            "Copy File  \xc3\xa4\n");
    EXPECT_EQ(run.failures(), "");
    EXPECT_EQ(run.error_code, 0);
    EXPECT_EQ(tree(root + "/dst"), tree(root + "/src"));
}

TEST_F(Tree, IsCopiedCompletelyWhenFoldersAndManyFilesAlternate) {
    const std::string root = scratch();
    for (int index = 0; index < 120; ++index) {
        const std::string number = std::to_string(1000 + index);
        if (index % 7 == 3)
            for (int inner = 0; inner < 40; ++inner)
                write_file(root + "/src/" + number + "/" + std::to_string(inner), number + std::to_string(inner));
        else if (index % 11 == 5)
            write_file(root + "/src/._snap-" + number, "reserved");
        else
            write_file(root + "/src/" + number, number);
    }
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(shell_output("diff -r -x '._snap-*' " + root + "/src " + root + "/dst"), "");
    EXPECT_EQ(run.failures(), "");
}

TEST_F(Tree, NewFolderGetsItsMetadataBeforeItsContent) {
    const std::string root = scratch();
    write_file(root + "/src/full/file", "x");
    make_folder(root + "/src/empty");
    chmod((root + "/src/full").c_str(), 0750);
    chmod((root + "/src/empty").c_str(), 0711);
    set_mtime(root + "/src/full", 1'000'000'000, 123'456'789);
    set_mtime(root + "/src/empty", 1'000'000'000, 123'456'789);
    timespec before{};
    clock_gettime(CLOCK_REALTIME_COARSE, &before);
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(mode_of(root + "/dst/full"), 0750u);
    EXPECT_EQ(mode_of(root + "/dst/empty"), 0711u);
    EXPECT_EQ(mtime_of(root + "/dst/empty"), 1'000'000'000'123'456'789);
    EXPECT_GE(status_of(root + "/dst/full").st_mtim.tv_sec, before.tv_sec) << "the content came after the metadata";
}

TEST_F(Tree, ExistingFolderKeepsItsMetadata) {
    const std::string root = scratch();
    make_folder(root + "/src/sub");
    make_folder(root + "/dst/sub");
    chmod((root + "/src/sub").c_str(), 0700);
    chmod((root + "/dst/sub").c_str(), 0755);
    set_mtime(root + "/src/sub", 1'000'000'000);
    set_mtime(root + "/dst/sub", 1'100'000'000);
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(mode_of(root + "/dst/sub"), 0755u);
    EXPECT_EQ(mtime_of(root + "/dst/sub"), 1'100'000'000'000'000'000);
    EXPECT_EQ(run.copied(), "");
}

TEST_F(Tree, NewRootGetsALineWithAnEmptyPath) {
    const std::string root = scratch();
    make_folder(root + "/src");
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(run.copied(), "Copy Folder  \n");
    EXPECT_EQ(run.error_code, 0);
}

TEST_F(Tree, EmptySourceGives0) {
    const std::string root = scratch();
    make_folder(root + "/src");
    make_folder(root + "/dst");
    TestRun run;
    EXPECT_EQ(do_copy_dir((root + "/src").c_str(), (root + "/dst").c_str(), run), 0);
    EXPECT_EQ(run.copied(), "");
}

// ---- reserved names ----

struct NameCase {
    const char *name;
    bool reserved;
};

std::ostream &operator<<(std::ostream &stream, const NameCase &c) { return stream << c.name; }

const NameCase kNameCases[] = {
    {".snapshot", true}, {"._snap-", true},     {"._snap-2024", true}, {"._snap-\n", true}, {".apps", true},
    {".vault", true},    {".snapshots", false}, {".snapsho", false},   {"snapshot", false}, {".Snapshot", false},
    {"._snap", false},   {"._snap_1", false},   {"x._snap-1", false},  {"._Snap-1", false}, {".apps2", false},
    {"apps", false},     {".app", false},       {".vault~", false},    {"vault", false},    {" .vault", false},
    {"._share", false},  {"...", false},        {".", true},           {"..", true},
};

class ReservedNames : public EngineTest, public testing::WithParamInterface<NameCase> {};

TEST_P(ReservedNames, AreLeftOutAtAnyDepth) {
    const NameCase &c = GetParam();
    const std::string name = c.name;
    if (name == "." || name == "..") return; // in every folder anyway: the expectations below would see a copy
    const std::string root = scratch();
    write_file(root + "/src/as folder/" + name + "/inner", "x");
    write_file(root + "/src/as file/" + name, "x");
    write_file(root + "/src/a/b/c/" + name + "/inner", "x");
    write_file(root + "/src/" + name + "/inner", "x");
    for (const int full : {0, 1}) {
        TestRun run;
        run.full = full;
        const std::string dst = root + "/dst" + std::to_string(full);
        copy_tree(run, root + "/src", dst);
        EXPECT_EQ(file_exists(dst + "/as folder/" + name), !c.reserved);
        EXPECT_EQ(file_exists(dst + "/as folder/" + name + "/inner"), !c.reserved);
        EXPECT_EQ(file_exists(dst + "/as file/" + name), !c.reserved);
        EXPECT_EQ(file_exists(dst + "/a/b/c/" + name + "/inner"), !c.reserved);
        EXPECT_EQ(file_exists(dst + "/" + name), !c.reserved);
        EXPECT_TRUE(file_exists(dst + "/a/b/c"));
    }
}

INSTANTIATE_TEST_SUITE_P(Names, ReservedNames, testing::ValuesIn(kNameCases));

// ---- types ----

class Types : public EngineTest, public testing::WithParamInterface<bool> {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        if (GetParam()) kernel().entry = [](dirent &entry) { entry.d_type = DT_UNKNOWN; };
    }
};

TEST_P(Types, OnlyFilesAndFoldersAreCopied) {
    const std::string root = scratch();
    write_file(root + "/src/file", "x");
    make_folder(root + "/src/folder");
    ASSERT_EQ(symlink("file", (root + "/src/link to file").c_str()), 0);
    ASSERT_EQ(symlink("folder", (root + "/src/link to folder").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (root + "/src/link to nothing").c_str()), 0);
    ASSERT_EQ(symlink(".", (root + "/src/link to itself").c_str()), 0);
    ASSERT_EQ(mkfifo((root + "/src/pipe").c_str(), 0644), 0);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_EQ(chdir((root + "/src").c_str()), 0);
    std::strcpy(address.sun_path, "socket");
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    close(fd);
    ASSERT_EQ(chdir("/"), 0);
    if (is_real_root()) {
        EXPECT_EQ(mknod((root + "/src/device").c_str(), S_IFCHR | 0644, 0x0103), 0);
    }

    TestRun run;
    run.full = 1;
    const Diagnostics diagnostics;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_THAT(tree(root + "/dst"), ElementsAre("file", "folder/"));
    EXPECT_EQ(run.failures(), "");
    EXPECT_EQ(run.error_code, 0);
    const std::string skipped =
        "(debug) skip file:" + root + "/src/pipe, type " + std::to_string(S_IFIFO | 0644) + "\n";
    if (GetParam())
        EXPECT_THAT(diagnostics.without_places(), HasSubstr(skipped));
    else
        EXPECT_THAT(diagnostics.text(), Not(HasSubstr("skip file:")));
}

INSTANTIATE_TEST_SUITE_P(KnownAndUnknown, Types, testing::Bool(),
                         [](const auto &about) { return about.param ? "unknown" : "known"; });

// ---- what is up to date ----

class UpToDate : public EngineTest {};

TEST_F(UpToDate, SecondRunCopiesNothing) {
    const std::string root = scratch();
    write_file(root + "/src/a", "one");
    write_file(root + "/src/b/c", "two");
    write_file(root + "/src/b/empty", "");
    TestRun first;
    copy_tree(first, root + "/src", root + "/dst");
    TestRun second;
    const Diagnostics diagnostics;
    copy_tree(second, root + "/src", root + "/dst");
    EXPECT_EQ(second.copied(), "");
    EXPECT_EQ(second.bytes, 0);
    EXPECT_THAT(diagnostics.text(), Not(HasSubstr("do_copy_file")));
}

TEST_F(UpToDate, FullRunCopiesEverything) {
    const std::string root = scratch();
    write_file(root + "/src/a", "one");
    write_file(root + "/src/b/c", "three");
    TestRun first;
    copy_tree(first, root + "/src", root + "/dst");
    for (const int full : {1, -1}) {
        TestRun second;
        second.full = full;
        copy_tree(second, root + "/src", root + "/dst");
        EXPECT_EQ(second.copied(), "Copy File  a\nCopy File  b/c\n");
        EXPECT_EQ(second.bytes, 8);
    }
}

TEST_F(UpToDate, AnotherSizeIsCopiedAndMetadataAloneIsNot) {
    const std::string root = scratch();
    for (const char *side : {"/src/", "/dst/"})
        for (const char *name : {"longer", "mode", "shorter"}) {
            write_file(root + side + name, "12345");
            set_mtime(root + side + name, 1'600'000'000);
        }
    write_file(root + "/src/longer", "123456");
    write_file(root + "/src/shorter", "1234");
    set_mtime(root + "/src/longer", 1'600'000'000);
    set_mtime(root + "/src/shorter", 1'600'000'000);
    chmod((root + "/src/mode").c_str(), 0600);
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(run.copied(), "Copy File  longer\nCopy File  shorter\n");
    EXPECT_EQ(read_file(root + "/dst/longer"), "123456");
    EXPECT_EQ(read_file(root + "/dst/shorter"), "1234");
    EXPECT_EQ(mode_of(root + "/dst/mode"), 0644u);
}

TEST_F(UpToDate, NewerDestinationIsOverwritten) {
    const std::string root = scratch();
    write_file(root + "/src/file", "old");
    write_file(root + "/dst/file", "new");
    set_mtime(root + "/src/file", 1'600'000'000);
    set_mtime(root + "/dst/file", 1'700'000'000);
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(read_file(root + "/dst/file"), "old");
    EXPECT_EQ(mtime_of(root + "/dst/file"), 1'600'000'000'000'000'000);
}

TEST_F(UpToDate, IsDecidedAtTheTurnOfEachFile) {
    const std::string root = scratch();
    write_file(root + "/src/a", "changed");
    write_file(root + "/src/b", "as it was");
    write_file(root + "/src/c", "as it was");
    write_file(root + "/dst/b", "as it was");
    write_file(root + "/dst/c", "as it was");
    // Two names for one file, as on a volume that does not tell case: copying the one changes the other.
    ASSERT_EQ(link((root + "/dst/b").c_str(), (root + "/dst/a").c_str()), 0);
    for (const char *name : {"/src/b", "/dst/b", "/src/c", "/dst/c"})
        set_mtime(root + name, 1'600'000'000);
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(run.copied(), "Copy File  a\nCopy File  b\n");
    EXPECT_EQ(read_file(root + "/dst/b"), "as it was");
}

TEST_F(UpToDate, WhatTheSourceNoLongerHasStaysAtTheDestination) {
    const std::string root = scratch();
    write_file(root + "/src/a", "x");
    write_file(root + "/dst/gone", "kept");
    write_file(root + "/dst/sub/gone", "kept");
    TestRun run;
    run.full = 1;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_THAT(tree(root + "/dst"), ElementsAre("a", "gone", "sub/", "sub/gone"));
}

// ---- other file systems, snapshots, the destination itself ----

class LeftOut : public EngineTest {};

TEST_F(LeftOut, TmpfsMountPointInsideTheSource) {
    REQUIRE_VOLUME(Volume::ext4);
    for (const Volume kind : {Volume::ext4, Volume::tmpfs}) {
        const std::string root = scratch(kind);
        write_file(root + "/src/a/file", "x");
        write_file(root + "/src/z/file", "x");
        make_folder(root + "/src/m");
        const TmpfsMount mount(root + "/src/m");
        write_file(root + "/src/m/file", "x");
        TestRun run;
        const Diagnostics diagnostics;
        copy_tree(run, root + "/src", root + "/dst");
        EXPECT_THAT(tree(root + "/dst"), ElementsAre("a/", "a/file", "z/", "z/file"));
        EXPECT_THAT(diagnostics.without_places(), HasSubstr("(debug) Skipping tmpfs mount point " + root + "/src/m\n"));
        EXPECT_EQ(run.failures(), "");
    }
}

TEST_F(LeftOut, OtherMountPointsAreCopied) {
    REQUIRE_VOLUME(Volume::ext4);
    const std::string root = scratch(Volume::tmpfs);
    make_folder(root + "/src/m");
    const std::string inner = scratch(Volume::ext4);
    write_file(inner + "/file", "x");
    ASSERT_EQ(shell_output("mount --bind " + inner + " " + root + "/src/m"), "");
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_THAT(tree(root + "/dst"), ElementsAre("m/", "m/file"));
    EXPECT_EQ(shell_output("umount " + root + "/src/m"), "");
}

TEST_F(LeftOut, SourceWhollyOnATmpfsIsNot) {
    REQUIRE_VOLUME(Volume::tmpfs);
    const std::string root = scratch(Volume::tmpfs);
    write_file(root + "/src/a/b/file", "x");
    struct statfs statistics {};
    ASSERT_EQ(statfs((root + "/src").c_str(), &statistics), 0);
    ASSERT_EQ(statistics.f_type, 0x01021994);
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(read_file(root + "/dst/a/b/file"), "x");
}

TEST_F(LeftOut, SourceRootThatIsATmpfsMountPointIsNot) {
    REQUIRE_VOLUME(Volume::ext4);
    const std::string root = scratch(Volume::ext4);
    make_folder(root + "/src");
    const TmpfsMount mount(root + "/src");
    write_file(root + "/src/a/file", "x");
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(read_file(root + "/dst/a/file"), "x");
}

TEST_F(LeftOut, DestinationInsideItsSource) {
    const std::string root = scratch();
    for (const char *name : {"/src/a/one", "/src/backup/own", "/src/z/two"})
        write_file(root + name, "x");
    for (int round = 0; round < 3; ++round) {
        TestRun run;
        run.full = 1;
        copy_tree(run, root + "/src", root + "/src/backup/copy");
        EXPECT_EQ(run.failures(), "");
        EXPECT_THAT(tree(root + "/src/backup/copy"),
                    ElementsAre("a/", "a/one", "backup/", "backup/own", "z/", "z/two"));
    }
}

TEST_F(LeftOut, SourceThatIsItsOwnDestinationKeepsItsContent) {
    const std::string root = scratch();
    write_file(root + "/src/a", "content");
    write_file(root + "/src/b/c", "content");
    TestRun run;
    run.full = 1;
    copy_tree(run, root + "/src", root + "/src");
    EXPECT_EQ(read_file(root + "/src/a"), "content");
    EXPECT_EQ(read_file(root + "/src/b/c"), "content");
    EXPECT_EQ(run.error_code, 6);
}

TEST_F(LeftOut, TheSharesOwnSnapshotFolder) {
    const std::string root = scratch();
    write_file(root + "/src/a/file", "x");
    write_file(root + "/src/a/snaps/file", "x");
    write_file(root + "/src/snaps/file", "x");
    TestRun run;
    run.snapshot_path = root + "/src";
    run.snapshot_skip_path = root + "/src/a/snaps";
    const Diagnostics diagnostics;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_THAT(tree(root + "/dst"), ElementsAre("a/", "a/file", "snaps/", "snaps/file"));
    EXPECT_THAT(diagnostics.without_places(),
                HasSubstr("(debug) do_copy_dir(\"" + root + "/src/a/snaps\", \"" + root +
                          "/dst/a/snaps\")\n(debug) This is a snapshot, don't back up.\n"));
}

TEST_F(LeftOut, JobWhoseSourceIsTheSharesOwnSnapshotFolder) {
    const std::string root = scratch();
    write_file(root + "/src/file", "x");
    TestRun run;
    run.fsid = 5;
    run.snapshot_skip_path = root + "/src";
    for (const int is_dir : {1, 0}) {
        run.src_is_dir = is_dir;
        const Diagnostics diagnostics;
        copy_tree(run, root + "/src", root + "/dst");
        EXPECT_FALSE(file_exists(root + "/dst"));
        EXPECT_EQ(diagnostics.without_places(), "(debug) backup_do_cp(\"" + root + "/src\", \"" + root +
                                                    "/dst\")\n(debug) This is a snapshot, don't back up.\n");
        EXPECT_EQ(run.src_root_len, 0);
        EXPECT_EQ(run.fsid, 5u);
    }
}

// ---- the record of the run ----

class Entry : public EngineTest {};

TEST_F(Entry, SetsTheRootLengthsAndTheDestinationsFileSystemId) {
    const std::string root = scratch();
    make_folder(root + "/source");
    make_folder(root + "/dst");
    struct statfs statistics {};
    ASSERT_EQ(statfs((root + "/dst").c_str(), &statistics), 0);
    std::uint64_t expected = 0;
    std::memcpy(&expected, &statistics.f_fsid, sizeof expected);
    TestRun run;
    run.fsid = 77;
    copy_tree(run, root + "/source", root + "/dst");
    EXPECT_EQ(run.fsid, expected);
    EXPECT_EQ(run.src_root_len, static_cast<std::int32_t>(root.size() + 7));
    EXPECT_EQ(run.dst_root_len, static_cast<std::int32_t>(root.size() + 4));
}

TEST_F(Entry, KeepsTheFileSystemIdWhereTheDestinationHasNone) {
    const std::string root = scratch();
    make_folder(root + "/src");
    TestRun run;
    run.fsid = 77;
    copy_tree(run, root + "/src", root + "/missing");
    EXPECT_EQ(run.fsid, 77u);
    EXPECT_TRUE(file_exists(root + "/missing"));
}

TEST_F(Entry, SingleFile) {
    const std::string root = scratch();
    write_file(root + "/source.txt", "content");
    TestRun run;
    run.src_is_dir = 0;
    run.fsid = 77;
    const Diagnostics diagnostics;
    copy_tree(run, root + "/source.txt", root + "/copy.txt");
    EXPECT_EQ(read_file(root + "/copy.txt"), "content");
    EXPECT_EQ(run.fsid, 77u);
    EXPECT_EQ(run.copied(), "Copy File  \n") << "the file is the root of its side";
    EXPECT_EQ(run.src_root_len, static_cast<std::int32_t>(root.size() + 11));
    EXPECT_EQ(run.dst_root_len, static_cast<std::int32_t>(root.size() + 9));
    EXPECT_EQ(run.bytes, 7);
}

TEST_F(Entry, SingleFileIsCopiedAlsoWhenItIsUpToDate) {
    const std::string root = scratch();
    write_file(root + "/source", "new");
    write_file(root + "/copy", "old");
    set_mtime(root + "/source", 1'600'000'000);
    set_mtime(root + "/copy", 1'600'000'000);
    TestRun run;
    run.src_is_dir = 0;
    copy_tree(run, root + "/source", root + "/copy");
    EXPECT_EQ(read_file(root + "/copy"), "new");
}

TEST_F(Entry, SingleFileReachedThroughALinkIsFollowed) {
    const std::string root = scratch();
    write_file(root + "/source", "content");
    ASSERT_EQ(symlink("source", (root + "/link").c_str()), 0);
    TestRun run;
    run.src_is_dir = 0;
    copy_tree(run, root + "/link", root + "/copy");
    EXPECT_EQ(read_file(root + "/copy"), "content");
    EXPECT_TRUE(S_ISREG(status_of(root + "/copy").st_mode));
}

TEST_F(Entry, TreeReachedThroughALinkIsFollowed) {
    const std::string root = scratch();
    write_file(root + "/src/file", "content");
    make_folder(root + "/dst");
    ASSERT_EQ(symlink("src", (root + "/srclink").c_str()), 0);
    ASSERT_EQ(symlink("dst", (root + "/dstlink").c_str()), 0);
    TestRun run;
    copy_tree(run, root + "/srclink", root + "/dstlink");
    EXPECT_EQ(read_file(root + "/dst/file"), "content");
}

TEST_F(Entry, SingleFileOntoAFolderIsAReadOnlyDestination) {
    const std::string root = scratch();
    write_file(root + "/source", "content");
    make_folder(root + "/dst");
    TestRun run;
    run.src_is_dir = 0;
    copy_tree(run, root + "/source", root + "/dst");
    EXPECT_EQ(run.error_code, 13);
    EXPECT_EQ(run.message(), "Destination is Read-Only.");
    EXPECT_THAT(list_folder(root + "/dst"), IsEmpty());
}

TEST_F(Entry, TrailingSlashOfARootDoesNotEnterTheMessages) {
    const std::string root = scratch();
    write_file(root + "/src/sub/file", "x");
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(run.copied(), "Copy Folder  \nCopy Folder  sub\nCopy File  sub/file\n");
    TestRun slash;
    slash.full = 1;
    copy_tree(slash, root + "/src/", root + "/dst/");
    EXPECT_EQ(slash.copied(), "Copy File  sub/file\n");
}

TEST_F(Entry, WithoutLogsTheTreeIsCopiedAllTheSame) {
    const std::string root = scratch();
    write_file(root + "/src/file", "x");
    BackupRun run;
    run.src_is_dir = 1;
    run.clock_failed = 1;
    backup_do_cp(BackupJob{}, run, (root + "/src").c_str(), (root + "/dst").c_str());
    EXPECT_EQ(read_file(root + "/dst/file"), "x");
}

// ---- diagnostics ----

TEST_F(Entry, DiagnosticsOfAWholeRun) {
    REQUIRE_VOLUME(Volume::ext4);
    const std::string src = scratch(Volume::ext4);
    const std::string native = scratch(Volume::ext4);
    const std::string foreign = scratch(Volume::tmpfs);
    write_file(src + "/a/empty", "");
    write_file(src + "/a/file", "12345");
    make_folder(src + "/b");
    write_file(src + "/c", pattern(100'000));

    const auto diagnostics_of = [&src](const std::string &dst) {
        TestRun run;
        const Diagnostics diagnostics;
        copy_tree(run, src, dst);
        return with_replaced(with_replaced(diagnostics.without_places(), src, "SRC"), dst, "DST");
    };
    EXPECT_EQ(diagnostics_of(native), R"((debug) backup_do_cp("SRC", "DST")
(debug) do_copy_dir("SRC", "DST")
(debug) do_copy_dir("SRC/a", "DST/a")
(debug) do_copy_file("SRC/a/empty", "DST/a/empty")
(debug) _do_copy_mmap("SRC/a/empty", "DST/a/empty")
(debug) do_copy_file("SRC/a/file", "DST/a/file")
(debug) _do_copy_mmap("SRC/a/file", "DST/a/file")
(debug) _do_copy_mmap("SRC/a/file", "DST/a/file"),transferred=5
(debug) do_copy_dir("SRC/b", "DST/b")
(debug) do_copy_file("SRC/c", "DST/c")
(debug) _do_copy_mmap("SRC/c", "DST/c")
(debug) _do_copy_mmap("SRC/c", "DST/c"),transferred=100000
)");
    EXPECT_EQ(diagnostics_of(foreign), R"((debug) backup_do_cp("SRC", "DST")
(debug) do_copy_dir("SRC", "DST")
(debug) do_copy_dir("SRC/a", "DST/a")
(debug) do_copy_file("SRC/a/empty", "DST/a/empty")
(debug) _do_copy_dumb("SRC/a/empty", "DST/a/empty")
(debug) _do_copy_dumb("SRC/a/empty", "DST/a/empty"),transferred=0
(debug) do_copy_file("SRC/a/file", "DST/a/file")
(debug) _do_copy_dumb("SRC/a/file", "DST/a/file")
(debug) _do_copy_dumb("SRC/a/file", "DST/a/file"),transferred=5
(debug) do_copy_dir("SRC/b", "DST/b")
(debug) do_copy_file("SRC/c", "DST/c")
(debug) _do_copy_dumb("SRC/c", "DST/c")
(debug) _do_copy_dumb("SRC/c", "DST/c"),transferred=100000
)");
}

} // namespace
} // namespace tsbackup::test
