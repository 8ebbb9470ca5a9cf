// What the appliance is.

#include "zelkova.h"

#include "settings_file.h"

#include <cerrno>
#include <climits>
#include <cstring>

namespace {

constexpr char kSysInfoFile[] = "/etc/tessera/sysinfo";
constexpr int kUnknownHardware = 0;

/// A decimal number, white space around it allowed; anything else is unknown hardware.
int hardware_type_of(const char *text) {
    char *end = nullptr;
    errno = 0;
    const long number = std::strtol(text, &end, 10);
    const bool nothing_else = end != text && end[std::strspn(end, " \t\r")] == '\0';
    if (!nothing_else || errno != 0 || number < INT_MIN || number > INT_MAX) return kUnknownHardware;
    return static_cast<int>(number);
}

} // namespace

int get_sys_info(struct sys_info *info) {
    if (info == nullptr) return -1;
    *info = sys_info{};
    tsbackup::UniqueText value;
    if (!tsbackup::settings_file_find(kSysInfoFile, "HARDWARE_TYPE", value)) return -1;
    if (value != nullptr) info->hardware_type = hardware_type_of(value.get());
    return 0;
}
