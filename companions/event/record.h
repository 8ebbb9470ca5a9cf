// Events in the system's log.

#pragma once

#include "event.h"

namespace tsbackup {

/// Writes an event to the journal, its parts as fields of their own (ZELKOVA_KIND, ZELKOVA_SOURCE, ZELKOVA_NUMBERS,
/// ZELKOVA_MESSAGE); to syslog where there is no journal, and to standard error where there is neither.
void event_record(const Event &event);

} // namespace tsbackup
