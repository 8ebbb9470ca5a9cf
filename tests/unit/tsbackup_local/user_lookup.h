// Control over the look-up of users in this process.

#pragma once

#include <cstddef>
#include <optional>
#include <vector>

namespace tsbackup::test {

/// While it lives, looking a user up goes as it says; the true look-up does what is left open.
class UserLookup {
  public:
    struct Plan {
        std::optional<long> reported_size; ///< what the system reports as the size that an entry needs
        int failure = 0;                   ///< not 0: the look-up fails with this error number
    };
    explicit UserLookup(const Plan &plan);
    ~UserLookup();
    UserLookup(const UserLookup &) = delete;
    UserLookup &operator=(const UserLookup &) = delete;
    /// The sizes of the buffers that were handed in, in order.
    static std::vector<std::size_t> sizes();
};

} // namespace tsbackup::test
