// Files as jobs and camera imports leave them.

#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tsbackup::test {

struct StatusFile {
    std::string path;
    std::string content;
};

/// A job in every state, names and messages that attack terminals, a camera import; all written at a fixed time.
std::vector<StatusFile> sample_files();

/// Empties the folders and writes the files, all with the same time of change.
void write_files(const std::vector<StatusFile> &files);

/// The time that the samples take for now.
inline constexpr long kNow = 1'700'003'600;

} // namespace tsbackup::test
