#include "tsbackup_utils.h"

#include "kernel.h"
#include "support.h"

#include "tsbackup/owners.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace tsbackup;
using namespace tsbackup::test;

namespace {

const std::string kLogs = "/var/log/tessera/backup/";
const std::string kWork = "/apps/.backup/";

/// "line 1\n" to "line COUNT\n", from `first` on.
std::string lines(int first, int last) {
    std::string text;
    for (int i = first; i <= last; ++i)
        text += "line " + std::to_string(i) + "\n";
    return text;
}

// ---- cutting a log ---------------------------------------------------------------------------------------------

struct TruncateCase {
    const char *name;
    std::string content;
    std::int32_t cap;
    std::string kept;
    int line_count, surplus;
};

class CopyFileTruncate : public testing::Test {
  protected:
    TempFolder folder_;
    const std::string src_ = folder_ / "src";
    const std::string dst_ = folder_ / "dst";
};

TEST_F(CopyFileTruncate, KeepsTheHeadAndTheLastTenLines) {
    const std::string long_line = std::string(4094, 'a');
    const std::string with_zero("a\0b\n", 4);
    const TruncateCase cases[] = {
        {"an empty log", "", 5, "", 0, 0},
        {"an empty log, cap 0", "", 0, "", 0, 0},
        {"fewer lines than the cap", lines(1, 4), 5, lines(1, 4), 4, 0},
        {"as many lines as the cap", lines(1, 5), 5, lines(1, 5), 5, 0},
        {"one line more than the cap", lines(1, 6), 5, lines(1, 6), 6, 1},
        {"seven lines more", lines(1, 12), 5, lines(1, 12), 12, 7},
        {"ten lines more", lines(1, 15), 5, lines(1, 15), 15, 10},
        {"eleven lines more", lines(1, 16), 5, lines(1, 5) + "BACKUP_INFO_LOG_TRUNCATED:1\n" + lines(7, 16), 16, 11},
        {"twice around the ring", lines(1, 25), 5, lines(1, 5) + "BACKUP_INFO_LOG_TRUNCATED:10\n" + lines(16, 25), 25,
         20},
        {"many lines", lines(1, 1000), 1, lines(1, 1) + "BACKUP_INFO_LOG_TRUNCATED:989\n" + lines(991, 1000), 1000,
         999},
        {"cap 0 never keeps the first line", lines(1, 1), 0, "", 1, 1},
        {"cap 0, two lines", lines(1, 2), 0, lines(2, 2), 2, 2},
        {"cap 0, ten lines", lines(1, 10), 0, lines(2, 10), 10, 10},
        {"cap 0, eleven lines", lines(1, 11), 0, "BACKUP_INFO_LOG_TRUNCATED:1\n" + lines(2, 11), 11, 11},
        {"cap 0, twelve lines", lines(1, 12), 0, "BACKUP_INFO_LOG_TRUNCATED:2\n" + lines(3, 12), 12, 12},
        {"a negative cap is 0", lines(1, 3), -5, lines(2, 3), 3, 3},
        {"the largest cap", lines(1, 3), INT32_MAX, lines(1, 3), 3, 0},
        {"a last line without its end", lines(1, 15) + "end", 5,
         lines(1, 5) + "BACKUP_INFO_LOG_TRUNCATED:1\n" + lines(7, 15) + "end", 16, 11},
        {"empty lines", "\n\n\n", 2, "\n\n\n", 3, 1},
        {"4093 characters and the end are one line", long_line.substr(1) + "\n" + lines(1, 1), 1,
         long_line.substr(1) + "\n" + lines(1, 1), 2, 1},
        {"4094 characters and the end are two lines", long_line + "\n", 5, long_line + "\n", 2, 0},
        {"three pieces of a long line", long_line + long_line + "b\n", 5, long_line + long_line + "b\n", 3, 0},
        {"the cap falls within a long line", long_line + "b\n" + lines(1, 11), 1,
         long_line + "BACKUP_INFO_LOG_TRUNCATED:2\n" + lines(2, 11), 13, 12},
        {"a line with a zero byte stays whole", with_zero + lines(1, 2), 5, with_zero + lines(1, 2), 3, 0},
        {"a zero byte in the tail", lines(1, 3) + with_zero, 1, lines(1, 3) + with_zero, 4, 3},
    };
    for (const TruncateCase &c : cases) {
        SCOPED_TRACE(c.name);
        write_file(src_, c.content);
        write_file(dst_, std::string(20'000, 'x'));
        const Diagnostics diagnostics(6);
        EXPECT_EQ(ts_copy_file_truncate(src_.c_str(), dst_.c_str(), c.cap), static_cast<std::int64_t>(c.kept.size()));
        EXPECT_EQ(read_file(dst_), c.kept);

        std::string expected = "(info) ts_copy_file_truncate: n_line = " + std::to_string(c.line_count) +
                               ", n_truncated = " + std::to_string(c.surplus) + "\n";
        if (c.surplus > 10)
            expected +=
                "(info) ts_copy_file_truncate: BACKUP_INFO_LOG_TRUNCATED = " + std::to_string(c.surplus - 10) + "\n";
        EXPECT_EQ(diagnostics.without_places(), expected);
        EXPECT_EQ(read_file(src_), c.content);
    }
}

TEST_F(CopyFileTruncate, AFileThatCannotBeOpenedIsReported) {
    EXPECT_EQ(ts_copy_file_truncate(src_.c_str(), dst_.c_str(), 5), -1);
    EXPECT_FALSE(file_exists(dst_)) << "nothing is made for a source that is not there";
    write_file(src_, lines(1, 3));
    EXPECT_EQ(ts_copy_file_truncate(src_.c_str(), folder_.path().c_str(), 5), -1);
}

TEST_F(CopyFileTruncate, ItsMessagesAreForTheCurious) {
    write_file(src_, lines(1, 30));
    const Diagnostics diagnostics(5);
    ts_copy_file_truncate(src_.c_str(), dst_.c_str(), 5);
    EXPECT_EQ(diagnostics.text(), "");
}

// ---- copying a file with its times -----------------------------------------------------------------------------

class CopyFileKeepTimes : public testing::Test {
  protected:
    static void set_times(const std::string &path, const timespec &access, const timespec &change) {
        const timespec times[] = {access, change};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }

    TempFolder folder_;
    const std::string src_ = folder_ / "src";
    const std::string dst_ = folder_ / "dst";
};

TEST_F(CopyFileKeepTimes, AppendsOrOverwritesTheStart) {
    const std::string large = lines(1, 30'000);
    const struct {
        const char *name;
        std::string before, source;
        bool append;
        std::string after;
    } cases[] = {
        {"append", "old\n", "new\n", true, "old\nnew\n"},
        {"append nothing", "old\n", "", true, "old\n"},
        {"overwrite the start of a longer file", "abcdefgh", "XYZ", false, "XYZdefgh"},
        {"overwrite a shorter file", "abc", "UVWXYZ", false, "UVWXYZ"},
        {"append a large file", "old\n", large, true, "old\n" + large},
        {"overwrite with a large file", "old\n", large, false, large},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        write_file(src_, c.source);
        write_file(dst_, c.before);
        EXPECT_EQ(copy_file_keep_times(src_.c_str(), dst_.c_str(), c.append),
                  static_cast<std::int64_t>(c.source.size()));
        EXPECT_TRUE(read_file(dst_) == c.after);
    }
}

TEST_F(CopyFileKeepTimes, CarriesTheTimesInWholeSeconds) {
    for (const bool append : {false, true}) {
        write_file(src_, "text");
        set_times(src_, {1'600'000'000, 123'456'789}, {1'500'000'000, 999'999'999});
        EXPECT_EQ(copy_file_keep_times(src_.c_str(), dst_.c_str(), append), 4);
        struct stat status {};
        ASSERT_EQ(stat(dst_.c_str(), &status), 0);
        EXPECT_EQ(status.st_atim.tv_sec, 1'600'000'000);
        EXPECT_EQ(status.st_atim.tv_nsec, 0);
        EXPECT_EQ(status.st_mtim.tv_sec, 1'500'000'000);
        EXPECT_EQ(status.st_mtim.tv_nsec, 0);
    }
}

TEST_F(CopyFileKeepTimes, CreatesAFileThatOthersMayRead) {
    write_file(src_, "text", 0600);
    const mode_t mask = umask(0);
    copy_file_keep_times(src_.c_str(), dst_.c_str(), true);
    umask(mask);
    struct stat status {};
    ASSERT_EQ(stat(dst_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
}

TEST_F(CopyFileKeepTimes, AFileThatCannotBeOpenedIsReported) {
    EXPECT_EQ(copy_file_keep_times(src_.c_str(), dst_.c_str(), true), -1);
    EXPECT_FALSE(file_exists(dst_));
    write_file(src_, "text");
    EXPECT_EQ(copy_file_keep_times(src_.c_str(), folder_.path().c_str(), true), -1);
    EXPECT_EQ(copy_file_keep_times(src_.c_str(), folder_.path().c_str(), false), -1);
}

TEST_F(CopyFileKeepTimes, WritesBlocksOfAtMost64KiBEachCompletely) {
    const std::string content = lines(1, 30'000);
    write_file(src_, content);
    std::vector<std::size_t> sizes;
    Kernel kernel;
    kernel.write = [&sizes](int, std::size_t size) -> ssize_t {
        sizes.push_back(size);
        if (sizes.size() == 2) return -EINTR;
        return sizes.size() == 3 ? 1000 : static_cast<ssize_t>(size);
    };
    EXPECT_EQ(copy_file_keep_times(src_.c_str(), dst_.c_str(), false), static_cast<std::int64_t>(content.size()));
    EXPECT_TRUE(read_file(dst_) == content);
    EXPECT_GT(sizes.size(), 4U);
    for (const std::size_t size : sizes)
        EXPECT_LE(size, 65'536U);
}

TEST_F(CopyFileKeepTimes, AFailedWriteEndsTheCopyEarly) {
    const std::string content = lines(1, 30'000);
    write_file(src_, content);
    set_times(src_, {5, 0}, {6, 0});
    int writes = 0;
    Kernel kernel;
    kernel.write = [&writes](int, std::size_t size) -> ssize_t {
        return ++writes == 2 ? -ENOSPC : static_cast<ssize_t>(size);
    };
    EXPECT_EQ(copy_file_keep_times(src_.c_str(), dst_.c_str(), false), static_cast<std::int64_t>(content.size()));
    EXPECT_EQ(writes, 2);
    EXPECT_TRUE(read_file(dst_) == content.substr(0, 65'536));
    struct stat status {};
    ASSERT_EQ(stat(dst_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, 6);
}

// ---- the books of a job ----------------------------------------------------------------------------------------

class JobLog : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_APPLIANCE();
        for (const std::string &folder : {kLogs, kWork}) {
            remove_tree(folder);
            make_folder(folder);
        }
    }

    static BackupJob local_job(std::int32_t id) {
        BackupJob job;
        job.job_id = id;
        job.name = "Photos";
        job.src_type = "share";
        job.src_share_proto = "Pictures";
        job.src_path = "album";
        job.dst_type = "usb";
        job.dst_share_proto = "usb_port_1";
        job.dst_path = "copy";
        job.opt_max_log_lines = "5";
        return job;
    }

    static BackupRun run_of(std::int32_t id, std::int32_t start, std::int32_t full, std::int32_t error_code = 0) {
        BackupRun run;
        run.job_id = id;
        run.start_time = start;
        run.full = full;
        run.error_code = error_code;
        return run;
    }

    /// The text with the instant of each "finish:" line replaced by "NOW", once it was seen to be this one.
    static std::string with_now(std::string text, std::time_t before) {
        static const std::string label = "\nfinish: ";
        for (std::size_t at = 0; (at = text.find(label, at)) != std::string::npos;) {
            at += label.size();
            const std::size_t end = text.find('\n', at);
            const long finish = std::stol(text.substr(at, end - at));
            EXPECT_GE(finish, before);
            EXPECT_LE(finish, std::time(nullptr));
            text.replace(at, end - at, "NOW");
        }
        return text;
    }
};

TEST_F(JobLog, AnEntryTellsTheJobAndItsRun) {
    BackupJob local = local_job(7);
    BackupJob download = local_job(7);
    download.src_type = "remote";
    download.src_share_proto = "rsync+ssh";
    download.src_path = "server:/srv";
    BackupJob upload = local_job(7);
    upload.dst_type = "remote";
    upload.dst_share_proto = "ftp";
    BackupJob remote_twice = download;
    remote_twice.dst_type = "remote";
    remote_twice.dst_share_proto = "ftp";
    BackupJob almost_remote = local_job(7);
    almost_remote.src_type = "Remote";
    almost_remote.dst_type = "remote ";
    BackupJob no_protocol = local_job(7);
    no_protocol.src_type = "remote";
    no_protocol.src_share_proto.reset();
    BackupJob bare;
    bare.job_id = 7;

    const std::string local_ends = "src: [share:Pictures]/album\ndst: [usb:usb_port_1]/copy\n";
    const struct {
        const char *name;
        BackupJob job;
        std::int32_t full, status;
        std::string entry;
    } cases[] = {
        {"a full local run", local, 1, 0,
         "name: Photos\nfull: yes\nproto: local\n" + local_ends + "start: 1000\nfinish: NOW\nstatus: 0\nlog:\n"},
        {"an incremental run that failed", local, 0, 6,
         "name: Photos\nfull: no\nproto: local\n" + local_ends + "start: 1000\nfinish: NOW\nstatus: 6\nlog:\n"},
        {"a run that was cancelled undecided", local, -1, 11,
         "name: Photos\nproto: local\n" + local_ends + "start: 1000\nfinish: NOW\nstatus: 11\nlog:\n"},
        {"any other number is full", local, 2, 0,
         "name: Photos\nfull: yes\nproto: local\n" + local_ends + "start: 1000\nfinish: NOW\nstatus: 0\nlog:\n"},
        {"a remote source", download, 0, 0,
         "name: Photos\nfull: no\nproto: rsync+ssh\nsrc: [remote:rsync+ssh]/server:/srv\ndst: [usb:usb_port_1]/copy\n"
         "start: 1000\nfinish: NOW\nstatus: 0\nlog:\n"},
        {"a remote destination", upload, 0, 0,
         "name: Photos\nfull: no\nproto: ftp\nsrc: [share:Pictures]/album\ndst: [remote:ftp]/copy\n"
         "start: 1000\nfinish: NOW\nstatus: 0\nlog:\n"},
        {"both ends remote: the source's protocol", remote_twice, 0, 3,
         "name: Photos\nfull: no\nproto: rsync+ssh\nsrc: [remote:rsync+ssh]/server:/srv\ndst: [remote:ftp]/copy\n"
         "start: 1000\nfinish: NOW\nstatus: 3\nlog:\n"},
        {"only the exact word is remote", almost_remote, 0, 0,
         "name: Photos\nfull: no\nproto: local\nsrc: [Remote:Pictures]/album\ndst: [remote :usb_port_1]/copy\n"
         "start: 1000\nfinish: NOW\nstatus: 0\nlog:\n"},
        {"a remote end without a protocol", no_protocol, 0, 0,
         "name: Photos\nfull: no\nproto: \nsrc: [remote:]/album\ndst: [usb:usb_port_1]/copy\n"
         "start: 1000\nfinish: NOW\nstatus: 0\nlog:\n"},
        {"a job without any text", bare, 0, 0,
         "name: \nfull: no\nproto: local\nsrc: [:]/\ndst: [:]/\nstart: 1000\nfinish: NOW\nstatus: 0\nlog:\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        remove_tree(kLogs + "backup_007.log");
        const std::time_t before = std::time(nullptr);
        backup_log_finish(c.job, run_of(7, 1000, c.full, c.status));
        EXPECT_EQ(with_now(read_file(kLogs + "backup_007.log"), before), c.entry);
        EXPECT_FALSE(file_exists(kLogs + "backup_007.log.4"));
    }
}

TEST_F(JobLog, TheNewestEntryStandsOnTop) {
    const std::string history = kLogs + "backup_007.log";
    write_file(history, "older entries\n");
    const std::time_t before = std::time(nullptr);
    backup_log_finish(local_job(7), run_of(7, 1000, 1));
    backup_log_finish(local_job(7), run_of(7, 2000, 0, 8));
    const std::string ends = "proto: local\nsrc: [share:Pictures]/album\ndst: [usb:usb_port_1]/copy\n";
    EXPECT_EQ(with_now(read_file(history), before),
              "name: Photos\nfull: no\n" + ends + "start: 2000\nfinish: NOW\nstatus: 8\nlog:\n" + //
                  "name: Photos\nfull: yes\n" + ends + "start: 1000\nfinish: NOW\nstatus: 0\nlog:\n" +
                  "older entries\n");
}

TEST_F(JobLog, ALeftoverOfAnInterruptedRunStaysInFront) {
    write_file(kLogs + "backup_007.log", "older entries\n");
    write_file(kLogs + "backup_007.log.4", "leftover\n");
    const std::time_t before = std::time(nullptr);
    backup_log_finish(local_job(7), run_of(7, 1000, 0));
    EXPECT_EQ(with_now(read_file(kLogs + "backup_007.log"), before),
              "leftover\nname: Photos\nfull: no\nproto: local\nsrc: [share:Pictures]/album\n"
              "dst: [usb:usb_port_1]/copy\nstart: 1000\nfinish: NOW\nstatus: 0\nlog:\nolder entries\n");
    EXPECT_FALSE(file_exists(kLogs + "backup_007.log.4"));
}

TEST_F(JobLog, OlderEntriesSurviveAFullDisk) {
    const std::string history = kLogs + "backup_007.log";
    write_file(history, "older entries\n");
    {
        Kernel kernel;
        kernel.write = [](int, std::size_t) -> ssize_t { return -ENOSPC; };
        backup_log_finish(local_job(7), run_of(7, 1000, 0));
    }
    EXPECT_EQ(read_file(history), "older entries\n");

    backup_log_finish(local_job(7), run_of(7, 2000, 0));
    const std::string text = read_file(history);
    EXPECT_NE(text.find("start: 1000\n"), std::string::npos) << text;
    EXPECT_NE(text.find("start: 2000\n"), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with("log:\nolder entries\n")) << text;
}

TEST_F(JobLog, WithoutAScratchFileNothingIsDone) {
    make_folder(kLogs + "backup_007.log.4");
    write_file(kLogs + "backup_007.log", "older entries\n");
    write_file(kLogs + "backup_007_copy.500.log", "kept\n");
    write_file(kWork + "backup_007_copy.log", lines(1, 3));
    backup_log_finish(local_job(7), run_of(7, 1000, 1));
    EXPECT_EQ(list_folder(kLogs),
              (std::vector<std::string>{"backup_007.log", "backup_007.log.4", "backup_007_copy.500.log"}));
    EXPECT_EQ(read_file(kLogs + "backup_007.log"), "older entries\n");
    EXPECT_EQ(read_file(kWork + "backup_007_copy.log"), lines(1, 3));
}

TEST_F(JobLog, TheCopyLogIsKeptUnderItsCapInPlaceOfOlderOnes) {
    const struct {
        const char *name;
        JobText cap;
        std::string copy_log, kept;
    } cases[] = {
        {"12 lines, cap 5", "5", lines(1, 12), lines(1, 12)},
        {"16 lines, cap 5", "5", lines(1, 16), lines(1, 5) + "BACKUP_INFO_LOG_TRUNCATED:1\n" + lines(7, 16)},
        {"a cap with text behind it", " 5x", lines(1, 16),
         lines(1, 5) + "BACKUP_INFO_LOG_TRUNCATED:1\n" + lines(7, 16)},
        {"no number", "many", lines(1, 3), lines(2, 3)},
        {"no value", std::nullopt, lines(1, 3), lines(2, 3)},
        {"an empty log", "5", "", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        write_file(kLogs + "backup_007_copy.500.log", "older\n");
        write_file(kWork + "backup_007_copy.log", c.copy_log);
        BackupJob job = local_job(7);
        job.opt_max_log_lines = c.cap;
        backup_log_finish(job, run_of(7, 1000, 0));
        EXPECT_EQ(list_folder(kLogs), (std::vector<std::string>{"backup_007.log", "backup_007_copy.1000.log"}));
        EXPECT_EQ(read_file(kLogs + "backup_007_copy.1000.log"), c.kept);
        EXPECT_EQ(list_folder(kWork), std::vector<std::string>{});
    }
}

TEST_F(JobLog, WithoutACopyLogTheOlderOnesGoAllTheSame) {
    write_file(kLogs + "backup_007_copy.500.log", "older\n");
    backup_log_finish(local_job(7), run_of(7, 1000, 0));
    EXPECT_EQ(list_folder(kLogs), std::vector<std::string>{"backup_007.log"});
}

TEST_F(JobLog, AFullRunIsNotedAsTheLastFullOne) {
    const struct {
        const char *name;
        std::int32_t full, status;
        const char *record;
    } cases[] = {
        {"a full run", 1, 0, "1000\n"},
        {"a full run that failed", 1, 6, "1000\n"},
        {"an incremental run", 0, 0, "5000000000 and more\n"},
        {"a cancelled, undecided run", -1, 11, "1000\n"},
    };
    const std::string record = kLogs + ".last_full_backup_007";
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        write_file(record, "5000000000 and more\n");
        backup_log_finish(local_job(7), run_of(7, 1000, c.full, c.status));
        EXPECT_EQ(read_file(record), c.record);
    }
    remove_tree(record);
    backup_log_finish(local_job(7), run_of(7, 1000, 0));
    EXPECT_FALSE(file_exists(record));
}

TEST_F(JobLog, TheFilesAreThoseOfTheJobsNumber) {
    for (const std::int32_t id : {0, 12, 1234}) {
        SetUp();
        const std::string number = id == 0 ? "000" : id == 12 ? "012" : "1234";
        SCOPED_TRACE(number);
        write_file(kWork + "backup_" + number + "_copy.log", "Copy File  a\n");
        backup_log_finish(local_job(id), run_of(id, 1000, 1));
        EXPECT_EQ(list_folder(kLogs),
                  (std::vector<std::string>{".last_full_backup_" + number, "backup_" + number + ".log",
                                            "backup_" + number + "_copy.1000.log"}));
        EXPECT_EQ(list_folder(kWork), std::vector<std::string>{});
    }
}

TEST_F(JobLog, AFailedStepDoesNotStopTheOthers) {
    make_folder(kLogs + "backup_007.log");
    make_folder(kLogs + "backup_007_copy.1000.log");
    write_file(kLogs + "backup_007_copy.500.log", "older\n");
    write_file(kWork + "backup_007_copy.log", "Copy File  a\n");
    backup_log_finish(local_job(7), run_of(7, 1000, 1));
    EXPECT_EQ(list_folder(kLogs), (std::vector<std::string>{".last_full_backup_007", "backup_007.log",
                                                            "backup_007.log.4", "backup_007_copy.1000.log"}));
    EXPECT_EQ(list_folder(kWork), std::vector<std::string>{});
    EXPECT_EQ(read_file(kLogs + ".last_full_backup_007"), "1000\n");
}

TEST_F(JobLog, PurgingTakesOnlyTheJobsOwnOlderCopyLogs) {
    const std::vector<std::string> stay = {
        "backup_001.log",       "backup_001_copy.2000.log", "backup_001_copylog",
        "backup_001_error.log", "backup_010_copy.500.log",  "backup_1001_copy.500.log",
        "mtpbackup_cam.log",    "status_backup_001",        "xbackup_001_copy.1.log"};
    for (const std::string &name : stay)
        write_file(kLogs + name, "text\n");
    for (const char *name :
         {"backup_001_copy.500.log", "backup_001_copy.20000.log", "backup_001_copy.", "backup_001_copy.2000.log.1"})
        write_file(kLogs + name, "text\n");
    make_folder(kLogs + "backup_001_copy.folder");
    ASSERT_EQ(symlink("status_backup_001", (kLogs + "backup_001_copy.link").c_str()), 0);

    std::vector<std::string> expected = stay;
    expected.insert(expected.end(), {"backup_001_copy.folder", "backup_001_copy.link"});
    std::sort(expected.begin(), expected.end());
    purge_copy_logs(1, "/some/where/backup_001_copy.2000.log");
    EXPECT_EQ(list_folder(kLogs), expected);
    purge_copy_logs(1, "backup_001_copy.2000.log");
    EXPECT_EQ(list_folder(kLogs), expected);
}

TEST_F(JobLog, PurgingWithoutTheFolderDoesNothing) {
    remove_tree(kLogs);
    purge_copy_logs(1, "backup_001_copy.2000.log");
    EXPECT_FALSE(file_exists(kLogs));
}

} // namespace
