// What goes wrong in FTP jobs: servers that die or fall silent in the middle of a file, disks that are full at either
// end, cancelled transfers. And what is larger than usual: a file, a directory, a tree.

#include "ftp_jobs.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

namespace fs = std::filesystem;

using namespace std::chrono_literals;
using testing::Contains;
using testing::Each;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

/// Far more than all buffers between the two ends hold.
constexpr std::size_t kBigSize = 32 * kMebibyte;
constexpr int kSlow = 1024; // KiB/s: the big file takes half a minute
const std::string kFastClock = "/srv/fast_clock";

std::int64_t size_of(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

time_t time_of(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_mtim.tv_sec : -1;
}

FtpServerOptions slow(FtpServerOptions options) {
    options.kibibytes_per_second = kSlow;
    return options;
}

bool has_open(pid_t process, const std::string &path) {
    std::error_code error;
    for (const auto &entry : fs::directory_iterator("/proc/" + std::to_string(process) + "/fd", error))
        if (fs::read_symlink(entry, error) == path) return true;
    return false;
}

std::vector<pid_t> processes() {
    std::vector<pid_t> ids;
    for (const std::string &name : list_folder("/proc"))
        if (name.find_first_not_of("0123456789") == std::string::npos) ids.push_back(std::stoi(name));
    std::sort(ids.begin(), ids.end());
    return ids;
}

/// The process of the server that serves a file at the moment; 0: none.
pid_t serving(const std::string &path) {
    const std::vector<pid_t> all = processes();
    const auto found = std::find_if(all.begin(), all.end(), [&](pid_t process) { return has_open(process, path); });
    return found == all.end() ? 0 : *found;
}

/// Every process of the server, the sessions' ones included.
std::vector<pid_t> server_processes() {
    std::vector<pid_t> ids = processes();
    std::erase_if(ids, [](pid_t process) {
        std::error_code error;
        const std::string program = fs::read_symlink("/proc/" + std::to_string(process) + "/exe", error);
        return program.find("/ftp-servers/") == std::string::npos;
    });
    return ids;
}

/// A job of which "big" is on its way from a slow server, or to it.
class Transfer : public Program {
  public:
    Transfer(const Settings &settings, const std::string &sent, const std::string &arriving,
             const ProgramOptions &options = {})
        : Program(prepared(settings), options), sent_(sent), arriving_(arriving) {
        EXPECT_TRUE(wait_until([&] { return size_of(arriving) >= static_cast<std::int64_t>(kMebibyte / 4); }));
    }
    /// The process of the server that has the file.
    pid_t session() const {
        const pid_t process = serving(at_server());
        EXPECT_GT(process, 0);
        return process;
    }
    void kill_session() const {
        if (const pid_t process = session(); process > 0) kill(process, SIGKILL);
    }
    /// Ends the server, the file's session last: nobody answers any more when its connection breaks.
    void end_server(FtpServer &server) const {
        stop_session();
        for (const pid_t process : server_processes())
            if (!has_open(process, at_server())) kill(process, SIGKILL);
        EXPECT_TRUE(wait_until([] { return !port_answers(FtpServer::kPort); }));
        server.stop();
    }
    void stop_session() const {
        if (const pid_t process = session(); process > 0) kill(process, SIGSTOP);
    }

  private:
    static std::vector<std::string> prepared(const Settings &settings) {
        JobFile().job(kJob, settings).write();
        return {"-v", "7", "-e", std::to_string(kJob)};
    }

    const std::string &at_server() const { return sent_.starts_with(kHome) ? sent_ : arriving_; }

    std::string sent_;
    std::string arriving_;
};

Transfer started_download(const ProgramOptions &options = {}) {
    return Transfer(download(), kHome + "/big", kBackup + "/big", options);
}

Transfer started_upload(const ProgramOptions &options = {}) {
    return Transfer(upload(), kPictures + "/big", kHome + "/up/big", options);
}

/// Lets time fly for the program under test until it has given up the file that is on its way.
void wait_until_given_up(const Program &job, const std::string &path) {
    EXPECT_TRUE(has_open(job.pid(), path));
    write_file(kFastClock, "");
    EXPECT_TRUE(wait_until([&] { return !has_open(job.pid(), path); }, 60s));
    remove_tree(kFastClock);
}

const ProgramOptions kWithFastClock = {.environment = {{"FAST_CLOCK", kFastClock}}, .preload = {FAST_CLOCK}};

/// A file of the given names each, and one that is big.
void make_files(const std::string &folder, const std::vector<std::string> &names) {
    write_filler(folder + "/big", kBigSize);
    for (const std::string &name : names)
        write_file(folder + "/" + name, "content of " + name);
    settle(folder);
}

/// Part of a file is there, and does not look like the whole.
void expect_part_of_big(const std::string &path) {
    EXPECT_GT(size_of(path), 0);
    EXPECT_LT(size_of(path), static_cast<std::int64_t>(kBigSize));
    EXPECT_NE(time_of(path), time_of(kHome + "/big"));
    EXPECT_NE(time_of(path), time_of(kPictures + "/big"));
}

/// It has even a time that no file of people's has, whenever theirs was saved.
void expect_marked_part_of_big(const std::string &path) {
    expect_part_of_big(path);
    EXPECT_EQ(time_of(path), 0);
}

/// Runs against a healthy server: a download fetches what is missing and nothing else.
void expect_download_converges(const FtpServerOptions &options, const std::vector<std::string> &missing) {
    const FtpServer server(options);
    run_job(download());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(error_log(), "");
    EXPECT_EQ(copied(), sorted(missing));
    EXPECT_TRUE(same_trees(kHome, kBackup, kNamesContentsTimes));
}

void expect_upload_converges(const FtpServerOptions &options) {
    const FtpServer server(options);
    run_job(upload());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(error_log(), "");
    EXPECT_THAT(copied(), Contains("Copy (F) big"));
    EXPECT_TRUE(same_trees(kPictures, kHome + "/up",
                           options.kind == FtpKind::vsftpd ? kNamesAndContents : kNamesContentsTimes));
}

class FtpFailures : public FtpJobs {};
INSTANTIATE_TEST_SUITE_P(Servers, FtpFailures,
                         testing::Values(FtpServerOptions{FtpKind::vsftpd, false},
                                         FtpServerOptions{FtpKind::proftpd, false},
                                         FtpServerOptions{FtpKind::pureftpd, false},
                                         FtpServerOptions{FtpKind::vsftpd, true}),
                         ftp_server_name);

// ---- servers that die ------------------------------------------------------------------------------------------

TEST_P(FtpFailures, ASessionThatIsKilledCostsADownloadOneFile) {
    make_files(kHome, {"a", "c", "z/below"});
    {
        const FtpServer server(slow(GetParam()));
        Transfer job = started_download();
        job.kill_session();
        const Outcome outcome = job.wait();
        EXPECT_THAT(outcome.err, HasSubstr("Ignore the CURL failure. "));
    }
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(error_log(), "Failed to copy big\n");
    EXPECT_EQ(copied(), sorted({"Copy (D) z", "Copy (F) a", "Copy (F) c", "Copy (F) z/below"}));
    expect_marked_part_of_big(kBackup + "/big");
    expect_download_converges(GetParam(), {"Copy (F) big"});
}

TEST_P(FtpFailures, ASessionThatIsKilledCostsAnUploadOneFile) {
    make_files(kPictures, {"a", "c", "z/below"});
    {
        const FtpServer server(slow(GetParam()));
        Transfer job = started_upload();
        job.kill_session();
        const Outcome outcome = job.wait();
        EXPECT_THAT(outcome.err, HasSubstr("curl_easy_perform() failed: "));
        EXPECT_THAT(outcome.err, HasSubstr("Cannot copy to destination\n"));
    }
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_EQ(error_log(), "");
    EXPECT_EQ(copied(), sorted({"Copy (D) ", "Copy (D) z", "Copy (F) a", "Copy (F) c", "Copy (F) z/below"}));
    expect_part_of_big(kHome + "/up/big");
    if (sets_times()) expect_marked_part_of_big(kHome + "/up/big");
    expect_upload_converges(GetParam());
}

/// Whether the sessions of a server hold its port, too: then the last one may take a connection along when it dies.
bool sessions_have_the_port(const FtpServerOptions &options) { return options.kind == FtpKind::pureftpd; }

TEST_P(FtpFailures, AServerThatDiesEndsADownload) {
    make_files(kHome, {"a", "c"});
    {
        FtpServer server(slow(GetParam()));
        Transfer job = started_download();
        job.end_server(server);
        job.wait();
    }
    if (!sessions_have_the_port(GetParam())) {
        EXPECT_EQ(last_result(kJob), 10);
        EXPECT_EQ(error_log(), "Failed to copy big\n"
                               "Cannot connect to server or connection timeout! Couldn't connect to server\n");
    }
    EXPECT_THAT(error_log(), testing::StartsWith("Failed to copy big\n"));
    expect_marked_part_of_big(kBackup + "/big");
    const bool has_c = file_exists(kBackup + "/c");
    expect_download_converges(GetParam(), has_c ? std::vector<std::string>{"Copy (F) big"}
                                                : std::vector<std::string>{"Copy (F) big", "Copy (F) c"});
}

TEST_P(FtpFailures, AServerThatDiesEndsAnUpload) {
    make_files(kPictures, {"a", "z/below"});
    {
        FtpServer server(slow(GetParam()));
        Transfer job = started_upload();
        job.end_server(server);
        job.wait();
    }
    EXPECT_EQ(last_result(kJob), 6);
    if (!sessions_have_the_port(GetParam())) {
        EXPECT_EQ(error_log(), "Failed to run CWD command! Couldn't connect to server\n");
    }
    EXPECT_THAT(error_log(), testing::StartsWith("Failed to run CWD command! "));
    EXPECT_THAT(copied(), Not(Contains("Copy (F) big")));
    expect_part_of_big(kHome + "/up/big");
    expect_upload_converges(GetParam());
}

// ---- servers that fall silent ----------------------------------------------------------------------------------

TEST_P(FtpFailures, ASilentSessionTimesOutInADownloadAndTheRestArrives) {
    make_files(kHome, {"a", "c", "z/below"});
    {
        const FtpServer server(slow(GetParam()));
        Transfer job = started_download(kWithFastClock);
        job.stop_session();
        wait_until_given_up(job, kBackup + "/big");
        const Outcome outcome = job.wait();
        EXPECT_THAT(outcome.err, HasSubstr("curl_easy_perform() return 28"));
    }
    EXPECT_EQ(last_result(kJob), 10);
    EXPECT_EQ(error_log(), "Failed to copy big\n"
                           "Cannot connect to server or connection timeout! Timeout was reached\n");
    EXPECT_EQ(copied(), sorted({"Copy (D) z", "Copy (F) a", "Copy (F) c", "Copy (F) z/below"}));
    expect_marked_part_of_big(kBackup + "/big");
    expect_download_converges(GetParam(), {"Copy (F) big"});
}

TEST_P(FtpFailures, ASilentSessionTimesOutInAnUploadAndTheRestArrives) {
    make_files(kPictures, {"a", "c", "z/below"});
    {
        const FtpServer server(slow(GetParam()));
        Transfer job = started_upload(kWithFastClock);
        job.stop_session();
        ASSERT_THAT(snapshots(), SizeIs(1));
        wait_until_given_up(job, snapshots().front() + "/big");
        const Outcome outcome = job.wait();
        EXPECT_THAT(outcome.err, HasSubstr("curl_easy_perform() failed: 28: Timeout was reached\n"));
    }
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_EQ(error_log(), "");
    EXPECT_EQ(copied(), sorted({"Copy (D) ", "Copy (D) z", "Copy (F) a", "Copy (F) c", "Copy (F) z/below"}));
    expect_part_of_big(kHome + "/up/big");
    if (sets_times()) expect_marked_part_of_big(kHome + "/up/big");
    expect_upload_converges(GetParam());
}

class FtpSilence : public FtpJobs {};
INSTANTIATE_TEST_SUITE_P(Servers, FtpSilence, testing::Values(FtpServerOptions{FtpKind::vsftpd, false}),
                         ftp_server_name);

TEST_P(FtpSilence, AServerThatFallsSilentWhollyEndsAJobInEitherDirection) {
    for (const bool sends : {false, true}) {
        SCOPED_TRACE(sends ? "upload" : "download");
        reset_ends();
        make_files(sends ? kPictures : kHome, {"z/below"});
        {
            const FtpServer server(slow(GetParam()));
            Transfer job = sends ? started_upload(kWithFastClock) : started_download(kWithFastClock);
            for (const pid_t process : server_processes())
                kill(process, SIGSTOP);
            write_file(kFastClock, "");
            job.wait();
            remove_tree(kFastClock);
        }
        EXPECT_EQ(last_result(kJob), sends ? 6 : 10);
        if (sends) {
            EXPECT_EQ(error_log(), "Failed to run CWD command! Timeout was reached\n");
            expect_upload_converges(GetParam());
        } else {
            EXPECT_THAT(error_log(),
                        HasSubstr("Failed to copy big\n"
                                  "Cannot connect to server or connection timeout! Timeout was reached\n"));
            expect_download_converges(GetParam(), {"Copy (D) z", "Copy (F) big", "Copy (F) z/below"});
        }
    }
}

// ---- full disks ------------------------------------------------------------------------------------------------

/// A disk of four mebibytes, of which more can be made.
class SmallDisk {
  public:
    explicit SmallDisk(const std::string &at) : at_(at), mounted_("-t tmpfs -o size=4m,mode=0777 small", at) {}
    void make_room() const { EXPECT_EQ(shell_output("mount -o remount,size=128m " + at_), ""); }

  private:
    std::string at_;
    MountedFor mounted_;
};

/// Files that fill a small disk, those that find no room any more, and what needs none.
void make_too_much(const std::string &folder) {
    make_files(folder, {"a", "c", "d", "z/below"});
    write_file(folder + "/empty", "");
    make_folder(folder + "/folder");
}

const std::vector<std::string> kTooMuch = {"a", "big", "c", "d", "empty", "z/below"};

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

TEST_P(FtpFailures, AFullDiskAtTheServerIsToldAndEveryFileIsTried) {
    make_too_much(kPictures);
    const SmallDisk disk(kHome);
    const FtpServer server(GetParam());
    const Outcome outcome = run_job(upload());
    EXPECT_EQ(last_result(kJob), 6);
    EXPECT_EQ(error_log(), "");
    EXPECT_THAT(outcome.err, HasSubstr("Cannot copy to destination\n"));
    EXPECT_EQ(count_of(outcome.err, "_ftp_put_one() "), kTooMuch.size());
    for (const std::string &name : kTooMuch)
        EXPECT_THAT(outcome.err, HasSubstr(" ==> " + name + "\n"));
    EXPECT_THAT(copied(), Not(Contains("Copy (F) big")));
    EXPECT_TRUE(file_exists(kHome + "/up/folder"));
    expect_part_of_big(kHome + "/up/big");
    if (sets_times()) expect_marked_part_of_big(kHome + "/up/big");

    disk.make_room();
    run_job(upload());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(error_log(), "");
    EXPECT_TRUE(same_trees(kPictures, kHome + "/up", kNamesAndContents));
}

TEST_P(FtpFailures, AFullDiskHereIsToldForEveryFileThatFindsNoRoom) {
    make_too_much(kHome);
    const SmallDisk disk("/vault/Backup");
    const FtpServer server(GetParam());
    run_job(download());
    EXPECT_EQ(last_result(kJob), 0);
    std::vector<std::string> failed = lines_of(error_log());
    EXPECT_THAT(failed, Contains("Failed to copy big"));
    EXPECT_THAT(failed, Each(testing::StartsWith("Failed to copy ")));
    const std::vector<std::string> arrived = copied();
    for (const std::string &name : kTooMuch) {
        const bool told = std::count(failed.begin(), failed.end(), "Failed to copy " + name) == 1;
        const bool here = std::count(arrived.begin(), arrived.end(), "Copy (F) " + name) == 1;
        EXPECT_NE(told, here) << name;
        if (told) {
            EXPECT_NE(time_of(kBackup + "/" + name), time_of(kHome + "/" + name)) << name;
        } else {
            EXPECT_EQ(read_file(kBackup + "/" + name), read_file(kHome + "/" + name)) << name;
        }
    }
    EXPECT_THAT(arrived, Contains("Copy (F) empty"));
    EXPECT_THAT(arrived, Contains("Copy (D) folder"));
    expect_marked_part_of_big(kBackup + "/big");

    disk.make_room();
    run_job(download());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(error_log(), "");
    EXPECT_THAT(copied(), Contains("Copy (F) big"));
    EXPECT_TRUE(same_trees(kHome, kBackup, kNamesAndContents));
}

// ---- cancelling ------------------------------------------------------------------------------------------------

TEST_P(FtpFailures, ACancelInTheMiddleOfAFileLeavesNothingBehindAndTheNextRunCompletes) {
    for (const bool sends : {false, true}) {
        SCOPED_TRACE(sends ? "upload" : "download");
        reset_ends();
        make_files(sends ? kPictures : kHome, {"a"});
        const Baseline before;
        {
            const FtpServer server(slow(GetParam()));
            Transfer job = sends ? started_upload() : started_download();
            EXPECT_EQ(run_program({"-k", "7"}, {.environment = {}, .preload = {kShortWaits}}).status, 0);
            EXPECT_EQ(job.wait().status, 0);
        }
        EXPECT_EQ(with_placeholders(read_file(status_path(kJob))), "BACKUP_STATUS__CANCELLED!!TIME!!notice\n");
        EXPECT_EQ(last_result(kJob), 11);
        EXPECT_TRUE(before.restored());
        expect_part_of_big(sends ? kHome + "/up/big" : kBackup + "/big");
        if (sends) {
            expect_upload_converges(GetParam());
        } else {
            const bool has_a = file_exists(kBackup + "/a");
            expect_download_converges(GetParam(), has_a ? std::vector<std::string>{"Copy (F) big"}
                                                        : std::vector<std::string>{"Copy (F) a", "Copy (F) big"});
        }
    }
}

// ---- large things ----------------------------------------------------------------------------------------------

/// Shrinks what is written to a volume: gaps take no room there.
class Compressed {
  public:
    Compressed() { EXPECT_EQ(shell_output("mount -o remount,compress-force=zstd:1 /vault"), ""); }
    ~Compressed() { EXPECT_EQ(shell_output("mount -o remount,compress=no /vault"), ""); }
    Compressed(const Compressed &) = delete;
    Compressed &operator=(const Compressed &) = delete;
};

constexpr off_t kGibibyte = 1 << 30;
constexpr off_t kHugeSize = 5 * kGibibyte + 123;
const std::array<off_t, 5> kMarks = {0, 2 * kGibibyte - 8, 4 * kGibibyte - 8, 4 * kGibibyte + 99'999, kHugeSize - 16};

struct File {
    int fd;
    File(const std::string &path, int flags) : fd(open(path.c_str(), flags | O_CLOEXEC, 0644)) { EXPECT_GE(fd, 0); }
    ~File() { close(fd); }
    File(const File &) = delete;
    File &operator=(const File &) = delete;
};

/// Gaps with some bytes in between, each time others.
void write_huge(const std::string &path) {
    const File file(path, O_WRONLY | O_CREAT);
    ASSERT_EQ(ftruncate(file.fd, kHugeSize), 0);
    for (std::size_t mark = 0; mark < kMarks.size(); ++mark) {
        const std::string bytes(16, static_cast<char>('A' + mark));
        ASSERT_EQ(pwrite(file.fd, bytes.data(), bytes.size(), kMarks[mark]), 16);
    }
}

/// Whether two files are equal around the marks and everywhere beyond 4 GiB.
bool same_huge(const std::string &left, const std::string &right) {
    const File first(left, O_RDONLY);
    const File second(right, O_RDONLY);
    std::vector<char> a(kMebibyte);
    std::vector<char> b(kMebibyte);
    const auto same_piece = [&](off_t at) {
        const ssize_t got = pread(first.fd, a.data(), a.size(), at);
        return got > 0 && pread(second.fd, b.data(), b.size(), at) == got && a == b;
    };
    for (off_t at = 4 * kGibibyte - static_cast<off_t>(kMebibyte); at < kHugeSize; at += static_cast<off_t>(kMebibyte))
        if (!same_piece(at)) return false;
    return std::all_of(kMarks.begin(), kMarks.end(), same_piece);
}

/// The bytes that the last progress record of a run told; -1: there was none.
std::int64_t last_progress(StatusWatcher &watcher) {
    std::int64_t bytes = -1;
    for (const std::string &content : watcher.seen()) {
        const std::vector<std::string> lines = lines_of(content);
        if (lines.size() == 2) bytes = std::stoll(lines[1].substr(lines[1].rfind('!') + 1));
    }
    return bytes;
}

class FtpLarge : public FtpJobs {};
INSTANTIATE_TEST_SUITE_P(Servers, FtpLarge, testing::Values(FtpServerOptions{FtpKind::vsftpd, false}), ftp_server_name);

TEST_P(FtpLarge, AFileBeyondFourGibibytesIsFetched) {
    write_huge(kHome + "/huge");
    set_time(kHome + "/huge", kSomeTime);
    const Compressed volume;
    const FtpServer server(GetParam());
    StatusWatcher watcher(kJob);
    run_job(download());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(error_log(), "");
    EXPECT_EQ(size_of(kBackup + "/huge"), kHugeSize);
    EXPECT_EQ(time_of(kBackup + "/huge"), kSomeTime);
    EXPECT_EQ(last_progress(watcher), kHugeSize);
    EXPECT_TRUE(same_huge(kHome + "/huge", kBackup + "/huge"));
    run_job(download());
    EXPECT_THAT(copied(), IsEmpty());
}

TEST_P(FtpLarge, AFileBeyondFourGibibytesIsSent) {
    write_huge(kPictures + "/huge");
    const Compressed volume;
    make_folder("/vault/Archive/home");
    const MountedFor home("--bind /vault/Archive/home", kHome);
    const FtpServer server(GetParam());
    StatusWatcher watcher(kJob);
    run_job(upload());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(error_log(), "");
    EXPECT_EQ(size_of(kHome + "/up/huge"), kHugeSize);
    EXPECT_EQ(last_progress(watcher), kHugeSize);
    EXPECT_TRUE(same_huge(kPictures + "/huge", kHome + "/up/huge"));
}

/// Where many files take little time.
class FtpMany : public FtpJobs {};
INSTANTIATE_TEST_SUITE_P(Servers, FtpMany, testing::Values(FtpServerOptions{FtpKind::pureftpd, false}),
                         ftp_server_name);

constexpr int kManyFiles = 10'000;

void make_many(const std::string &folder, int files) {
    for (int number = 0; number < files; ++number)
        write_file(folder + "/" + std::to_string(number), std::to_string(number));
    settle(folder);
}

/// The copy log when all of them were copied and these lines stand there, too.
std::vector<std::string> copies_of_many(std::vector<std::string> lines) {
    for (int number = 0; number < kManyFiles; ++number)
        lines.push_back("Copy (F) many/" + std::to_string(number));
    return sorted(lines);
}

TEST_P(FtpMany, TenThousandFilesOfOneDirectoryAreFetchedOnce) {
    make_many(kHome + "/many", kManyFiles);
    const FtpServer server(GetParam());
    run_job(download());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(error_log(), "");
    EXPECT_EQ(copied(), copies_of_many({"Copy (D) many"}));
    EXPECT_TRUE(same_trees(kHome, kBackup, kNamesContentsTimes));
    run_job(download());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_THAT(copied(), IsEmpty());
}

TEST_P(FtpMany, TenThousandFilesOfOneDirectoryAreSentOnce) {
    make_many(kPictures + "/many", kManyFiles);
    const FtpServer server(GetParam());
    run_job(upload());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_EQ(error_log(), "");
    EXPECT_EQ(copied(), copies_of_many({"Copy (D) ", "Copy (D) many"}));
    EXPECT_TRUE(same_trees(kPictures, kHome + "/up", kNamesContentsTimes));
    run_job(upload());
    EXPECT_EQ(last_result(kJob), 0);
    EXPECT_THAT(copied(), IsEmpty());
}

#ifndef __SANITIZE_ADDRESS__ // which holds back what is freed

/// The most memory that a program has had so far, in KiB.
long peak_memory(pid_t process) {
    const std::string text = read_file("/proc/" + std::to_string(process) + "/status");
    const std::size_t at = text.find("VmHWM:");
    return at == std::string::npos ? 0 : std::stol(text.substr(at + 6));
}

/// The most memory of a job, in KiB.
long peak_of(const Settings &settings) {
    JobFile().job(kJob, settings).write();
    Program job({"-e", std::to_string(kJob)});
    long peak = 0;
    wait_until(
        [&] {
            peak = std::max(peak, peak_memory(job.pid()));
            return !job.running();
        },
        120s);
    EXPECT_EQ(job.wait().status, 0);
    return peak;
}

TEST_P(FtpMany, MemoryDoesNotGrowWithTheTree) {
    constexpr int kFolders = 100;
    constexpr long kMayDiffer = 2048; // KiB
    const FtpServer server(GetParam());
    std::array<long, 2> peaks{};
    int files = 20; // in each folder
    for (long &peak : peaks) {
        for (int folder = 0; folder < kFolders; ++folder)
            for (int number = 0; number < files; ++number)
                write_file(kHome + "/" + std::to_string(folder) + "/" + std::to_string(number), "text");
        remove_tree(kBackup);
        peak = peak_of(download());
        EXPECT_EQ(last_result(kJob), 0);
        EXPECT_TRUE(same_trees(kHome, kBackup, kNamesAndContents));
        files *= 10;
    }
    EXPECT_GT(peaks[0], 0);
    EXPECT_LT(peaks[1] - peaks[0], kMayDiffer) << peaks[0] << " KiB, then " << peaks[1] << " KiB";
}

#endif

} // namespace
} // namespace tsbackup::test
