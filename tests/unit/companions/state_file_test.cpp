#include "state_file.h"

#include "support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(StateFile, keeps_what_waits_and_what_runs) {
    const TempFolder folder;
    const std::string path = folder / "queue";
    QueueState state;
    state.waiting = {"7", "1:001:004:Canon PowerShot:x", "0"};
    state.running = RunningTask{"1:002:001:a b", {"0f-1", 4711, "123456"}};
    ASSERT_TRUE(state_save(path, state));
    const QueueState loaded = state_load(path);
    EXPECT_EQ(loaded.waiting, state.waiting);
    ASSERT_TRUE(loaded.running);
    EXPECT_EQ(loaded.running->task, state.running->task);
    EXPECT_EQ(loaded.running->worker, state.running->worker);
    EXPECT_THAT(list_folder(folder.path()), ElementsAre("queue"));
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0644U);
}

TEST(StateFile, a_missing_file_is_an_empty_state) {
    const TempFolder folder;
    const QueueState state = state_load(folder / "none");
    EXPECT_THAT(state.waiting, IsEmpty());
    EXPECT_FALSE(state.running);
    EXPECT_TRUE(state_save(folder / "queue", {}));
    EXPECT_EQ(read_file(folder / "queue"), "");
}

TEST(StateFile, damaged_lines_are_left_out) {
    const TempFolder folder;
    const std::string path = folder / "queue";
    write_file(path, "waiting 1\nwaiting \nwaiting\nhello\nrunning\nrunning a\nrunning a b c\nrunning a 5 c\n"
                     "running a 0 c 7\nrunning boot 5 9 7\nrunning boot 6 9 8\nwaiting 2");
    const QueueState state = state_load(path);
    EXPECT_THAT(state.waiting, ElementsAre("1", "2"));
    ASSERT_TRUE(state.running);
    EXPECT_EQ(state.running->task, "7");
    EXPECT_EQ(state.running->worker.pid, 5);
}

TEST(StateFile, a_failed_write_leaves_the_old_state) {
    const TempFolder folder;
    const std::string path = folder / "queue";
    ASSERT_TRUE(state_save(path, {{"1"}, std::nullopt}));
    make_folder(path + ".new"); // nothing can be written in its place
    EXPECT_FALSE(state_save(path, {{"2"}, std::nullopt}));
    EXPECT_THAT(state_load(path).waiting, ElementsAre("1"));
}

} // namespace
} // namespace tsbackup::test
