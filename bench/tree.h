// Walks over the trees of the benchmark, outside the measured time.

#pragma once

#include <cstdint>
#include <string>

namespace tsbackup::bench {

struct TreeTotals {
    std::int64_t files = 0;
    std::int64_t folders = 0;
    std::int64_t bytes = 0;
};

enum class Reading { entries, contents };

/// Examines every entry of a tree and, when asked, reads every file, so that it is in memory.
TreeTotals read_tree(const std::string &root, Reading reading);

/// Whether `copy` holds exactly the files and folders of `original`, with the same content, owner, mode, access list
/// and (files) modification time. The first difference is printed on standard error.
bool same_trees(const std::string &original, const std::string &copy);

/// Makes the last file in name order longer by a byte, which an incremental copy has to notice. False when it cannot.
bool change_last_file(const std::string &root);

} // namespace tsbackup::bench
