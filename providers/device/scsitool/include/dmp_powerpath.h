// SPDX-License-Identifier: Apache-2.0
// The EMC PowerPath module: the powermt check, release, config and save sequence on rescan, the
// "emcpower" nodes of "/dev/" on enumeration.
#ifndef SCSITOOL_DMP_POWERPATH_H
#define SCSITOOL_DMP_POWERPATH_H

#include <map>
#include <string>

#include "dmp_discovery_manager.h"

class CDmpPowerPathDiscovery : public CDmpDiscoveryBase {
public:
    CDmpPowerPathDiscovery();
    ~CDmpPowerPathDiscovery() override;

    // Enters every "emcpower" node of "/dev/" except partitions. Always 0.
    int enumerateDmpDevices(std::map<std::string, SDeviceInfo>& deviceMap) override;
    // Runs the four powermt commands when the tool exists. Always 0.
    int rescan() override;
};

#endif
