// SPDX-License-Identifier: Apache-2.0
#include "dmp_discovery_manager.h"

#include <mutex>

#include "dmp_linux_device_mapper.h"
#include "dmp_powerpath.h"
#include "trace_call.h"

using kzfi_pdk_4_4::CFiTraceLogPtr;

namespace {

// The modules a manager creates outlive it: they stay here, reachable, until the process ends.
void keepForProcess(CDmpDiscoveryBase* module)
{
    static std::mutex* mutex = new std::mutex();
    static std::vector<CDmpDiscoveryBase*>* kept = new std::vector<CDmpDiscoveryBase*>();
    std::lock_guard<std::mutex> lock(*mutex);
    kept->push_back(module);
}

}  // namespace

CDmpDiscoveryBase::CDmpDiscoveryBase() = default;

CDmpDiscoveryBase::~CDmpDiscoveryBase() = default;

CDmpDiscoveryManager::CDmpDiscoveryManager()
{
    CDmpDiscoveryBase* powerPath = new CDmpPowerPathDiscovery();
    keepForProcess(powerPath);
    m_discoveryModules.push_back(powerPath);
    CDmpDiscoveryBase* deviceMapper = new CDmpLinuxDeviceMapper();
    keepForProcess(deviceMapper);
    m_discoveryModules.push_back(deviceMapper);
}

// The modules are not deleted: they are created once and kept for the life of the process.
CDmpDiscoveryManager::~CDmpDiscoveryManager() = default;

void CDmpDiscoveryManager::registerDiscoveryModule(CDmpDiscoveryBase* module)
{
    if (module == nullptr) {
        return;
    }
    module->registerTraceLog(m_traceLog);
    m_discoveryModules.push_back(module);
}

void CDmpDiscoveryManager::registerTraceLog(const CFiTraceLogPtr& log)
{
    CDmpClaimManager::registerTraceLog(log);
    for (CDmpDiscoveryBase* module : m_discoveryModules) {
        traceTo(m_traceLog, 3, "INFO: registering trace log on discovery module");
        module->registerTraceLog(m_traceLog);
    }
}

int CDmpDiscoveryManager::enumerateDmpDevices(std::map<std::string, SDeviceInfo>& deviceMap)
{
    traceTo(m_traceLog, 3, "INFO: CDmpDiscoveryManager::enumerateDmpDevices %d modules registered",
            static_cast<int>(m_discoveryModules.size()));
    for (CDmpDiscoveryBase* module : m_discoveryModules) {
        module->enumerateDmpDevices(deviceMap);
    }
    return 0;
}

int CDmpDiscoveryManager::rescan()
{
    for (CDmpDiscoveryBase* module : m_discoveryModules) {
        module->rescan();
    }
    return 0;
}
