// The status for people: aligned lines of text.

#pragma once

#include "collect.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tsbackup {

/// A line of text, with the part of it that may be coloured. Holds no control characters.
struct TableLine {
    std::string text;
    std::size_t colour_at = 0; ///< in bytes
    std::size_t colour_length = 0;
    const char *colour = nullptr; ///< a terminal's colour number; null: none
};

/// The table of all jobs, and of the camera imports if there are any.
std::vector<TableLine> overview_table(const Overview &overview);

/// One job and its runs.
std::vector<TableLine> job_table(const JobStatus &job, std::int64_t now);

/// A line for a terminal of so many columns (0: of any width), without a line end.
std::string table_line_text(const TableLine &line, std::size_t columns, bool coloured);

} // namespace tsbackup
