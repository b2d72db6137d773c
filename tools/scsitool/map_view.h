// SPDX-License-Identifier: Apache-2.0
// The device map for people: each entry of the library's map beside what its enumeration read of
// the device (address, kind, vendor, product, WWN, state), the disks and pseudo-devices it did not
// return (the command's own rows), and the map grouped into volumes.
#ifndef SCSITOOL_CLI_MAP_VIEW_H
#define SCSITOOL_CLI_MAP_VIEW_H

#include <string>
#include <vector>

#include "device_probe.h"
#include "device_scsi_data.h"
#include "session.h"
#include "table.h"

namespace scsitool_cli {

struct MapRow {
    SDeviceInfo info;        // the library's entry, as it gave it
    DeviceProbe probe;       // the command's own reading of the node
    std::string kind;        // "disk", "dm-multipath", "dm", "powerpath", "dm-control"
    std::string state;       // "running", "unresponsive", "no-path", "denied", "gone", "error", "-"
    bool hostLocal = false;  // the UDID is the default generator's device@host name
    bool listed = true;      // false: a node the library did not return, the command's own row
    unsigned long long size = 0;  // bytes, 0 when the kernel does not list the node
};

// How the tables are drawn: the columns of the map (-o: "" for the default, "+LIST" to add),
// raw, pairs or no headings, and the volumes as a list rather than a tree.
struct MapTableOptions {
    std::string columns;
    TableStyle style;
    bool list = false;
};
// The names of the map's columns, comma-separated, for --help and for the error that names an
// unknown one.
std::string mapColumnNames();
// Throws CommandError (exit 1) when `columns` names an unknown column.
void checkMapColumns(const std::string& columns);

// The library's enumeration (`rescanBuses` and the rest handed to it) and its rows in the map's
// order, followed (`ownRows`) by the command's own rows of the whole disks, multipath maps and
// PowerPath devices it did not return. The columns come from the records the enumeration read:
// no node is opened again, only those it did not return.
std::vector<MapRow> readMap(Session& session, bool rescanBuses, bool busScan, bool removeLun0,
                            bool ownRows = true);

// Throws CommandError (exit 1) for an unknown column.
std::string formatMapRows(const std::vector<MapRow>& rows, const MapTableOptions& options);
std::string formatMapRowsJson(const std::vector<MapRow>& rows);
// One entry per UDID: the multipath view. A volume reached by one path only is warned about.
std::string formatVolumes(const std::vector<MapRow>& rows, const MapTableOptions& options);
std::string formatVolumesJson(const std::vector<MapRow>& rows);

}  // namespace scsitool_cli

#endif
