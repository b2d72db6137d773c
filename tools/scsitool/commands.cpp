#include "commands.h"

#include <unistd.h>

#include <algorithm>

#include "WWPN_discovery.h"
#include "device_probe.h"
#include "device_udid_factory.h"
#include "errors.h"
#include "explain.h"
#include "fi_system.h"
#include "map_view.h"
#include "output.h"
#include "progress.h"
#include "scsitool.h"

namespace scsitool_cli {

std::string deviceNode(const std::string& name)
{
    return name.find('/') == std::string::npos ? "/dev/" + name : name;
}

std::string runMap(Session& session, const MapOptions& options)
{
    DeviceMap map;
    {
        ProgressLine progress("scanning devices");
        map = session.factory().enumerateDeviceMap(options.rescanBuses, options.busScan,
                                                   options.removeLun0);
    }
    std::vector<MapRow> rows = describeMap(session, map, Session::hostName());

    // Every node that did not open is named, those of the map and those the library could not
    // list at all (without the rights to open them, none is listed).
    std::vector<std::pair<std::string, int>> failures;
    bool queried = false;
    for (const MapRow& row : rows) {
        if (row.probe.openErrno != 0) {
            failures.emplace_back(row.info.DeviceName, row.probe.openErrno);
        } else if (row.kind != "dm-control") {
            queried = true;
        }
    }
    for (const std::string& node : candidateNodes()) {
        if (map.count(node) == 0) {
            if (int error = openErrno(node)) {
                failures.emplace_back(node, error);
            }
        }
    }
    std::sort(failures.begin(), failures.end());
    const int denied = reportUnopened(failures);
    if (!queried && !failures.empty()) {
        throw CommandError(kExitNotFound,
                           denied > 0 ? "no device could be queried: permission denied (the "
                                        "command needs root to open the disk nodes)"
                                      : "no device could be queried");
    }
    if (options.volumes) {
        return options.json ? formatVolumesJson(rows) : formatVolumes(rows);
    }
    return options.json ? formatMapRowsJson(rows) : formatMapRows(rows);
}

std::string runUdid(Session& session, const std::string& device, bool rescanIfMissing)
{
    const std::string node = deviceNode(device);
    std::string udid;
    {
        ProgressLine progress("scanning devices");
        udid = session.factory().getCachedUniqueDeviceID(node.c_str(), rescanIfMissing);
    }
    if (udid.empty()) {
        throwUnanswered(node);
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

// The first line of a sysfs attribute, "" when it cannot be read.
std::string attribute(const std::string& path)
{
    std::string line;
    if (FILE* file = kzfi_pdk_4_4::fiSystem().fopen(path.c_str(), "r")) {
        char buffer[256];
        if (std::fgets(buffer, sizeof buffer, file) != nullptr) {
            line = buffer;
        }
        std::fclose(file);
    }
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) {
        line.pop_back();
    }
    return line;
}

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
        host.driver = attribute("/sys/class/scsi_host/" + name + "/proc_name");
        host.portState = attribute("/sys/class/fc_host/" + name + "/port_state");
        host.portName = colonForm(attribute("/sys/class/fc_host/" + name + "/port_name"));
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
