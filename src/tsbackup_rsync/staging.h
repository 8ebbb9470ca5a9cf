#pragma once

#include "tsbackup/job.h"

#include <optional>
#include <string>

namespace tsbackup {

/// A read-only view of an upload's source under the name that the server is to see, below "/tmp/PID". Made and taken
/// down by the process that uploads; when that one is killed, its canceller takes it down. A failure is logged.
class StagingMount {
  public:
    /// `name`: the folder to be created on the server. Check `made()` before use.
    StagingMount(const std::string &source, const std::string &name);
    ~StagingMount();
    StagingMount(const StagingMount &) = delete;
    StagingMount &operator=(const StagingMount &) = delete;

    bool made() const { return made_; }
    const std::string &path() const { return path_; }

  private:
    std::string parent_;
    std::string path_;
    bool parent_is_private_ = false;
    bool made_ = false;
};

/// The name under which a source folder is uploaded: the last component of the job's path, or the share's name. Empty
/// when the job gives neither; the contents of the source are uploaded then.
std::string staging_name(const BackupJob &job);

} // namespace tsbackup
