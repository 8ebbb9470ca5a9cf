#include "tsbackup_error.h"

namespace tsbackup {

namespace {
bool trace = false;
}

void transfer_trace_set(bool wanted) { trace = wanted; }

bool transfer_trace() { return trace; }

} // namespace tsbackup
