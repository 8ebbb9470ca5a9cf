// Files of "NAME=VALUE" lines.

#pragma once

#include "tsbackup/owners.h"

namespace tsbackup {

/// Stores in `value` the text after the "=" of the first line whose whole name is `name`, up to the end of the line,
/// and null when there is no such line. Returns false when the file cannot be read to the point where that is known.
bool settings_file_find(const char *path, const char *name, UniqueText &value);

} // namespace tsbackup
