// The folder in which a share keeps its own snapshots, as its configuration names it.

#include "engine.h"

#include <gmock/gmock.h>
#include <memory>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char kText[] = "(debug) This is a snapshot, don't back up when src is volume.\n";

/// A volume "/mnt" with the share "docs". Inside an appliance it is the appliance's, elsewhere one that only this
/// process sees.
class ShareSnapshots : public EngineTest {
  protected:
    void SetUp() override {
        EngineTest::SetUp();
        REQUIRE_VOLUME(Volume::tmpfs);
        make_folder("/mnt");
        mount_ = std::make_unique<TmpfsMount>("/mnt");
        make_folder("/mnt/docs/snapshot");
    }
    static void configure(const std::string &content) { write_file("/mnt/._share/docs/snapdir.conf", content); }

    std::unique_ptr<TmpfsMount> mount_;
};

struct SnapshotDirCase {
    const char *name;
    const char *configuration; ///< null: none
    const char *path;
    bool expected;
};

const SnapshotDirCase kSnapshotDirCases[] = {
    {"the folder itself", "/mnt/docs/snapshot\n", "/mnt/docs/snapshot", true},
    {"without a line end", "/mnt/docs/snapshot", "/mnt/docs/snapshot", true},
    {"trailing white space", "/mnt/docs/snapshot \t\r\n", "/mnt/docs/snapshot", true},
    {"text before the first slash", "path=/mnt/docs/snapshot\n", "/mnt/docs/snapshot", true},
    {"only the first line counts", "/mnt/docs/other\n/mnt/docs/snapshot\n", "/mnt/docs/snapshot", false},
    {"more lines follow", "/mnt/docs/snapshot\n/mnt/docs/other\n", "/mnt/docs/snapshot", true},
    {"deeper, and so configured", "/mnt/docs/snapshot/daily\n", "/mnt/docs/snapshot/daily", true},
    {"deeper than configured", "/mnt/docs/snapshot\n", "/mnt/docs/snapshot/daily", false},
    {"above what is configured", "/mnt/docs/snapshot/daily\n", "/mnt/docs/snapshot", false},
    {"configured longer", "/mnt/docs/snapshots\n", "/mnt/docs/snapshot", false},
    {"another name", "/mnt/docs/snapshots\n", "/mnt/docs/snapshots", false},
    {"hidden name", "/mnt/docs/.snapshot\n", "/mnt/docs/.snapshot", false},
    {"fourth component", "/mnt/docs/a/snapshot\n", "/mnt/docs/a/snapshot", false},
    {"second component", "/mnt/snapshot\n", "/mnt/snapshot", false},
    {"too short", "/mnt/docs\n", "/mnt/docs", false},
    {"empty path", "/mnt/docs/snapshot\n", "", false},
    {"the root", "/mnt/docs/snapshot\n", "/", false},
    {"slash at the end of the path", "/mnt/docs/snapshot\n", "/mnt/docs/snapshot/", false},
    {"doubled slash in both", "/mnt//docs/snapshot\n", "/mnt//docs/snapshot", true},
    {"doubled slash in the path", "/mnt/docs/snapshot\n", "/mnt//docs/snapshot", false},
    {"case counts", "/mnt/docs/Snapshot\n", "/mnt/docs/Snapshot", false},
    {"no slash in the configuration", "snapshot\n", "/mnt/docs/snapshot", false},
    {"empty configuration", "", "/mnt/docs/snapshot", false},
    {"empty first line", "\n/mnt/docs/snapshot\n", "/mnt/docs/snapshot", false},
    {"no configuration", nullptr, "/mnt/docs/snapshot", false},
    {"another share", "/mnt/docs/snapshot\n", "/mnt/other/snapshot", false},
    {"relative path", "mnt/docs/snapshot\n", "mnt/docs/snapshot", false},
};

TEST_F(ShareSnapshots, FolderIsTheOneThatTheConfigurationNames) {
    for (const SnapshotDirCase &c : kSnapshotDirCases) {
        remove_tree("/mnt/._share");
        if (c.configuration != nullptr) configure(c.configuration);
        const Diagnostics diagnostics;
        EXPECT_EQ(is_share_snapshot_dir(c.path), c.expected) << c.name;
        EXPECT_EQ(diagnostics.without_places(), c.expected ? kText : "") << c.name;
    }
}

TEST_F(ShareSnapshots, LongPathsAreNoSnapshotFolder) {
    configure("/mnt/docs/snapshot\n");
    EXPECT_FALSE(is_share_snapshot_dir(("/mnt/docs/snapshot/" + std::string(10'000, 'x')).c_str()));
    EXPECT_FALSE(is_share_snapshot_dir(("/" + std::string(5'000, 'x') + "/docs/snapshot").c_str()));
    EXPECT_FALSE(is_share_snapshot_dir(std::string(9'000, '/').c_str()));
}

TEST_F(ShareSnapshots, AreLeftOutOfTheCopyOfAVolume) {
    configure("/mnt/docs/snapshot\n");
    write_file("/mnt/docs/file", "x");
    write_file("/mnt/docs/snapshot/daily/file", "x");
    write_file("/mnt/docs/sub/snapshot/file", "x");
    write_file("/mnt/media/snapshot/file", "x");
    const std::string root = scratch();
    TestRun run;
    const Diagnostics diagnostics;
    copy_tree(run, "/mnt", root + "/dst");
    EXPECT_THAT(tree(root + "/dst/docs"), ElementsAre("file", "sub/", "sub/snapshot/", "sub/snapshot/file"));
    EXPECT_TRUE(file_exists(root + "/dst/media/snapshot/file"));
    EXPECT_EQ(run.failures(), "");
    EXPECT_THAT(diagnostics.without_places(),
                HasSubstr("(debug) do_copy_dir(\"/mnt/docs/snapshot\", \"" + root + "/dst/docs/snapshot\")\n" + kText));
}

TEST_F(ShareSnapshots, AreLeftOutAsTheRootOfACopyToo) {
    configure("/mnt/docs/snapshot\n");
    const std::string root = scratch();
    TestRun run;
    EXPECT_EQ(do_copy_dir("/mnt/docs/snapshot", (root + "/dst").c_str(), run), 0);
    EXPECT_FALSE(file_exists(root + "/dst"));
}

} // namespace
} // namespace tsbackup::test
