#include "engine.h"

#include <cerrno>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Rmtree : public EngineTest {
  protected:
    TestRun run_;
};

TEST_F(Rmtree, RemovesFilesFoldersAndLinks) {
    const std::string root = scratch();
    write_file(root + "/tree/a/b/file", "x");
    write_file(root + "/tree/.hidden", "x");
    write_file(root + "/tree/.snapshot/kept by the copy alone", "x");
    write_file(root + "/tree/new\nline/\xff\xfe", "x");
    write_file(root + "/tree/" + std::string(255, 'n'), "x");
    ASSERT_EQ(symlink("nowhere", (root + "/tree/a/link").c_str()), 0);
    EXPECT_EQ(do_rmtree((root + "/tree").c_str(), run_), 0);
    EXPECT_FALSE(file_exists(root + "/tree"));
}

TEST_F(Rmtree, KeepsTheFolderWhenOnlyItsContentsAreToGo) {
    const std::string root = scratch();
    write_file(root + "/tree/a/b/file", "x");
    write_file(root + "/tree/c", "x");
    EXPECT_EQ(do_rmtree_contents((root + "/tree").c_str(), run_), 0);
    EXPECT_THAT(tree(root), ElementsAre("tree/"));
}

TEST_F(Rmtree, DoesNotFollowLinksInside) {
    const std::string root = scratch();
    write_file(root + "/outside/file", "kept");
    make_folder(root + "/tree/sub");
    for (const char *name : {"/tree/folder", "/tree/sub/folder"})
        ASSERT_EQ(symlink((root + "/outside").c_str(), (root + name).c_str()), 0);
    ASSERT_EQ(symlink((root + "/outside/file").c_str(), (root + "/tree/file").c_str()), 0);
    for (const bool unknown : {false, true}) {
        if (unknown) kernel().entry = [](dirent &entry) { entry.d_type = DT_UNKNOWN; };
        EXPECT_EQ(do_rmtree((root + "/tree").c_str(), run_), 0);
        EXPECT_FALSE(file_exists(root + "/tree"));
        EXPECT_EQ(read_file(root + "/outside/file"), "kept");
        make_folder(root + "/tree");
        ASSERT_EQ(symlink((root + "/outside").c_str(), (root + "/tree/folder").c_str()), 0);
    }
}

TEST_F(Rmtree, LeavesOtherTypesAndTheFoldersAbove) {
    const std::string root = scratch();
    for (const bool unknown : {false, true}) {
        write_file(root + "/tree/a/file", "x");
        write_file(root + "/tree/b/file", "x");
        ASSERT_EQ(mkfifo((root + "/tree/b/pipe").c_str(), 0644), 0);
        if (unknown) kernel().entry = [](dirent &entry) { entry.d_type = DT_UNKNOWN; };
        EXPECT_EQ(do_rmtree((root + "/tree").c_str(), run_), 0);
        kernel() = Kernel{};
        EXPECT_THAT(tree(root), ElementsAre("tree/", "tree/b/", "tree/b/pipe"));
        unlink((root + "/tree/b/pipe").c_str());
    }
    EXPECT_EQ(run_.error_code, 0);
    EXPECT_EQ(run_.failures(), "");
}

TEST_F(Rmtree, LogsEachFolder) {
    const std::string root = scratch();
    write_file(root + "/tree/sub/file", "x");
    const Diagnostics diagnostics;
    EXPECT_EQ(do_rmtree((root + "/tree").c_str(), run_), 0);
    EXPECT_EQ(diagnostics.without_places(),
              "(debug) do_rmtree(" + root + "/tree)\n(debug) do_rmtree(" + root + "/tree/sub)\n");
}

TEST_F(Rmtree, GivesTheErrorOfAFolderThatCannotBeOpened) {
    const std::string root = scratch();
    write_file(root + "/file", "x");
    struct Case {
        std::string path;
        int expected;
    };
    for (const Case &c : {Case{root + "/missing", ENOENT}, Case{root + "/file", ENOTDIR}}) {
        for (const auto function : {do_rmtree, do_rmtree_contents}) {
            const Diagnostics diagnostics;
            EXPECT_EQ(function(c.path.c_str(), run_), c.expected);
            EXPECT_EQ(diagnostics.without_places(),
                      "(debug) do_rmtree(" + c.path + ")\n(debug) Cannot opendir(" + c.path + ")\n");
        }
    }
    EXPECT_EQ(read_file(root + "/file"), "x");
}

TEST_F(Rmtree, GoesOnBesideAFolderThatCannotBeOpened) {
    REQUIRE_VOLUME(Volume::ext4);
    const std::string root = scratch(Volume::ext4);
    write_file(root + "/tree/a/file", "x");
    write_file(root + "/tree/b/file", "x");
    for (const char *name : {"/tree", "/tree/a", "/tree/b"})
        chmod((root + name).c_str(), 0777);
    chmod((root + "/tree/a").c_str(), 0700);
    {
        const AsUser user;
        EXPECT_EQ(do_rmtree((root + "/tree").c_str(), run_), 0);
    }
    EXPECT_THAT(tree(root), ElementsAre("tree/", "tree/a/", "tree/a/file"));
}

/// Makes a chain of folders with a file at its end and gives back how many levels there are.
int make_chain(const std::string &root, const std::string &name, int levels) {
    int folder = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int made = 0;
    while (made < levels && mkdirat(folder, name.c_str(), 0755) == 0) {
        const int inner = openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        close(folder);
        folder = inner;
        ++made;
    }
    close(openat(folder, "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    close(folder);
    return made;
}

TEST_F(Rmtree, RemovesDeepTreesWithFewDescriptors) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const std::string root = scratch();
    ASSERT_EQ(make_chain(root, "d", 1900), 1900);
    const rlimit limit = {1024, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(do_rmtree((root + "/d").c_str(), run_), 0);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_FALSE(file_exists(root + "/d"));
}

TEST_F(Rmtree, NeverTouchesWhatACutPathWouldName) {
    const std::string root = scratch();
    ASSERT_EQ(make_chain(root, std::string(200, 'd'), 40), 40);
    write_file(root + "/beside", "kept");
    EXPECT_EQ(do_rmtree_contents((root + "/" + std::string(200, 'd')).c_str(), run_), 0);
    EXPECT_EQ(read_file(root + "/beside"), "kept");
    EXPECT_THAT(list_folder(root + "/" + std::string(200, 'd')), IsEmpty());
}

TEST_F(Rmtree, RemovesTreesDeeperThanAnyPathIsLong) {
    const std::string root = scratch();
    ASSERT_EQ(make_chain(root, "d", 3000), 3000);
    EXPECT_EQ(do_rmtree((root + "/d").c_str(), run_), 0);
    EXPECT_FALSE(file_exists(root + "/d"));
}

TEST_F(Rmtree, RemovesManyEntries) {
    const std::string root = scratch();
    make_folder(root + "/tree");
    const int folder = open((root + "/tree").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int index = 0; index < 20'000; ++index)
        close(openat(folder, std::to_string(index).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    close(folder);
    EXPECT_EQ(do_rmtree((root + "/tree").c_str(), run_), 0);
    EXPECT_FALSE(file_exists(root + "/tree"));
}

} // namespace
} // namespace tsbackup::test
