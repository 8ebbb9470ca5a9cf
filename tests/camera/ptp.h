// The protocol of still-image cameras, the camera's side: packets in, packets out. Which port carries them is somebody
// else's matter.

#pragma once

#include "device.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tsbackup::test {

/// What the host reads after a command.
struct PtpAnswer {
    std::vector<std::string> transfers = {}; ///< in their order; each ends with a short packet
    std::optional<int> then = {};            ///< the result of every further read, until the next command
};

/// One opening of a simulated camera by its host.
class PtpCamera {
  public:
    /// Begins an opening of the camera in that folder.
    explicit PtpCamera(std::string device);

    /// The answer to one command, a whole container.
    PtpAnswer command(std::string_view packet);
    /// The negative result of a call at the port (`port_open`, `port_interrupt`), when it is to fail.
    std::optional<int> port_failure(std::uint16_t operation);
    /// Ends the session, as the host's request to reset the device does.
    void reset();

  private:
    struct Object {
        std::string path; ///< "STORAGE/PATH"
        std::uint32_t storage = 0;
        std::uint32_t parent = 0;
        bool folder = false;
    };
    struct Reply {
        std::uint16_t response;
        std::optional<std::string> data = {};
        std::vector<std::uint32_t> parameters = {};
    };

    Reply perform(std::uint16_t operation, const std::vector<std::uint32_t> &parameters);
    Reply device_information() const;
    Reply storage_ids() const;
    Reply storage_information(std::uint32_t id) const;
    Reply number_of_objects(const std::vector<std::uint32_t> &parameters) const;
    Reply object_handles(const std::vector<std::uint32_t> &parameters) const;
    PtpResponse find_handles(const std::vector<std::uint32_t> &parameters, std::vector<std::uint32_t> &found) const;
    Reply object_information(std::uint32_t handle) const;
    Reply object_content(std::uint32_t handle) const;
    Reply remove(std::uint32_t handle);
    static Reply property_description(std::uint32_t property);
    static Reply property_value(std::uint32_t property);

    void find_objects();
    void find_objects_below(const std::string &path, std::uint32_t storage, std::uint32_t parent);
    const Object *object(std::uint32_t handle) const;
    std::string full_path(const Object &object) const;
    std::string subject(std::uint16_t operation, const std::vector<std::uint32_t> &parameters) const;
    std::optional<CameraFault> fault_of(std::uint16_t operation, const std::string &subject);
    void log(std::uint16_t operation, const std::string &subject, const std::string &outcome) const;

    std::string device_;
    int opening_;
    bool session_ = false;
    std::map<std::uint16_t, int> calls_;
    std::map<std::uint32_t, Object> objects_;
    std::vector<std::uint32_t> storages_;
};

} // namespace tsbackup::test
