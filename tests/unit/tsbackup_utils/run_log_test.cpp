#include "tsbackup_utils.h"

#include "kernel.h"
#include "support.h"

#include "tsbackup/owners.h"

#include <cerrno>
#include <deque>
#include <fcntl.h>
#include <gtest/gtest.h>

using namespace tsbackup;
using namespace tsbackup::test;

namespace {

class RunLog : public testing::Test {
  protected:
    void SetUp() override {
        copy_log_.reset(open(copy_path().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        error_log_.reset(open(error_path().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        run_.copy_log = copy_log_.get();
        run_.error_log = error_log_.get();
        kernel_.write = [this](int, std::size_t size) -> ssize_t {
            ++writes_;
            if (answers_.empty()) return static_cast<ssize_t>(size);
            const ssize_t answer = answers_.front();
            answers_.pop_front();
            return answer;
        };
    }

    std::string copy_path() const { return folder_ / "copy"; }
    std::string error_path() const { return folder_ / "error"; }

    TempFolder folder_;
    UniqueFd copy_log_, error_log_;
    BackupRun run_;
    Kernel kernel_;
    std::deque<ssize_t> answers_; ///< of the next writes: bytes written, or a negative errno value
    int writes_ = 0;
};

TEST_F(RunLog, ALineOfAnyLengthIsOneWrite) {
    for (const std::size_t length : {1UL, 80UL, 1022UL, 1023UL, 1024UL, 1025UL, 4096UL, 8300UL, 100'000UL}) {
        SCOPED_TRACE(length);
        const std::string text = std::string(length - 1, 'p') + "\n";
        ASSERT_EQ(ftruncate(run_.copy_log, 0), 0);
        lseek(run_.copy_log, 0, SEEK_SET);
        writes_ = 0;
        copy_log_line(run_, "%s", text.c_str());
        EXPECT_EQ(writes_, 1);
        EXPECT_EQ(read_file(copy_path()), text);
    }
}

TEST_F(RunLog, LinesFollowEachOtherInTheirOwnLog) {
    copy_log_line(run_, "Copy Folder  %s\n", "album");
    error_log_line(run_, "Cannot read file '%s' (error: %s)!\n", "album/a", "Input/output error");
    copy_log_line(run_, "Copy File  %s\n", "album/b");
    EXPECT_EQ(read_file(copy_path()), "Copy Folder  album\nCopy File  album/b\n");
    EXPECT_EQ(read_file(error_path()), "Cannot read file 'album/a' (error: Input/output error)!\n");
}

TEST_F(RunLog, ALogThatIsNotOpenTakesNothing) {
    run_.copy_log = -1;
    run_.error_log = -1;
    copy_log_line(run_, "Copy File  %s\n", "a");
    error_log_line(run_, "Cannot read %s\n", "a");
    EXPECT_EQ(writes_, 0);
}

TEST_F(RunLog, AnInterruptedOrShortWriteGoesOn) {
    answers_ = {-EINTR, 3, 1, -EINTR};
    error_log_line(run_, "%s\n", "0123456789");
    EXPECT_EQ(read_file(error_path()), "0123456789\n");
    EXPECT_EQ(writes_, 5);
}

TEST_F(RunLog, AFailedWriteGivesTheLineUp) {
    answers_ = {3, -ENOSPC};
    copy_log_line(run_, "%s\n", "0123456789");
    EXPECT_EQ(read_file(copy_path()), "012");
    EXPECT_EQ(writes_, 2);
    copy_log_line(run_, "next\n");
    EXPECT_EQ(read_file(copy_path()), "012next\n");
}

TEST_F(RunLog, ALineThatCannotBeFormattedIsDropped) {
    const wchar_t impossible[] = {static_cast<wchar_t>(0x7fffffff), 0};
    copy_log_line(run_, "%ls\n", impossible);
    EXPECT_EQ(writes_, 0);
}

} // namespace
