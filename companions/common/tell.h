// What a companion tells its administrator.

#pragma once

#include <syslog.h>

namespace tsbackup {

/// The name in front of every line; a text that lives as long as the process.
void tell_as(const char *program);

/// Writes "PROGRAM: MESSAGE" as one line to standard error; the priorities are those of syslog. Where standard error is
/// the journal, the priority goes there instead of the name, which the journal knows. Line ends inside the message
/// become blanks.
[[gnu::format(printf, 2, 3)]] void tell(int priority, const char *format, ...);

} // namespace tsbackup
