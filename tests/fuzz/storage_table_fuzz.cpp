// Any line in the table of USB storage is either a disk, with three fields of that line, or skipped.

#include "usb_storage.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

/// Fields of a line, counted without cutting it.
int count_fields(std::string_view line) {
    while (line.size() > 1 && std::string_view(" \t\n\v\f\r").find(line.back()) != std::string_view::npos)
        line.remove_suffix(1);
    int count = 1;
    for (std::size_t at = 0; (at = line.find("!!", at)) != std::string_view::npos; at += 2)
        ++count;
    return count;
}

void check_field(std::string_view line, const std::string &field) {
    require(line.find(field) != std::string_view::npos);
    require(field.find("!!") == std::string::npos);
    require(field.find('\0') == std::string::npos);
}

void check_line(const std::string &line) {
    const auto disk = tsbackup::usb_storage_parse(line);
    require(disk.has_value() == (count_fields(line.c_str()) == 10));
    if (!disk) return;
    for (const std::string *field : {&disk->mount_name, &disk->device, &disk->port})
        check_field(line, *field);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string_view table(reinterpret_cast<const char *>(data), size);
    for (std::size_t start = 0; start < table.size();) {
        const std::size_t end = std::min(table.find('\n', start), table.size() - 1) + 1;
        check_line(std::string(table.substr(start, end - start)));
        start = end;
    }
    return 0;
}
