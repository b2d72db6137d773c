// SPDX-License-Identifier: Apache-2.0
#include <sys/stat.h>
#include <sys/utsname.h>

#include <cstdio>
#include <cstring>

#include "device_discovery.h"
#include "discovery_common.h"
#include "fi_stringtool.h"
#include "fi_system.h"
#include "pseudo_devices.h"
#include "stringtool.h"
#include "trace_call.h"

using kzfi_pdk_4_4::fiSystem;
using scsitool_discovery::joinLines;
using scsitool_discovery::kernelRelease;
using scsitool_discovery::scsiAddress;

namespace {

bool isDirectory(const char* path)
{
    struct stat st;
    return fiSystem().stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

void CLinuxDeviceDiscovery::removeDeadDevices(std::vector<CScsiDeviceData*>& devices,
                                              bool removeLun0)
{
    FI_TRACE_FUNCTION("removeDeadDevices");
    traceTo(m_traceLog, 3, "removeDeadDevices : removeLun0 = %d", removeLun0 ? 1 : 0);
    std::vector<SLinuxScsiDevice> kernel = getDeviceList(true);

    size_t index = 0;
    while (index < devices.size()) {
        CScsiDeviceData* device = devices[index];
        device->m_vendorId = CStringTool::rtrim(device->m_vendorId, ' ');
        device->m_productId = CStringTool::rtrim(device->m_productId, ' ');
        traceTo(m_traceLog, 3, "INFO: iter devices a[%d] b[%d] t[%d] l[%d] vendor[%s], product[%s]",
                device->m_port, static_cast<int>(device->m_bus), device->m_target, device->m_lun,
                device->m_vendorId.c_str(), device->m_productId.c_str());
        if (device->m_port == -1) {
            // The query never learned the address. Once out of the list nobody holds the
            // record any more, so it is deleted here.
            devices.erase(devices.begin() + static_cast<std::ptrdiff_t>(index));
            delete device;
            index = 0;
            continue;
        }
        ++index;
    }

    for (const SLinuxScsiDevice& address : kernel) {
        const CScsiDeviceData* match = nullptr;
        for (const CScsiDeviceData* device : devices) {
            if (device->m_port == address.host &&
                static_cast<int>(device->m_bus) == address.channel &&
                device->m_target == address.id && device->m_lun == address.lun) {
                match = device;
                break;
            }
        }
        if (match != nullptr) {
            traceTo(m_traceLog, 3,
                    "INFO: found match comparing devices a[%d,%d] b[%d,%d] t[%d,%d] l[%d,%d]",
                    address.host, match->m_port, address.channel, static_cast<int>(match->m_bus),
                    address.id, match->m_target, address.lun, match->m_lun);
            continue;
        }
        traceTo(m_traceLog, 3, "INFO: removing device a[%d] b[%d] t[%d] l[%d]", address.host,
                address.channel, address.id, address.lun);
        if (address.lun == 0 && !removeLun0) {
            traceTo(m_traceLog, 3, "INFO: Device is not removed as LUN=0 and removeLun0 = false");
            continue;
        }
        RemoveDevice(address.host, address.channel, address.id, address.lun);
    }

    rescanScsiBus(false);
}

void CLinuxDeviceDiscovery::RemoveDevice(int host, int channel, int id, int lun)
{
    FI_TRACE_FUNCTION("RemoveDevice");
    traceTo(m_traceLog, 3, "INFO: RemoveDevice [%d,%d,%d,%d]", host, channel, id, lun);
    std::string release = kernelRelease();

    const std::string command =
        "scsi remove-single-device " + scsiAddress(host, channel, id, lun, " ") + "\n";
    FILE* file = fiSystem().fopen("/proc/scsi/scsi", "a");
    if (file == nullptr) {
        traceTo(m_traceLog, 3, "INFO: remove device failed to open /proc/scsi/scsi for: %s\n",
                command.c_str());
        return;
    }
    traceTo(m_traceLog, 3, "INFO: removing: %s\n", command.c_str());
    std::fputs(command.c_str(), file);
    std::fclose(file);

    if (release.find("2.6") != 0) {
        return;
    }
    std::string path =
        "/sys/class/scsi_device/" + scsiAddress(host, channel, id, lun, ":") + "/device/delete";
    file = fiSystem().fopen(path.c_str(), "a");
    if (file == nullptr) {
        traceTo(m_traceLog, 2, "WARNING: remove device failed to open %s for device removal",
                path.c_str());
        return;
    }
    traceTo(m_traceLog, 3, "INFO: removing: %s", path.c_str());
    std::fputc('1', file);
    std::fclose(file);

    // The address is scanned again at once: a device that still answers comes back.
    path = "/sys/class/scsi_host/host" + std::to_string(host) + "/scan";
    const std::string scan =
        std::to_string(channel) + " " + std::to_string(id) + " " + std::to_string(lun) + "\n";
    file = fiSystem().fopen(path.c_str(), "a");
    if (file == nullptr) {
        traceTo(m_traceLog, 2, "WARNING: device failed to open %s for device scan %s", path.c_str(),
                scan.c_str());
        return;
    }
    traceTo(m_traceLog, 3, "INFO: scaning after remove: %s", scan.c_str());
    std::fputs(scan.c_str(), file);
    std::fclose(file);
}

int CLinuxDeviceDiscovery::FlushMultipathStaleDevices()
{
    FI_TRACE_FUNCTION("FlushMultipathStaleDevices");
    int result = 0;
    try {
        kzfi_pdk_4_4::CFiExecPipePosix pipe(1);
        pipe.registerTraceLog(m_traceLog);
        std::string release = kernelRelease();

        std::string command = std::string("/sbin/") + "pidof" + " -x multipathd";
        traceTo(m_traceLog, 3,
                "INFO: CLinuxDeviceDiscovery::FlushMultipathStaleDevices - calling command [%s].",
                command.c_str());
        std::vector<std::string> lines;
        result = pipe.Exec(command, lines, "", 600, "", "", "");
        if (result != 0) {
            traceTo(m_traceLog, 1,
                    "INFO: CLinuxDeviceDiscovery::FlushMultipathStaleDevices - "
                    "command  [%s] failed  with output [%s]",
                    command.c_str(), joinLines(lines).c_str());
            return result;
        }
        if (lines.empty()) {
            traceTo(m_traceLog, 3,
                    "INFO: CLinuxDeviceDiscovery::FlushMultipathStaleDevices "
                    "multipathd daemon not running");
            return 0;
        }
        traceTo(m_traceLog, 3,
                "INFO: CLinuxDeviceDiscovery::FlushMultipathStaleDevices multipath "
                "unused/stale device maps");
        if (release.find("2.6") != 0 && release.find("2.4") != 0) {
            traceTo(m_traceLog, 3, "INFO: OS not supported for FlushMultipathStaleDevices");
            return result;
        }
        if (!isDirectory(pseudo_device::kMapperDirectory)) {
            return result;
        }
        std::string flush = std::string("/sbin/") + "multipath" + " -F";
        traceTo(m_traceLog, 3,
                "INFO: CLinuxDeviceDiscovery::FlushMultipathStaleDevices Calling "
                "Multipath Stale Device Path Flushing command [%s].",
                flush.c_str());
        std::vector<std::string> inUse;
        int code = pipe.Exec(flush, inUse, "", 600, "", "", "");
        if (code != 0) {
            traceTo(kzfi_pdk_4_4::fiPluginTraceLog(), 2,
                    "WARN: FlushMultipathStaleDevices - command [%s] executed with value [%d]",
                    flush.c_str(), code);
        }
        // What the flush prints are the maps it could not remove because they are in use.
        for (const std::string& line : inUse) {
            std::string map = kzfi_pdk_4_4::CFiStringTool::trim(line, " \n\t\r");
            traceTo(m_traceLog, 5, "INFO: Mapped Devices in use :%s", map.c_str());
        }
    } catch (...) {
        traceTo(m_traceLog, 2,
                "CLinuxDeviceDiscovery::FlushMultipathStaleDevices: Exception Occurred");
    }
    return result;
}
