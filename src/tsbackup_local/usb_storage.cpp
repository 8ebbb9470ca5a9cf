#include "usb_storage.h"

#include "tsbackup/owners.h"
#include "tsbackup/paths.h"
#include "tsbackup_local.h"
#include "tsbackup_utils.h"
#include "zelkova.h"

#include <array>

namespace tsbackup {

namespace {

constexpr int kFields = 10;

} // namespace

std::optional<UsbStorage> usb_storage_parse(std::string line) {
    rtrim_space(line);
    std::array<char *, kFields> fields{};
    if (split(line.data(), "!!", fields.data(), kFields) != kFields) return std::nullopt;
    return UsbStorage{fields[1], fields[5], fields[8]};
}

std::optional<UsbStorage> usb_storage_find(const std::function<bool(const UsbStorage &)> &wanted) {
    const UniqueFile table(std::fopen(paths::usb_storage_table, "re"));
    if (!table) return std::nullopt;
    std::array<char, 1024> line{};
    while (std::fgets(line.data(), line.size(), table.get()) != nullptr) {
        std::optional<UsbStorage> storage = usb_storage_parse(line.data());
        if (storage && wanted(*storage)) return storage;
    }
    return std::nullopt;
}

std::optional<std::string> usb_storage_lookup(const char *port, const char *sub_path) {
    const auto storage = usb_storage_find([port](const UsbStorage &disk) { return disk.port == port; });
    if (!storage) return std::nullopt;
    const char *name = storage->mount_name.c_str();
    return sub_path != nullptr ? str_printf("/media/%s/%s", name, sub_path) : str_printf("/media/%s", name);
}

} // namespace tsbackup
