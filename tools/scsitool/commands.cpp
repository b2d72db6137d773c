// SPDX-License-Identifier: Apache-2.0
#include "commands.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

#include "WWPN_discovery.h"
#include "device_map_compare.h"
#include "device_probe.h"
#include "device_udid_factory.h"
#include "errors.h"
#include "explain.h"
#include "fi_system.h"
#include "map_view.h"
#include "output.h"
#include "progress.h"
#include "pseudo_devices.h"
#include "scsitool.h"

namespace scsitool_cli {

namespace {

// The rescan knows the 2.4 and 2.6 kernel families only: on any other kernel it scans no bus
// and says so in the trace alone. The command says it on stderr, naming the kernel.
void noteSkippedRescan(const std::vector<std::string>& traced, const std::string& option)
{
    for (const std::string& line : traced) {
        if (line.find("scsi bus scan skipped") != std::string::npos) {
            struct utsname name;
            std::memset(&name, 0, sizeof name);
            kzfi_pdk_4_4::fiSystem().uname(&name);
            std::fprintf(stderr,
                         "scsitool: %s scanned no SCSI bus: the rescan knows the 2.4 and 2.6 "
                         "kernel families only, and this kernel is %s\n",
                         option.c_str(), name.release);
            return;
        }
    }
}

}  // namespace

std::string deviceNode(const std::string& name)
{
    return name.find('/') == std::string::npos ? "/dev/" + name : name;
}

std::string runMap(Session& session, const MapOptions& options)
{
    checkMapColumns(options.table.columns);  // before the scan, not after
    std::vector<MapRow> rows;
    {
        ProgressLine progress("scanning devices");
        session.startCapture();
        rows = readMap(session, options.rescanBuses, options.busScan, options.removeLun0);
        if (options.rescanBuses) {
            noteSkippedRescan(session.stopCapture(), "--rescan-buses");
        } else {
            session.stopCapture();
        }
    }

    // Every node that did not open is named; without the rights to open them, the library lists
    // none of them.
    std::vector<std::pair<std::string, int>> failures;
    bool queried = false;
    for (const MapRow& row : rows) {
        if (row.probe.openErrno != 0) {
            failures.emplace_back(row.info.DeviceName, row.probe.openErrno);
        } else if (row.listed && row.kind != "dm-control") {
            queried = true;
        }
    }
    std::sort(failures.begin(), failures.end());
    const int denied = reportUnopened(failures);
    if (!queried && !failures.empty()) {
        throwNoDeviceQueried(denied > 0);
    }
    if (options.volumes) {
        return options.json ? formatVolumesJson(rows) : formatVolumes(rows, options.table);
    }
    return options.json ? formatMapRowsJson(rows) : formatMapRows(rows, options.table);
}

namespace {

// The node to ask for instead of one that is no whole disk of the map, or "".
std::string betterNode(const std::string& device, const std::string& node)
{
    const std::string name = node.substr(node.rfind('/') + 1);
    const size_t digits = name.find_first_of("0123456789");
    if (startsWith(node, "/dev/sd") && digits != std::string::npos && digits > 2 &&
        isWholeDisk(name.substr(0, digits)) &&
        name.find_first_not_of("0123456789", digits) == std::string::npos) {
        return "/dev/" + name.substr(0, digits);  // a partition: its disk
    }
    if (startsWith(name, "dm-") && (node == "/dev/" + name || node == "/sys/block/" + name)) {
        const std::string map = sysfsLine("/sys/block/" + name + "/dm/name");
        return map.empty() ? std::string() : pseudo_device::kMapperDirectory + map;
    }
    if (device.find('/') == std::string::npos && openErrno(node) == ENOENT &&
        openErrno(pseudo_device::kMapperDirectory + device) != ENOENT) {
        return pseudo_device::kMapperDirectory + device;  // a multipath alias
    }
    return std::string();
}

}  // namespace

std::string runUdid(Session& session, const std::string& device, bool rescanIfMissing)
{
    const std::string node = deviceNode(device);
    std::string udid;
    RecordReadings readings(session.factory());
    {
        ProgressLine progress("scanning devices");
        session.startCapture();
        udid = session.factory().getCachedUniqueDeviceID(node.c_str(), rescanIfMissing);
        const std::vector<std::string> traced = session.stopCapture();
        if (rescanIfMissing) {
            noteSkippedRescan(traced, "--rescan-if-missing");
        }
    }
    if (udid.empty()) {
        const std::string better = betterNode(device, node);
        try {
            throwUnanswered(node);
        } catch (const CommandError& error) {
            if (better.empty()) {
                throw;
            }
            throw CommandError(error.exitCode(),
                               std::string(error.what()) + " (ask for " + better + ")");
        }
    }
    // Marked as the map marks it; the UDID is still the answer, and the exit status stays 0.
    std::vector<std::string> marks;
    if (isHostLocalUdid(udid, node, Session::hostName())) {
        marks.push_back("host-local: it names the device on this host only");
    }
    // A device the enumeration did not read (a validation alone) is not said to be silent.
    if (readings.read(node) && !readings.of(node).answered) {
        marks.push_back("the device did not answer");
    }
    for (const std::string& mark : marks) {
        std::fprintf(stderr, "scsitool: note: %s: %s\n", node.c_str(), mark.c_str());
    }
    return udid + "\n";
}

std::string runShow(Session& session, const std::string& device, bool json)
{
    const std::string node = deviceNode(device);
    session.factory();  // made before the capture starts, as every command makes it
    DeviceReport report;
    session.startCapture();
    ExaminedDevice examined = examineDevice(session, node);
    const CScsiDeviceData& record = *examined.record;
    if (examined.status == SCSI_STATUS_OK) {
        report.udid = examined.udid;
        report.generator = examined.origin.generator;
        for (const SUdidOrigin::Failure& failure : examined.origin.failures) {
            report.failedGenerators.push_back({failure.generator, failure.exception});
        }
        report.explanation = examined.explanation;
    }
    report.warnings = withoutExplainedWarnings(session.stopCapture(), report.explanation);
    if (examined.status != SCSI_STATUS_OK) {
        throwUnanswered(node);
    }

    report.device = node;
    report.vendor = record.m_vendorId;
    report.product = record.m_productId;
    report.firmware = record.m_firmwareLevel;
    report.host = record.m_port;
    report.channel = static_cast<int>(record.m_bus);
    report.id = record.m_target;
    report.lun = record.m_lun;
    report.supportedPages = record.m_supportedPages;
    for (const auto& page : record.m_pageCache) {
        const unsigned char* data = page.second.getData();
        report.pages[page.first] =
            data == nullptr ? ByteString() : ByteString(data, data + page.second.getLength());
    }
    return json ? formatDeviceJson(report) : formatDeviceTable(report);
}

namespace {

// "0x21000024ff2c3d4e" as "21:00:00:24:ff:2c:3d:4e"; other text as it is.
std::string colonForm(std::string name)
{
    if (name.compare(0, 2, "0x") == 0) {
        name = name.substr(2);
    }
    if (name.size() != 16 ||
        name.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return name;
    }
    std::string text;
    for (size_t i = 0; i < name.size(); i += 2) {
        text += (i == 0 ? "" : ":") + name.substr(i, 2);
    }
    return text;
}

// Every FC host of /sys/class/fc_host, by host number.
std::vector<FcHost> readFcHosts()
{
    std::vector<FcHost> hosts;
    void* dir = kzfi_pdk_4_4::fiSystem().opendir("/sys/class/fc_host/");
    if (dir == nullptr) {
        return hosts;
    }
    while (struct dirent* entry = kzfi_pdk_4_4::fiSystem().readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.compare(0, 4, "host") != 0 || name.size() == 4 ||
            name.find_first_not_of("0123456789", 4) != std::string::npos) {
            continue;
        }
        FcHost host;
        host.host = std::stoi(name.substr(4));
        host.driver = sysfsLine("/sys/class/scsi_host/" + name + "/proc_name");
        host.portState = sysfsLine("/sys/class/fc_host/" + name + "/port_state");
        host.portName = colonForm(sysfsLine("/sys/class/fc_host/" + name + "/port_name"));
        hosts.push_back(host);
    }
    kzfi_pdk_4_4::fiSystem().closedir(dir);
    std::sort(hosts.begin(), hosts.end(),
              [](const FcHost& a, const FcHost& b) { return a.host < b.host; });
    return hosts;
}

}  // namespace

std::string runInitiators(Session& session, bool json)
{
    InitiatorReport report;
    CScsiTool tool;
    tool.registerTraceLog(session.log());
    report.iqnStatus = tool.GetHostIQN(report.iqn);
    report.hasIqn = report.iqnStatus == 0 && !report.iqn.empty();
    WWPN wwpn;
    wwpn.registerTraceLog(session.log());
    report.portNames = wwpn.getWWPN();
    report.fcHosts = readFcHosts();
    return json ? formatInitiatorsJson(report) : formatInitiatorsTable(report);
}

}  // namespace scsitool_cli
