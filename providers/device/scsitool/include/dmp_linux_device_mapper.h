// SPDX-License-Identifier: Apache-2.0
// The device-mapper multipath module: "/sbin/multipath -v0 " on rescan, the whole maps under
// "/dev/mapper/" on enumeration.
#ifndef SCSITOOL_DMP_LINUX_DEVICE_MAPPER_H
#define SCSITOOL_DMP_LINUX_DEVICE_MAPPER_H

#include <map>
#include <string>
#include <vector>

#include "dmp_discovery_manager.h"

class CDmpLinuxDeviceMapper : public CDmpDiscoveryBase {
public:
    CDmpLinuxDeviceMapper();
    ~CDmpLinuxDeviceMapper() override;

    // Enters every node of "/dev/mapper/" except partitions of maps and names with a '-'.
    int enumerateDmpDevices(std::map<std::string, SDeviceInfo>& deviceMap) override;
    // The multipath tool's result (0 on success).
    int rescan() override;

    // Full paths of the entries of `directory` whose names contain `filter`, in directory order.
    std::vector<std::string> readDir(std::string directory, std::string filter);
};

#endif
