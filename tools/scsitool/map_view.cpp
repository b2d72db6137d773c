#include "map_view.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "device_udid_factory.h"
#include "stringtool.h"

namespace scsitool_cli {

using ordered_json = nlohmann::ordered_json;

namespace {

const char kMapperDir[] = "/dev/mapper/";

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string kindOf(const std::string& node, bool multipath)
{
    if (node == "/dev/mapper/control") {
        return "dm-control";
    }
    if (startsWith(node, kMapperDir)) {
        return multipath ? "dm-multipath" : "dm";
    }
    if (startsWith(node, "/dev/emcpower")) {
        return "powerpath";
    }
    return "disk";
}

std::string stateOf(const std::string& kind, const DeviceProbe& probe)
{
    switch (probe.openErrno) {
        case 0:
            break;
        case EACCES:
        case EPERM:
            return "denied";
        case ENXIO:
        case ENOENT:
        case ENODEV:
            return "gone";
        default:
            return "error";
    }
    if (kind == "dm-control" || kind == "dm") {
        return "-";  // these answer no SCSI command
    }
    if (probe.answered) {
        return "running";
    }
    // A pseudo-device answers through one of its paths: none of them answered.
    return kind == "disk" ? "unresponsive" : "no-path";
}

std::string addressText(const DeviceProbe& probe)
{
    if (!probe.placed) {
        return "-";
    }
    char text[64];
    std::snprintf(text, sizeof text, "[%d:%d:%d:%d]", probe.address[0], probe.address[1],
                  probe.address[2], probe.address[3]);
    return text;
}

ordered_json addressJson(const DeviceProbe& probe)
{
    if (!probe.placed) {
        return nullptr;
    }
    return {probe.address[0], probe.address[1], probe.address[2], probe.address[3]};
}

bool answered(const MapRow& row)
{
    return row.state == "running";
}

// The marks after a UDID in the tables.
std::string udidMarks(const MapRow& row)
{
    if (!row.listed) {
        return "  (not in the library's map)";
    }
    std::string marks;
    if (row.hostLocal) {
        marks = "host-local";
    }
    if (!row.info.Uid.empty() && !answered(row) && row.kind != "dm-control") {
        marks += std::string(marks.empty() ? "" : ", ") + "device did not answer";
    }
    return marks.empty() ? "" : "  (" + marks + ")";
}

std::string orDash(const std::string& text)
{
    return text.empty() ? "-" : text;
}

std::string jsonText(const ordered_json& value)
{
    return value.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

// Columns padded to their widest cell, two blanks apart; the last one is not padded.
std::string formatColumns(const std::vector<std::vector<std::string>>& lines)
{
    std::vector<size_t> widths;
    for (const auto& line : lines) {
        widths.resize(std::max(widths.size(), line.size()), 0);
        for (size_t i = 0; i < line.size(); ++i) {
            widths[i] = std::max(widths[i], line[i].size());
        }
    }
    std::string text;
    for (const auto& line : lines) {
        for (size_t i = 0; i < line.size(); ++i) {
            text += line[i];
            if (i + 1 < line.size()) {
                text += std::string(widths[i] - line[i].size() + 2, ' ');
            }
        }
        text += "\n";
    }
    return text;
}

struct Volume {
    std::string udid;
    bool hostLocal = false;
    bool listed = true;                 // false: the nodes the library's map does not hold
    std::vector<const MapRow*> paths;   // disks
    std::vector<const MapRow*> pseudo;  // multipath maps and PowerPath devices
};

// Volumes in the order of their first entry in the map; the device-mapper control node and
// entries without a UDID are no volume.
std::vector<Volume> volumesOf(const std::vector<MapRow>& rows)
{
    std::vector<Volume> volumes;
    std::map<std::string, size_t> byUdid;
    Volume unlisted;  // what the library's map does not hold: no volume known
    for (const MapRow& row : rows) {
        if (!row.listed) {
            (row.kind == "disk" ? unlisted.paths : unlisted.pseudo).push_back(&row);
            continue;
        }
        if (row.info.Uid.empty() || row.kind == "dm-control") {
            continue;
        }
        auto found = byUdid.find(row.info.Uid);
        if (found == byUdid.end()) {
            found = byUdid.emplace(row.info.Uid, volumes.size()).first;
            volumes.push_back(Volume());
            volumes.back().udid = row.info.Uid;
        }
        Volume& volume = volumes[found->second];
        volume.hostLocal = volume.hostLocal || row.hostLocal;
        (row.kind == "disk" ? volume.paths : volume.pseudo).push_back(&row);
    }
    if (!unlisted.paths.empty() || !unlisted.pseudo.empty()) {
        unlisted.listed = false;
        volumes.push_back(unlisted);
    }
    return volumes;
}

const char kOnePath[] = "one path only";

}  // namespace

bool isHostLocalUdid(const std::string& udid, const std::string& device,
                     const std::string& hostName)
{
    // "UDID##" vendor "##" product "##" and the body, the device's name at the host's.
    const std::string host = hostName.empty() ? "UNKNOWN" : hostName;
    const std::string body = "##" + CStringTool::tostrupper(device + "@" + host);
    return udid.compare(0, 6, "UDID##") == 0 && udid.size() >= body.size() + 6 &&
           udid.compare(udid.size() - body.size(), body.size(), body) == 0;
}

std::vector<MapRow> readMap(Session& session, bool rescanBuses, bool busScan, bool removeLun0,
                            bool ownRows)
{
    std::map<std::string, DeviceProbe> probes;
    CUDIDFactory& factory = session.factory();
    factory.setRecordObserver([&probes](const CScsiDeviceData& record) {
        probes[record.m_deviceName] = probeOfRecord(record);
    });
    DeviceMap map;
    try {
        map = factory.enumerateDeviceMap(rescanBuses, busScan, removeLun0);
    } catch (...) {
        factory.setRecordObserver(nullptr);
        throw;
    }
    factory.setRecordObserver(nullptr);

    const std::vector<std::string> multipath = multipathMapNames();
    auto isMultipath = [&multipath](const std::string& node, const DeviceProbe& probe) {
        // A map that passes SCSI commands to a path is a multipath map, whatever sysfs says.
        const std::string name = node.substr(node.rfind('/') + 1);
        return probe.answered || std::binary_search(multipath.begin(), multipath.end(), name);
    };
    const std::string hostName = Session::hostName();
    std::vector<MapRow> rows;
    for (const auto& entry : map) {
        MapRow row;
        row.info = entry.second;
        row.probe = probes[entry.first];
        row.kind = kindOf(entry.first, isMultipath(entry.first, row.probe));
        // A pseudo-device's address is that of the path it sent the command to: not its own.
        row.probe.placed = row.probe.placed && row.kind == "disk";
        row.state = stateOf(row.kind, row.probe);
        row.hostLocal = isHostLocalUdid(row.info.Uid, row.info.DeviceName, hostName);
        rows.push_back(row);
    }
    // What the library left out: gone and denied nodes, disks that answer no INQUIRY.
    for (const std::string& node : ownRows ? candidateNodes() : std::vector<std::string>()) {
        if (map.count(node) != 0 || node == "/dev/mapper/control") {
            continue;
        }
        MapRow row;
        row.listed = false;
        row.info.DeviceName = node;
        row.probe.openErrno = openErrno(node);
        // The library leaves out the partitions of pseudo-devices and the maps that are no
        // multipath map (LVM, crypt) on purpose: of those, only nodes that do not open are shown.
        const bool wholeDisk = startsWith(node, "/dev/sd");
        if (!wholeDisk && row.probe.openErrno == 0) {
            continue;
        }
        row.kind = kindOf(node, isMultipath(node, row.probe));
        row.state = stateOf(row.kind, row.probe);
        rows.push_back(row);
    }
    return rows;
}

// Disks by H:C:T:L as lsscsi lists them, then what has no address of its own, by name.
std::vector<MapRow> sortedForPeople(std::vector<MapRow> rows)
{
    std::stable_sort(rows.begin(), rows.end(), [](const MapRow& a, const MapRow& b) {
        if (a.probe.placed != b.probe.placed) {
            return a.probe.placed;
        }
        if (a.probe.placed) {
            const auto& x = a.probe.address;
            const auto& y = b.probe.address;
            if (!std::equal(x, x + 4, y)) {
                return std::lexicographical_compare(x, x + 4, y, y + 4);
            }
        }
        return a.info.DeviceName < b.info.DeviceName;
    });
    return rows;
}

std::string formatMapRows(const std::vector<MapRow>& rows)
{
    std::vector<std::vector<std::string>> lines{
        {"[H:C:T:L]", "DEVICE", "KIND", "VENDOR", "PRODUCT", "STATE", "UDID"}};
    for (const MapRow& row : sortedForPeople(rows)) {
        lines.push_back({addressText(row.probe), row.info.DeviceName, row.kind,
                         orDash(row.probe.vendor), orDash(row.probe.product), row.state,
                         orDash(row.info.Uid) + udidMarks(row)});
    }
    return formatColumns(lines);
}

std::string formatMapRowsJson(const std::vector<MapRow>& rows)
{
    ordered_json entries = ordered_json::array();
    for (const MapRow& row : rows) {
        ordered_json object;
        // The library's record under its own field names, then the command's reading.
        object["DeviceName"] = row.info.DeviceName;
        object["Uid"] = row.info.Uid;
        object["dmpClaimLevel"] = row.info.dmpClaimLevel;
        object["NativePath"] = row.info.NativePath;
        object["address"] = addressJson(row.probe);
        object["kind"] = row.kind;
        object["vendor"] = row.probe.vendor;
        object["product"] = row.probe.product;
        object["state"] = row.state;
        object["host_local"] = row.hostLocal;
        // Only the rows the library did not return say so: an entry of the library's map keeps
        // the shape captures recorded before such rows existed, so that those still verify.
        if (!row.listed) {
            object["listed_by"] = "command";
        }
        entries.push_back(object);
    }
    return jsonText(entries);
}

std::string formatVolumes(const std::vector<MapRow>& rows)
{
    std::string text;
    for (const Volume& volume : volumesOf(rows)) {
        text += (text.empty() ? "" : "\n") +
                (volume.listed ? volume.udid : "(not in the library's map)") +
                (volume.hostLocal ? "  (host-local)" : "") + "\n";
        std::vector<std::vector<std::string>> lines;
        for (const MapRow* row : volume.pseudo) {
            lines.push_back({"  " + row->kind, row->info.DeviceName, "-", row->state});
        }
        for (const MapRow* row : volume.paths) {
            lines.push_back({"  path", row->info.DeviceName, addressText(row->probe), row->state});
        }
        text += formatColumns(lines);
        if (volume.listed && volume.paths.size() == 1) {
            text += std::string("  warning: ") + kOnePath + "\n";
        }
    }
    return text;
}

std::string formatVolumesJson(const std::vector<MapRow>& rows)
{
    ordered_json entries = ordered_json::array();
    for (const Volume& volume : volumesOf(rows)) {
        ordered_json object;
        object["udid"] = volume.listed ? ordered_json(volume.udid) : ordered_json(nullptr);
        object["host_local"] = volume.hostLocal;
        ordered_json paths = ordered_json::array();
        for (const MapRow* row : volume.paths) {
            paths.push_back({{"device", row->info.DeviceName},
                             {"address", addressJson(row->probe)},
                             {"state", row->state}});
        }
        ordered_json pseudo = ordered_json::array();
        for (const MapRow* row : volume.pseudo) {
            pseudo.push_back(
                {{"device", row->info.DeviceName}, {"kind", row->kind}, {"state", row->state}});
        }
        object["paths"] = paths;
        object["pseudo_devices"] = pseudo;
        object["warnings"] = volume.listed && volume.paths.size() == 1
                                 ? ordered_json::array({kOnePath})
                                 : ordered_json::array();
        entries.push_back(object);
    }
    return jsonText(entries);
}

}  // namespace scsitool_cli
