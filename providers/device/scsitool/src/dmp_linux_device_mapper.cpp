// SPDX-License-Identifier: Apache-2.0
#include "dmp_linux_device_mapper.h"

#include "discovery_common.h"
#include "pseudo_devices.h"
#include "stringtool.h"
#include "trace_call.h"

using scsitool_discovery::endsWithDigit;
using scsitool_discovery::joinLines;
using scsitool_discovery::runCommand;

namespace {

using pseudo_device::kMapperDirectory;
const std::string::size_type kMapperDirectoryLength = sizeof kMapperDirectory - 1;

}  // namespace

CDmpLinuxDeviceMapper::CDmpLinuxDeviceMapper() = default;

CDmpLinuxDeviceMapper::~CDmpLinuxDeviceMapper() = default;

std::vector<std::string> CDmpLinuxDeviceMapper::readDir(std::string directory, std::string filter)
{
    return ::readDir(directory, filter);
}

int CDmpLinuxDeviceMapper::rescan()
{
    FI_TRACE_FUNCTION("rescan");
    std::string command = std::string("/sbin/") + "multipath" + " -v0 ";
    traceTo(m_traceLog, 6, "calling command [%s].", command.c_str());
    std::vector<std::string> lines;
    int result = runCommand(m_traceLog, command, lines);
    if (result != 0) {
        traceTo(m_traceLog, 1, "Failed to refresh devices with message ==>%s.",
                joinLines(lines).c_str());
    }
    return result;
}

int CDmpLinuxDeviceMapper::enumerateDmpDevices(std::map<std::string, SDeviceInfo>& deviceMap)
{
    FI_TRACE_FUNCTION("enumerateDmpDevices");
    std::vector<std::string> paths = readDir(kMapperDirectory, "");
    traceTo(m_traceLog, 3, "INFO: readdir lines returned [%d] devices.",
            static_cast<int>(paths.size()));
    for (const std::string& path : paths) {
        traceTo(m_traceLog, 3, "Working on device [%s]", path.c_str());
        // A name ending in 'p' and a digit is a partition of a map; only the last two
        // characters are looked at.
        if (path.size() > kMapperDirectoryLength && endsWithDigit(path) &&
            path[path.size() - 2] == 'p') {
            continue;
        }
        if (path.size() > kMapperDirectoryLength && path.find('-') != std::string::npos) {
            continue;
        }
        if (path.find(kMapperDirectory) == std::string::npos) {
            continue;
        }
        traceTo(m_traceLog, 3, "INFO: adding device mapper multipath device to the map [%s]",
                path.c_str());
        SDeviceInfo info;
        info.dmpClaimLevel = 16;
        info.DeviceName = path;
        deviceMap[path] = info;
    }
    return 0;
}
