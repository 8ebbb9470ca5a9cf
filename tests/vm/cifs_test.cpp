// Jobs with a share of a real SMB server at one end, through the kernel's client.

#include "file_servers.h"

#include <algorithm>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const std::string kPictures = "/data/Pictures";
const std::string kBackup = "/vault/Backup";
/// What the server serves.
const std::string kServed = "/media/USB/served";

struct Remote {
    std::string path = "//127.0.0.1/pub";
    std::string login = {};
    std::string password = {};
};

Settings remote_end(const std::string &side, const Remote &remote) {
    Settings settings = {{side + "_type", "remote"}, {side + "_share_proto", "cifs"}, {side + "_path", remote.path}};
    if (!remote.login.empty()) settings.emplace_back(side + "_login", remote.login);
    if (!remote.password.empty()) settings.emplace_back(side + "_password", remote.password);
    return settings;
}

Settings common(const char *full = "NEVER") {
    return {{"name", "Net"}, {"opt_full_backup_freq", full}, {"opt_max_log_lines", "1000"}};
}

/// A job from "Pictures" to a share, and one from a share to "Backup".
Settings upload(const Remote &remote = {}, const char *full = "NEVER") {
    return common(full) + source_share("data", "Pictures") + remote_end("dst", remote);
}
Settings download(const Remote &remote = {}, const char *full = "NEVER") {
    return common(full) + remote_end("src", remote) + destination_share("vault", "Backup");
}

/// The server's times are multiples of this.
constexpr long kServerStep = 100;
constexpr int kBehindLine = 4450;
const CompareOptions kNamesContentsTimes = {.owners = false, .modes = false, .access_lists = false};
const CompareOptions kNamesContents = {.owners = false, .modes = false, .access_lists = false, .file_times = false};

class Cifs : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_GUEST();
        start_over();
    }
    static void start_over() {
        start_in_guest();
        make_folder(kServed);
    }
    void TearDown() override {
        if (!in_guest()) return;
        EXPECT_THAT(job_mounts(), IsEmpty());
    }
};

/// Runs job 7 and tells what it says about its mounts.
Outcome run(const Settings &settings) { return run_job(settings, patient_options(), 6); }

/// The files that the run copied. The one that tells whether the share keeps owners is none of the job's.
std::vector<std::string> job_files() {
    std::vector<std::string> names = copied_files();
    std::erase_if(names, [](const std::string &name) { return name.starts_with("job_007/__foo__."); });
    return names;
}

void expect_success(const Outcome &outcome) {
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(state_of(kJob), "COMPLETED") << outcome.err;
    EXPECT_EQ(error_log(), "");
}

} // namespace

// ---- what arrives ----------------------------------------------------------------------------------------------

TEST_F(Cifs, EachDialectMovesWholeTreesInBothDirections) {
    struct Dialect {
        const char *server;
        const char *client;
    };
    for (const Dialect &dialect : {Dialect{"SMB3", "3.0"}, {"SMB2_10", "2.1"}, {"SMB2_02", "2.0"}, {"NT1", "1.0"}}) {
        SCOPED_TRACE(dialect.client);
        start_over();
        const SambaServer server({guest_share("pub", kServed)},
                                 {std::string("server max protocol = ") + dialect.server});
        make_tree(kPictures, {.folders = 5, .files = 20, .awkward_names = false});
        cut_times(kPictures, kServerStep);

        const Outcome outcome = run(upload());
        expect_success(outcome);
        EXPECT_THAT(outcome.err, HasSubstr(std::string("mount_cifs_version = ") + dialect.client + "\n"));
        EXPECT_TRUE(same_trees(kPictures, kServed, kNamesContentsTimes));
        EXPECT_THAT(job_files(), Not(IsEmpty()));
        expect_success(run(upload()));
        EXPECT_THAT(job_files(), IsEmpty());

        expect_success(run(download()));
        EXPECT_TRUE(same_trees(kPictures, kBackup, kNamesContentsTimes));
    }
}

// Blanks, umlauts and dots at the end; what Windows does not allow in a name travels as other letters and comes back.
TEST_F(Cifs, NamesSurviveTheWayThereAndBack) {
    const SambaServer server({guest_share("pub", kServed)});
    std::vector<std::string> names = {
        " leading",
        "-rf",
        ".hidden",
        "a\"b",
        "a*b",
        "a:b",
        "a<b",
        "a>b",
        "a?b",
        "a|b",
        "blank at the end ",
        "dot at the end.",
        "100% (1) [x] {y} 'z' & $HOME `id` ~ # ; !,=+^@",
        "Straße äöü",
        "日本語",
        "\xF0\x9F\x93\xB7",
        std::string(250, 'n'),
        "tab\there",
        "line\nend",
    };
    for (const std::string &name : names) {
        write_dated(kPictures + "/" + name, name, {1'600'000'000, 0});
        write_dated(kPictures + "/" + name + "d/inside", name, {1'600'000'000, 0});
    }
    expect_success(run(upload()));
    expect_success(run(upload()));
    EXPECT_THAT(job_files(), IsEmpty());
    expect_success(run(download()));
    EXPECT_TRUE(same_trees(kPictures, kBackup, kNamesContentsTimes));
}

TEST_F(Cifs, AShareIsFoundHoweverItIsWritten) {
    make_folder(kServed + "/in a/b");
    write_dated(kServed + "/in a/b/file", "content", {1'600'000'000, 0});
    const SambaServer server(
        {guest_share("pub", kServed), guest_share("two words", kServed), alice_share("it's & $mine", kServed)});
    const Remote remotes[] = {
        {"//127.0.0.1/two words/in a/b"},
        {"\\\\127.0.0.1\\pub\\in a\\b"},
        {"//127.0.0.1//pub//in a/b/"},
        {"//127.0.0.1/it's & $mine/in a/b", "alice", SambaServer::kPassword},
        {"//127.0.0.1/it's & $mine/in a/b", "WORKGROUP\\alice", SambaServer::kPassword},
        {"//127.0.0.1/it's & $mine/in a/b", "WORKGROUP/alice", SambaServer::kPassword},
        {"//127.0.0.1/it's & $mine/in a/b", "alice@WORKGROUP", SambaServer::kPassword},
    };
    for (const Remote &remote : remotes) {
        SCOPED_TRACE(remote.path + " " + remote.login);
        remove_tree(kBackup + "/file");
        const Outcome outcome = run(download(remote));
        expect_success(outcome);
        EXPECT_EQ(read_file(kBackup + "/file"), "content");
        EXPECT_THAT(outcome.err, Not(HasSubstr(SambaServer::kPassword)));
    }
}

TEST_F(Cifs, ADestinationFolderIsMadeAndEmptiedOnRequest) {
    const SambaServer server({alice_share("pub", kServed)});
    write_file(kPictures + "/new", "new");
    write_file(kServed + "/kept", "beside the destination");
    const Remote remote = {"//127.0.0.1/pub/deep/er", "alice", SambaServer::kPassword};
    expect_success(run(upload(remote)));
    EXPECT_EQ(read_file(kServed + "/deep/er/new"), "new");

    write_file(kServed + "/deep/er/old/file", "old");
    expect_success(run(upload(remote, "EVERY_TIME")));
    EXPECT_TRUE(file_exists(kServed + "/deep/er/old/file"));
    expect_success(run(upload(remote, "EVERY_TIME") + Settings{{"opt_remove_previous_backup", "1"}}));
    EXPECT_THAT(list_folder(kServed + "/deep/er"), ElementsAre("new"));
    EXPECT_TRUE(file_exists(kServed + "/kept"));
}

// The server refuses to write to a file whose mode says that nobody may, and that is what its copy was given.
TEST_F(Cifs, AFileThatNobodyMayWriteToIsRenewed) {
    const SambaServer server({guest_share("pub", kServed)});
    const std::string file = kPictures + "/read-only";
    const auto expect_renewed = [&](const char *content, time_t seconds, const char *full) {
        write_dated(file, content, {seconds, 0});
        ASSERT_EQ(chmod(file.c_str(), 0444), 0);
        expect_success(run(upload({}, full)));
        EXPECT_EQ(read_file(kServed + "/read-only"), content);
        EXPECT_EQ(modification_time(kServed + "/read-only").tv_sec, seconds);
    };
    expect_renewed("first", 1'600'000'000, "NEVER");
    expect_renewed("other", 1'600'000'002, "NEVER");
    expect_renewed("other", 1'600'000'002, "EVERY_TIME");
    expect_success(run(upload()));
    EXPECT_THAT(job_files(), IsEmpty());
}

// The same share as a mounted folder and as an archive; the archive bit is the owner's right to execute.
TEST_F(Cifs, AnArchiveOfAShareHoldsWhatItsMountShows) {
    SambaShare share = guest_share("pub", kServed);
    share.second.insert(share.second.end(), {"map archive = yes", "store dos attributes = no"});
    const SambaServer server({share});
    for (const char *name : {"a", "b c/d", "b c/Straße"})
        write_file(kServed + "/" + name, name, 0744);
    expect_success(run(download()));
    EXPECT_TRUE(same_trees(kServed, kBackup, kNamesContents));

    const auto archive = [](const char *full) {
        return common(full) +
               Settings{{"src_type", "remote"}, {"src_share_proto", "cifs-ab"}, {"src_path", "//127.0.0.1/pub"}} +
               destination_share("vault", "Archive");
    };
    const std::string copy = "/vault/Archive";
    expect_success(run(archive("EVERY_TIME")));
    EXPECT_TRUE(same_trees(kServed, copy, kNamesContents));

    write_file(kServed + "/b c/d", "changed", 0744);
    write_file(copy + "/a", "not fetched again");
    expect_success(run(archive("NEVER")));
    EXPECT_EQ(read_file(copy + "/b c/d"), "changed");
    EXPECT_EQ(read_file(copy + "/a"), "not fetched again");
}

// ---- times -----------------------------------------------------------------------------------------------------

// A server that keeps whole seconds cuts or rounds the times: a copy that is older by less than a second, or newer by
// less than two, counts as the same. One that keeps every other second makes odd ones older by a whole second.
TEST_F(Cifs, ATreeOnAServerWithCoarseTimesIsNotCopiedAgain) {
    struct Served {
        DiskFormat format;
        std::vector<std::string> again;
    };
    const DiskFormat whole_seconds = {"ext3", "mkfs.ext3 -q -I 128", "", "ext3", 48};
    for (const Served &served : {Served{whole_seconds, {}}, Served{kFat, {"odd"}}}) {
        SCOPED_TRACE(served.format.name);
        start_over();
        const Disk disk(served.format, "/media/COARSE");
        make_folder(disk / "served");
        write_dated(kPictures + "/even", "1", {1'600'000'000, 0});
        write_dated(kPictures + "/even and a half", "2", {1'600'000'000, 500'000'000});
        write_dated(kPictures + "/even, almost odd", "3", {1'600'000'000, 999'900'000});
        write_dated(kPictures + "/odd", "4", {1'600'000'001, 0});
        write_dated(kPictures + "/odd, almost even", "5", {1'600'000'001, 999'900'000});
        const SambaServer server({guest_share("pub", disk / "served")});
        expect_success(run(upload()));
        EXPECT_EQ(job_files().size(), 5U);
        expect_success(run(upload()));
        EXPECT_EQ(job_files(), served.again);
    }
}

// ---- what cannot be mounted ------------------------------------------------------------------------------------

TEST_F(Cifs, AShareThatCannotBeMountedEndsTheJob) {
    const std::string wrong = "wrong, but secret";
    const Remote refused[] = {
        {"//127.0.0.1/private", "alice", wrong},
        {"//127.0.0.1/private", "nobody at all", wrong},
        {"//127.0.0.1/nowhere", "alice", SambaServer::kPassword},
    };
    const SambaServer server({alice_share("private", kServed)});
    for (const Remote &remote : refused) {
        for (const bool is_source : {true, false}) {
            SCOPED_TRACE(remote.path + " as " + remote.login);
            const Outcome outcome = run(is_source ? download(remote) : upload(remote));
            EXPECT_EQ(state_of(kJob), "FAILED");
            EXPECT_EQ(last_result(kJob), is_source ? 1 : 2);
            EXPECT_EQ(error_log(), "Failed to mount remote path " + remote.path + "!\n");
            EXPECT_THAT(outcome.err, Not(HasSubstr(wrong)));
            EXPECT_FALSE(file_exists("/job_007"));
        }
    }
}

TEST_F(Cifs, AServerThatIsNotThereEndsTheJob) {
    run(download());
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 1);
    EXPECT_EQ(error_log(), "Failed to mount remote path //127.0.0.1/pub!\n");
    EXPECT_FALSE(file_exists("/job_007"));
}

// ---- what is not what the job takes it for -----------------------------------------------------------------------

TEST_F(Cifs, AMissingSourceFolderIsNoFailureAndCopiesNothing) {
    const SambaServer server({guest_share("pub", kServed)});
    write_file(kServed + "/file", "content");
    run(download({"//127.0.0.1/pub/missing"}));
    EXPECT_EQ(state_of(kJob), "COMPLETED");
    EXPECT_EQ(error_log(), "");
    EXPECT_THAT(list_folder(kBackup), IsEmpty());
    EXPECT_FALSE(file_exists("/job_007"));
}

TEST_F(Cifs, AFileIsNeitherSourceNorDestination) {
    const SambaServer server({guest_share("pub", kServed)});
    write_file(kServed + "/file", "content");
    run(download({"//127.0.0.1/pub/file"}));
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 13);
    EXPECT_EQ(error_log(), "Cannot create file '" + kBackup + "' (error: Is a directory)!\n");

    run(upload({"//127.0.0.1/pub/file"}));
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 4);
    EXPECT_EQ(error_log(), "Destination cifs///127.0.0.1/pub/file is a file. Cannot backup to a file!\n");
    EXPECT_EQ(read_file(kServed + "/file"), "content");

    run(upload({"//127.0.0.1/pub/file/below"}));
    EXPECT_EQ(last_result(kJob), 4);
    EXPECT_EQ(error_log(), "Failed to create destination directory /job_007/file/below!\n");
}

TEST_F(Cifs, AReadOnlyShareTakesNothing) {
    SambaShare share = guest_share("pub", kServed);
    share.second.emplace_back("read only = yes");
    const SambaServer server({share});
    write_file(kPictures + "/file", "content");
    run(upload({"//127.0.0.1/pub/new"}));
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 4);
    EXPECT_EQ(error_log(), "Failed to create destination directory /job_007/new!\n");

    run(upload());
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 13);
    EXPECT_THAT(error_log(), HasSubstr("Cannot create file '/job_007/file' (error: "));
    EXPECT_THAT(list_folder(kServed), IsEmpty());
}

// ---- full, gone, cancelled ---------------------------------------------------------------------------------------

// What the client has taken and the server has no room for comes to light when the file is closed.
TEST_F(Cifs, AFullServerFailsTheFileThatDoesNotFit) {
    const std::string served = "/media/STICK/served";
    make_folder(served);
    const SambaServer server({guest_share("pub", served)});
    write_filler("/media/STICK/filler", 20 << 20);
    write_file(kPictures + "/a", "first");
    write_filler(kPictures + "/b/big", 12 << 20);
    write_file(kPictures + "/c", "third");
    cut_times(kPictures, kServerStep);
    run(upload());
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 8) << error_log();
    EXPECT_EQ(error_log(), "Cannot write file 'b/big' (error: No space left on device)!\n"
                           "Failed to copy file 'b/big' (error: No space left on device)!\n");
    EXPECT_THAT(job_files(), ElementsAre("a"));

    remove_tree("/media/STICK/filler");
    expect_success(run(upload()));
    EXPECT_THAT(job_files(), ElementsAre("b/big", "c"));
    EXPECT_TRUE(same_trees(kPictures, served, kNamesContentsTimes));
}

// The server calls an exceeded quota a full disk.
TEST_F(Cifs, AnExceededQuotaCountsAsAFullServer) {
    const LimitedFolder served("/vault/limited");
    const SambaServer server({guest_share("pub", served.path)});
    write_file(kPictures + "/a", "first");
    write_filler(kPictures + "/b/big", 2 * LimitedFolder::kBytes);
    write_file(kPictures + "/c", "third");
    cut_times(kPictures, kServerStep);
    run(upload());
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 8) << error_log();
    EXPECT_EQ(error_log(), "Cannot write file 'b/big' (error: No space left on device)!\n"
                           "Failed to copy file 'b/big' (error: No space left on device)!\n");
    EXPECT_THAT(job_files(), ElementsAre("a"));

    served.lift();
    expect_success(run(upload()));
    EXPECT_THAT(job_files(), ElementsAre("b/big", "c"));
    EXPECT_TRUE(same_trees(kPictures, served.path, kNamesContentsTimes));
}

TEST_F(Cifs, AServerThatGoesAwayDuringACopyEndsTheJobWithAnError) {
    for (const bool is_source : {true, false}) {
        SCOPED_TRACE(is_source ? "source" : "destination");
        start_over();
        SambaServer server({guest_share("pub", kServed)}, {}, kBehindLine);
        write_file((is_source ? kServed : kPictures) + "/a", "first");
        write_filler((is_source ? kServed : kPictures) + "/b", 6 << 20);
        Line line(SambaServer::kPort, kBehindLine, 1 << 20);
        JobFile().job(kJob, is_source ? download() : upload()).write();
        Program job({"-v", "6", "-e", "7"}, patient_options());
        ASSERT_TRUE(wait_until([&line] { return line.passed() > (2 << 20); }, 60s));
        line.refuse();
        server.stop();
        job.wait(300s); // the client gives up after seconds or minutes, depending on what it was doing
        EXPECT_EQ(state_of(kJob), "FAILED");
        EXPECT_THAT(error_log(), HasSubstr("Failed to copy file 'b' (error: "));
        EXPECT_THAT(job_mounts(), IsEmpty());
    }
}

// A cancelled upload waits for a slow server to take what was written. A download is made of small files: some kernels
// do not survive that the last mount of a share goes while a large read is under way.
TEST_F(Cifs, ACancelDuringACopyLeavesNoMount) {
    for (const bool is_source : {true, false}) {
        SCOPED_TRACE(is_source ? "source" : "destination");
        start_over();
        set_service("ANTIVIRUS", is_source ? "1" : "0"); // with it, mounts are made where all see them
        const SambaServer server({guest_share("pub", kServed)}, {}, kBehindLine);
        const Line line(SambaServer::kPort, kBehindLine, 1 << 20);
        if (is_source) {
            for (int number = 0; number < 3000; ++number)
                write_file(kServed + "/" + std::to_string(number), "small");
        } else {
            write_filler(kPictures + "/large", 8 << 20);
        }
        JobFile().job(kJob, is_source ? download() : upload()).write();
        Program job({"-e", "7"}, patient_options());
        ASSERT_TRUE(
            wait_until([&] { return is_source ? list_folder(kBackup).size() > 10 : line.passed() > (2 << 20); }, 60s));
        EXPECT_EQ(run_program({"-k", "7"}).status, 0);
        job.wait(60s);
        EXPECT_EQ(state_of(kJob), "CANCELLED");
        EXPECT_TRUE(wait_until([] { return job_mounts().empty(); }, 30s));
        EXPECT_FALSE(file_exists("/job_007"));
    }
}

// With the antivirus service mounts are made where all see them, and a killed job leaves its own behind.
TEST_F(Cifs, AMountThatAKilledJobLeftIsTakenDownByTheNextRun) {
    set_service("ANTIVIRUS", "1");
    const SambaServer server({guest_share("pub", kServed), guest_share("other", "/media/USB/other")}, {}, kBehindLine);
    write_filler(kServed + "/a", 6 << 20);
    write_file("/media/USB/other/b", "other");
    {
        const Line line(SambaServer::kPort, kBehindLine, 1 << 20);
        JobFile().job(kJob, download()).write();
        Program job({"-e", "7"}, patient_options());
        ASSERT_TRUE(wait_until([&line] { return line.passed() > (2 << 20); }, 60s));
        job.signal(SIGKILL);
        job.wait(60s);
    }
    EXPECT_THAT(job_mounts(), Not(IsEmpty()));

    const Line line(SambaServer::kPort, kBehindLine);
    expect_success(run(download({"//127.0.0.1/other"})));
    EXPECT_EQ(read_file(kBackup + "/b"), "other");
    EXPECT_THAT(job_mounts(), IsEmpty());
    EXPECT_FALSE(file_exists("/job_007"));
}

// Kept: the share stays mounted when its folder cannot be used, until the job's next run.
TEST_F(Cifs, AnUnusableDestinationStaysMountedUntilTheNextRun) {
    set_service("ANTIVIRUS", "1");
    const SambaServer server({guest_share("pub", kServed)});
    write_file(kServed + "/file", "content");
    run(upload({"//127.0.0.1/pub/file"}));
    EXPECT_THAT(job_mounts(), Not(IsEmpty()));
    expect_success(run(upload()));
    EXPECT_THAT(job_mounts(), IsEmpty());
    EXPECT_FALSE(file_exists("/job_007"));
}

TEST_F(Cifs, TwoJobsAtOnceKeepTheirSharesApart) {
    const SambaServer server({guest_share("one", kServed + "/one"), guest_share("two", kServed + "/two")});
    make_folder(kServed + "/one");
    make_folder(kServed + "/two");
    for (int number = 0; number < 10; ++number) {
        write_file(kServed + "/one/" + std::to_string(number), "one");
        write_file(kPictures + "/" + std::to_string(number), "two");
    }
    JobFile().job(kJob, download({"//127.0.0.1/one"})).job(8, upload({"//127.0.0.1/two"})).write();
    Program first({"-e", "7"}, patient_options());
    Program second({"-e", "8"}, patient_options());
    first.wait();
    second.wait();
    EXPECT_EQ(state_of(kJob), "COMPLETED");
    EXPECT_EQ(state_of(8), "COMPLETED");
    EXPECT_TRUE(same_trees(kServed + "/one", kBackup, kNamesContents));
    EXPECT_TRUE(same_trees(kPictures, kServed + "/two", kNamesContents));
}

} // namespace tsbackup::test
