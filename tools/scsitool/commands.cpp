#include "commands.h"

#include <unistd.h>

#include "WWPN_discovery.h"
#include "device_udid_factory.h"
#include "errors.h"
#include "fi_system.h"
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
    return options.json ? formatMapJson(map) : formatMapTable(map);
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
        throw CommandError(kExitNotFound, node + ": device not found");
    }
    return udid + "\n";
}

std::string runShow(Session& session, const std::string& device, bool json)
{
    const std::string node = deviceNode(device);
    CUDIDFactory& factory = session.factory();
    // A record made the way discovery makes one.
    CScsiDeviceData record(node, "", Session::hostName(), 0, 0, 0, -1, "", "", "", 0);
    record.m_pagesValid = 1;
    record.m_secondFlag = 1;
    CScsiTool tool;
    tool.registerTraceLog(session.log());

    DeviceReport report;
    session.startCapture();
    int status = tool.UpdateDevice(&record);
    if (status == SCSI_STATUS_OK) {
        SUdidOrigin origin;
        report.udid = factory.getUniqueDeviceID(&record, origin);
        report.generator = origin.generator;
        for (const SUdidOrigin::Failure& failure : origin.failures) {
            report.failedGenerators.push_back({failure.generator, failure.exception});
        }
    }
    report.warnings = session.stopCapture();
    if (status != SCSI_STATUS_OK) {
        struct stat st;
        if (kzfi_pdk_4_4::fiSystem().stat(node.c_str(), &st) != 0) {
            throw CommandError(kExitNotFound, node + ": device not found");
        }
        throw CommandError(kExitNotFound, node + ": the device does not answer as a disk");
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
    return json ? formatInitiatorsJson(report) : formatInitiatorsTable(report);
}

}  // namespace scsitool_cli
