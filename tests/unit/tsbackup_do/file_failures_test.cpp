// What a file that cannot be copied leaves in the error log, the error record, the diagnostics and the destination.

#include "engine.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/capability.h>
#include <ostream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::HasSubstr;

/// Everything that a failing copy shows.
struct Outcome {
    int result = 0;
    std::string failures;
    std::int32_t code = 0;
    std::string message;
    std::string diagnostics; ///< down to level 6

    bool operator==(const Outcome &) const = default;
};

std::ostream &operator<<(std::ostream &stream, const Outcome &outcome) {
    return stream << "result " << outcome.result << "\nerror log:\n"
                  << outcome.failures << "record: " << outcome.code << " " << outcome.message << "\ndiagnostics:\n"
                  << outcome.diagnostics;
}

std::string text_of(int error) { return strerrordesc_np(error); }

/// While it lives, root is bound by the modes of files like anybody else, as it is on a server's share.
class BoundByModes {
  public:
    BoundByModes() {
        EXPECT_EQ(syscall(SYS_capget, &header_, data_.data()), 0);
        std::array<__user_cap_data_struct, 2> bound = data_;
        bound[0].effective &= ~(1U << CAP_DAC_OVERRIDE);
        EXPECT_EQ(syscall(SYS_capset, &header_, bound.data()), 0);
    }
    ~BoundByModes() { syscall(SYS_capset, &header_, data_.data()); }
    BoundByModes(const BoundByModes &) = delete;
    BoundByModes &operator=(const BoundByModes &) = delete;

  private:
    __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> data_{};
};

/// A tree "src" with one file "sub/file", an empty folder "dst/sub" and a copy of the one to the other.
class FileFailure : public EngineTest {
  protected:
    void prepare(Volume src_volume, Volume dst_volume, std::size_t size = 100'000) {
        src_ = scratch(src_volume) + "/src";
        dst_ = scratch(dst_volume) + "/dst";
        make_folder(dst_ + "/sub");
        write_file(src_ + "/sub/file", pattern(size));
        set_mtime(src_ + "/sub/file", 1'500'000'000);
    }

    Outcome copy() {
        TestRun run;
        return copy(run);
    }

    Outcome copy(TestRun &run) {
        run.src_root_len = static_cast<std::int32_t>(src_.size());
        run.dst_root_len = static_cast<std::int32_t>(dst_.size());
        const Diagnostics diagnostics(6);
        Outcome outcome;
        outcome.result = do_copy_file((src_ + "/sub/file").c_str(), (dst_ + "/sub/file").c_str(), run);
        outcome.failures = in_short(run.failures());
        outcome.code = run.error_code;
        outcome.message = in_short(run.message());
        outcome.diagnostics = in_short(diagnostics.without_places());
        if (!outcome.failures.empty()) {
            EXPECT_EQ(run.copied(), "");
        }
        return outcome;
    }

    std::string in_short(const std::string &text) const {
        return with_replaced(with_replaced(text, src_, "SRC"), dst_, "DST");
    }

    /// The failed copy must not pass for the file: without the fault, the next run copies it.
    void expect_next_run_mends_it() {
        kernel() = Kernel{};
        TestRun run;
        copy_tree(run, src_, dst_);
        EXPECT_EQ(run.copied(), "Copy File  sub/file\n");
        EXPECT_TRUE(read_file(dst_ + "/sub/file") == read_file(src_ + "/sub/file"));
        EXPECT_EQ(run.failures(), "");
    }

    std::string src_;
    std::string dst_;
};

/// The last lines of every failing copy.
Outcome failed(int result, const std::string &first_failures, std::int32_t code, const std::string &message,
               const std::string &first_diagnostics = "") {
    return {result, first_failures + "Failed to copy file 'sub/file' (error: " + text_of(result) + ")!\n", code,
            message, first_diagnostics + "(error) Copying file 'DST/sub/file' failed (" + text_of(result) + ")\n"};
}

Outcome not_created(int error) {
    return {error, "Cannot create file 'DST/sub/file' (error: " + text_of(error) + ")!\n", 13,
            "Destination is Read-Only.", "(error) Cannot create file DST/sub/file (" + std::to_string(error) + ")\n"};
}

// ---- the destination's mode ----

TEST_F(FileFailure, ACopyThatNobodyMayWriteIsRenewedWhereModesBind) {
    REQUIRE_VOLUME(Volume::ext4);
    prepare(Volume::ext4, Volume::ext4);
    write_file(dst_ + "/sub/file", "an earlier copy");
    for (const std::string &path : {src_ + "/sub/file", dst_ + "/sub/file"})
        ASSERT_EQ(chmod(path.c_str(), 0444), 0);
    const BoundByModes bound;
    ASSERT_EQ(open((dst_ + "/sub/file").c_str(), O_WRONLY | O_CLOEXEC), -1);
    EXPECT_EQ(copy(), (Outcome{0, "", 0, "(none)", ""}));
    EXPECT_TRUE(read_file(dst_ + "/sub/file") == read_file(src_ + "/sub/file"));
    struct stat status {};
    ASSERT_EQ(stat((dst_ + "/sub/file").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0444U);
}

TEST_F(FileFailure, AFolderThatNobodyMayWriteStaysWithoutTheCopy) {
    REQUIRE_VOLUME(Volume::ext4);
    prepare(Volume::ext4, Volume::ext4);
    ASSERT_EQ(chmod((dst_ + "/sub").c_str(), 0555), 0);
    {
        const BoundByModes bound;
        EXPECT_EQ(copy(), not_created(EACCES));
    }
    expect_next_run_mends_it();
}

// ---- the source ----

TEST_F(FileFailure, MissingSource) {
    REQUIRE_VOLUME(Volume::ext4);
    prepare(Volume::ext4, Volume::ext4);
    remove_tree(src_ + "/sub/file");
    const Outcome expected = {2, "Failed to get status of file 'sub/file' (error: No such file or directory)!\n", 6,
                              "Failed to locate file 'SRC/sub/file' (No such file or directory)\n",
                              "(warning) Failed to locate file 'SRC/sub/file' (No such file or directory)\n"};
    EXPECT_EQ(copy(), expected);
    EXPECT_FALSE(file_exists(dst_ + "/sub/file"));
}

TEST_F(FileFailure, SourceThatCannotBeExaminedGives2WhateverTheCause) {
    REQUIRE_VOLUME(Volume::ext4);
    prepare(Volume::ext4, Volume::ext4);
    remove_tree(src_ + "/sub");
    write_file(src_ + "/sub", "a file in the way");
    const Outcome expected = {2, "Failed to get status of file 'sub/file' (error: Not a directory)!\n", 6,
                              "Failed to locate file 'SRC/sub/file' (Not a directory)\n",
                              "(warning) Failed to locate file 'SRC/sub/file' (Not a directory)\n"};
    EXPECT_EQ(copy(), expected);
}

TEST_F(FileFailure, SourceThatIsNoRegularFileIsSkipped) {
    REQUIRE_VOLUME(Volume::ext4);
    prepare(Volume::ext4, Volume::ext4);
    alarm(20); // a pipe must not be waited for
    for (const mode_t type : std::initializer_list<mode_t>{S_IFDIR, S_IFIFO, S_IFCHR, S_IFSOCK}) {
        remove_tree(src_ + "/sub/file");
        if (type == S_IFDIR) {
            make_folder(src_ + "/sub/file");
        } else {
            ASSERT_EQ(mknod((src_ + "/sub/file").c_str(), type | 0644, 0x0103), 0);
        }
        const Outcome expected = {0, "Skip to copy 'sub/file' because it is not a regular file!\n", 0, "(none)",
                                  "(info) File 'SRC/sub/file' is not a regular file.  Skipping.\n"};
        EXPECT_EQ(copy(), expected);
        EXPECT_FALSE(file_exists(dst_ + "/sub/file"));
    }
    alarm(0);
}

TEST_F(FileFailure, UnreadableSource) {
    REQUIRE_VOLUME(Volume::ext4);
    for (const Volume kind : {Volume::ext4, Volume::tmpfs})
        for (const std::size_t size : {std::size_t{0}, std::size_t{100'000}}) {
            prepare(kind, kind, size);
            chmod((src_ + "/sub/file").c_str(), 0600);
            chmod((dst_ + "/sub").c_str(), 0777);
            const AsUser user;
            EXPECT_EQ(copy(), failed(EACCES, "Cannot read file 'sub/file' (error: Permission denied)!\n", 6,
                                     "cannot read file sub/file"));
        }
}

// ---- the destination ----

TEST_F(FileFailure, DestinationThatCannotBeCreatedIsReadOnlyWhateverTheCause) {
    REQUIRE_VOLUME(Volume::ext4);
    alarm(20); // a pipe must not be waited for
    prepare(Volume::ext4, Volume::ext4);
    make_folder(dst_ + "/sub/file");
    EXPECT_EQ(copy(), not_created(EISDIR));

    remove_tree(dst_ + "/sub/file");
    ASSERT_EQ(mkfifo((dst_ + "/sub/file").c_str(), 0644), 0);
    EXPECT_EQ(copy(), not_created(ENXIO));

    remove_tree(dst_ + "/sub/file");
    ASSERT_EQ(symlink("file", (dst_ + "/sub/file").c_str()), 0);
    EXPECT_EQ(copy(), not_created(ELOOP));

    remove_tree(dst_ + "/sub");
    EXPECT_EQ(copy(), not_created(ENOENT));

    write_file(dst_ + "/sub", "a file in the way");
    EXPECT_EQ(copy(), not_created(ENOTDIR));
    alarm(0);
}

TEST_F(FileFailure, UnwritableDestinationAndFolder) {
    REQUIRE_VOLUME(Volume::ext4);
    prepare(Volume::ext4, Volume::ext4);
    {
        const AsUser user;
        EXPECT_EQ(copy(), not_created(EACCES));
    }
    write_file(dst_ + "/sub/file", "kept");
    const AsUser user;
    EXPECT_EQ(copy(), not_created(EACCES));
    EXPECT_EQ(read_file(dst_ + "/sub/file"), "kept");
}

TEST_F(FileFailure, ReadOnlyVolume) {
    REQUIRE_VOLUME(Volume::small_ext4);
    prepare(Volume::ext4, Volume::small_ext4);
    write_file(dst_ + "/sub/file", "kept");
    {
        const ReadOnly volume_is(volume(Volume::small_ext4));
        EXPECT_EQ(copy(), not_created(EROFS));
    }
    EXPECT_EQ(read_file(dst_ + "/sub/file"), "kept");
}

TEST_F(FileFailure, PipeWithAReaderAsDestinationGetsNothing) {
    REQUIRE_VOLUME(Volume::ext4);
    prepare(Volume::ext4, Volume::ext4);
    ASSERT_EQ(mkfifo((dst_ + "/sub/file").c_str(), 0644), 0);
    const int reader = open((dst_ + "/sub/file").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(reader, 0);
    alarm(20);
    EXPECT_EQ(copy(), failed(EINVAL, "", 6, "Failed to copy file 'sub/file' (Invalid argument)\n"));
    alarm(0);
    std::array<char, 16> buffer{};
    EXPECT_LE(read(reader, buffer.data(), buffer.size()), 0);
    close(reader);
}

TEST_F(FileFailure, DestinationThatIsItsSourceKeepsItsContent) {
    REQUIRE_VOLUME(Volume::ext4);
    for (const bool by_link : {false, true}) {
        prepare(Volume::ext4, Volume::ext4);
        if (by_link) {
            ASSERT_EQ(symlink((src_ + "/sub/file").c_str(), (dst_ + "/sub/file").c_str()), 0);
        } else {
            ASSERT_EQ(link((src_ + "/sub/file").c_str(), (dst_ + "/sub/file").c_str()), 0);
        }
        EXPECT_EQ(copy(), failed(EINVAL, "", 6, "Failed to copy file 'sub/file' (Invalid argument)\n"));
        EXPECT_TRUE(read_file(src_ + "/sub/file") == pattern(100'000));
        EXPECT_EQ(mtime_of(src_ + "/sub/file"), 1'500'000'000'000'000'000);
    }
}

TEST_F(FileFailure, FileSystemStatistics) {
    REQUIRE_VOLUME(Volume::ext4);
    for (const std::string side : {"SRC", "DST"}) {
        prepare(Volume::ext4, Volume::ext4);
        const std::string broken = side == "SRC" ? src_ : dst_;
        kernel().statfs = [broken](const std::string &path, struct statfs &) {
            return path.compare(0, broken.size(), broken) == 0 ? EIO : 0;
        };
        const Outcome expected = {22,
                                  "Cannot get filesystem statistics of file 'sub/file' (error: Input/output error)!\n",
                                  0, "(none)", "(error) statfs(" + side + "/sub/file) fail. errno=5\n"};
        EXPECT_EQ(copy(), expected);
        EXPECT_EQ(read_file(dst_ + "/sub/file"), "") << "created before the file systems are asked";
    }
}

// ---- the bytes ----

enum class Fault { read, end_of_file, write, reserve, close, memory };

struct FaultCase {
    const char *name;
    Volume dst; ///< from ext4
    std::size_t size;
    Fault fault;
    int error;
    Outcome expected;
};

std::ostream &operator<<(std::ostream &stream, const FaultCase &c) { return stream << c.name; }

Outcome read_failed(int error) {
    return failed(error, "Cannot read file 'sub/file' (error: " + text_of(error) + ")!\n", 6,
                  "cannot read file sub/file");
}

Outcome write_failed(int error, std::int32_t code, const std::string &message) {
    return failed(error, "Cannot write file 'sub/file' (error: " + text_of(error) + ")!\n", code, message);
}

Outcome reservation_failed(int error, std::int32_t code, const std::string &message) {
    return failed(error, "Failed to allocate space for file 'sub/file' (error: " + text_of(error) + ")!\n", code,
                  message, "(error) fallocate() failed. errno=" + std::to_string(error) + ".\n");
}

const FaultCase kFaultCases[] = {
    {"buffered_read_EIO", Volume::tmpfs, 100'000, Fault::read, EIO, read_failed(EIO)},
    {"buffered_read_ESTALE", Volume::tmpfs, 5, Fault::read, ESTALE, read_failed(ESTALE)},
    {"buffered_end_of_file", Volume::tmpfs, 100'000, Fault::end_of_file, 0, read_failed(EIO)},
    {"native_read_EIO", Volume::ext4, 100'000, Fault::read, EIO, read_failed(EIO)},
    {"native_small_read_EIO", Volume::ext4, 5, Fault::read, EIO, read_failed(EIO)},
    {"native_end_of_file", Volume::ext4, 100'000, Fault::end_of_file, 0, read_failed(EIO)},
    {"native_read_ENOSPC_is_a_read_failure", Volume::ext4, 5, Fault::read, ENOSPC, read_failed(ENOSPC)},

    {"buffered_write_ENOSPC", Volume::tmpfs, 100'000, Fault::write, ENOSPC,
     write_failed(ENOSPC, 8, "No space left on destination.")},
    {"buffered_small_write_ENOSPC", Volume::tmpfs, 5, Fault::write, ENOSPC,
     write_failed(ENOSPC, 8, "No space left on destination.")},
    {"buffered_write_EROFS", Volume::tmpfs, 100'000, Fault::write, EROFS,
     write_failed(EROFS, 8, "Destination is Read-Only.")},
    {"buffered_write_EDQUOT", Volume::tmpfs, 100'000, Fault::write, EDQUOT,
     write_failed(EDQUOT, 6, "cannot write file sub/file")},
    {"buffered_write_EFBIG", Volume::tmpfs, 100'000, Fault::write, EFBIG,
     write_failed(EFBIG, 6, "cannot write file sub/file")},
    {"buffered_write_EIO", Volume::tmpfs, 100'000, Fault::write, EIO,
     write_failed(EIO, 6, "cannot write file sub/file")},
    {"native_write_EIO", Volume::ext4, 100'000, Fault::write, EIO, write_failed(EIO, 6, "cannot write file sub/file")},
    {"native_write_ENOSPC_after_reservation", Volume::ext4, 100'000, Fault::write, ENOSPC,
     write_failed(ENOSPC, 8, "No space left on destination.")},
    {"native_write_EROFS", Volume::btrfs, 100'000, Fault::write, EROFS,
     write_failed(EROFS, 8, "Destination is Read-Only.")},

    {"reserve_EINVAL", Volume::ext4, 100'000, Fault::reserve, EINVAL,
     reservation_failed(EINVAL, 6, "File is too big: sub/file")},
    {"reserve_EFBIG", Volume::ext4, 100'000, Fault::reserve, EFBIG,
     reservation_failed(EFBIG, 6, "File is too big: sub/file")},
    {"reserve_ENOSPC", Volume::btrfs, 100'000, Fault::reserve, ENOSPC,
     reservation_failed(ENOSPC, 8, "No space left: sub/file")},
    {"reserve_EROFS", Volume::ext4, 100'000, Fault::reserve, EROFS,
     reservation_failed(EROFS, 8, "Destination is Read-Only.")},
    {"reserve_EDQUOT", Volume::ext4, 100'000, Fault::reserve, EDQUOT,
     reservation_failed(EDQUOT, 6, "cannot create file sub/file")},
    {"reserve_EIO", Volume::ext4, 100'000, Fault::reserve, EIO,
     reservation_failed(EIO, 6, "cannot create file sub/file")},
    {"small_file_without_space", Volume::ext4, 65'536, Fault::write, ENOSPC,
     reservation_failed(ENOSPC, 8, "No space left: sub/file")},
    {"small_file_over_quota", Volume::btrfs, 5, Fault::write, EDQUOT,
     reservation_failed(EDQUOT, 6, "cannot create file sub/file")},
    {"small_file_too_big", Volume::ext4, 5, Fault::write, EFBIG,
     reservation_failed(EFBIG, 6, "File is too big: sub/file")},

    {"buffered_close_EDQUOT", Volume::tmpfs, 100'000, Fault::close, EDQUOT,
     write_failed(EDQUOT, 6, "cannot write file sub/file")},
    {"buffered_close_ENOSPC", Volume::tmpfs, 100'000, Fault::close, ENOSPC,
     write_failed(ENOSPC, 8, "No space left on destination.")},
    {"buffered_no_memory", Volume::tmpfs, 100'000, Fault::memory, ENOMEM,
     failed(ENOMEM, "", 6, "Failed to copy file 'sub/file' (Cannot allocate memory)\n")},
    {"native_no_memory", Volume::ext4, 100'000, Fault::memory, ENOMEM,
     failed(ENOMEM, "", 6, "Failed to copy file 'sub/file' (Cannot allocate memory)\n")},
};

class FileFault : public FileFailure, public testing::WithParamInterface<FaultCase> {};

void inject(const FaultCase &c) {
    const int error = c.error;
    const auto fails = [error](int, std::size_t, off_t) -> std::optional<ssize_t> { return -error; };
    switch (c.fault) {
    case Fault::read:
        kernel().pread = fails;
        break;
    case Fault::end_of_file:
        kernel().pread = [](int, std::size_t, off_t) -> std::optional<ssize_t> { return 0; };
        break;
    case Fault::write:
        kernel().pwrite = fails;
        break;
    case Fault::reserve:
        kernel().fallocate = [error](int, off_t) { return error; };
        break;
    case Fault::close:
        kernel().close = [error](int fd) { return (fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY ? error : 0; };
        break;
    case Fault::memory:
        kernel().failing_allocation = std::size_t{64} * 1024;
        break;
    }
}

TEST_P(FileFault, IsReportedInTheSystemsWords) {
    const FaultCase &c = GetParam();
    REQUIRE_VOLUME(c.dst);
    for (const bool existing : {false, true}) {
        prepare(Volume::ext4, c.dst, c.size);
        if (existing) write_file(dst_ + "/sub/file", pattern(c.size));
        inject(c);
        EXPECT_EQ(copy(), c.expected);
        if (c.fault != Fault::close) {
            EXPECT_EQ(status_of(dst_ + "/sub/file").st_size, 0) << "nothing that was not copied passes for content";
        }
        expect_next_run_mends_it();
    }
}

TEST_P(FileFault, LeaksNothingInATree) {
    const FaultCase &c = GetParam();
    REQUIRE_VOLUME(c.dst);
    prepare(Volume::ext4, c.dst, c.size);
    for (int index = 0; index < 40; ++index)
        write_file(src_ + "/more" + std::to_string(index), pattern(c.size));
    inject(c);
    TestRun run;
    copy_tree(run, src_, dst_);
    EXPECT_NE(run.error_code, 0);
} // the fixture counts the descriptors

INSTANTIATE_TEST_SUITE_P(Faults, FileFault, testing::ValuesIn(kFaultCases),
                         [](const auto &about) { return about.param.name; });

TEST_F(FileFailure, BytesBeforeAFailureAreCountedByWholeSlices) {
    REQUIRE_VOLUME(Volume::ext4);
    constexpr off_t kSlice = off_t{16} * 1024 * 1024;
    for (const Volume kind : {Volume::ext4, Volume::tmpfs}) {
        prepare(Volume::ext4, kind, static_cast<std::size_t>(kSlice) + 1'000'000);
        kernel().pread = [](int, std::size_t, off_t offset) -> std::optional<ssize_t> {
            return offset >= kSlice + 500'000 ? std::optional<ssize_t>(-EIO) : std::nullopt;
        };
        TestRun run;
        EXPECT_EQ(copy(run), read_failed(EIO));
        EXPECT_EQ(run.bytes, kSlice);
        EXPECT_GE(status_of(dst_ + "/sub/file").st_size, kSlice);
        EXPECT_LE(status_of(dst_ + "/sub/file").st_size, kSlice + 1'000'000 - 1);
        expect_next_run_mends_it();
    }
}

TEST_F(FileFailure, SourceThatShrinksMeanwhileIsAReadFailure) {
    REQUIRE_VOLUME(Volume::ext4);
    for (const Volume kind : {Volume::ext4, Volume::btrfs, Volume::tmpfs}) {
        prepare(Volume::ext4, kind, 1'000'000);
        kernel().pread = [this](int, std::size_t, off_t offset) -> std::optional<ssize_t> {
            if (offset > 0) {
                EXPECT_EQ(truncate((src_ + "/sub/file").c_str(), 400'000), 0);
            }
            return std::nullopt;
        };
        EXPECT_EQ(copy(), read_failed(EIO));
        expect_next_run_mends_it();
    }
}

// ---- volumes that are really full, limits that are really there ----

TEST_F(FileFailure, FullVolume) {
    struct Case {
        Volume kind;
        std::size_t size;
        Outcome expected;
    };
    for (const Case &c :
         {Case{Volume::small_ext4, 300'000, reservation_failed(ENOSPC, 8, "No space left: sub/file")},
          Case{Volume::small_ext4, 60'000, reservation_failed(ENOSPC, 8, "No space left: sub/file")},
          Case{Volume::small_tmpfs, 300'000, write_failed(ENOSPC, 8, "No space left on destination.")},
          Case{Volume::small_tmpfs, 60'000, write_failed(ENOSPC, 8, "No space left on destination.")}}) {
        REQUIRE_VOLUME(c.kind);
        prepare(Volume::ext4, c.kind, c.size);
        {
            const Ballast ballast(volume(c.kind), 20'000);
            EXPECT_EQ(copy(), c.expected) << c.size;
        }
        expect_next_run_mends_it();
    }
}

TEST_F(FileFailure, FileBeyondTheSizeLimit) {
    REQUIRE_VOLUME(Volume::ext4);
    struct Case {
        Volume kind;
        std::size_t size;
        Outcome expected;
    };
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    for (const Case &c : {Case{Volume::ext4, 300'000, reservation_failed(EFBIG, 6, "File is too big: sub/file")},
                          Case{Volume::ext4, 60'000, reservation_failed(EFBIG, 6, "File is too big: sub/file")},
                          Case{Volume::tmpfs, 300'000, write_failed(EFBIG, 6, "cannot write file sub/file")}}) {
        prepare(Volume::ext4, c.kind, c.size);
        const auto handler = std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {50'000, before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        const Outcome outcome = copy();
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
        std::signal(SIGXFSZ, handler);
        EXPECT_EQ(outcome, c.expected);
        expect_next_run_mends_it();
    }
}

TEST_F(FileFailure, FirstErrorOfARunStays) {
    REQUIRE_VOLUME(Volume::ext4);
    prepare(Volume::ext4, Volume::ext4);
    make_folder(dst_ + "/sub/file");
    write_file(src_ + "/sub/other", "x");
    TestRun run;
    copy_tree(run, src_, dst_);
    EXPECT_EQ(run.error_code, 13);
    kernel().pread = [](int, std::size_t, off_t) -> std::optional<ssize_t> { return -EIO; };
    run.full = 1;
    copy_tree(run, src_, dst_);
    EXPECT_EQ(run.error_code, 13);
    EXPECT_EQ(run.message(), "Destination is Read-Only.");
    EXPECT_THAT(run.failures(), HasSubstr("Cannot read file 'sub/other'"));
}

} // namespace
} // namespace tsbackup::test
