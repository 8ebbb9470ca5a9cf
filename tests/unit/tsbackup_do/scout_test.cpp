// The scout that looks at folders ahead of the walk: what it reports, and that a walk with it copies what one without
// it would.

#include "scout.h"

#include "engine.h"
#include "tsbackup/owners.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <random>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t kTime = 1'600'000'000;

/// Writes a file and its unchanged copy.
void write_pair(const std::string &root, const std::string &name, const std::string &content = "as it was") {
    for (const char *side : {"/src/", "/dst/"}) {
        write_file(root + side + name, content);
        set_mtime(root + side + name, kTime);
    }
}

void change(const std::string &path, std::int64_t time) {
    write_file(path, "something else");
    set_mtime(path, time);
}

class ScoutOrders : public EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        root_ = scratch();
        for (const char *folder : {"/src/a", "/src/b", "/dst/a", "/dst/b"})
            make_folder(root_ + folder);
    }
    ScoutOrder order(std::vector<std::string> names) {
        src_ = UniqueFd(open((root_ + "/src").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        dst_ = UniqueFd(open((root_ + "/dst").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return {src_.get(), dst_.get(), std::move(names), {7, 100'000, 0}};
    }
    /// Fetches the reports of an order that the scout may not have set out for.
    static std::vector<ScoutReport> report_on(Scout &scout, const ScoutOrder &order) {
        constexpr int kAttempts = 10'000;
        for (int attempt = 0; attempt < kAttempts; ++attempt) {
            scout.send(order);
            usleep(1000);
            if (std::vector<ScoutReport> reports = scout.fetch(); !reports.empty()) return reports;
        }
        return {};
    }
    void TearDown() override {
        src_.reset();
        dst_.reset();
        EngineTest::TearDown();
    }

    std::string root_;
    UniqueFd src_;
    UniqueFd dst_;
};

TEST_F(ScoutOrders, OnlyRegularFilesWithTheSameSizeAndTimeAreUnchanged) {
    for (const char *name : {"a/same", "a/newer", "a/longer", "a/missing", "a/folder/inner"})
        write_pair(root_, name);
    set_mtime(root_ + "/src/a/newer", kTime + 1);
    change(root_ + "/src/a/longer", kTime);
    unlink((root_ + "/dst/a/missing").c_str());
    ASSERT_EQ(symlink("same", (root_ + "/src/a/link").c_str()), 0);

    Scout scout;
    const std::vector<ScoutReport> reports = report_on(scout, order({"a"}));
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0].name, "a");
    EXPECT_EQ(reports[0].state.copies, 7U);
    EXPECT_EQ(reports[0].src_inode, status_of(root_ + "/src/a").st_ino);
    EXPECT_EQ(reports[0].dst_inode, status_of(root_ + "/dst/a").st_ino);
    std::vector<std::string> seen;
    for (std::size_t index = 0; index < reports[0].listing.size(); ++index)
        seen.push_back(std::string(reports[0].listing.name(index)) + (reports[0].unchanged[index] != 0 ? " =" : ""));
    EXPECT_THAT(seen, ElementsAre("folder", "longer", "missing", "newer", "same ="));
}

TEST_F(ScoutOrders, FoldersThatCannotBeComparedAreNotReported) {
    write_pair(root_, "b/file");
    make_folder(root_ + "/src/only in the source");
    ASSERT_EQ(symlink("a", (root_ + "/src/link").c_str()), 0);
    make_folder(root_ + "/dst/link");
    Scout scout;
    const std::vector<ScoutReport> reports = report_on(scout, order({"nowhere", "only in the source", "link", "b"}));
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0].name, "b");
}

TEST_F(ScoutOrders, AnOrderIsKnownUntilItIsFetchedOrReplaced) {
    Scout scout;
    EXPECT_THAT(scout.fetch(), IsEmpty());
    scout.send(order({"a", "b"}));
    EXPECT_TRUE(scout.was_sent_to(src_.get(), "a"));
    EXPECT_FALSE(scout.was_sent_to(src_.get(), "b"));
    EXPECT_FALSE(scout.was_sent_to(dst_.get(), "a"));
    EXPECT_TRUE(scout.was_sent_below(src_.get()));
    scout.send(order({"b"}));
    EXPECT_TRUE(scout.was_sent_to(src_.get(), "b"));
    scout.fetch();
    EXPECT_FALSE(scout.was_sent_below(src_.get()));
    scout.send(order({}));
    EXPECT_FALSE(scout.was_sent_below(src_.get()));
}

TEST_F(ScoutOrders, ItEndsWithItsOwnerWhateverItIsDoing) {
    for (int number = 0; number < 300; ++number)
        write_pair(root_, "a/" + std::to_string(number));
    for (int round = 0; round < 50; ++round) {
        Scout scout;
        scout.send(order({"a", "b"}));
        usleep(static_cast<useconds_t>(round * 10));
    }
}

TEST_F(ScoutOrders, ALargeFolderIsLeftToTheWalk) {
    constexpr int kMany = 16'385;
    for (int number = 0; number < kMany; ++number) {
        const UniqueFd file(open((root_ + "/src/a/" + std::to_string(number)).c_str(), O_WRONLY | O_CREAT, 0644));
        ASSERT_TRUE(file);
    }
    Scout scout;
    const std::vector<ScoutReport> reports = report_on(scout, order({"a", "b"}));
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_EQ(reports[0].name, "b");
}

class WithScout : public EngineTest {};

TEST_F(WithScout, ExactlyWhatHasChangedIsCopied) {
    constexpr int kFolders = 70;
    constexpr int kFiles = 12;
    std::mt19937 random(20);
    for (const int one_in : {1, 3, 20, 300}) {
        const std::string root = scratch();
        std::string expected;
        for (int folder = 0; folder < kFolders; ++folder)
            for (int file = 0; file < kFiles; ++file) {
                const std::string name =
                    std::to_string(100 + folder) + (folder % 9 == 4 ? "/below" : "") + "/" + std::to_string(100 + file);
                write_pair(root, name);
                if (random() % static_cast<unsigned>(one_in) != 0) continue;
                const bool newer = random() % 2 == 0;
                if (newer)
                    set_mtime(root + "/src/" + name, kTime + 1);
                else
                    change(root + "/src/" + name, kTime);
                expected += "Copy File  " + name + "\n";
            }
        TestRun run;
        copy_tree(run, root + "/src", root + "/dst");
        EXPECT_EQ(run.copied(), expected) << "one file in " << one_in;
        EXPECT_EQ(run.failures(), "");
        TestRun again;
        copy_tree(again, root + "/src", root + "/dst");
        EXPECT_EQ(again.copied(), "");
    }
}

TEST_F(WithScout, AFullRunCopiesEverything) {
    const std::string root = scratch();
    std::string expected;
    for (int folder = 10; folder < 50; ++folder) {
        write_pair(root, std::to_string(folder) + "/file");
        expected += "Copy File  " + std::to_string(folder) + "/file\n";
    }
    TestRun run;
    run.full = 1;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(run.copied(), expected);
}

// The one folder's copy changes the other's file at the destination after the scout has seen it.
TEST_F(WithScout, ACopyThatChangesAFileBehindTheScoutIsNoticed) {
    for (const int distance : {1, 5, 16, 25, 30}) {
        const std::string root = scratch();
        for (int file = 0; file < 2000; ++file) // gives the scout time
            write_pair(root, "10/" + std::to_string(file));
        for (int folder = 10; folder < 50; ++folder)
            write_pair(root, std::to_string(folder) + "/file");
        const std::string later = std::to_string(12 + distance) + "/file";
        ASSERT_EQ(unlink((root + "/dst/12/file").c_str()), 0);
        ASSERT_EQ(link((root + "/dst/" + later).c_str(), (root + "/dst/12/file").c_str()), 0);
        change(root + "/src/12/file", kTime + 5);
        TestRun run;
        copy_tree(run, root + "/src", root + "/dst");
        EXPECT_EQ(run.copied(), "Copy File  12/file\nCopy File  " + later + "\n");
    }
}

TEST_F(WithScout, ReservedFoldersAndFailuresChangeNothing) {
    const std::string root = scratch();
    for (int folder = 10; folder < 40; ++folder)
        write_pair(root, std::to_string(folder) + "/file");
    for (const char *name : {".snapshot", "._snap-1", ".apps", "25.gone"})
        write_file(root + "/src/" + name + "/file", "x");
    ASSERT_EQ(rmdir((root + "/dst/33/file").c_str()), -1);
    shell_output("rm -r " + root + "/dst/33 && echo no folder >" + root + "/dst/33");
    write_file(root + "/src/34/new", "new");
    TestRun run;
    copy_tree(run, root + "/src", root + "/dst");
    EXPECT_EQ(run.copied(), "Copy Folder  25.gone\nCopy File  25.gone/file\nCopy File  34/new\n");
    EXPECT_NE(run.failures(), "");
}

} // namespace
} // namespace tsbackup::test
