// The destination of an import, and its log.

#pragma once

#include <cstdio>
#include <string>

namespace tsbackup {

/// Makes sure that the destination folder of imports can be made: the share in which it lies is recreated when it is
/// gone, except on a removable disk. 0, or -1 with a diagnostic.
int destination_ensure(const std::string &destination);

/// Writes the end of an import's log.
void import_log_finish(std::FILE *log, bool success);

/// Cuts a finished log that has more than 10000 lines.
void log_cap(const std::string &path);

} // namespace tsbackup
