#include "tsbackup.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace tsbackup {

void queue_request_send(const char *format, ...) {
    constexpr QueueSender kSender{TSBACKUP_UNIT, paths::job_queue_pipe, false};
    char record[kQueueRecordSize] = {};
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(record, sizeof record, format, arguments);
    va_end(arguments);
    queue_record_send(kSender, record, std::min(length, static_cast<int>(kQueueRecordSize) - 1));
}

} // namespace tsbackup
