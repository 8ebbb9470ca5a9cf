// The scout that looks at folders ahead of the walk: what it reports, and that a walk with it copies what one without
// it would.

#include "scout.h"

#include "engine.h"
#include "tsbackup/owners.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <optional>
#include <random>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;

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
    /// Waits for the report of a subfolder that can be looked at.
    static std::optional<ScoutReport> report_of(Scout &scout, const ScoutOrder &order, const std::string &name) {
        constexpr useconds_t kLongest = 4'000'000;
        for (useconds_t wait = 1000; wait < kLongest; wait += wait / 2) {
            scout.send(order);
            usleep(wait);
            if (std::optional<ScoutReport> report = scout.take(order.src_parent, name)) return report;
        }
        return std::nullopt;
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
    const auto report = report_of(scout, order({"the walk's", "a"}), "a");
    ASSERT_TRUE(report);
    EXPECT_EQ(report->name, "a");
    EXPECT_EQ(report->state.copies, 7U);
    EXPECT_EQ(report->src_inode, status_of(root_ + "/src/a").st_ino);
    EXPECT_EQ(report->dst_inode, status_of(root_ + "/dst/a").st_ino);
    std::vector<std::string> seen;
    for (std::size_t index = 0; index < report->listing.size(); ++index)
        seen.push_back(std::string(report->listing.name(index)) + (report->unchanged[index] != 0 ? " =" : ""));
    EXPECT_THAT(seen, ElementsAre("folder", "longer", "missing", "newer", "same ="));
}

TEST_F(ScoutOrders, FoldersThatCannotBeComparedAreNotReported) {
    write_pair(root_, "b/file");
    make_folder(root_ + "/src/only in the source");
    ASSERT_EQ(symlink("a", (root_ + "/src/link").c_str()), 0);
    make_folder(root_ + "/dst/link");
    Scout scout;
    const ScoutOrder four = order({"the walk's", "b", "nowhere", "only in the source", "link"});
    ASSERT_TRUE(report_of(scout, four, "b"));
    for (const char *name : {"nowhere", "only in the source", "link"})
        EXPECT_FALSE(scout.take(four.src_parent, name)) << name;
}

TEST_F(ScoutOrders, TheFirstSubfolderIsLeftToTheWalk) {
    write_pair(root_, "a/file");
    write_pair(root_, "b/file");
    Scout scout;
    const ScoutOrder both = order({"a", "b"});
    ASSERT_TRUE(report_of(scout, both, "b"));
    EXPECT_FALSE(scout.take(both.src_parent, "a"));
}

TEST_F(ScoutOrders, WhatWasEndedIsForgotten) {
    write_pair(root_, "b/file");
    Scout scout;
    EXPECT_FALSE(scout.take(-1, "b"));
    const ScoutOrder both = order({"a", "b"});
    for (const bool all : {false, true}) {
        ASSERT_TRUE(report_of(scout, both, "b"));
        scout.send(both);
        usleep(10'000);
        if (all)
            scout.end_all();
        else
            scout.end(both.src_parent);
        scout.end(both.src_parent);
        EXPECT_FALSE(scout.take(both.src_parent, "b"));
    }
}

TEST_F(ScoutOrders, OrdersForOtherFoldersAreKeptApart) {
    write_pair(root_, "a/inner/file");
    write_pair(root_, "inner/file");
    Scout scout;
    const ScoutOrder outer = order({"a", "inner"});
    const UniqueFd src(open((root_ + "/src/a").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const UniqueFd dst(open((root_ + "/dst/a").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const ScoutOrder inner{src.get(), dst.get(), {"another", "inner"}, outer.state};
    ASSERT_TRUE(report_of(scout, inner, "inner"));
    scout.send(outer);
    const auto found = report_of(scout, outer, "inner");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->src_inode, status_of(root_ + "/src/inner").st_ino);
    scout.send(inner);
    scout.send(outer);
    scout.end(inner.src_parent);
    EXPECT_FALSE(scout.take(inner.src_parent, "inner"));
    ASSERT_TRUE(report_of(scout, outer, "inner"));
}

TEST_F(ScoutOrders, ItEndsWithItsOwnerWhateverItIsDoing) {
    for (int number = 0; number < 300; ++number)
        write_pair(root_, "b/" + std::to_string(number));
    for (int round = 0; round < 50; ++round) {
        Scout scout;
        scout.send(order({"a", "b"}));
        usleep(static_cast<useconds_t>(round * 10));
    }
}

TEST_F(ScoutOrders, ALargeFolderIsLeftToTheWalk) {
    constexpr int kMany = 16'385;
    for (int number = 0; number < kMany; ++number) {
        const UniqueFd file(open((root_ + "/src/b/" + std::to_string(number)).c_str(), O_WRONLY | O_CREAT, 0644));
        ASSERT_TRUE(file);
    }
    make_folder(root_ + "/src/c");
    make_folder(root_ + "/dst/c");
    Scout scout;
    const ScoutOrder three = order({"a", "c", "b"});
    ASSERT_TRUE(report_of(scout, three, "c"));
    EXPECT_FALSE(scout.take(three.src_parent, "b"));
}

TEST_F(ScoutOrders, ItRestsWhenItRemembersMuch) {
    constexpr int kMany = 9'000;
    std::vector<std::string> names = {"a"};
    for (const char *name : {"x", "y", "z"}) {
        names.emplace_back(name);
        make_folder(root_ + "/dst/" + name);
        make_folder(root_ + "/src/" + name);
        for (int number = 0; number < kMany; ++number) {
            const UniqueFd file(
                open((root_ + "/src/" + name + "/" + std::to_string(number)).c_str(), O_WRONLY | O_CREAT, 0644));
            ASSERT_TRUE(file);
        }
    }
    Scout scout;
    const ScoutOrder all = order(names);
    scout.send(all);
    usleep(300'000);
    EXPECT_FALSE(scout.take(all.src_parent, "x"));
    ASSERT_TRUE(report_of(scout, {all.src_parent, all.dst_parent, {"a", "x"}, all.state}, "x"));
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
