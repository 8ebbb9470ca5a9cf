#include "tsbackup.h"
#include "tsbackup_utils.h"

#include <cstring>

namespace tsbackup {

namespace {

constexpr char kUsage[] = "%s [-v N] [-V] -e jobid .... run backup job. (jobid must be 1 or larger)\n"
                          "%s [-v N] jobid         .... enqueue backup job. If jobid==0, then all button job will be "
                          "queued.\n"
                          "%s [-v N] -k jobid      .... dequeue and kill backup job. If jobid==0, then all buton job "
                          "will be killed.\n";

struct Flag {
    const char *option;
    bool CommandLine::*set;
};

constexpr Flag kFlags[] = {
    {"-k", &CommandLine::kill},          {"-e", &CommandLine::execute},        {"-s", &CommandLine::arrival_hook},
    {"-m", &CommandLine::import_worker}, {"-V", &CommandLine::transfer_trace},
};

} // namespace

CommandLine command_line_parse(int argc, const char *const *argv) {
    CommandLine line;
    if (argc < 2) {
        line.fault = CommandLineFault::no_arguments;
        return line;
    }

    int index = 1;
    while (argv[index][0] == '-') {
        for (const Flag &flag : kFlags)
            if (std::strcmp(argv[index], flag.option) == 0) line.*flag.set = true;
        if (std::strcmp(argv[index], "-v") == 0) {
            if (++index >= argc) {
                line.fault = CommandLineFault::missing_verbosity;
                return line;
            }
            line.verbosity = decimal_value(argv[index]);
        }
        if (++index >= argc) {
            line.fault = CommandLineFault::missing_job_id;
            return line;
        }
    }
    line.job_id = argv[index];
    return line;
}

std::string usage_text(const char *program) {
    const char *name = program != nullptr ? program : "";
    return str_printf(kUsage, name, name, name).value_or("");
}

ImportArguments import_arguments(int argc, const char *const *argv) {
    const auto argument = [&](int index) { return index < argc ? argv[index] : nullptr; };
    return {argument(2), argument(3), argument(4), argument(5)};
}

} // namespace tsbackup
