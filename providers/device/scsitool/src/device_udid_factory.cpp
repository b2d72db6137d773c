// SPDX-License-Identifier: Apache-2.0
#include "device_udid_factory.h"

#include <mutex>

#include "stringtool.h"
#include "trace_call.h"

using kzfi_pdk_4_4::CFiTraceLogPtr;

const char* const CUDIDFactory::udid_prefix = "UDID##";
const char* const CUDIDFactory::udid_separator = "##";

namespace {

// A UDID shorter than this is reported as invalid (and kept all the same).
const size_t kShortestValidUdid = 8;

std::string joinException(const CUdidGeneratorException& e)
{
    return e.m_messageId + ":" + e.m_vendorId + ":" + e.m_productId;
}

// The generators a factory creates outlive it: they stay here, reachable, until the process ends.
void keepForProcess(const std::vector<CUdidGenerator*>& generators)
{
    static std::mutex* guard = new std::mutex();
    static std::vector<CUdidGenerator*>* kept = new std::vector<CUdidGenerator*>();
    std::lock_guard<std::mutex> lock(*guard);
    kept->insert(kept->end(), generators.begin(), generators.end());
}

}  // namespace

CUDIDFactory::CUDIDFactory()
{
    // The generators live for the life of the process: the destructor releases only the list.
    m_generators = createUdidGeneratorTable();
    keepForProcess(m_generators);
}

CUDIDFactory::~CUDIDFactory() = default;

void CUDIDFactory::registerTraceLog(const CFiTraceLogPtr& log)
{
    kzfi_pdk_4_4::CFiTraceable::registerTraceLog(log);
    m_discovery.registerTraceLog(m_traceLog);
    m_dmpManager.registerTraceLog(m_traceLog);
    for (CUdidGenerator* generator : m_generators) {
        generator->registerTraceLog(m_traceLog);
    }
}

std::string CUDIDFactory::getUniqueDeviceID(CScsiDeviceData* device)
{
    SUdidOrigin origin;
    return getUniqueDeviceID(device, origin);
}

std::string CUDIDFactory::getUniqueDeviceID(CScsiDeviceData* device, SUdidOrigin& origin)
{
    origin = SUdidOrigin();
    if (!m_overrideDeviceMap.empty()) {
        auto it = m_overrideDeviceMap.find(device->m_deviceName);
        if (it != m_overrideDeviceMap.end()) {
            origin.fromOverride = true;
            return CStringTool::tostrupper(it->second.Uid);
        }
    }
    // The working string is not reset between generators: a claiming generator whose body fails
    // leaves its prefix behind for the result when no later generator succeeds.
    std::string udid;
    for (CUdidGenerator* generator : m_generators) {
        try {
            if (!generator->claimDevice(device)) {
                continue;
            }
            if (CUdidReadRecorder::listening()) {
                if (CUdidReadRecorder* recorder = CUdidReadRecorder::active()) {
                    recorder->noteGenerator(generator->getGeneratorName());
                }
            }
            udid = generator->getUniqueDeviceIDPrefix(device);
            udid += generator->getUniqueDeviceID(device);
            udid = CStringTool::tostrupper(udid);
            origin.generator = generator->getGeneratorName();
            return udid;
        } catch (const CUdidGeneratorException& e) {
            std::string joined = joinException(e);
            traceTo(m_traceLog, 2,
                    "WARNING: getUniqueDeviceID caught exception: [%s],skipping device.",
                    joined.c_str());
            origin.failures.push_back({generator->getGeneratorName(), joined});
        }
    }
    return CStringTool::tostrupper(udid);
}

std::string CUDIDFactory::mapEntryUdid(CScsiDeviceData* device)
{
    std::string udid;
    try {
        udid = getUniqueDeviceID(device);
    } catch (const CUdidGeneratorException& e) {
        traceTo(m_traceLog, 2,
                "WARNING: Caught CUdidGeneratorException [%s]: %s assigned empty UDID",
                joinException(e).c_str(), device->m_deviceName.c_str());
        return std::string();
    }
    if (udid.size() < kShortestValidUdid) {
        // The short UDID is kept as it is, whatever the message says.
        traceTo(m_traceLog, 2, "WARNING: invalid UDID for device %s, assigned empty UDID",
                device->m_deviceName.c_str());
    }
    return udid;
}

std::map<std::string, SDeviceInfo> CUDIDFactory::enumerateDeviceMap(bool rescanBuses,
                                                                    bool busScanFlag,
                                                                    bool removeLun0)
{
    std::vector<CScsiDeviceData*> devices =
        m_discovery.rescan(rescanBuses, busScanFlag, removeLun0);
    return fillDeviceMap(devices, rescanBuses);
}

std::map<std::string, SDeviceInfo> CUDIDFactory::fillDeviceMap(
    std::vector<CScsiDeviceData*>& devices, bool rescanBuses)
{
    m_deviceMap.clear();
    for (CScsiDeviceData* device : devices) {
        if (m_recordObserver) {
            m_recordObserver(*device);
        }
        if (!rescanBuses || device->m_invalid == 0) {
            std::string udid = mapEntryUdid(device);
            SDeviceInfo& entry = m_deviceMap[device->m_deviceName];
            entry.dmpClaimLevel = device->dmpClaimLevel;
            entry.DeviceName = device->m_deviceName;
            entry.Uid = udid;
        } else {
            auto it = m_deviceMap.find(device->m_deviceName);
            if (it != m_deviceMap.end()) {
                traceTo(m_traceLog, 3, "INFO: removing invalid device data for [%s]",
                        device->m_deviceName.c_str());
                m_deviceMap.erase(it);
            }
        }
    }
    for (CScsiDeviceData* device : devices) {
        delete device;
    }
    devices.clear();
    traceTo(m_traceLog, 3, "Printing m_deviceMap");
    printDeviceMap(m_deviceMap);
    return m_deviceMap;
}

void CUDIDFactory::setRecordObserver(std::function<void(const CScsiDeviceData&)> observer)
{
    m_recordObserver = std::move(observer);
}

std::map<std::string, SDeviceInfo> CUDIDFactory::validateDeviceMap(std::string deviceName)
{
    std::map<std::string, SDeviceInfo> result;
    std::vector<CScsiDeviceData*> devices = m_discovery.validateDevice(deviceName);
    for (CScsiDeviceData* device : devices) {
        SDeviceInfo entry;
        entry.Uid = mapEntryUdid(device);
        entry.DeviceName = device->m_deviceName;
        result[device->m_deviceName] = entry;
    }
    // Nobody else holds the validated records: they are released here rather than left behind.
    for (CScsiDeviceData* device : devices) {
        delete device;
    }
    return result;
}

void CUDIDFactory::printDeviceMap(const std::map<std::string, SDeviceInfo>& map)
{
    for (const auto& item : map) {
        const SDeviceInfo& info = item.second;
        traceTo(m_traceLog, 3, "Uid [%s] \tDeviceName [%s] \tdmpClaimLevel [%d]", info.Uid.c_str(),
                info.DeviceName.c_str(), info.dmpClaimLevel);
        for (const std::string& path : info.NativePath) {
            traceTo(m_traceLog, 3, "DeviceName [%s] \tNativePath [%s]", info.DeviceName.c_str(),
                    path.c_str());
        }
    }
}

void CUDIDFactory::traceMissing(const char* deviceName)
{
    traceTo(m_traceLog, 2,
            "CUDIDFactory::getCachedUniqueDeviceID() Device %s not found, map contents are:",
            deviceName);
    for (const auto& item : m_deviceMap) {
        traceTo(m_traceLog, 2, "\t\t[%s] : [%s]\n", item.first.c_str(), item.second.Uid.c_str());
    }
}

std::string CUDIDFactory::getCachedUniqueDeviceID(const char* deviceName, bool rescanIfMissing)
{
    const std::string name(deviceName != nullptr ? deviceName : "");
    if (!m_overrideDeviceMap.empty()) {
        auto it = m_overrideDeviceMap.find(name);
        if (it != m_overrideDeviceMap.end()) {
            return it->second.Uid;
        }
    }
    bool fresh = false;
    if (m_deviceMap.empty()) {
        traceTo(m_traceLog, 6,
                "CUDIDFactory::getCachedUniqueDeviceID() Device map is empty, re-enumerating.");
        m_deviceMap = enumerateDeviceMap(false, false, false);
        fresh = true;
    }
    if (m_deviceMap.empty()) {
        return std::string();
    }
    auto it = m_deviceMap.find(name);
    if (it != m_deviceMap.end()) {
        if (fresh) {
            return it->second.Uid;
        }
        std::map<std::string, SDeviceInfo> validated = validateDeviceMap(name);
        auto found = validated.find(name);
        if (found != validated.end()) {
            return found->second.Uid;
        }
    }
    if (!rescanIfMissing) {
        traceMissing(name.c_str());
        return std::string();
    }
    m_deviceMap = enumerateDeviceMap(true, false, false);
    auto again = m_deviceMap.find(name);
    if (again != m_deviceMap.end()) {
        return again->second.Uid;
    }
    if (!m_deviceMap.empty()) {
        traceMissing(name.c_str());
    }
    return std::string();
}
