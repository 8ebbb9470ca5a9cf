#include "device.h"

#include <array>
#include <charconv>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace tsbackup::test {

namespace {

bool stands_for_itself(char byte) { return byte > ' ' && byte != 0x7f && byte != '%' && byte != '='; }

/// One write, so that lines of several processes do not mingle.
void append(const std::string &path, const std::string &text) {
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    static_cast<void>(!write(fd, text.data(), text.size()));
    close(fd);
}

std::vector<std::string> lines_of(const std::string &path) {
    std::vector<std::string> lines;
    std::ifstream file(path, std::ios::binary);
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

std::uint16_t hexadecimal(const std::string &text) {
    std::uint16_t value = 0;
    std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return value;
}

std::string as_hexadecimal(std::uint16_t value) {
    std::array<char, 8> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, 16).ptr;
    return {digits.data(), end};
}

} // namespace

std::string percent_encoded(std::string_view text) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string encoded;
    for (const char byte : text) {
        // Bytes beyond ASCII, negative where char is signed, are letters.
        if (stands_for_itself(byte) || (static_cast<unsigned char>(byte) & 0x80U) != 0) {
            encoded += byte;
            continue;
        }
        const auto value = static_cast<unsigned char>(byte);
        encoded += '%';
        encoded += kDigits[value >> 4U];
        encoded += kDigits[value & 0xfU];
    }
    return encoded;
}

std::string percent_decoded(std::string_view text) {
    std::string decoded;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] == '%' && at + 2 < text.size()) {
            decoded += static_cast<char>(hexadecimal(std::string(text.substr(at + 1, 2))));
            at += 2;
        } else {
            decoded += text[at];
        }
    }
    return decoded;
}

std::string storages_folder(const std::string &device) { return device + "/storages"; }

CameraDescription description_read(const std::string &device) {
    CameraDescription description;
    for (const std::string &line : lines_of(device + "/description")) {
        const std::size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        const std::string key = line.substr(0, equals);
        const std::string value = percent_decoded(line.substr(equals + 1));
        if (key == "manufacturer") description.manufacturer = value;
        if (key == "model") description.model = value;
        if (key == "serial") description.serial = value;
        if (key == "camera") description.is_camera = value == "1";
        if (key != "operations") continue;
        description.operations.clear();
        std::istringstream words(value);
        for (std::string word; words >> word;)
            description.operations.push_back(hexadecimal(word));
    }
    return description;
}

void description_write(const std::string &device, const CameraDescription &description) {
    std::string operations;
    for (const std::uint16_t operation : description.operations)
        operations += as_hexadecimal(operation) + " ";
    std::ofstream file(device + "/description", std::ios::binary | std::ios::trunc);
    file << "manufacturer=" << percent_encoded(description.manufacturer) << '\n'
         << "model=" << percent_encoded(description.model) << '\n'
         << "serial=" << percent_encoded(description.serial) << '\n'
         << "camera=" << (description.is_camera ? 1 : 0) << '\n'
         << "operations=" << operations << '\n';
}

std::vector<CameraFault> faults_read(const std::string &device) {
    std::vector<CameraFault> faults;
    for (const std::string &line : lines_of(device + "/faults")) {
        std::istringstream words(line);
        CameraFault fault;
        std::string operation;
        char kind = 0;
        std::string object;
        if (!(words >> operation >> kind >> fault.value >> fault.opening >> fault.call >> fault.from_then)) continue;
        fault.operation = hexadecimal(operation);
        fault.kind = static_cast<FaultKind>(kind);
        if (words >> object) fault.object = percent_decoded(object);
        faults.push_back(fault);
    }
    return faults;
}

void fault_append(const std::string &device, const CameraFault &fault) {
    std::ostringstream line;
    line << as_hexadecimal(fault.operation) << ' ' << static_cast<char>(fault.kind) << ' ' << fault.value << ' '
         << fault.opening << ' ' << fault.call << ' ' << fault.from_then << ' ' << percent_encoded(fault.object)
         << '\n';
    append(device + "/faults", line.str());
}

std::map<std::string, std::string> names_read(const std::string &device) {
    std::map<std::string, std::string> names;
    for (const std::string &line : lines_of(device + "/names")) {
        const std::size_t blank = line.find(' ');
        if (blank != std::string::npos)
            names[percent_decoded(line.substr(0, blank))] = percent_decoded(line.substr(blank + 1));
    }
    return names;
}

void name_append(const std::string &device, const std::string &object, const std::string &name) {
    append(device + "/names", percent_encoded(object) + " " + percent_encoded(name) + "\n");
}

void log_append(const std::string &device, const std::string &line) { append(device + "/log", line + "\n"); }

int opening_count(const std::string &device) {
    const std::string path = device + "/openings";
    append(path, ".");
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_size) : 0;
}

bool unplugged(const std::string &device) { return access((device + "/unplugged").c_str(), F_OK) == 0; }

void unplug(const std::string &device) { append(device + "/unplugged", ""); }

} // namespace tsbackup::test
