// SPDX-License-Identifier: Apache-2.0
// Multipath discovery: the interface of one module per kind of multipath software, and the
// manager that asks every module in turn to rescan and to report its pseudo-devices.
#ifndef SCSITOOL_DMP_DISCOVERY_MANAGER_H
#define SCSITOOL_DMP_DISCOVERY_MANAGER_H

#include <map>
#include <string>
#include <vector>

#include "device_scsi_data.h"
#include "dmp_claim_manager.h"
#include "fi_trace.h"
#include "scsitool_export.h"

// One multipath discovery module. Modules are created once and live for the whole process.
class SCSITOOL_EXPORT CDmpDiscoveryBase : public virtual kzfi_pdk_4_4::CFiTraceable {
public:
    CDmpDiscoveryBase();
    ~CDmpDiscoveryBase() override;

    // Adds one entry (claim level 16) per pseudo-device of this kind, keyed by its path.
    virtual int enumerateDmpDevices(std::map<std::string, SDeviceInfo>& deviceMap) = 0;
    // Makes the multipath software look for new paths.
    virtual int rescan() = 0;
};

// Holds the modules: PowerPath first, then device-mapper multipath. It shares its trace-log
// pointer with the claim manager it derives from.
class SCSITOOL_EXPORT CDmpDiscoveryManager : public virtual CDmpClaimManager {
public:
    CDmpDiscoveryManager();
    ~CDmpDiscoveryManager() override;

    CDmpDiscoveryManager(const CDmpDiscoveryManager&) = delete;
    CDmpDiscoveryManager& operator=(const CDmpDiscoveryManager&) = delete;

    // Appends `module` after giving it the manager's trace log; nullptr is ignored. The caller
    // keeps ownership of the module.
    virtual void registerDiscoveryModule(CDmpDiscoveryBase* module);
    // Stores the log, then hands it to every module in list order.
    void registerTraceLog(const kzfi_pdk_4_4::CFiTraceLogPtr& log) override;
    // Every module fills the same map in list order. Always 0.
    virtual int enumerateDmpDevices(std::map<std::string, SDeviceInfo>& deviceMap);
    // Every module rescans in list order. Always 0.
    virtual int rescan();

    const std::vector<CDmpDiscoveryBase*>& getDiscoveryModules() const
    {
        return m_discoveryModules;
    }

protected:
    std::vector<CDmpDiscoveryBase*> m_discoveryModules;
};

#endif
