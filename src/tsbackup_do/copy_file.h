#pragma once

#include "place.h"
#include "tsbackup/owners.h"
#include "tsbackup/run.h"

#include <optional>
#include <sys/stat.h>

namespace tsbackup {

/// The buffer through which the bytes of all files of a walk move; allocated once, when it is first needed.
class CopyBuffer {
  public:
    static constexpr std::size_t size = std::size_t{64} * 1024;
    /// Null when it cannot be allocated.
    char *get() {
        if (!block_) block_.reset(static_cast<char *>(std::malloc(size)));
        return block_.get();
    }

  private:
    UniqueText block_;
};

/// What a walk knows of the two folders around a file, so that no file asks for it again. All zero: nothing.
struct FolderFacts {
    dev_t src_device = 0;
    long src_type = 0; ///< file-system type of `src_device`, 0: unknown
    dev_t dst_device = 0;
    long dst_type = 0;                ///< file-system type of `dst_device`, 0: unknown
    bool dst_is_fresh = false;        ///< the walk itself has just created the destination folder
    bool dst_hands_down_lists = true; ///< false: new files there certainly get no access list
};

/// One file to be copied. A walk that has looked at the source already hands over what it found and holds.
struct CopyTask {
    Place src;
    Place dst;
    std::optional<struct stat> src_status; ///< no value: not yet looked at
    UniqueFd src_fd;                       ///< the opened source; -1: not yet opened
    bool follow_source = false;            ///< a source that the job names may be a symbolic link, an entry may not
};

/// Copies one file; see do_copy_file.
int copy_file(CopyTask &task, const FolderFacts &facts, CopyBuffer &buffer, BackupRun &run);

} // namespace tsbackup
