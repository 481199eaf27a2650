// plexactl's "device-image" command: makes a disk image of the device's data
// disk as the volume manager presents it (the protective MBR with the volume
// manager's mark, the GPT view with named HFS Plus partitions) and the
// volumes file that mounts those partitions, so that a person or a test can
// make a device for the sandbox.
#ifndef QVL_TOOLS_PLEXACTL_DEVICEIMAGECOMMANDS_H
#define QVL_TOOLS_PLEXACTL_DEVICEIMAGECOMMANDS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvl::plexactl {

struct PartitionRequest {
    std::string name;
    uint64_t size = 0;  // bytes, rounded up to whole blocks
    uint64_t used = 0;  // bytes the volume holds
};

// NAME:SIZE[:USED]; nullopt (after one line on standard error) otherwise.
std::optional<PartitionRequest> parsePartitionRequest(std::string_view text);

// The volumes file that goes with an image: IMAGE.volumes.plist.
std::string volumesPathFor(const std::string& image);

// Writes a new image of `size` bytes holding `partitions` back to back in
// their order, and its volumes file; answers the exit status. Nothing is left
// behind when it fails.
int deviceImageCreate(const std::string& path, uint64_t size,
                      const std::vector<PartitionRequest>& partitions);

}  // namespace qvl::plexactl

#endif  // QVL_TOOLS_PLEXACTL_DEVICEIMAGECOMMANDS_H
