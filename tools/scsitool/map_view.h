// SPDX-License-Identifier: Apache-2.0
// The device map for people: each entry of the library's map beside what the command read from
// the node itself (address, kind, vendor, product, state), and the map grouped into volumes.
#ifndef SCSITOOL_CLI_MAP_VIEW_H
#define SCSITOOL_CLI_MAP_VIEW_H

#include <string>
#include <vector>

#include "device_probe.h"
#include "device_scsi_data.h"
#include "session.h"

namespace scsitool_cli {

struct MapRow {
    SDeviceInfo info;        // the library's entry, as it gave it
    DeviceProbe probe;       // the command's own reading of the node
    std::string kind;        // "disk", "dm-multipath", "dm", "powerpath", "dm-control"
    std::string state;       // "running", "unresponsive", "denied", "gone", "error", "-"
    bool hostLocal = false;  // the UDID is the default generator's device@host name
};

// The rows of `map`, in its order. `hostName` is the name the default generator used ("" when
// the host has none).
std::vector<MapRow> describeMap(Session& session, const DeviceMap& map,
                                const std::string& hostName);

// Whether `udid` is the host-local name the default generator makes for `device` on `hostName`.
bool isHostLocalUdid(const std::string& udid, const std::string& device,
                     const std::string& hostName);

std::string formatMapRows(const std::vector<MapRow>& rows);
std::string formatMapRowsJson(const std::vector<MapRow>& rows);
// One entry per UDID: the multipath view. A volume reached by one path only is warned about.
std::string formatVolumes(const std::vector<MapRow>& rows);
std::string formatVolumesJson(const std::vector<MapRow>& rows);

}  // namespace scsitool_cli

#endif
