// SPDX-License-Identifier: Apache-2.0
#include <sys/stat.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "device_discovery.h"
#include "discovery_common.h"
#include "fi_stringtool.h"
#include "fi_system.h"
#include "trace_call.h"

using kzfi_pdk_4_4::CFiTraceLogPtr;
using kzfi_pdk_4_4::fiSystem;
using scsitool_discovery::kernelRelease;
using scsitool_discovery::parseAddressLine;
using scsitool_discovery::readLines;
using scsitool_discovery::runCommand;
using scsitool_discovery::scsiAddress;

namespace {

// Searched in this order: the generic "qla" after the specific QLogic names, so a QLogic
// driver's hosts are recorded under its own name and again under "qla".
const char* const kHostAdapterDrivers[] = {"qla2100", "qla2xxx", "qla2200", "qla2300",
                                           "qla2400", "qla",     "lpfc"};

// Appends `text` to one sysfs control file per host; true when at least one write was made.
bool writeToEveryHost(const CFiTraceLogPtr& log, const std::vector<std::string>& hosts,
                      const char* pathFormat, const char* text, const char* failureFormat)
{
    bool wrote = false;
    for (const std::string& host : hosts) {
        char path[255];
        std::snprintf(path, sizeof path, pathFormat, host.c_str());
        FILE* file = fiSystem().fopen(path, "a");
        if (file == nullptr) {
            traceTo(log, 4, failureFormat, path);
            continue;
        }
        std::fputs(text, file);
        std::fclose(file);
        wrote = true;
    }
    return wrote;
}

}  // namespace

int CLinuxDeviceDiscovery::rescanScsiBus(bool)
{
    FI_TRACE_FUNCTION("rescanScsiBus");
    try {
        std::string release = kernelRelease();
        std::map<std::string, std::vector<int>> adapters;
        GetHostAdapterList(adapters);
        RescanQlogicHBAs(adapters);
        if (release.find("2.4.") == 0) {
            traceTo(m_traceLog, 3, "INFO: doing redhat 2.4 kernel SCSI bus scan");
            return RescanScsiMidLayer2_4(adapters);
        }
        if (release.find("2.6.") == 0) {
            traceTo(m_traceLog, 3, "INFO: doing redhat 2.6 kernel SCSI bus scan");
            return RescanScsiMidLayer2_6();
        }
        traceTo(m_traceLog, 1,
                "ERROR: libscsitool: Unable to determine kernel version from uname, "
                "scsi bus scan skipped.");
    } catch (...) {
    }
    return 0;
}

int CLinuxDeviceDiscovery::GetHostAdapterList(std::map<std::string, std::vector<int>>& adapters)
{
    FI_TRACE_FUNCTION("GetHostAdapterList");
    try {
        std::string command = "/bin/ls /proc/scsi";
        traceTo(m_traceLog, 3, "INFO: sending command: %s", command.c_str());
        std::vector<std::string> lines;
        runCommand(m_traceLog, command, lines);
        for (const std::string& line : lines) {
            for (const char* driver : kHostAdapterDrivers) {
                listDriverHosts(driver, line, adapters);
            }
        }
    } catch (...) {
        traceTo(m_traceLog, 2, "CLinuxDeviceDiscovery::GetHostAdapterList: Exception Occurred");
    }
    return 0;
}

void CLinuxDeviceDiscovery::listDriverHosts(const char* driver, const std::string& directory,
                                            std::map<std::string, std::vector<int>>& adapters)
{
    if (directory.find(driver) == std::string::npos) {
        return;
    }
    // The hosts are listed from the directory that the line names, so the generic "qla" entry
    // receives the same hosts as the specific QLogic driver's entry.
    std::string listing = "/bin/ls /proc/scsi/" + directory;
    traceTo(m_traceLog, 3, "INFO: sending command: %s", listing.c_str());
    std::vector<std::string> hosts;
    runCommand(m_traceLog, listing, hosts);
    for (const std::string& hostLine : hosts) {
        std::vector<char> text(hostLine.begin(), hostLine.end());
        text.push_back('\0');
        char* save = nullptr;
        for (char* token = strtok_r(text.data(), " ", &save); token != nullptr;
             token = strtok_r(nullptr, " ", &save)) {
            int host = 0;
            if (token[0] >= '0' && token[0] <= '9' && std::sscanf(token, "%d", &host) == 1) {
                traceTo(m_traceLog, 3, "INFO: adding: %s - %d\n", driver, host);
                adapters[driver].push_back(host);
            }
        }
    }
}

int CLinuxDeviceDiscovery::RescanQlogicHBAs(std::map<std::string, std::vector<int>>& adapters)
{
    FI_TRACE_FUNCTION("RescanQlogicHBAs");
    for (const auto& entry : adapters) {
        if (entry.first.find("qla") == std::string::npos) {
            continue;
        }
        for (int host : entry.second) {
            std::string path = "/proc/scsi/" + entry.first + "/" + std::to_string(host);
            FILE* file = fiSystem().fopen(path.c_str(), "a");
            if (file == nullptr) {
                traceTo(m_traceLog, 2, "Warning: adapter device failed to open for: %s\n",
                        path.c_str());
                continue;
            }
            traceTo(m_traceLog, 3, "INFO: low-level rescanning qlogic hba: %s\n", path.c_str());
            std::fputs("scsi-qlascan\n", file);
            std::fclose(file);
            fiSystem().sleep(3);
        }
    }
    return 0;
}

int CLinuxDeviceDiscovery::RescanScsiMidLayer2_4(std::map<std::string, std::vector<int>>& adapters)
{
    FI_TRACE_FUNCTION("RescanScsiMidLayer2_4");
    try {
        RescanQlogicHBAs(adapters);
        std::map<int, int> maxLun;
        std::map<int, int> maxId;
        std::map<int, int> maxChannel;
        for (const auto& entry : adapters) {
            for (int host : entry.second) {
                maxLun[host] = 0;
                maxId[host] = 0;
                maxChannel[host] = 0;
            }
        }
        scanForAdapterMaximums(maxLun, maxId, maxChannel);
        return scanForNewDevices(maxLun, maxId, maxChannel);
    } catch (...) {
        return 0;
    }
}

int CLinuxDeviceDiscovery::scanForAdapterMaximums(std::map<int, int>& maxLun,
                                                  std::map<int, int>& maxId,
                                                  std::map<int, int>& maxChannel)
{
    FI_TRACE_FUNCTION("scanForAdapterMaximums");
    FILE* file = fiSystem().fopen("/proc/scsi/scsi", "r");
    if (file == nullptr) {
        traceTo(m_traceLog, 2, "Warning: failed to open /proc/scsi/scsi for reading.");
        return 0;
    }
    traceTo(m_traceLog, 3, "INFO: reading /proc/scsi/scsi\n");
    try {
        for (const std::string& line : readLines(file)) {
            SLinuxScsiDevice device;
            if (!parseAddressLine(line, device)) {
                continue;
            }
            const int host = device.host;
            traceTo(m_traceLog, 3, "INFO: found device [%s]\n", line.c_str());
            if (maxLun.find(host) == maxLun.end()) {
                traceTo(m_traceLog, 3, "INFO: skipping device [%s]\n", line.c_str());
                continue;
            }
            maxLun[host] = std::max(maxLun[host], device.lun);
            maxId[host] = std::max(maxId[host], device.id);
            maxChannel[host] = std::max(maxChannel[host], device.channel);
        }
    } catch (...) {
    }
    return 0;
}

int CLinuxDeviceDiscovery::scanForNewDevices(std::map<int, int>& maxLun, std::map<int, int>& maxId,
                                             std::map<int, int>& maxChannel)
{
    FI_TRACE_FUNCTION("scanForNewDevices");
    std::vector<SLinuxScsiDevice> existing = getDeviceList(false);
    for (const auto& entry : maxLun) {
        const int host = entry.first;
        for (int channel = 0; channel < maxChannel[host] + 2; ++channel) {
            probeChannel(host, channel, entry.second + 16, maxId[host], maxChannel[host], existing);
        }
    }
    return getDeviceCount();
}

void CLinuxDeviceDiscovery::probeChannel(int host, int channel, int lunLimit, int maxId,
                                         int maxChannel,
                                         const std::vector<SLinuxScsiDevice>& existing)
{
    const int baseline = getDeviceCount();
    for (int id = 0; id < maxId + 2; ++id) {
        for (int lun = 0; lun < lunLimit; ++lun) {
            if (containsDevice(host, channel, id, lun, existing) ||
                !addSingleDevice(host, channel, id, lun)) {
                continue;
            }
            const int current = getDeviceCount();
            traceTo(m_traceLog, 3, "INFO: current count [%d]", current);
            // Beyond the highest known id or channel, a channel is given up once LUN 7 of an id
            // has been probed without the count rising since it began.
            if (current == baseline && lun == 7 && (id > maxId || channel > maxChannel)) {
                return;
            }
        }
    }
}

bool CLinuxDeviceDiscovery::addSingleDevice(int host, int channel, int id, int lun)
{
    const std::string command =
        "scsi add-single-device " + scsiAddress(host, channel, id, lun, " ") + "\n";
    traceTo(m_traceLog, 3, "INFO: trying add device: %s\n", command.c_str());
    FILE* file = fiSystem().fopen("/proc/scsi/scsi", "a");
    if (file == nullptr) {
        traceTo(m_traceLog, 2, "Warning: scan for devices failed to open /proc/scsi/scsi");
        return false;
    }
    std::fputs(command.c_str(), file);
    std::fclose(file);
    return true;
}

int CLinuxDeviceDiscovery::GetHostAdapterList2_6(std::vector<std::string>& hosts)
{
    FI_TRACE_FUNCTION("GetHostAdapterList2_6");
    try {
        std::string command = "/bin/ls /sys/class/scsi_host";
        traceTo(m_traceLog, 3, "INFO: sending command: %s", command.c_str());
        std::vector<std::string> lines;
        runCommand(m_traceLog, command, lines);
        for (const std::string& line : lines) {
            std::string host = kzfi_pdk_4_4::CFiStringTool::trim(line, " \n\t\r");
            hosts.push_back(host);
            traceTo(m_traceLog, 3, "INFO: adding adapter %s", host.c_str());
        }
    } catch (...) {
        traceTo(m_traceLog, 2, "CLinuxDeviceDiscovery::GetHostAdapterList2_6: Exception Occurred");
    }
    return 0;
}

int CLinuxDeviceDiscovery::RescanScsiMidLayer2_6()
{
    FI_TRACE_FUNCTION("RescanScsiMidLayer2_6");
    try {
        std::vector<std::string> hosts;
        GetHostAdapterList2_6(hosts);
        if (!hosts.empty()) {
            if (writeToEveryHost(m_traceLog, hosts, "/sys/class/fc_host/%s/issue_lip", "1\n",
                                 "Info: failed to open %s to issue_lip scan")) {
                traceTo(m_traceLog, 4, "Info: Waiting for scan to complete issue_lip scans.");
                fiSystem().sleep(5);
            }
            if (writeToEveryHost(m_traceLog, hosts, "/sys/class/scsi_host/%s/issue_lip", "1\n",
                                 "Info: failed to open %s to issue_lip scan for Emulex")) {
                traceTo(m_traceLog, 4, "Info: Waiting for scan to complete issue_lip scan.");
                fiSystem().sleep(5);
            }
            if (writeToEveryHost(m_traceLog, hosts, "/sys/class/scsi_host/%s/scan", "- - -\n",
                                 "Info: failed to open %s for device scan.")) {
                traceTo(m_traceLog, 4, "Info: Waiting for device scan to complete");
                fiSystem().sleep(5);
            }
        }
        traceTo(m_traceLog, 4, "Info:Trying with rescan_scsi_bus.sh");
        const char script[] = "/bin/rescan-scsi-bus.sh";
        struct stat st;
        if (fiSystem().stat(script, &st) != 0) {
            traceTo(m_traceLog, 4, "Info: failed to open rescan_scsi_bus.sh");
            return 0;
        }
        kzfi_pdk_4_4::CFiExecPipePosix pipe(1);
        pipe.registerTraceLog(m_traceLog);
        std::vector<std::string> lines;
        int code = pipe.Exec(script, lines, "", 600, "", "", "");
        if (code != 0) {
            // These two go to the plug-in's shared log, not to this object's.
            CFiTraceLogPtr shared = kzfi_pdk_4_4::fiPluginTraceLog();
            traceTo(shared, 2, "Warning: rescan_scsi_bus.sh failed with execpipe code [%d]", code);
            if (code == 11) {
                traceTo(shared, 2, "Warning: rescan_scsi_bus.sh failed with error [%ld].",
                        static_cast<long>(pipe.getLastError().getErrno()));
            }
        }
    } catch (...) {
    }
    return 0;
}
