// SPDX-License-Identifier: Apache-2.0
// `scsitool capture`: the multipath maps and PowerPath devices, paired with their disks.
#include "capture_parts.h"
#include "device_probe.h"
#include "fi_system.h"
#include "pseudo_devices.h"
#include "scsitool.h"

namespace scsitool_cli {
namespace capture {

using kzfi_pdk_4_4::fiSystem;

// The identity a pseudo-device shows: its INQUIRY data and its identification pages. A map or
// PowerPath node answers like the disk behind it, so equal identities pair them.
Bytes identity(Session& session, const std::string& node)
{
    CScsiDeviceData record(node, "", "", 0, 0, 0, -1, "", "", "", 0);
    CScsiTool tool;
    tool.registerTraceLog(session.log());
    CScsiDeviceHandle handle(session.log());
    Bytes key;
    for (unsigned int code : {0x83u, 0x80u}) {
        Bytes page;
        if (readDevicePage(tool, handle, record, code, true, page)) {
            key.insert(key.end(), page.begin(), page.end());
        }
    }
    if (key.empty()) {
        return key;
    }
    Bytes inquiry;
    readDevicePage(tool, handle, record, 0, false, inquiry);
    key.insert(key.end(), inquiry.begin(), inquiry.end());
    return key;
}

std::string behind(Session& session, const std::string& node,
                   const std::vector<std::pair<Bytes, std::string>>& identities)
{
    Bytes key = identity(session, node);
    if (!key.empty()) {
        for (const auto& known : identities) {
            if (known.first == key) {
                return known.second;
            }
        }
    }
    return "";
}

void capturePseudoDevices(Session& session, simhost::SimHost& snapshot,
                          const Identities& identities)
{
    if (void* mapper = fiSystem().opendir(pseudo_device::kMapperDirectory)) {
        fiSystem().closedir(mapper);
        snapshot.setDeviceMapper(true);
    }
    for (const std::string& map : listDirectory(pseudo_device::kMapperDirectory)) {
        // The device-mapper control node is no map; a replayed host makes its own.
        if (map != "control") {
            snapshot.addMultipathMap(
                map, behind(session, pseudo_device::kMapperDirectory + map, identities));
        }
    }
    for (const std::string& node : listDirectory("/dev/")) {
        if (pseudo_device::beginsWith(node, pseudo_device::kPowerPathName)) {
            snapshot.addPowerPathDevice(node, behind(session, "/dev/" + node, identities));
        }
    }
}

}  // namespace capture
}  // namespace scsitool_cli
