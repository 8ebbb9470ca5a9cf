// Any job file gives jobs that are ready to run, or none.

#include "job_file.h"
#include "tsbackup_utils.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

void check_job(const xmlDoc *document, std::int32_t job_id) {
    const auto job = tsbackup::job_find(document, job_id);
    if (!job) return;
    require(job->job_id == job_id);
    require(tsbackup::decimal_value(job->opt_max_log_lines) >= 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const auto document = tsbackup::job_text_parse({reinterpret_cast<const char *>(data), size});
    for (const std::int32_t job_id : {0, 1, 7, 12})
        check_job(document.get(), job_id);
    for (const std::int32_t job_id : tsbackup::button_jobs_find(document.get()))
        check_job(document.get(), job_id);
    return 0;
}
