// SPDX-License-Identifier: Apache-2.0
// What the command knows of a device node beside the library's answers: what the library's
// enumeration read of it (the SCSI address, the standard INQUIRY data, page 0x83), whether a
// node the library did not list opens (and the reason when it does not).
#ifndef SCSITOOL_CLI_DEVICE_PROBE_H
#define SCSITOOL_CLI_DEVICE_PROBE_H

#include <map>
#include <string>
#include <vector>

#include "device_udid_factory.h"
#include "kernel_files.h"
#include "scsitool.h"
#include "session.h"
#include "simhost.h"

namespace scsitool_cli {

struct DeviceProbe {
    int openErrno = 0;              // 0: the node opened
    bool placed = false;            // the address could be read
    int address[4] = {0, 0, 0, 0};  // host, channel, id, LUN
    bool answered = false;          // the standard INQUIRY came back
    std::string vendor;             // INQUIRY bytes 8 to 15, trailing blanks left out
    std::string product;            // bytes 16 to 31, the same
    std::string wwn;                // "0x" and the logical unit's NAA or EUI-64 designator
};

// The first line of a sysfs attribute without its line end, "" when it cannot be read.
std::string sysfsLine(const std::string& path);

// What the library's enumeration read of one device, from its record: no node is opened again.
DeviceProbe probeOfRecord(const CScsiDeviceData& record);

// While it lives, keeps what the factory's enumerations read of each device, by node.
class RecordReadings {
public:
    explicit RecordReadings(CUDIDFactory& factory);
    ~RecordReadings();
    RecordReadings(const RecordReadings&) = delete;
    RecordReadings& operator=(const RecordReadings&) = delete;

    // Whether an enumeration read `node`, and what it read (a device that did not answer when
    // none did).
    bool read(const std::string& node) const { return m_probes.count(node) != 0; }
    DeviceProbe of(const std::string& node) const;

private:
    CUDIDFactory& m_factory;
    std::map<std::string, DeviceProbe> m_probes;
};
// A device-mapper map as sysfs shows it: its block device ("dm-0") and whether its uuid
// ("mpath-...") makes it a multipath map, which answers no SCSI command once no path is left,
// just as an LVM volume answers none.
struct DmMap {
    std::string block;
    bool multipath = false;
};
// Every map of /sys/block/dm-*, by map name ("mpatha").
std::map<std::string, DmMap> deviceMapperMaps();

// 0 when `node` opens, otherwise the errno of the failed open.
int openErrno(const std::string& node);
// The reason a device named on the command line gives no answer, as an exit-3 error: not
// found, cannot open (with the system's reason), or does not answer as a disk.
[[noreturn]] void throwUnanswered(const std::string& node);

// One answer of the device: the standard INQUIRY data (evpd false, code 0) or a VPD page.
bool readDevicePage(CScsiTool& tool, CScsiDeviceHandle& handle, CScsiDeviceData& record,
                    unsigned int code, bool evpd, simhost::Bytes& bytes);

// The nodes a person expects in the map: the whole disks of `partitions`, every node under
// "/dev/mapper/" and the PowerPath nodes, sorted.
std::vector<std::string> candidateNodes(const std::vector<SPartitionRow>& partitions);

bool startsWith(const std::string& text, const std::string& prefix);

// Whole SCSI disk names: "sd" and lower-case letters.
bool isWholeDisk(const std::string& name);

// Names the nodes that did not open, one line each on stderr ("scsitool: NODE: cannot open:
// REASON"); returns how many did not open for lack of rights.
int reportUnopened(const std::vector<std::pair<std::string, int>>& failures);
// No device could be queried: exit 3, saying when it was for lack of rights.
[[noreturn]] void throwNoDeviceQueried(bool denied);

}  // namespace scsitool_cli

#endif
