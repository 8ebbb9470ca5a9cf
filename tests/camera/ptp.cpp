#include "ptp.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iconv.h>
#include <sstream>
#include <sys/stat.h>
#include <utility>

namespace tsbackup::test {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kHeader = 12;
constexpr std::uint16_t kData = 2;
constexpr std::uint16_t kResponse = 3;
constexpr std::uint16_t kFolderFormat = 0x3001;
constexpr std::uint16_t kUnknownFormat = 0x3000;
constexpr std::uint32_t kEverything = 0xffffffff; // all storages; as a parent: the root
constexpr std::uint32_t kBatteryLevel = 0x5001;
constexpr std::uint32_t kLargestSize = 0xffffffff;
constexpr std::size_t kLongestText = 254;
constexpr int kPortError = -7;

struct Format {
    const char *extension;
    std::uint16_t code;
};
constexpr Format kFormats[] = {
    {".jpg", 0x3801}, {".jpeg", 0x3801}, {".tif", 0x380d}, {".png", 0x380b}, {".gif", 0x3807}, {".mov", 0x300d},
    {".avi", 0x300a}, {".mpg", 0x300b},  {".mp4", 0xb982}, {".wav", 0x3008}, {".mp3", 0x3009}, {".txt", 0x3004},
};

std::uint16_t format_of(const std::string &path) {
    std::string extension = fs::path(path).extension();
    std::transform(extension.begin(), extension.end(), extension.begin(), [](char letter) {
        return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter + 32) : letter;
    });
    for (const Format &format : kFormats)
        if (extension == format.extension) return format.code;
    return kUnknownFormat;
}

const char *name_of(std::uint16_t operation) {
    switch (operation) {
    case get_device_info:
        return "GetDeviceInfo";
    case open_session:
        return "OpenSession";
    case close_session:
        return "CloseSession";
    case get_storage_ids:
        return "GetStorageIDs";
    case get_storage_info:
        return "GetStorageInfo";
    case get_num_objects:
        return "GetNumObjects";
    case get_object_handles:
        return "GetObjectHandles";
    case get_object_info:
        return "GetObjectInfo";
    case get_object:
        return "GetObject";
    case delete_object:
        return "DeleteObject";
    case get_device_prop_desc:
        return "GetDevicePropDesc";
    case get_device_prop_value:
        return "GetDevicePropValue";
    case port_open:
        return "open";
    case port_interrupt:
        return "event";
    default:
        return "?";
    }
}

std::string hexadecimal(std::uint32_t value, int digits) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%0*x", digits, value);
    return text.data();
}

/// Builds a packet, the lowest byte of each number first.
class Packet {
  public:
    template <typename T> Packet &number(T value) {
        for (std::size_t byte = 0; byte < sizeof value; ++byte)
            bytes_ += static_cast<char>(static_cast<unsigned char>(value >> (8 * byte)));
        return *this;
    }
    template <typename T> Packet &list(const std::vector<T> &values) {
        number(static_cast<std::uint32_t>(values.size()));
        for (const T value : values)
            number(value);
        return *this;
    }
    /// A text of the protocol: its length with its end, then 16 bits a letter.
    Packet &text(std::string value) {
        if (value.empty()) return number(std::uint8_t{0});
        std::string letters(2 * kLongestText, '\0');
        char *from = value.data();
        std::size_t from_left = value.size();
        char *to = letters.data();
        std::size_t to_left = letters.size();
        iconv_t conversion = iconv_open("UTF-16LE", "UTF-8");
        iconv(conversion, &from, &from_left, &to, &to_left);
        iconv_close(conversion);
        letters.resize(letters.size() - to_left);
        number(static_cast<std::uint8_t>(letters.size() / 2 + 1));
        bytes_ += letters;
        return number(std::uint16_t{0});
    }
    std::string bytes() { return std::move(bytes_); }

  private:
    std::string bytes_;
};

template <typename T> T number_at(std::string_view bytes, std::size_t at) {
    T value = 0;
    for (std::size_t byte = 0; byte < sizeof value && at + byte < bytes.size(); ++byte)
        value = static_cast<T>(
            value | static_cast<T>(static_cast<T>(static_cast<unsigned char>(bytes[at + byte])) << (8 * byte)));
    return value;
}

std::string container(std::uint16_t type, std::uint16_t code, std::uint32_t transaction, const std::string &payload) {
    Packet packet;
    packet.number(static_cast<std::uint32_t>(kHeader + payload.size())).number(type).number(code).number(transaction);
    return packet.bytes() + payload;
}

/// A camera tells local time, and nothing for a file without a time.
std::string date_of(std::time_t time) {
    if (time == 0) return "";
    std::tm local{};
    std::array<char, 32> text{};
    localtime_r(&time, &local);
    std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%S", &local);
    return text.data();
}

bool needs_no_session(std::uint16_t operation) { return operation == get_device_info || operation == open_session; }

} // namespace

PtpCamera::PtpCamera(std::string device) : device_(std::move(device)), opening_(opening_count(device_)) {}

void PtpCamera::reset() { session_ = false; }

std::optional<int> PtpCamera::port_failure(std::uint16_t operation) {
    if (unplugged(device_)) return kPortError;
    const auto fault = fault_of(operation, "");
    if (!fault) return std::nullopt;
    log(operation, "", std::to_string(fault->value));
    return static_cast<int>(fault->value);
}

PtpAnswer PtpCamera::command(std::string_view packet) {
    if (unplugged(device_)) return {{}, kPortError};
    const auto operation = number_at<std::uint16_t>(packet, 6);
    const auto transaction = number_at<std::uint32_t>(packet, 8);
    std::vector<std::uint32_t> parameters(5);
    for (std::size_t index = 0; index < parameters.size(); ++index)
        parameters[index] = number_at<std::uint32_t>(packet, kHeader + 4 * index);

    const std::string about = subject(operation, parameters);
    const auto fault = fault_of(operation, about);
    if (fault && fault->kind == FaultKind::port_error) {
        log(operation, about, std::to_string(fault->value));
        return {{}, static_cast<int>(fault->value)};
    }
    const Reply reply = fault && fault->kind == FaultKind::response ? Reply{static_cast<std::uint16_t>(fault->value)}
                                                                    : perform(operation, parameters);
    PtpAnswer answer;
    if (reply.data) answer.transfers.push_back(container(kData, operation, transaction, *reply.data));
    if (fault && fault->kind != FaultKind::response) {
        const auto arriving = kHeader + static_cast<std::size_t>(fault->value);
        if (answer.transfers.empty() || answer.transfers.front().size() < arriving)
            answer.transfers.clear();
        else
            answer.transfers.front().resize(arriving);
        answer.then = kPortError;
        log(operation, about, fault->kind == FaultKind::unplug ? "unplugged" : "cut");
        if (fault->kind == FaultKind::unplug) unplug(device_);
        return answer;
    }
    Packet results;
    for (const std::uint32_t parameter : reply.parameters)
        results.number(parameter);
    answer.transfers.push_back(container(kResponse, reply.response, transaction, results.bytes()));
    log(operation, about, hexadecimal(reply.response, 4));
    return answer;
}

PtpCamera::Reply PtpCamera::perform(std::uint16_t operation, const std::vector<std::uint32_t> &parameters) {
    const auto known = description_read(device_).operations;
    if (std::find(known.begin(), known.end(), operation) == known.end()) return {operation_not_supported};
    if (!session_ && !needs_no_session(operation)) return {session_not_open};
    switch (operation) {
    case get_device_info:
        return device_information();
    case open_session:
        if (session_) return {session_already_open};
        session_ = true;
        find_objects();
        return {ok};
    case close_session:
        session_ = false;
        return {ok};
    case get_storage_ids:
        return storage_ids();
    case get_storage_info:
        return storage_information(parameters[0]);
    case get_num_objects:
        return number_of_objects(parameters);
    case get_object_handles:
        return object_handles(parameters);
    case get_object_info:
        return object_information(parameters[0]);
    case get_object:
        return object_content(parameters[0]);
    case delete_object:
        return remove(parameters[0]);
    case get_device_prop_desc:
        return property_description(parameters[0]);
    case get_device_prop_value:
        return property_value(parameters[0]);
    default:
        return {operation_not_supported};
    }
}

PtpCamera::Reply PtpCamera::device_information() const {
    constexpr std::uint16_t kVersion = 100;
    const CameraDescription description = description_read(device_);
    Packet packet;
    packet.number(kVersion).number(std::uint32_t{0}).number(kVersion).text("");
    packet.number(std::uint16_t{0}).list(description.operations);
    packet.list(std::vector<std::uint16_t>{});                                          // events
    packet.list(std::vector<std::uint16_t>{static_cast<std::uint16_t>(kBatteryLevel)}); // properties
    packet.list(std::vector<std::uint16_t>{0x3801});                                    // what it captures
    packet.list(std::vector<std::uint16_t>{kFolderFormat, 0x3801, kUnknownFormat});     // what it stores
    packet.text(description.manufacturer).text(description.model).text("1.0").text(description.serial);
    return {ok, packet.bytes()};
}

PtpCamera::Reply PtpCamera::storage_ids() const { return {ok, Packet().list(storages_).bytes()}; }

PtpCamera::Reply PtpCamera::storage_information(std::uint32_t id) const {
    constexpr std::uint16_t kRemovable = 4;
    constexpr std::uint16_t kCameraFolders = 3;
    constexpr std::uint64_t kSize = 1ULL << 30U;
    if (std::find(storages_.begin(), storages_.end(), id) == storages_.end()) return {invalid_storage};
    Packet packet;
    packet.number(kRemovable).number(kCameraFolders).number(std::uint16_t{0}).number(kSize).number(kSize / 2);
    packet.number(std::uint32_t{1000}).text("Card " + hexadecimal(id, 8)).text("");
    return {ok, packet.bytes()};
}

PtpCamera::Reply PtpCamera::number_of_objects(const std::vector<std::uint32_t> &parameters) const {
    std::vector<std::uint32_t> found;
    const PtpResponse response = find_handles(parameters, found);
    if (response != ok) return {response};
    return {ok, std::nullopt, {static_cast<std::uint32_t>(found.size())}};
}

PtpCamera::Reply PtpCamera::object_handles(const std::vector<std::uint32_t> &parameters) const {
    std::vector<std::uint32_t> found;
    const PtpResponse response = find_handles(parameters, found);
    if (response != ok) return {response};
    return {ok, Packet().list(found).bytes()};
}

PtpResponse PtpCamera::find_handles(const std::vector<std::uint32_t> &parameters,
                                    std::vector<std::uint32_t> &found) const {
    const std::uint32_t storage = parameters[0];
    const std::uint32_t format = parameters[1];
    const std::uint32_t parent = parameters[2];
    if (storage != kEverything && std::find(storages_.begin(), storages_.end(), storage) == storages_.end())
        return invalid_storage;
    if (parent != 0 && parent != kEverything && (object(parent) == nullptr || !object(parent)->folder))
        return invalid_parent;
    for (const auto &[handle, candidate] : objects_) {
        const std::uint16_t kind = candidate.folder ? kFolderFormat : format_of(candidate.path);
        if (storage != kEverything && candidate.storage != storage) continue;
        if (format != 0 && format != kind) continue;
        if (parent != 0 && candidate.parent != (parent == kEverything ? 0 : parent)) continue;
        found.push_back(handle);
    }
    return ok;
}

PtpCamera::Reply PtpCamera::object_information(std::uint32_t handle) const {
    const Object *found = object(handle);
    struct stat status {};
    if (found == nullptr || stat(full_path(*found).c_str(), &status) != 0) return {invalid_handle};
    const auto names = names_read(device_);
    const auto renamed = names.find(found->path);
    const std::string date = date_of(status.st_mtime);
    const auto size = std::min<std::uint64_t>(static_cast<std::uint64_t>(status.st_size), kLargestSize);
    Packet packet;
    packet.number(found->storage).number(found->folder ? kFolderFormat : format_of(found->path));
    packet.number(std::uint16_t{0}).number(static_cast<std::uint32_t>(found->folder ? 0 : size));
    packet.number(std::uint16_t{0});
    for (int picture = 0; picture < 6; ++picture) // sizes of the thumbnail and of the picture
        packet.number(std::uint32_t{0});
    packet.number(found->parent).number(static_cast<std::uint16_t>(found->folder ? 1 : 0));
    packet.number(std::uint32_t{0}).number(std::uint32_t{0});
    packet.text(renamed != names.end() ? renamed->second : fs::path(found->path).filename().string());
    packet.text(date).text(date).text("");
    return {ok, packet.bytes()};
}

PtpCamera::Reply PtpCamera::object_content(std::uint32_t handle) const {
    const Object *found = object(handle);
    if (found == nullptr || found->folder) return {invalid_handle};
    std::ifstream file(full_path(*found), std::ios::binary);
    if (!file) return {access_denied};
    std::ostringstream content;
    // An empty file puts nothing into the stream, which is no failure here.
    content << file.rdbuf();
    return {ok, content.str()};
}

PtpCamera::Reply PtpCamera::remove(std::uint32_t handle) {
    const Object *found = object(handle);
    if (found == nullptr) return {invalid_handle};
    if (::remove(full_path(*found).c_str()) != 0) return {access_denied};
    objects_.erase(handle);
    return {ok};
}

PtpCamera::Reply PtpCamera::property_description(std::uint32_t property) {
    constexpr std::uint16_t kByte = 2;
    if (property != kBatteryLevel) return {parameter_not_supported};
    Packet packet;
    packet.number(static_cast<std::uint16_t>(property)).number(kByte).number(std::uint8_t{0});
    for (const int value : {100, 80, 1, 0, 100, 1}) // default, present, "a range": from, to, step
        packet.number(static_cast<std::uint8_t>(value));
    return {ok, packet.bytes()};
}

PtpCamera::Reply PtpCamera::property_value(std::uint32_t property) {
    if (property != kBatteryLevel) return {parameter_not_supported};
    return {ok, Packet().number(std::uint8_t{80}).bytes()};
}

/// Handles depend on the names alone, so that every session has the same ones.
void PtpCamera::find_objects() {
    objects_.clear();
    storages_.clear();
    std::vector<std::string> ids;
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(storages_folder(device_), ignored))
        ids.push_back(entry.path().filename());
    std::sort(ids.begin(), ids.end());
    for (const std::string &id : ids) {
        std::uint32_t number = 0;
        std::from_chars(id.data(), id.data() + id.size(), number, 16);
        storages_.push_back(number);
        find_objects_below(id, number, 0);
    }
}

void PtpCamera::find_objects_below(const std::string &path, std::uint32_t storage, std::uint32_t parent) {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto &entry : fs::directory_iterator(storages_folder(device_) + "/" + path, ignored))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        const std::string child = path + "/" + name;
        const bool folder = fs::is_directory(storages_folder(device_) + "/" + child, ignored);
        const auto handle = static_cast<std::uint32_t>(objects_.size() + 1);
        objects_[handle] = {child, storage, parent, folder};
        if (folder) find_objects_below(child, storage, handle);
    }
}

const PtpCamera::Object *PtpCamera::object(std::uint32_t handle) const {
    const auto found = objects_.find(handle);
    return found != objects_.end() ? &found->second : nullptr;
}

std::string PtpCamera::full_path(const Object &object) const { return storages_folder(device_) + "/" + object.path; }

/// What an operation is about: an object's path, a storage.
std::string PtpCamera::subject(std::uint16_t operation, const std::vector<std::uint32_t> &parameters) const {
    std::uint32_t handle = 0;
    if (operation == get_object_handles || operation == get_num_objects) handle = parameters[2];
    if (operation == get_object_info || operation == get_object || operation == delete_object) handle = parameters[0];
    if (const Object *found = object(handle)) return found->path;
    if (operation == get_storage_info || operation == get_object_handles || operation == get_num_objects)
        return hexadecimal(parameters[0], 8);
    return "";
}

std::optional<CameraFault> PtpCamera::fault_of(std::uint16_t operation, const std::string &subject) {
    const int call = ++calls_[operation];
    for (const CameraFault &fault : faults_read(device_)) {
        if (fault.operation != 0 && fault.operation != operation) continue;
        if (fault.opening != 0 && fault.opening != opening_) continue;
        if (fault.call != 0 && (fault.from_then ? call < fault.call : call != fault.call)) continue;
        if (!fault.object.empty() && fault.object != subject) continue;
        return fault;
    }
    return std::nullopt;
}

void PtpCamera::log(std::uint16_t operation, const std::string &subject, const std::string &outcome) const {
    log_append(device_, std::to_string(opening_) + ": " + name_of(operation) +
                            (subject.empty() ? "" : " " + percent_encoded(subject)) + " -> " + outcome);
}

} // namespace tsbackup::test
