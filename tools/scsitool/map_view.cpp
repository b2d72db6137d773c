// SPDX-License-Identifier: Apache-2.0
#include "map_view.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "device_map_compare.h"
#include "device_udid_factory.h"
#include "errors.h"
#include "output.h"
#include "pseudo_devices.h"
#include "stringtool.h"
#include "table.h"

namespace scsitool_cli {

using ordered_json = nlohmann::ordered_json;

namespace {

std::string kindOf(const std::string& node, bool multipath)
{
    switch (pseudo_device::kindOf(node)) {
        case pseudo_device::kMapperControl:
            return "dm-control";
        case pseudo_device::kMapper:
            return multipath ? "dm-multipath" : "dm";
        case pseudo_device::kPowerPath:
            return "powerpath";
        case pseudo_device::kNative:
            break;
    }
    return "disk";
}

std::string stateOf(const std::string& kind, const DeviceProbe& probe)
{
    if (probe.openErrno != 0) {
        return CDeviceMapCompare::openFailureState(probe.openErrno);
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
    std::snprintf(text, sizeof text, "%d:%d:%d:%d", probe.address[0], probe.address[1],
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

// What the tables say of a row beside its UDID.
std::string udidMarks(const MapRow& row)
{
    if (!row.listed) {
        return "not in the library's map";
    }
    std::string marks;
    if (row.hostLocal) {
        marks = "host-local";
    }
    if (!row.info.Uid.empty() && !answered(row) && row.kind != "dm-control") {
        marks += std::string(marks.empty() ? "" : ", ") + "device did not answer";
    }
    return marks;
}

// A size as lsblk writes it: powers of 1024, one decimal unless it is 0, "465.8G", "50G".
std::string humanSize(unsigned long long bytes)
{
    static const char kUnits[] = "BKMGTPE";
    if (bytes == 0) {
        return "-";
    }
    double value = static_cast<double>(bytes);
    size_t unit = 0;
    while (value >= 1024 && unit + 1 < sizeof kUnits - 1) {
        value /= 1024;
        ++unit;
    }
    char text[32];
    if (unit == 0) {
        std::snprintf(text, sizeof text, "%lluB", bytes);
        return text;
    }
    std::snprintf(text, sizeof text, "%.1f", value);
    std::string number = text;
    if (number.size() > 2 && number.compare(number.size() - 2, 2, ".0") == 0) {
        number.erase(number.size() - 2);
    }
    return number + kUnits[unit];
}

struct MapColumn {
    const char* name;
    std::string (*cell)(const MapRow& row);
};

const MapColumn kMapColumns[] = {
    {"HCTL", [](const MapRow& row) { return addressText(row.probe); }},
    {"DEVICE", [](const MapRow& row) { return row.info.DeviceName; }},
    {"KIND", [](const MapRow& row) { return row.kind; }},
    {"VENDOR", [](const MapRow& row) { return row.probe.vendor.empty() ? "-" : row.probe.vendor; }},
    {"PRODUCT",
     [](const MapRow& row) { return row.probe.product.empty() ? "-" : row.probe.product; }},
    {"SIZE", [](const MapRow& row) { return humanSize(row.size); }},
    {"STATE", [](const MapRow& row) { return row.state; }},
    {"WWN", [](const MapRow& row) { return row.probe.wwn.empty() ? "-" : row.probe.wwn; }},
    {"UDID", [](const MapRow& row) { return row.info.Uid.empty() ? "-" : row.info.Uid; }},
    {"NOTE", [](const MapRow& row) { return udidMarks(row); }},
};
// Every column but the WWN, which the UDID mostly holds already.
const char kDefaultColumns[] = "HCTL,DEVICE,KIND,VENDOR,PRODUCT,SIZE,STATE,UDID,NOTE";

std::vector<const MapColumn*> columnsOf(const std::string& list)
{
    // "+LIST" adds to the default columns, as lsblk's -o does.
    const std::string names = !list.empty() && list[0] == '+'
                                  ? std::string(kDefaultColumns) + "," + list.substr(1)
                              : list.empty() ? std::string(kDefaultColumns)
                                             : list;
    std::vector<const MapColumn*> columns;
    size_t start = 0;
    while (start <= names.size()) {
        size_t end = names.find(',', start);
        end = end == std::string::npos ? names.size() : end;
        const std::string name = CStringTool::tostrupper(names.substr(start, end - start));
        const MapColumn* found = nullptr;
        for (const MapColumn& column : kMapColumns) {
            if (name == column.name) {
                found = &column;
            }
        }
        if (found == nullptr) {
            throw CommandError(kExitUsage, "unknown column: \"" + names.substr(start, end - start) +
                                               "\" (the columns: " + mapColumnNames() + ")");
        }
        columns.push_back(found);
        start = end + 1;
    }
    return columns;
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

std::vector<MapRow> readMap(Session& session, bool rescanBuses, bool busScan, bool removeLun0,
                            bool ownRows)
{
    RecordReadings readings(session.factory());
    const DeviceMap map = session.factory().enumerateDeviceMap(rescanBuses, busScan, removeLun0);

    const std::map<std::string, DmMap> dmMaps = deviceMapperMaps();
    const std::vector<SPartitionRow> partitions = readProcPartitions();
    auto isMultipath = [&dmMaps](const std::string& node, const DeviceProbe& probe) {
        // A map that passes SCSI commands to a path is a multipath map, whatever sysfs says.
        auto map = dmMaps.find(node.substr(node.rfind('/') + 1));
        return probe.answered || (map != dmMaps.end() && map->second.multipath);
    };
    // Sizes from the kernel's list of block devices: a map is listed under its "dm-N".
    std::map<std::string, unsigned long long> sizes;
    for (const SPartitionRow& device : partitions) {
        sizes["/dev/" + device.name] = device.blocks * 1024;
    }
    for (const auto& map : dmMaps) {
        sizes[pseudo_device::kMapperDirectory + map.first] = sizes["/dev/" + map.second.block];
    }
    auto sizeOf = [&sizes](const std::string& node) {
        auto found = sizes.find(node);
        return found == sizes.end() ? 0ULL : found->second;
    };
    const std::string hostName = Session::hostName();
    std::vector<MapRow> rows;
    for (const auto& entry : map) {
        MapRow row;
        row.info = entry.second;
        row.probe = readings.of(entry.first);
        row.kind = kindOf(entry.first, isMultipath(entry.first, row.probe));
        // A pseudo-device's address is that of the path it sent the command to: not its own.
        row.probe.placed = row.probe.placed && row.kind == "disk";
        row.state = stateOf(row.kind, row.probe);
        row.hostLocal = isHostLocalUdid(row.info.Uid, row.info.DeviceName, hostName);
        row.size = sizeOf(entry.first);
        rows.push_back(row);
    }
    // What the library left out: gone and denied nodes, disks that answer no INQUIRY.
    for (const std::string& node :
         ownRows ? candidateNodes(partitions) : std::vector<std::string>()) {
        if (map.count(node) != 0 || node == pseudo_device::kMapperControlNode) {
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
        row.size = sizeOf(node);
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

std::string mapColumnNames()
{
    std::string names;
    for (const MapColumn& column : kMapColumns) {
        names += std::string(names.empty() ? "" : ", ") + column.name;
    }
    return names;
}

void checkMapColumns(const std::string& columns)
{
    columnsOf(columns);
}

std::string formatMapRows(const std::vector<MapRow>& rows, const MapTableOptions& options)
{
    const std::vector<const MapColumn*> columns = columnsOf(options.columns);
    std::vector<std::string> headers;
    for (const MapColumn* column : columns) {
        headers.push_back(column->name);
    }
    Table table(headers, options.style);
    for (const MapRow& row : sortedForPeople(rows)) {
        std::vector<std::string> cells;
        for (const MapColumn* column : columns) {
            cells.push_back(column->cell(row));
        }
        table.addRow(cells);
    }
    return table.text();
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
    return jsonString(entries);
}

std::string formatVolumes(const std::vector<MapRow>& rows, const MapTableOptions& options)
{
    // The tree lsblk and multipath -ll draw: the volume, its pseudo-devices, the paths behind
    // them (under each one, as each one reaches them all). --list: the same rows, flat.
    Table table({"NAME", "KIND", "HCTL", "STATE", "NOTE"}, options.style, options.list ? -1 : 0);
    for (const Volume& volume : volumesOf(rows)) {
        std::string note = volume.hostLocal ? "host-local" : "";
        if (volume.listed && volume.paths.size() == 1) {
            note += std::string(note.empty() ? "" : ", ") + "warning: " + kOnePath;
        }
        const int top = table.addRow(
            {volume.listed ? volume.udid : "(not in the library's map)", "volume", "-", "-", note});
        auto addPaths = [&](int parent) {
            for (const MapRow* row : volume.paths) {
                table.addRow(
                    {row->info.DeviceName, "path", addressText(row->probe), row->state, ""},
                    parent);
            }
        };
        for (const MapRow* row : volume.pseudo) {
            const int pseudo =
                table.addRow({row->info.DeviceName, row->kind, "-", row->state, ""}, top);
            if (!options.list) {
                addPaths(pseudo);
            }
        }
        if (volume.pseudo.empty() || options.list) {
            addPaths(top);
        }
    }
    return table.text();
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
    return jsonString(entries);
}

}  // namespace scsitool_cli
