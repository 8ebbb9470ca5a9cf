// The pipe through which a queue is asked.

#pragma once

#include "tsbackup/owners.h"

#include <optional>
#include <string>

namespace tsbackup {

class QueuePipe {
  public:
    /// Opens the pipe at `path`, and makes it (mode 0600) with the folders above it when it is not there. Nothing after
    /// the failure was told.
    static std::optional<QueuePipe> open(const std::string &path);

    /// Uses a pipe that the service manager hands over.
    static std::optional<QueuePipe> inherit(UniqueFd descriptor);

    /// Becomes readable when there is something in the pipe.
    int descriptor() const { return pipe_.get(); }

    /// What is in the pipe, at most as much as it takes. It stays there, and outlives this process where somebody else
    /// holds the pipe open, until `consume` takes it out.
    std::string peek();
    void consume(std::size_t size);

  private:
    QueuePipe(UniqueFd pipe, UniqueFd copy_out, UniqueFd copy_in);
    static std::optional<QueuePipe> use(const std::string &path);

    UniqueFd pipe_;
    UniqueFd copy_out_; ///< a pipe of its own, in which a copy of the content is read
    UniqueFd copy_in_;
};

} // namespace tsbackup
