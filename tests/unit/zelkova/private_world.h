// A child process with namespaces of its own, for tests that set up a network or devices.

#pragma once

#include <functional>
#include <gtest/gtest.h>
#include <string>

namespace tsbackup::test {

enum class WorldResult { passed, failed, refused };

/// Runs `check` in a child with the namespaces of `unshare_flags` (CLONE_NEW...); mounts made there stay there. The
/// child prints its own failed expectations. `refused`: this machine does not allow such namespaces, or `check` called
/// refuse().
WorldResult in_private_world(int unshare_flags, const std::function<void()> &check);

/// Ends the child: what the check needs is not to be had here.
[[noreturn]] void refuse(const std::string &reason);

/// Runs a check as in_private_world() and turns its result into this test's.
#define EXPECT_IN_PRIVATE_WORLD(flags, check)                                                                          \
    do {                                                                                                               \
        const ::tsbackup::test::WorldResult result = ::tsbackup::test::in_private_world(flags, check);                 \
        if (result == ::tsbackup::test::WorldResult::refused) GTEST_SKIP() << "needs namespaces of its own";           \
        EXPECT_EQ(result, ::tsbackup::test::WorldResult::passed) << "see the failures of the child above";             \
    } while (false)

} // namespace tsbackup::test
