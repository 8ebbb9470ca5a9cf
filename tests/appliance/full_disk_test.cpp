// Disks that fill up, turn read-only or go away under a running job, sources that change under its hands, and folders
// of the system itself that are full or missing.

#include "aftermath.h"
#include "appliance_support.h"
#include "job_runs.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>

namespace tsbackup::test {

namespace {

namespace fs = std::filesystem;

constexpr int kJob = 7;
constexpr std::size_t kKibibyte = 1024;
constexpr std::size_t kMebibyte = 1024 * kKibibyte;
constexpr char kSource[] = "/data/Pictures";

/// A file with a time of its own, so that an interrupted copy of it cannot have the same.
void write_old_file(const std::string &path, std::size_t size, char letter) {
    write_file(path, std::string(size, letter));
    const timespec times[] = {{1'500'000'000, 1}, {1'500'000'000, 123'456'789}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

/// Takes the free space of a file system but for about so many bytes, without writing to it.
void fill(const std::string &folder, std::size_t left) {
    const int fd = open((folder + "/filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    off_t size = 0;
    for (off_t piece = 1 << 30; piece >= 4096;) {
        struct statvfs space {};
        ASSERT_EQ(fstatvfs(fd, &space), 0);
        const bool fits = space.f_bavail * space.f_frsize >= left + static_cast<std::size_t>(piece);
        if (fits && fallocate(fd, 0, size, piece) == 0)
            size += piece;
        else
            piece /= 2;
    }
    close(fd);
}

/// Makes a fresh btrfs set aside space for metadata, as one in use has it: a reservation that fails gives all free
/// space to data, and without metadata no file can be made any more.
void give_metadata_room(const std::string &volume) {
    constexpr int kSmallFiles = 6000; // each lies in the metadata
    for (int number = 0; number < kSmallFiles; ++number)
        write_file(volume + "/small/" + std::to_string(number), std::string(2000, 's'));
    sync();
    remove_tree(volume + "/small");
}

Settings job_to(const Settings &destination, const std::string &full = "NEVER") {
    return Settings{{"name", "Full"}, {"opt_full_backup_freq", full}} + source_share("data", "Pictures") + destination;
}

class FullDisk : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_VOLUMES();
        reset_appliance();
        make_folder("/media/STICK");
    }
    void TearDown() override {
        if (!volumes()) return;
        mount(nullptr, "/media/STICK", nullptr, MS_REMOUNT, nullptr);
        mount(nullptr, "/media/USB", nullptr, MS_REMOUNT, nullptr);
        reset_appliance();
    }
};

/// Whether the run before may have been stopped right behind the making of a folder: one that exists keeps the metadata
/// it has.
enum class Disturbed { no, yes };

/// The quiet run after a failed one: it succeeds and leaves an equal tree.
void expect_converges(const std::string &source, const std::string &destination, Disturbed disturbed = Disturbed::no) {
    const Outcome outcome = run_program({"-e", "7"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(state_of(kJob), "COMPLETED");
    EXPECT_EQ(read_file(error_log_path(kJob)), "");
    std::vector<std::string> differences = tree_differences(source, destination);
    if (disturbed == Disturbed::yes && !differences.empty()) {
        const std::string name = differences.front().substr(0, differences.front().find(": "));
        if (fs::is_directory(destination + "/" + name))
            std::erase_if(differences, [&name](const std::string &line) { return line.starts_with(name + ": "); });
    }
    EXPECT_EQ(differences, std::vector<std::string>{});
}

/// Files before, in and behind the deepest folder; "big" is the one that finds no room.
void make_nested_source(std::size_t big) {
    write_old_file("/data/Pictures/a", 5000, 'a');
    write_old_file("/data/Pictures/b/c/big", big, 'b');
    write_old_file("/data/Pictures/b/c/next", 1, 'n');
    write_old_file("/data/Pictures/b/z", 1, 'z');
    make_folder("/data/Pictures/c");
    write_old_file("/data/Pictures/z", 1, 'z');
}

/// The three folders above "big" give up one after the other, innermost first.
std::string bailing_lines(const std::string &reason) {
    std::string lines;
    for (const char *folder : {"/b/c", "/b", ""})
        lines += "(error) Bailing backing up directory SNAPSHOT" + std::string(folder) + " (" + reason + ")\n";
    return lines;
}

} // namespace

TEST_F(FullDisk, AFileThatDoesNotFitStopsTheWholeTreeAndTheNextRunFinishesIt) {
    make_nested_source(8 * kMebibyte);
    JobFile().job(kJob, job_to(destination_usb("2", "copy"))).write();
    fill("/media/STICK", 4 * kMebibyte);

    const Outcome outcome = run_program({"-e", "7"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(same_text("(error) fallocate() failed. errno=28.\n"
                          "(error) Copying file '/media/STICK/copy/b/c/big' failed (No space left on device)\n" +
                              bailing_lines("No space left on device"),
                          plain_diagnostics(outcome.err)));
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 8);
    EXPECT_TRUE(same_text("Failed to allocate space for file 'b/c/big' (error: No space left on device)!\n"
                          "Failed to copy file 'b/c/big' (error: No space left on device)!\n",
                          read_file(error_log_path(kJob))));
    EXPECT_TRUE(same_text("Copy File  a\nCopy Folder  b\nCopy Folder  b/c\n", read_file(kept_copy_log_path(kJob))));
    EXPECT_EQ(list_folder("/media/STICK/copy"), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(list_folder("/media/STICK/copy/b/c"), std::vector<std::string>{"big"});
    EXPECT_EQ(read_file("/media/STICK/copy/b/c/big"), "");

    remove_tree("/media/STICK/filler");
    expect_converges(kSource, "/media/STICK/copy");
}

// Small files reserve nothing; the write itself finds that there is no room.
TEST_F(FullDisk, ASmallFileThatDoesNotFitReportsAsALargeOneDoes) {
    make_nested_source(60 * kKibibyte);
    JobFile().job(kJob, job_to(destination_usb("2", "copy"))).write();
    fill("/media/STICK", 32 * kKibibyte);

    const Outcome outcome = run_program({"-e", "7"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(count_of(outcome.err, "Bailing backing up directory "), 3U) << outcome.err;
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 8);
    EXPECT_TRUE(same_text("Failed to allocate space for file 'b/c/big' (error: No space left on device)!\n"
                          "Failed to copy file 'b/c/big' (error: No space left on device)!\n",
                          read_file(error_log_path(kJob))));
    EXPECT_FALSE(file_exists("/media/STICK/copy/z"));
    EXPECT_LT(fs::file_size("/media/STICK/copy/b/c/big"), 60 * kKibibyte);

    remove_tree("/media/STICK/filler");
    expect_converges(kSource, "/media/STICK/copy");
}

TEST_F(FullDisk, AFileLargerThanABtrfsVolumeStopsTheWholeTreeAndTheNextRunFinishesIt) {
    give_metadata_room("/vault");
    // Larger than the whole volume, and nothing but a hole.
    make_nested_source(0);
    const std::string big = std::string(kSource) + "/b/c/big";
    ASSERT_EQ(truncate(big.c_str(), off_t{5} << 30), 0);
    JobFile().job(kJob, job_to(destination_share("vault", "Backup", "copy"))).write();

    const Outcome outcome = run_program({"-e", "7"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(plain_diagnostics(outcome.err).find(bailing_lines("No space left on device")), std::string::npos)
        << outcome.err;
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 8);
    EXPECT_TRUE(same_text("Failed to allocate space for file 'b/c/big' (error: No space left on device)!\n"
                          "Failed to copy file 'b/c/big' (error: No space left on device)!\n",
                          read_file(error_log_path(kJob))));
    EXPECT_FALSE(file_exists("/vault/Backup/copy/z"));

    ASSERT_EQ(truncate(big.c_str(), off_t{20} * kMebibyte), 0);
    expect_converges(kSource, "/vault/Backup/copy");
}

TEST_F(FullDisk, ADiskWithoutInodesShowsAReadOnlyDestination) {
    make_nested_source(1);
    JobFile().job(kJob, job_to(destination_usb("2", "copy"))).write();
    make_folder("/media/STICK/copy/b/c");
    make_folder("/media/STICK/many");
    for (int number = 0;; ++number) {
        const int fd =
            open(("/media/STICK/many/" + std::to_string(number)).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (fd < 0) break;
        close(fd);
    }

    const Outcome outcome = run_program({"-e", "7"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(same_text("(error) Cannot create file /media/STICK/copy/a (28)\n"
                          "(error) Bailing backing up directory SNAPSHOT (No space left on device)\n",
                          plain_diagnostics(outcome.err)));
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 13);
    EXPECT_EQ(read_file(error_log_path(kJob)),
              "Cannot create file '/media/STICK/copy/a' (error: No space left on device)!\n");

    remove_tree("/media/STICK/many");
    expect_converges(kSource, "/media/STICK/copy");
}

TEST_F(FullDisk, AReadOnlyDestinationIsReportedForWhatCouldNotBeMade) {
    struct Case {
        const char *name;
        const char *first; ///< the first entry of the source
        bool folder;
        const char *destination;
        int result;
        const char *error_log;
        const char *diagnostics;
    };
    const Case cases[] = {
        {"a file", "a", false, "copy", 13, "Cannot create file '/media/STICK/copy/a' (error: Read-only file system)!\n",
         "(error) Cannot create file /media/STICK/copy/a (30)\n"
         "(error) Bailing backing up directory SNAPSHOT (Read-only file system)\n"},
        {"a folder", "a", true, "copy", 6, "Cannot create directory a!\n",
         "(error) Cannot mkdir(/media/STICK/copy/a) ==> 30.\n"
         "(error) Bailing backing up directory SNAPSHOT (Read-only file system)\n"},
        {"the root", "a", false, "new", 4, "Cannot create directory /media/STICK/new!\n", ""},
    };
    for (const Case &a_case : cases) {
        SCOPED_TRACE(a_case.name);
        reset_appliance();
        if (a_case.folder)
            write_old_file("/data/Pictures/a/below", 1, 'a');
        else
            write_old_file("/data/Pictures/a", 1, 'a');
        write_old_file("/data/Pictures/z", 1, 'z');
        make_folder("/media/STICK/copy");
        JobFile().job(kJob, job_to(destination_usb("2", a_case.destination))).write();
        ASSERT_EQ(mount(nullptr, "/media/STICK", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);

        const Outcome outcome = run_program({"-e", "7"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_TRUE(same_text(a_case.diagnostics, plain_diagnostics(outcome.err)));
        EXPECT_EQ(state_of(kJob), "FAILED");
        EXPECT_EQ(last_result(kJob), a_case.result);
        EXPECT_EQ(read_file(error_log_path(kJob)), a_case.error_log);

        ASSERT_EQ(mount(nullptr, "/media/STICK", nullptr, MS_REMOUNT, nullptr), 0);
        expect_converges(kSource, std::string("/media/STICK/") + a_case.destination);
    }
}

TEST_F(FullDisk, AFileBeyondTheDestinationsLargestIsTooBigAndTheOthersAreCopied) {
    write_old_file("/data/Pictures/a", 1, 'a');
    write_old_file("/data/Pictures/huge", 0, 'h');
    ASSERT_EQ(truncate("/data/Pictures/huge", off_t{1} << 45), 0);
    write_old_file("/data/Pictures/z", 1, 'z');
    JobFile().job(kJob, job_to(destination_usb("1", "copy"))).write();

    const Outcome outcome = run_program({"-e", "7"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_EQ(read_file(error_log_path(kJob)), "Failed to allocate space for file 'huge' (error: File too large)!\n"
                                               "Failed to copy file 'huge' (error: File too large)!\n");
    EXPECT_EQ(read_file(kept_copy_log_path(kJob)), "Copy File  a\nCopy File  z\n");
    ASSERT_EQ(unlink("/data/Pictures/huge"), 0);
    ASSERT_EQ(unlink("/media/USB/copy/huge"), 0);
    expect_converges(kSource, "/media/USB/copy");
}

// A limit that the worker inherits must fail one file, not end the worker by a signal.
TEST_F(FullDisk, ALimitOfTheFileSizeFailsTheFilesAboveItAlone) {
    write_old_file("/data/Pictures/a", 1, 'a');
    write_old_file("/data/Pictures/large", 2 * kMebibyte, 'l');
    write_old_file("/data/Pictures/z", 1, 'z');
    JobFile().job(kJob, job_to(destination_usb("1", "copy"))).write();
    ProgramOptions limited;
    limited.program = "prlimit";
    const Outcome outcome = Program({"--fsize=1048576", "/opt/tsbackup/sbin/tsbackup", "-e", "7"}, limited).wait();

    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_EQ(read_file(error_log_path(kJob)), "Failed to allocate space for file 'large' (error: File too large)!\n"
                                               "Failed to copy file 'large' (error: File too large)!\n");
    EXPECT_EQ(read_file(kept_copy_log_path(kJob)), "Copy File  a\nCopy File  z\n");
    expect_converges(kSource, "/media/USB/copy");
}

// A quota is no full disk: smaller files may still have room.
TEST_F(FullDisk, AQuotaFailsTheFilesAboveItAlone) {
    write_old_file("/data/Pictures/a", 5000, 'a');
    write_old_file("/data/Pictures/large", 20 * kMebibyte, 'l');
    write_old_file("/data/Pictures/z", 5000, 'z');
    JobFile().job(kJob, job_to(destination_share("vault", "Backup", "copy"))).write();
    ASSERT_EQ(run_command({"btrfs", "quota", "enable", "/vault"}), 0);
    ASSERT_EQ(run_command({"btrfs", "qgroup", "limit", "8M", "/vault/Backup"}), 0);
    const Outcome outcome = run_program({"-e", "7"});
    EXPECT_EQ(run_command({"btrfs", "quota", "disable", "/vault"}), 0);

    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(count_of(outcome.err, "Bailing "), 0U) << outcome.err;
    EXPECT_EQ(state_of(kJob), "FAILED");
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_EQ(read_file(error_log_path(kJob)),
              "Failed to allocate space for file 'large' (error: Disk quota exceeded)!\n"
              "Failed to copy file 'large' (error: Disk quota exceeded)!\n");
    EXPECT_EQ(read_file(kept_copy_log_path(kJob)), "Copy File  a\nCopy File  z\n");
    expect_converges(kSource, "/vault/Backup/copy");
}

// --- a destination that goes away ------------------------------------------------------------------------------------

namespace {

TreeOptions many_files() {
    TreeOptions options;
    options.seed = 99;
    options.folders = 40;
    options.files = 1500;
    options.largest_file = 32 * kKibibyte;
    return options;
}

/// Starts the job and waits until it has copied something.
bool wait_for_copies(const std::string &destination) {
    return wait_until([&] {
        std::error_code error;
        std::size_t count = 0;
        for (fs::recursive_directory_iterator at(destination, error), end; !error && at != end; at.increment(error))
            ++count;
        return count > 20;
    });
}

} // namespace

TEST_F(FullDisk, ADestinationThatTurnsReadOnlyInMidRunFailsTheJob) {
    make_tree(kSource, many_files());
    JobFile().job(kJob, job_to(destination_usb("1", "copy"))).write();
    bool turned = false;
    // The disk can turn read-only only at a moment at which no file on it is open for writing, and a run may be over
    // before that.
    for (int attempt = 0; attempt < 20 && !turned; ++attempt) {
        remove_tree("/media/USB/copy");
        Program worker({"-e", "7"});
        ASSERT_TRUE(wait_for_copies("/media/USB/copy"));
        while (worker.running() && !turned)
            turned = mount(nullptr, "/media/USB", nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
        const Outcome outcome = worker.wait();
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        if (!turned) continue;
        if (state_of(kJob) == "COMPLETED") {
            turned = false; // by its end the copying was done
            ASSERT_EQ(mount(nullptr, "/media/USB", nullptr, MS_REMOUNT, nullptr), 0);
            continue;
        }
        EXPECT_EQ(state_of(kJob), "FAILED");
        EXPECT_EQ(malformed_error_lines(kJob), std::vector<std::string>{});
        EXPECT_EQ(count_of(outcome.err, "(Read-only file system)\n"), count_of(outcome.err, "Bailing ")) << outcome.err;
        EXPECT_GE(count_of(outcome.err, "Bailing "), 1U);
        // One entry hits it, and nothing is tried after it.
        EXPECT_EQ(count_of(read_file(error_log_path(kJob)), "\n"), 1U) << read_file(error_log_path(kJob));
    }
    EXPECT_TRUE(turned);
    ASSERT_EQ(mount(nullptr, "/media/USB", nullptr, MS_REMOUNT, nullptr), 0);
    expect_converges(kSource, "/media/USB/copy", Disturbed::yes);
}

// With the antivirus service the worker shares its mounts with the system, which may take the disk away.
TEST_F(FullDisk, ADestinationThatIsDetachedInMidRunStillGetsEveryFile) {
    make_tree(kSource, many_files());
    set_service("ANTIVIRUS", "1");
    JobFile().job(kJob, job_to(destination_usb("1", "copy"))).write();
    ASSERT_EQ(mount("/media/USB", "/mnt", nullptr, MS_BIND, nullptr), 0);
    Program worker({"-e", "7"});
    EXPECT_TRUE(wait_for_copies("/mnt/copy"));
    const bool detached = umount2("/media/USB", MNT_DETACH) == 0;
    const Outcome outcome = worker.wait();
    const std::vector<std::string> below = list_folder("/media/USB");
    EXPECT_EQ(mount("/mnt", "/media/USB", nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(umount2("/mnt", 0), 0);

    EXPECT_TRUE(detached);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    // Nothing fills the root file system in the disk's place. Access lists of folders are set by path, which no longer
    // leads anywhere; everything else arrives.
    EXPECT_EQ(below, std::vector<std::string>{});
    EXPECT_EQ(malformed_error_lines(kJob), std::vector<std::string>{});
    CompareOptions without_lists;
    without_lists.access_lists = false;
    EXPECT_TRUE(same_trees(kSource, "/media/USB/copy", without_lists));
}

namespace {

/// Takes the disk at /media/USB away, with what its journal holds by then, and brings it back.
class PulledDisk {
  public:
    PulledDisk() {
        // The loop device of the disk keeps its image for as long as it is open.
        struct stat disk {};
        if (stat("/media/USB", &disk) != 0 || mknod(kNode, S_IFBLK | 0600, disk.st_dev) != 0) return;
        device_ = open(kNode, O_RDONLY | O_CLOEXEC);
        root_ = open("/media/USB", O_RDONLY | O_CLOEXEC);
    }
    ~PulledDisk() {
        close(root_);
        umount2("/media/USB", 0);
        if (!wait_until([] { return mount(kNode, "/media/USB", "ext4", MS_NOATIME, nullptr) == 0; }))
            ADD_FAILURE() << "the disk cannot be mounted again: " << std::strerror(errno);
        close(device_);
        unlink(kNode);
    }
    PulledDisk(const PulledDisk &) = delete;
    PulledDisk &operator=(const PulledDisk &) = delete;
    /// From now on every access fails.
    bool pull() const {
        constexpr unsigned long kShutdown = _IOR('X', 125, std::uint32_t);
        std::uint32_t with_journal = 1;
        return device_ >= 0 && ioctl(root_, kShutdown, &with_journal) == 0;
    }

  private:
    static constexpr char kNode[] = "/mnt/disk";
    int device_ = -1;
    int root_ = -1;
};

} // namespace

TEST_F(FullDisk, ADestinationThatIsPulledInMidRunFailsTheJobAndTheNextRunFinishesIt) {
    make_tree(kSource, many_files());
    JobFile().job(kJob, job_to(destination_usb("1", "copy"))).write();
    {
        const PulledDisk disk;
        Program worker({"-e", "7"});
        EXPECT_TRUE(wait_for_copies("/media/USB/copy"));
        EXPECT_TRUE(disk.pull()) << std::strerror(errno);
        const Outcome outcome = worker.wait();
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(state_of(kJob), "FAILED");
        EXPECT_EQ(malformed_error_lines(kJob), std::vector<std::string>{});
    }
    expect_converges(kSource, "/media/USB/copy", Disturbed::yes);
}

// Bytes reach a disk long after they were written. A file whose size and time came first would pass for whole.
TEST_F(FullDisk, ADiskPulledRightAfterARunHoldsNoFileThatOnlyLooksWhole) {
    for (const std::size_t size :
         {std::size_t{1}, 20 * kKibibyte, 64 * kKibibyte, 65 * kKibibyte, kMebibyte, 20 * kMebibyte})
        write_old_file(std::string(kSource) + "/" + std::to_string(size), size, 'x');
    JobFile().job(kJob, job_to(destination_usb("1", "copy"))).write();
    {
        const PulledDisk disk;
        EXPECT_EQ(run_program({"-e", "7"}).status, 0);
        EXPECT_TRUE(disk.pull()) << std::strerror(errno);
    }
    for (const std::string &name : list_folder("/media/USB/copy")) {
        SCOPED_TRACE(name);
        struct stat source {};
        struct stat copy {};
        ASSERT_EQ(stat((std::string(kSource) + "/" + name).c_str(), &source), 0);
        ASSERT_EQ(stat(("/media/USB/copy/" + name).c_str(), &copy), 0);
        if (source.st_size == copy.st_size && source.st_mtim.tv_sec == copy.st_mtim.tv_sec &&
            source.st_mtim.tv_nsec == copy.st_mtim.tv_nsec) {
            EXPECT_TRUE(read_file(std::string(kSource) + "/" + name) == read_file("/media/USB/copy/" + name));
        }
    }
    expect_converges(kSource, "/media/USB/copy", Disturbed::yes);
}

// --- a source that changes
// --------------------------------------------------------------------------------------------

namespace {

constexpr char kSecret[] = "what a link must never lead to";

/// Changes the files of a folder for as long as the object lives.
class Mutator {
  public:
    Mutator(std::string folder, int files) : folder_(std::move(folder)), files_(files), thread_([this] { work(); }) {}
    ~Mutator() {
        stop_ = true;
        thread_.join();
    }
    Mutator(const Mutator &) = delete;
    Mutator &operator=(const Mutator &) = delete;
    int changes() const { return changes_; }

  private:
    void work() {
        std::mt19937_64 engine(5);
        while (!stop_) {
            const std::string path = folder_ + "/d" + std::to_string(engine() % 8) + "/f" +
                                     std::to_string(engine() % static_cast<unsigned>(files_));
            change(path, engine() % 10, engine());
            ++changes_;
        }
    }

    static void change(const std::string &path, std::uint64_t kind, std::uint64_t number) {
        std::error_code ignored;
        const std::size_t size = number % (200 * kKibibyte);
        switch (kind) {
        case 0:
            static_cast<void>(!truncate(path.c_str(), 0));
            break;
        case 1:
            static_cast<void>(!truncate(path.c_str(), static_cast<off_t>(size)));
            break;
        case 2:
            fs::remove_all(path, ignored);
            break;
        case 3:
            fs::remove_all(path, ignored);
            fs::create_symlink("/root/secret/file", path, ignored);
            break;
        case 4:
            fs::remove_all(path, ignored);
            fs::create_symlink("/root/secret", path, ignored);
            break;
        case 5:
            fs::remove_all(path, ignored);
            static_cast<void>(mkfifo(path.c_str(), 0644));
            break;
        case 6:
            fs::remove_all(path, ignored);
            fs::create_directory(path, ignored);
            put(path + "/inner", 100);
            break;
        default:
            if (!fs::is_regular_file(fs::symlink_status(path, ignored))) fs::remove_all(path, ignored);
            put(path, size);
        }
    }

    static void put(const std::string &path, std::size_t size) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
        if (fd < 0) return;
        const std::string bytes(size, 'm');
        if (write(fd, bytes.data(), bytes.size()) < 0) unlink(path.c_str());
        close(fd);
    }

    std::string folder_;
    int files_;
    std::atomic<bool> stop_ = false;
    std::atomic<int> changes_ = 0;
    std::thread thread_;
};

/// Takes out of a destination what stands there in another kind than in the source: an administrator's work after
/// files have become folders.
void remove_conflicts(const std::string &source, const std::string &destination) {
    std::vector<std::string> conflicts;
    for (const auto &entry : fs::recursive_directory_iterator(destination)) {
        const fs::file_status other = fs::symlink_status(source + entry.path().string().substr(destination.size()));
        if (other.type() != entry.symlink_status().type()) conflicts.push_back(entry.path());
    }
    for (const std::string &path : conflicts)
        remove_tree(path);
}

} // namespace

TEST_F(FullDisk, ASourceThatChangesAllTheTimeNeverEndsTheRunOrLeadsOutOfTheTree) {
    constexpr int kFiles = 40;
    constexpr int kRuns = 8;
    const std::string source = "/media/USB/live";
    const std::string destination = "/vault/Backup/copy";
    write_file("/root/secret/file", kSecret);
    for (int folder = 0; folder < 8; ++folder)
        for (int file = 0; file < kFiles; ++file)
            write_file(source + "/d" + std::to_string(folder) + "/f" + std::to_string(file), std::string(100'000, 's'));
    const Settings ends = source_usb("1", "live") + destination_share("vault", "Backup", "copy");
    JobFile().job(kJob, Settings{{"opt_full_backup_freq", "EVERY_TIME"}} + ends).write();
    {
        const Mutator mutator(source, kFiles);
        for (int run = 0; run < kRuns; ++run) {
            SCOPED_TRACE("run " + std::to_string(run));
            const Outcome outcome = run_program({"-e", "7"});
            EXPECT_EQ(outcome.status, 0) << outcome.err;
            EXPECT_EQ(malformed_error_lines(kJob), std::vector<std::string>{});
            const std::string state = state_of(kJob);
            EXPECT_TRUE(state == "COMPLETED" || state == "FAILED") << state;
            // Whatever could not be copied is a failure of the job, never a silent gap.
            const std::string errors = read_file(error_log_path(kJob));
            if (count_of(errors, "Skip to copy '") < count_of(errors, "\n")) {
                EXPECT_EQ(state, "FAILED") << errors;
            }
        }
        EXPECT_GT(mutator.changes(), 100);
    }
    for (const auto &entry : fs::recursive_directory_iterator(destination)) {
        EXPECT_TRUE(entry.is_directory() || (entry.is_regular_file() && !entry.is_symlink())) << entry.path();
        if (entry.is_regular_file()) {
            EXPECT_EQ(read_file(entry.path()).find(kSecret), std::string::npos) << entry.path();
        }
    }

    remove_conflicts(source, destination);
    JobFile().job(kJob, Settings{{"opt_full_backup_freq", "NEVER"}} + ends).write();
    const Outcome quiet = run_program({"-e", "7"});
    EXPECT_EQ(quiet.err, "");
    EXPECT_EQ(state_of(kJob), "COMPLETED");
    std::vector<std::string> differences = tree_differences(source, destination);
    std::erase_if(differences, [&source](const std::string &line) {
        const std::string path = source + "/" + line.substr(0, line.find(": "));
        const fs::file_status status = fs::symlink_status(path);
        return !fs::is_regular_file(status) && !fs::is_directory(status);
    });
    EXPECT_EQ(differences, std::vector<std::string>{});
    remove_tree("/root/secret");
}

// --- the system's own folders
// -----------------------------------------------------------------------------------------

TEST_F(FullDisk, AFullLogDiskDoesNotStopTheCopying) {
    TreeOptions options;
    options.files = 200;
    make_tree(kSource, options);
    JobFile().job(kJob, job_to(destination_usb("1", "copy"))).write();
    for (const char *folder : {"/var/log/tessera/backup", "/apps/.backup"}) {
        SCOPED_TRACE(folder);
        remove_tree("/media/USB/copy");
        make_folder(folder);
        const MountedFor disk("-t tmpfs -o size=64k tmpfs", folder);
        fill(folder, 0);
        const Outcome outcome = run_program({"-e", "7"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.err, "");
        EXPECT_TRUE(same_trees(kSource, "/media/USB/copy"));
    }
}

TEST_F(FullDisk, WithoutTheAppsFolderNoRunStarts) {
    write_old_file("/data/Pictures/a", 1, 'a');
    JobFile().job(kJob, job_to(destination_usb("1", "copy"))).write();
    fs::rename("/apps", "/no-apps");
    const Outcome outcome = run_program({"-e", "7"});
    fs::rename("/no-apps", "/apps");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(plain_diagnostics(outcome.err),
              "(error) mkdir(/apps/.backup/) failed.\n"
              "(error) Failed to create copy log file /apps/.backup/backup_007_copy.log!\n");
    EXPECT_FALSE(file_exists(status_path(kJob)));
    EXPECT_FALSE(file_exists("/media/USB/copy"));
    expect_converges(kSource, "/media/USB/copy");
}

} // namespace tsbackup::test
