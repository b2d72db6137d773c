// SPDX-License-Identifier: Apache-2.0
#include "dmp_powerpath.h"

#include <sys/stat.h>

#include "discovery_common.h"
#include "fi_system.h"
#include "pseudo_devices.h"
#include "stringtool.h"
#include "trace_call.h"

using scsitool_discovery::endsWithDigit;
using scsitool_discovery::joinLines;
using scsitool_discovery::runCommand;

namespace {

const char kPowermt[] = "/sbin/powermt";
const char kDevDirectory[] = "/dev/";
using pseudo_device::kPowerPathName;
// "/dev/emcpower".
const std::string::size_type kPseudoDevicePathLength = sizeof pseudo_device::kPowerPathNode - 1;

struct PowermtStep {
    const char* arguments;
    const char* announcement;
    const char* failure;
};

const PowermtStep kPowermtSteps[] = {
    {" check force dev=all class=all", "CDmpPowerPathDiscovery: removing dead powerpath devices",
     "CDmpPowerPathDiscovery: removal of dead powerpath devices failed with message [ %s ]."},
    {" release", "CDmpPowerPathDiscovery: running powermt release (Linux only) ",
     "CDmpPowerPathDiscovery: Linux powermt release failed, some emcpower devices may not have "
     "been reclaimed for later use, error message - [%s]."},
    {" config", "CDmpPowerPathDiscovery: running powermt config",
     "CDmpPowerPathDiscovery: removal of dead powerpath devices failed with error [%s]."},
    {" save", "CDmpPowerPathDiscovery: running powermt save",
     "CDmpPowerPathDiscovery: running powerpath save failed with error [ %s]."},
};

}  // namespace

CDmpPowerPathDiscovery::CDmpPowerPathDiscovery() = default;

CDmpPowerPathDiscovery::~CDmpPowerPathDiscovery() = default;

int CDmpPowerPathDiscovery::rescan()
{
    FI_TRACE_FUNCTION("rescan");
    traceTo(m_traceLog, 3, "CDmpPowerPathDiscovery: ExecuteEmcPowerPathCommands() called.");
    struct stat st;
    if (kzfi_pdk_4_4::fiSystem().stat(kPowermt, &st) != 0) {
        traceTo(m_traceLog, 2,
                "CDmpPowerPathDiscovery: WARNING: powermt command (%s) was not found.", kPowermt);
        return 0;
    }
    // The steps share one output list; each run replaces what the previous one left in it.
    std::vector<std::string> lines;
    for (const PowermtStep& step : kPowermtSteps) {
        std::string command = std::string(kPowermt) + step.arguments;
        traceTo(m_traceLog, 3, "%s", step.announcement);
        if (runCommand(m_traceLog, command, lines) != 0) {
            traceTo(m_traceLog, 2, step.failure, joinLines(lines).c_str());
        }
    }
    traceTo(m_traceLog, 3, "CDmpPowerPathDiscovery: ExecuteEmcPowerPathCommands() completed.");
    return 0;
}

int CDmpPowerPathDiscovery::enumerateDmpDevices(std::map<std::string, SDeviceInfo>& deviceMap)
{
    FI_TRACE_FUNCTION("enumerateDmpDevices");
    std::vector<std::string> paths = readDir(kDevDirectory, kPowerPathName);
    // No command is run to find the nodes, so the command text stays empty.
    traceTo(m_traceLog, 3, "INFO: enumerating devices using command [%s], lines returned [%d]", "",
            static_cast<int>(paths.size()));
    for (const std::string& path : paths) {
        // emcpowera1 and the like are partitions of a pseudo-device.
        if (path.size() > kPseudoDevicePathLength && endsWithDigit(path)) {
            continue;
        }
        if (path.find(kPowerPathName) == std::string::npos) {
            continue;
        }
        traceTo(m_traceLog, 3, "INFO: adding powerpath device to the map [%s]", path.c_str());
        SDeviceInfo info;
        info.dmpClaimLevel = 16;
        info.DeviceName = path;
        deviceMap[path] = info;
    }
    return 0;
}
