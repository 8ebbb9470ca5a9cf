// Stand-ins for the commands that mount remote ends, and a record of what is mounted and unmounted.

#pragma once

#include "support.h"

#include <optional>
#include <string>
#include <vector>

namespace tsbackup::test {

/// A start of a mount command: its words, the command's own name included, and the password in its environment.
struct MountCommand {
    std::vector<std::string> words;
    std::optional<std::string> password;
    /// The words with a "|" between them.
    std::string line() const;
};

/// Is first on the search path for as long as it lives, in place of "timeout", "mount.cifs" and "mount". Every start is
/// recorded. It then fails with 32, unless a script says otherwise.
class MountTools {
  public:
    MountTools();
    ~MountTools();
    MountTools(const MountTools &) = delete;
    MountTools &operator=(const MountTools &) = delete;

    /// What start number `call` does (the first is 1), in the shell's language; "$at" is the mount point.
    MountTools &answers(int call, const std::string &script);
    /// What all other starts do.
    MountTools &answers(const std::string &script);
    /// The script that shows a folder on the mount point.
    static std::string shows(const std::string &folder);
    /// The same read-only.
    static std::string shows_read_only(const std::string &folder);

    std::vector<MountCommand> commands() const;
    /// The same as lines.
    std::vector<std::string> lines() const;

  private:
    TempFolder folder_;
    std::string path_before_;
};

/// Whether something is mounted on a path, as this process sees it.
bool is_mounted(const std::string &path);

} // namespace tsbackup::test
