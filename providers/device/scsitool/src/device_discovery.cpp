// SPDX-License-Identifier: Apache-2.0
#include "device_discovery.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "discovery_common.h"
#include "fi_system.h"
#include "kernel_files.h"
#include "trace_call.h"

using scsitool_discovery::parseAddressLine;
using scsitool_discovery::readLines;

namespace {

const char kProcScsi[] = "/proc/scsi/scsi";
const char kProcPartitions[] = "/proc/partitions";

// The type line of the entry whose address line is lines[index], or nullptr when the file
// ends too soon.
const std::string* typeLineOf(const std::vector<std::string>& lines, size_t index)
{
    return index + 2 < lines.size() ? &lines[index + 2] : nullptr;
}

// Whatever the call wrote, success or not: a name too long keeps its first 254 characters.
std::string readHostName()
{
    std::string name;
    kzfi_pdk_4_4::fiHostName(name, 255);
    return name.substr(0, 254);
}

}  // namespace

CLinuxDeviceDiscovery::CLinuxDeviceDiscovery() = default;

CLinuxDeviceDiscovery::~CLinuxDeviceDiscovery() = default;

std::vector<SLinuxScsiDevice> CLinuxDeviceDiscovery::getDeviceList(bool disksOnly)
{
    std::vector<SLinuxScsiDevice> devices;
    FILE* file = kzfi_pdk_4_4::fiSystem().fopen(kProcScsi, "r");
    if (file == nullptr) {
        traceTo(m_traceLog, 2,
                "Warning: LinuxDeviceDiscovery::getDeviceList() failed to open "
                "/proc/scsi/scsi for reading.");
        return devices;
    }
    traceTo(m_traceLog, 3, "INFO: reading /proc/scsi/scsi\n");
    std::vector<std::string> lines = readLines(file);
    try {
        for (size_t i = 0; i < lines.size(); ++i) {
            SLinuxScsiDevice device;
            if (!parseAddressLine(lines[i], device)) {
                continue;
            }
            const std::string* type = disksOnly ? typeLineOf(lines, i) : nullptr;
            if (disksOnly &&
                (type == nullptr || (type->find("Direct-Access") == std::string::npos &&
                                     type->find("Unknown") == std::string::npos))) {
                continue;
            }
            devices.push_back(device);
        }
    } catch (...) {
    }
    return devices;
}

int CLinuxDeviceDiscovery::getDeviceCount()
{
    try {
        FILE* file = kzfi_pdk_4_4::fiSystem().fopen(kProcScsi, "r");
        if (file == nullptr) {
            return 0;
        }
        int count = 0;
        for (const std::string& line : readLines(file)) {
            if (line.find("Host:") != std::string::npos) {
                ++count;
            }
        }
        return count;
    } catch (...) {
        return 0;
    }
}

void CLinuxDeviceDiscovery::getTargetIds(std::map<int, std::vector<int>>& targets)
{
    FILE* file = kzfi_pdk_4_4::fiSystem().fopen(kProcScsi, "r");
    if (file == nullptr) {
        traceTo(m_traceLog, 2,
                "Warning: CLinuxDeviceDiscovery::getDeviceList() failed to open "
                "/proc/scsi/scsi for reading.");
        return;
    }
    traceTo(m_traceLog, 5, "INFO: reading /proc/scsi/scsi\n");
    std::vector<std::string> lines = readLines(file);
    try {
        for (size_t i = 0; i < lines.size(); ++i) {
            SLinuxScsiDevice device;
            const std::string* type = typeLineOf(lines, i);
            if (type == nullptr || !parseAddressLine(lines[i], device)) {
                continue;
            }
            if (type->find("Direct-Access") == std::string::npos &&
                type->find("Unknown") == std::string::npos &&
                type->find("RAID") == std::string::npos) {
                continue;
            }
            traceTo(m_traceLog, 3, "Adding to the list for type [%s] [%d %d %d %d] ", type->c_str(),
                    device.host, device.channel, device.id, device.lun);
            std::vector<int>& ids = targets[device.host];
            if (std::find(ids.begin(), ids.end(), device.id) != ids.end()) {
                traceTo(m_traceLog, 3, "target %d already in map", device.id);
            } else {
                ids.push_back(device.id);
            }
        }
    } catch (...) {
    }
}

bool CLinuxDeviceDiscovery::containsDevice(int host, int channel, int id, int lun,
                                           const std::vector<SLinuxScsiDevice>& devices)
{
    for (const SLinuxScsiDevice& device : devices) {
        if (device.host == host && device.channel == channel && device.id == id &&
            device.lun == lun) {
            return true;
        }
    }
    return false;
}

bool CLinuxDeviceDiscovery::IsValidDeviceName(const std::string& name)
{
    FI_TRACE_FUNCTION("IsValidDeviceName");
    try {
        if (!name.empty() && name.find("sd") != 0) {
            traceTo(m_traceLog, 4,
                    "libscsitool: DEBUG: Exiting CLinuxDeviceDiscovery::IsValidDeviceName()");
            return false;
        }
        // An empty name has no last character: at() throws and the name is refused with 6.
        char last = name.at(name.size() - 1);
        if (last < '0' || last > '9') {
            return true;
        }
        traceTo(m_traceLog, 4,
                "libscsitool: DEBUG: Exiting CLinuxDeviceDiscovery::IsValidDeviceName()");
        return false;
    } catch (...) {
        traceTo(m_traceLog, 1,
                "libscsitool: ERROR: CLinuxDeviceDiscovery::IsValidDeviceName() failed");
        throw 6;
    }
}

std::vector<std::string> CLinuxDeviceDiscovery::enumerateNativeDevicePaths()
{
    FI_TRACE_FUNCTION("enumerateNativeDevicePaths");
    std::vector<std::string> paths;
    try {
        FILE* file = kzfi_pdk_4_4::fiSystem().fopen(kProcPartitions, "r");
        if (file == nullptr) {
            traceTo(m_traceLog, 1, "ERROR: failed to open /proc/partitions for reading.");
            return paths;
        }
        traceTo(m_traceLog, 3, "INFO: reading /proc/partitions\n");
        for (const std::string& line : readLines(file)) {
            // Names are taken to eight characters, as the kernels of the time wrote them.
            SPartitionRow row;
            if (line.find("sd") != std::string::npos && parsePartitionLine(line, row) &&
                IsValidDeviceName(row.name.substr(0, 8))) {
                paths.push_back("/dev/" + row.name.substr(0, 8));
            }
        }
    } catch (...) {
        throw 6;
    }
    return paths;
}

CScsiDeviceData* CLinuxDeviceDiscovery::makeOpenedRecord(const std::string& deviceName,
                                                         const std::string& hostName,
                                                         int claimLevel, bool setClaimLevel)
{
    std::unique_ptr<CScsiDeviceData> record(
        new CScsiDeviceData(deviceName, "", hostName, 0, 0, 0, -1, "", "", "", 0));
    if (setClaimLevel) {
        record->dmpClaimLevel = claimLevel;
    }
    record->m_pagesValid = 1;
    record->m_secondFlag = 1;
    CScsiDeviceHandle handle(m_traceLog);
    if (handle.open(*record, true) == -1) {
        return nullptr;
    }
    return record.release();
}

void CLinuxDeviceDiscovery::addOpenedRecords(const std::vector<std::string>& deviceNames,
                                             const std::string& hostName, int claimLevel,
                                             bool setClaimLevel,
                                             std::vector<CScsiDeviceData*>& result)
{
    for (const std::string& deviceName : deviceNames) {
        CScsiDeviceData* record = makeOpenedRecord(deviceName, hostName, claimLevel, setClaimLevel);
        if (record != nullptr) {
            result.push_back(record);
        }
    }
}

std::vector<CScsiDeviceData*> CLinuxDeviceDiscovery::enumerateDevices()
{
    FI_TRACE_FUNCTION("enumerateDevices");
    std::vector<CScsiDeviceData*> result;
    try {
        m_dmpDiscoveryManager.registerTraceLog(m_traceLog);
        std::map<std::string, SDeviceInfo> dmpDevices;
        m_dmpDiscoveryManager.enumerateDmpDevices(dmpDevices);
        traceTo(m_traceLog, 3, "INFO: enumerate DMP devices returned [%d] devices",
                static_cast<int>(dmpDevices.size()));
        // Pseudo-devices are listed before the host name is read: their records carry none.
        for (const auto& entry : dmpDevices) {
            traceTo(m_traceLog, 3, "dmp: %s", entry.first.c_str());
            CScsiDeviceData* record =
                makeOpenedRecord(entry.first, "", entry.second.dmpClaimLevel, true);
            if (record != nullptr) {
                result.push_back(record);
            }
        }
        std::vector<std::string> paths = enumerateNativeDevicePaths();
        std::string hostName = readHostName();
        addOpenedRecords(paths, hostName, 2, true, result);
    } catch (...) {
        traceTo(m_traceLog, 1,
                "libscsitool: ERROR: CLinuxDeviceDiscovery::EnumerateDevices() failed.");
    }
    return result;
}

std::vector<CScsiDeviceData*> CLinuxDeviceDiscovery::validateEnumerateDevices(
    std::string deviceName)
{
    FI_TRACE_FUNCTION("validateEnumerateDevices");
    std::vector<CScsiDeviceData*> result;
    try {
        std::vector<std::string> paths(1, deviceName);
        std::string hostName = readHostName();
        addOpenedRecords(paths, hostName, 0, false, result);
    } catch (...) {
        traceTo(m_traceLog, 1,
                "libscsitool: ERROR: CLinuxDeviceDiscovery::EnumerateDevices() failed.");
    }
    return result;
}
