// Jobs with an export of a real NFS server at one end, through the kernel's client.

#include "file_servers.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string kPictures = "/data/Pictures";
const std::string kBackup = "/vault/Backup";
/// What the server exports.
const std::string kExported = "/media/USB/exported";

Settings remote_end(const std::string &side, const std::string &path) {
    return {{side + "_type", "remote"}, {side + "_share_proto", "nfs"}, {side + "_path", path}};
}

Settings common(const char *full) {
    return {{"name", "Net"}, {"opt_full_backup_freq", full}, {"opt_max_log_lines", "1000"}};
}

/// A job from "Pictures" to an export, and one from an export to "Backup".
Settings upload(const std::string &path = "127.0.0.1:" + kExported, const char *full = "NEVER") {
    return common(full) + source_share("data", "Pictures") + remote_end("dst", path);
}
Settings download(const std::string &path = "127.0.0.1:" + kExported, const char *full = "NEVER") {
    return common(full) + remote_end("src", path) + destination_share("vault", "Backup");
}

class Nfs : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_GUEST();
        start_over();
    }
    void TearDown() override {
        if (!in_guest()) return;
        EXPECT_THAT(job_mounts(), IsEmpty());
    }
    static void start_over() {
        start_in_guest();
        make_folder(kExported);
    }
};

Outcome run(const Settings &settings) { return run_job(settings, {}, 6); }

void expect_success(const Outcome &outcome) {
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(state_of(kJob), "COMPLETED") << outcome.err;
    EXPECT_EQ(error_log(), "");
}

} // namespace

// ---- what arrives ----------------------------------------------------------------------------------------------

TEST_F(Nfs, EachVersionMovesWholeTreesInBothDirections) {
    for (const char *without : {"-N 4", "-N 3"}) {
        SCOPED_TRACE(std::string("a server with ") + without);
        start_over();
        const NfsServer server({{kExported}}, without);
        make_tree(kPictures, {.folders = 5, .files = 20});
        // Version 3 carries access lists, version 4 has others.
        const CompareOptions lists = {.access_lists = std::string(without) == "-N 4"};

        expect_success(run(upload()));
        EXPECT_TRUE(same_trees(kPictures, kExported, lists));
        EXPECT_THAT(copied_files(), Not(IsEmpty()));
        expect_success(run(upload()));
        EXPECT_THAT(copied_files(), IsEmpty());

        expect_success(run(download()));
        EXPECT_TRUE(same_trees(kPictures, kBackup, lists));
    }
}

TEST_F(Nfs, NamesSurviveTheWayThereAndBack) {
    const NfsServer server({{kExported}});
    std::string bytes; // every byte that a name may hold, in names of their own length
    for (int byte = 1; byte < 256; ++byte) {
        if (byte == '/') continue;
        bytes += static_cast<char>(byte);
        if (bytes.size() == 85) {
            write_dated(kPictures + "/n" + bytes, bytes, {1'600'000'000, 0});
            bytes.clear();
        }
    }
    for (const char *name : {" ", "-rf", ".hidden", "a\\b", "line\nend", "Straße", "straße", "STRAßE", "..."})
        write_dated(kPictures + "/d" + name + "/" + name, name, {1'600'000'000, 0});
    write_dated(kPictures + "/" + std::string(255, 'n'), "long", {1'600'000'000, 0});
    expect_success(run(upload()));
    expect_success(run(download()));
    EXPECT_TRUE(same_trees(kPictures, kExported));
    EXPECT_TRUE(same_trees(kPictures, kBackup));
}

// What is exported is a folder above; the job's own is found below it, however the names on the way are written.
TEST_F(Nfs, AFolderBelowAnExportIsReached) {
    const std::string exported = "/media/USB/it's \"my\" $data";
    make_folder(exported + "/a b/c");
    write_file(exported + "/a b/c/file", "content");
    const NfsServer server({{exported}});
    expect_success(run(download("127.0.0.1:" + exported + "/a b/c")));
    EXPECT_THAT(list_folder(kBackup), ElementsAre("file"));

    write_file(kPictures + "/new", "new");
    expect_success(run(upload("127.0.0.1:" + exported + "/a b/c/made")));
    EXPECT_EQ(read_file(exported + "/a b/c/made/new"), "new");
    EXPECT_FALSE(file_exists("/job_007"));
}

TEST_F(Nfs, ADestinationIsEmptiedOnRequestAndASourceNever) {
    const NfsServer server({{kExported}});
    write_file(kExported + "/backup/old/file", "old");
    write_file(kExported + "/kept", "kept");
    write_file(kPictures + "/new", "new");
    const Settings remove = {{"opt_remove_previous_backup", "1"}};
    const std::string below = "127.0.0.1:" + kExported + "/backup";
    expect_success(run(upload(below) + remove));
    EXPECT_THAT(list_folder(kExported + "/backup"), ElementsAre("new", "old"));
    expect_success(run(upload(below, "EVERY_TIME") + remove));
    EXPECT_THAT(list_folder(kExported + "/backup"), ElementsAre("new"));
    expect_success(run(download("127.0.0.1:" + kExported, "EVERY_TIME") + remove));
    EXPECT_THAT(list_folder(kExported), ElementsAre("backup", "kept"));
    EXPECT_THAT(list_folder(kBackup), ElementsAre("backup", "kept"));
}

// A server that keeps whole seconds makes files with others look changed: such servers are not taken into account.
TEST_F(Nfs, OnAServerWithWholeSecondsOnlyTheseAreRecognised) {
    const Disk disk({"ext3", "mkfs.ext3 -q -I 128", "", "ext3", 48}, "/media/COARSE");
    make_folder(disk / "exported");
    const NfsServer server({{disk / "exported"}});
    write_dated(kPictures + "/second", "1", {1'600'000'001, 0});
    write_dated(kPictures + "/half", "2", {1'600'000'000, 500'000'000});
    expect_success(run(upload("127.0.0.1:" + (disk / "exported"))));
    expect_success(run(upload("127.0.0.1:" + (disk / "exported"))));
    EXPECT_THAT(copied_files(), ElementsAre("half"));
}

// ---- what cannot be mounted ------------------------------------------------------------------------------------

TEST_F(Nfs, WhatIsNotExportedEndsTheJob) {
    const NfsServer server({});
    for (const bool is_source : {true, false}) {
        SCOPED_TRACE(is_source ? "source" : "destination");
        const std::string path = "127.0.0.1:" + kExported;
        run(is_source ? download(path) : upload(path));
        EXPECT_EQ(state_of(kJob), "FAILED");
        EXPECT_EQ(last_result(kJob), is_source ? 1 : 2);
        EXPECT_EQ(error_log(), "Failed to mount nfs path " + path + "!\n");
        EXPECT_THAT(list_folder("/job_007"), IsEmpty());
    }
}

// ---- what is not what the job takes it for -----------------------------------------------------------------------

TEST_F(Nfs, AMissingSourceFolderIsReported) {
    const NfsServer server({{kExported}});
    write_file(kExported + "/file", "content");
    run(download("127.0.0.1:" + kExported + "/missing"));
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_EQ(error_log(), "Failed to get status of file '' (error: No such file or directory)!\n");
    EXPECT_THAT(list_folder(kBackup), IsEmpty());
}

TEST_F(Nfs, AFileIsNeitherSourceNorDestination) {
    const NfsServer server({{kExported}});
    write_file(kExported + "/file", "content");
    write_file(kPictures + "/new", "new");
    run(download("127.0.0.1:" + kExported + "/file"));
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 13);
    EXPECT_EQ(error_log(), "Cannot create file '" + kBackup + "' (error: Is a directory)!\n");

    run(upload("127.0.0.1:" + kExported + "/file"));
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 13);
    EXPECT_EQ(error_log(), "Cannot create file '/job_007/file/new' (error: Not a directory)!\n");
    EXPECT_EQ(read_file(kExported + "/file"), "content");
}

TEST_F(Nfs, AReadOnlyExportTakesNothing) {
    const NfsServer server({{kExported, "ro,no_root_squash"}});
    write_file(kPictures + "/a", "content");
    write_file(kPictures + "/b", "content");
    run(upload());
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 13);
    EXPECT_EQ(error_log(), "Cannot create file '/job_007/a' (error: Read-only file system)!\n");
    EXPECT_THAT(list_folder(kExported), IsEmpty());
}

// The server makes everything its own user's: owners cannot be kept, and that is no failure.
TEST_F(Nfs, AnExportThatDistrustsRootKeepsNoOwners) {
    ASSERT_EQ(chmod(kExported.c_str(), 0777), 0);
    const NfsServer server({{kExported, "rw,root_squash"}});
    write_dated(kPictures + "/folder/file", "content", {1'600'000'000, 123'456'789});
    ASSERT_EQ(chown((kPictures + "/folder/file").c_str(), 1001, 1001), 0);
    expect_success(run(upload()));
    EXPECT_TRUE(same_trees(kPictures, kExported, {.owners = false, .modes = false, .access_lists = false}));
    expect_success(run(upload()));
    EXPECT_THAT(copied_files(), IsEmpty());
}

// ---- full, gone, cancelled ---------------------------------------------------------------------------------------

TEST_F(Nfs, AFullServerFailsTheFileThatDoesNotFit) {
    const std::string exported = "/media/STICK/exported";
    make_folder(exported);
    const NfsServer server({{exported}});
    write_filler("/media/STICK/filler", 20 << 20);
    write_file(kPictures + "/a", "first");
    write_filler(kPictures + "/b/big", 12 << 20);
    write_file(kPictures + "/c", "third");
    run(upload("127.0.0.1:" + exported));
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 8);
    EXPECT_EQ(error_log(), "Cannot write file 'b/big' (error: No space left on device)!\n"
                           "Failed to copy file 'b/big' (error: No space left on device)!\n");
    EXPECT_THAT(copied_files(), ElementsAre("a"));

    remove_tree("/media/STICK/filler");
    expect_success(run(upload("127.0.0.1:" + exported)));
    EXPECT_THAT(copied_files(), ElementsAre("b/big", "c"));
    EXPECT_TRUE(same_trees(kPictures, exported));
}

// Other than a full disk, an exceeded quota ends the file alone. Whether the next one fits depends on when the server
// gives the space of the cut file back.
TEST_F(Nfs, AnExceededQuotaFailsEachFileByItself) {
    const LimitedFolder exported("/vault/limited");
    const NfsServer server({{exported.path}});
    write_file(kPictures + "/a", "first");
    write_filler(kPictures + "/b/big", 2 * LimitedFolder::kBytes);
    write_file(kPictures + "/c", "third");
    run(upload("127.0.0.1:" + exported.path));
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 6);
    const std::string one = "Cannot write file 'b/big' (error: Disk quota exceeded)!\n"
                            "Failed to copy file 'b/big' (error: Disk quota exceeded)!\n";
    EXPECT_THAT(error_log(), AnyOf(one, one + "Cannot create file '/job_007/c' (error: Disk quota exceeded)!\n"));
    EXPECT_THAT(copied_files(), AllOf(Contains("a"), Not(Contains("b/big"))));

    exported.lift();
    expect_success(run(upload("127.0.0.1:" + exported.path)));
    EXPECT_THAT(copied_files(), Contains("b/big"));
    EXPECT_TRUE(same_trees(kPictures, exported.path));
}

// The client gives up after three minutes for each call of the program unless the system tells it to be less patient,
// as here; and each file that is left is tried. So there is none left here.
TEST_F(Nfs, AServerThatGoesAwayDuringACopyEndsTheJobWithAnError) {
    write_file("/etc/nfsmount.conf", "[ NFSMount_Global_Options ]\ntimeo=20\nretrans=1\n");
    for (const bool is_source : {true, false}) {
        SCOPED_TRACE(is_source ? "source" : "destination");
        start_over();
        NfsServer server({{kExported}});
        write_file((is_source ? kExported : kPictures) + "/large", std::string(96 << 20, 'x'));
        JobFile().job(kJob, is_source ? download() : upload()).write();
        Program job({"-v", "6", "-e", "7"});
        const std::string copy = (is_source ? kBackup : kExported) + "/large";
        struct stat status {};
        ASSERT_TRUE(wait_until([&] { return stat(copy.c_str(), &status) == 0 && status.st_size > 1'000'000; }, 60s));
        server.stop();
        job.wait(300s);
        EXPECT_EQ(state_of(kJob), "FAILED");
        EXPECT_THAT(error_log(), HasSubstr("Failed to copy file 'large' (error: "));
        EXPECT_THAT(job_mounts(), IsEmpty());
    }
    remove_tree("/etc/nfsmount.conf");
}

TEST_F(Nfs, ACancelDuringACopyLeavesNoMount) {
    for (const bool is_source : {true, false}) {
        SCOPED_TRACE(is_source ? "source" : "destination");
        start_over();
        set_service("ANTIVIRUS", is_source ? "1" : "0"); // with it, mounts are made where all see them
        const NfsServer server({{kExported}});
        const std::string &source = is_source ? kExported : kPictures;
        for (int number = 0; number < 2500; ++number)
            write_file(source + "/" + std::to_string(number), "small");
        JobFile().job(kJob, is_source ? download() : upload()).write();
        Program job({"-e", "7"});
        const std::string &copy = is_source ? kBackup : kExported;
        ASSERT_TRUE(wait_until([&] { return list_folder(copy).size() > 10; }, 60s));
        EXPECT_EQ(run_program({"-k", "7"}).status, 0);
        job.wait(60s);
        EXPECT_EQ(state_of(kJob), "CANCELLED");
        EXPECT_TRUE(wait_until([] { return job_mounts().empty(); }, 30s));
        EXPECT_FALSE(file_exists("/job_007"));
        EXPECT_LT(list_folder(copy).size(), 2500U);
    }
}

// With the antivirus service mounts are made where all see them, and a killed job leaves its own behind.
TEST_F(Nfs, AMountThatAKilledJobLeftIsTakenDownByTheNextRun) {
    set_service("ANTIVIRUS", "1");
    const std::string other = "/media/USB/other";
    make_folder(other);
    const NfsServer server({{kExported}, {other}});
    for (int number = 0; number < 2500; ++number)
        write_file(kExported + "/" + std::to_string(number), "small");
    write_file(other + "/b", "other");
    JobFile().job(kJob, download()).write();
    Program job({"-e", "7"});
    ASSERT_TRUE(wait_until([] { return list_folder(kBackup).size() > 10; }, 60s));
    job.signal(SIGKILL);
    job.wait(60s);
    EXPECT_THAT(job_mounts(), Not(IsEmpty()));

    expect_success(run(download("127.0.0.1:" + other)));
    EXPECT_EQ(read_file(kBackup + "/b"), "other");
    EXPECT_THAT(job_mounts(), IsEmpty());
    EXPECT_FALSE(file_exists("/job_007"));
}

TEST_F(Nfs, TwoJobsAtOnceKeepTheirExportsApart) {
    make_folder(kExported + "/one");
    make_folder(kExported + "/two");
    const NfsServer server({{kExported + "/one"}, {kExported + "/two"}});
    for (int number = 0; number < 10; ++number) {
        write_file(kExported + "/one/" + std::to_string(number), "one");
        write_file(kPictures + "/" + std::to_string(number), "two");
    }
    JobFile()
        .job(kJob, download("127.0.0.1:" + kExported + "/one"))
        .job(8, upload("127.0.0.1:" + kExported + "/two"))
        .write();
    Program first({"-e", "7"});
    Program second({"-e", "8"});
    first.wait();
    second.wait();
    EXPECT_EQ(state_of(kJob), "COMPLETED");
    EXPECT_EQ(state_of(8), "COMPLETED");
    EXPECT_TRUE(same_trees(kExported + "/one", kBackup));
    EXPECT_TRUE(same_trees(kPictures, kExported + "/two"));
}

} // namespace tsbackup::test
