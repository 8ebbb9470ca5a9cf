#include "child.h"

#include "support.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tsbackup::test {
namespace {

ChildSetup shell(const std::string &script) { return {{"/bin/sh", "-c", script}, {"PATH=/usr/bin:/bin", "MARK=x y"}}; }

bool has_ended(const Child &child, int milliseconds) {
    pollfd source{child.ended.get(), POLLIN, 0};
    return poll(&source, 1, milliseconds) == 1;
}

int run(const ChildSetup &setup) {
    std::optional<Child> child = child_start(setup);
    if (!child) return -1000;
    child_release(*child);
    EXPECT_TRUE(has_ended(*child, 20000));
    return child_collect(*child);
}

TEST(Child, tells_how_it_ended) {
    EXPECT_EQ(run(shell("exit 0")), 0);
    EXPECT_EQ(run(shell("exit 3")), 3);
    EXPECT_EQ(run(shell("kill -9 $$")), 137);
    EXPECT_EQ(run({{"/no/such/program"}, {}}), 127);
    EXPECT_EQ(child_end_text(0), "ended with status 0");
    EXPECT_EQ(child_end_text(137), "was ended by signal 9");
    EXPECT_EQ(child_end_text(127), "could not be run");
    EXPECT_EQ(child_end_text(-1), "has ended");
}

TEST(Child, has_a_group_an_environment_and_streams_of_its_own_and_nothing_else) {
    const TempFolder folder;
    const UniqueFd leak(open("/dev/null", O_RDONLY)); // not even close-on-exec
    const std::string out = folder / "out";
    EXPECT_EQ(run(shell("exec >" + out +
                        "; echo $MARK; env | grep -c HOME; [ $(ps -o pgid= -p $$) = $$ ] && echo leader\n"
                        "for fd in $(seq 3 50); do [ ! -e /proc/$$/fd/$fd ] || echo leaked $fd; done\n"
                        "readlink /proc/$$/fd/0; exec grep -E '^Sig(Blk|Ign)' /proc/self/status")),
              0);
    EXPECT_EQ(read_file(out), "x y\n0\nleader\n/dev/null\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST(Child, reads_what_it_is_given) {
    const TempFolder folder;
    const UniqueFd input(memfd_create("input", MFD_CLOEXEC));
    ASSERT_EQ(write(input.get(), "hello\n", 6), 6);
    lseek(input.get(), 0, SEEK_SET);
    ChildSetup setup = shell("cat >" + (folder / "out"));
    setup.standard_input = input.get();
    EXPECT_EQ(run(setup), 0);
    EXPECT_EQ(read_file(folder / "out"), "hello\n");
}

TEST(Child, holds_still_until_it_is_released) {
    const TempFolder folder;
    std::optional<Child> child = child_start(shell("echo ran >" + (folder / "out")));
    ASSERT_TRUE(child);
    EXPECT_FALSE(has_ended(*child, 100));
    EXPECT_FALSE(file_exists(folder / "out"));
    child_release(*child);
    EXPECT_TRUE(has_ended(*child, 20000));
    EXPECT_EQ(child_collect(*child), 0);
    EXPECT_EQ(read_file(folder / "out"), "ran\n");
}

TEST(Child, is_never_run_when_its_starter_dies_first) {
    const TempFolder folder;
    std::optional<Child> child = child_start(shell("echo ran >" + (folder / "out")));
    ASSERT_TRUE(child);
    child->go.reset(); // as at the starter's end
    EXPECT_TRUE(has_ended(*child, 20000));
    EXPECT_EQ(child_collect(*child), 126);
    EXPECT_FALSE(file_exists(folder / "out"));
}

TEST(Child, is_adopted_by_its_identity_alone) {
    std::optional<Child> child = child_start(shell("exec sleep 60"));
    ASSERT_TRUE(child);
    child_release(*child);
    const ProcessIdentity identity = child->identity;
    EXPECT_EQ(process_identity(identity.pid), identity);
    std::optional<Child> adopted = child_adopt(identity);
    ASSERT_TRUE(adopted);
    EXPECT_EQ(child_collect(*adopted), -1);
    EXPECT_FALSE(has_ended(*adopted, 0));

    ProcessIdentity other = identity;
    other.start += "1";
    EXPECT_FALSE(child_adopt(other));
    other = identity;
    other.boot = "another start of the machine";
    EXPECT_FALSE(child_adopt(other));
    EXPECT_FALSE(child_adopt({identity.boot, 0, identity.start}));

    kill(identity.pid, SIGKILL);
    EXPECT_TRUE(has_ended(*adopted, 20000));
    EXPECT_FALSE(child_adopt(identity)); // a zombie has ended
    EXPECT_EQ(child_collect(*child), 137);
    EXPECT_FALSE(child_adopt(identity));
}

} // namespace
} // namespace tsbackup::test
