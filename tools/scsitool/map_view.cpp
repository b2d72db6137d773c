// SPDX-License-Identifier: Apache-2.0
#include "map_view.h"

#include <cerrno>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "stringtool.h"

namespace scsitool_cli {

using ordered_json = nlohmann::ordered_json;

namespace {

const char kMapperDir[] = "/dev/mapper/";

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string kindOf(const std::string& node, const DeviceProbe& probe)
{
    if (node == "/dev/mapper/control") {
        return "dm-control";
    }
    if (startsWith(node, kMapperDir)) {
        // A multipath map passes SCSI commands to a path; other maps (LVM, crypt) answer none.
        return probe.inquiry.empty() && probe.openErrno == 0 ? "dm" : "dm-multipath";
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
    return probe.inquiry.empty() ? "unresponsive" : "running";
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
    std::vector<const MapRow*> paths;   // disks
    std::vector<const MapRow*> pseudo;  // multipath maps and PowerPath devices
};

// Volumes in the order of their first entry in the map; the device-mapper control node and
// entries without a UDID are no volume.
std::vector<Volume> volumesOf(const std::vector<MapRow>& rows)
{
    std::vector<Volume> volumes;
    std::map<std::string, size_t> byUdid;
    for (const MapRow& row : rows) {
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

std::vector<MapRow> describeMap(Session& session, const DeviceMap& map, const std::string& hostName)
{
    std::vector<MapRow> rows;
    for (const auto& entry : map) {
        MapRow row;
        row.info = entry.second;
        row.probe = probeDevice(session, entry.first);
        row.kind = kindOf(entry.first, row.probe);
        // A pseudo-device's address is that of the path it sent the command to: not its own.
        row.probe.placed = row.probe.placed && row.kind == "disk";
        row.state = stateOf(row.kind, row.probe);
        row.hostLocal = isHostLocalUdid(row.info.Uid, row.info.DeviceName, hostName);
        rows.push_back(row);
    }
    return rows;
}

std::string formatMapRows(const std::vector<MapRow>& rows)
{
    std::vector<std::vector<std::string>> lines{
        {"[H:C:T:L]", "DEVICE", "KIND", "VENDOR", "PRODUCT", "STATE", "UDID"}};
    for (const MapRow& row : rows) {
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
        entries.push_back(object);
    }
    return jsonText(entries);
}

std::string formatVolumes(const std::vector<MapRow>& rows)
{
    std::string text;
    for (const Volume& volume : volumesOf(rows)) {
        text += (text.empty() ? "" : "\n") + volume.udid +
                (volume.hostLocal ? "  (host-local)" : "") + "\n";
        std::vector<std::vector<std::string>> lines;
        for (const MapRow* row : volume.pseudo) {
            lines.push_back({"  " + row->kind, row->info.DeviceName, "-", row->state});
        }
        for (const MapRow* row : volume.paths) {
            lines.push_back({"  path", row->info.DeviceName, addressText(row->probe), row->state});
        }
        text += formatColumns(lines);
        if (volume.paths.size() == 1) {
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
        object["udid"] = volume.udid;
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
        object["warnings"] =
            volume.paths.size() == 1 ? ordered_json::array({kOnePath}) : ordered_json::array();
        entries.push_back(object);
    }
    return jsonText(entries);
}

}  // namespace scsitool_cli
