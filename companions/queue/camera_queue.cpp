// The queue of camera imports. An import tells its state itself, once it runs.

#include "queue_kind.h"
#include "tsbackup/paths.h"
#include "tsbackup_utils.h"

#include <algorithm>

namespace tsbackup {

namespace {

constexpr std::size_t kKind = 0;
constexpr std::size_t kBus = 1;
constexpr std::size_t kDevice = 2;
constexpr std::size_t kFields = 4;

bool is_number(const std::string &text) {
    constexpr std::size_t kMostDigits = 7;
    return !text.empty() && text.size() <= kMostDigits && text.find_first_not_of("0123456789") == std::string::npos;
}

/// The name becomes part of file names: a path is none.
bool is_name(const std::string &text) {
    const bool printable = std::none_of(text.begin(), text.end(), [](char letter) {
        constexpr unsigned char kDelete = 0x7f;
        return static_cast<unsigned char>(letter) < ' ' || static_cast<unsigned char>(letter) == kDelete;
    });
    return !text.empty() && text != "." && text != ".." && text.find('/') == std::string::npos && printable;
}

/// Kind, bus, device and name; the name may hold colons. Fewer when there are fewer.
std::vector<std::string> fields_of(const std::string &task) {
    std::vector<std::string> fields;
    std::size_t at = 0;
    while (fields.size() < kFields - 1) {
        const std::size_t colon = task.find(':', at);
        if (colon == std::string::npos) return fields;
        fields.push_back(task.substr(at, colon - at));
        at = colon + 1;
    }
    fields.push_back(task.substr(at));
    return fields;
}

std::optional<Request> parse_camera_request(std::string_view text) {
    constexpr std::string_view kEnqueue = "enqueue:";
    if (!text.starts_with(kEnqueue)) return std::nullopt;
    std::string task(text.substr(kEnqueue.size()));
    task.erase(std::min(task.find('\n'), task.size()));
    const std::vector<std::string> fields = fields_of(task);
    if (fields.size() != kFields || !is_number(fields[kKind]) || !is_number(fields[kBus]) ||
        !is_number(fields[kDevice]) || !is_name(fields.back()))
        return std::nullopt;
    return Request{true, task};
}

std::vector<std::string> itself(const std::string &task) { return {task}; }

bool never_last(const std::string &) { return false; }

/// A camera that was plugged in again has another address: the earlier one leads nowhere.
std::string camera_name(const std::string &task) { return fields_of(task).back(); }

std::vector<std::string> camera_arguments(const std::string &task) {
    std::vector<std::string> arguments = fields_of(task);
    arguments.insert(arguments.begin(), "-m");
    return arguments;
}

void nothing(const std::string &) {}
bool no(const std::string &) { return false; }
void nothing_at_end(const std::string &, WorkerEnd) {}

/// Nobody knows. An import that was interrupted is asked for again; what it has copied stays.
bool not_begun(const std::string &, pid_t) { return false; }

} // namespace

const QueueKind &camera_queue() {
    static constexpr QueueKind kQueue = {
        .name = "camera",
        .pipe = paths::camera_queue_pipe,
        .state_file = "/run/tsbackup/camera-queue", // an address does not last through a restart of the machine
        .parse = parse_camera_request,
        .tasks_of = itself,
        .is_last = never_last,
        .key = camera_name,
        .arguments = camera_arguments,
        .waits = nothing,
        .taken_out = nothing,
        .must_hang_up = no,
        .ended = nothing_at_end,
        .had_begun = not_begun,
    };
    return kQueue;
}

} // namespace tsbackup
