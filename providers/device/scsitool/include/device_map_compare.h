// SPDX-License-Identifier: Apache-2.0
// Comparing device maps: what changed between two maps of one host (a name or SCSI address that
// now answers as another volume, a volume whose UDID changed, a name that stopped answering, a
// name at another SCSI address, a UDID under another name, UDIDs that came or went), and which
// volumes several hosts share. Availability is never identity: a device that no longer answers is
// unavailable, never remapped.
#ifndef SCSITOOL_DEVICE_MAP_COMPARE_H
#define SCSITOOL_DEVICE_MAP_COMPARE_H

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "device_scsi_data.h"
#include "scsitool_export.h"
#include "stringtool.h"

class CUDIDFactory;

// Whether `udid` is the host-local id the default generator makes for a disk without identity
// pages: "UDID##" vendor "##" product "##" and "<device>@<host>" upper-cased, "UNKNOWN" standing
// for a host without a name. Such an id names the device on this host only.
inline bool isHostLocalUdid(const std::string& udid, const std::string& deviceName,
                            const std::string& hostName)
{
    const std::string host = hostName.empty() ? "UNKNOWN" : hostName;
    const std::string body = "##" + CStringTool::tostrupper(deviceName + "@" + host);
    return udid.compare(0, 6, "UDID##") == 0 && udid.size() >= body.size() + 6 &&
           udid.compare(udid.size() - body.size(), body.size(), body) == 0;
}

// One entry of a device map with what tells its volume apart from the UDID.
struct SMapVolume {
    std::string deviceName;  // "/dev/sdc", "/dev/mapper/mpatha"
    std::string address;     // "host:channel:id:lun" of a native disk; "" for a pseudo-device
    std::string udid;        // as the map holds it; "" when no generator could make one
    std::string volumeKey;  // "naa.…", "eui.…", "t10.…", "serial.…"; "" when the pages name none
    bool hostLocal = false;  // the UDID is made from the device name and the host name
    // "running": the device answered its INQUIRY. Otherwise why it did not: "unresponsive" (its
    // node opens, it answers nothing), "no-path" (a multipath or PowerPath device none of whose
    // paths answers), "gone", "denied" or "error" (its node, listed by the kernel, does not open;
    // such names are not in the library's map and have no UDID), "-" (the device-mapper control
    // node, which answers no SCSI command).
    std::string state = "running";
    int openError = 0;  // the errno of the failed open, for "gone", "denied" and "error"
};

// One host's device map, entries in device-name order.
struct SHostMap {
    std::string hostName;
    std::vector<SMapVolume> entries;
    std::string machineId;  // "" when not known
};

class SCSITOOL_EXPORT CDeviceMapCompare {
public:
    // In the order findings are reported: the dangerous ones first.
    enum Kind { Remapped, IdentityChanged, Unavailable, Readdressed, Moved, Added, Removed };
    // "remapped", "identity-changed", "unavailable", "readdressed", "moved", "added", "removed"
    static const char* kindName(Kind kind);

    // One side of a finding: the names and addresses of one UDID (empty when the side has none).
    struct Side {
        std::vector<std::string> deviceNames;
        std::vector<std::string> addresses;
        std::string udid;
    };
    struct Finding {
        Kind kind;
        std::string subject;  // the device name, address, volume key or UDID the finding is about
        Side before;
        Side after;
        std::string state;  // unavailable: the name's state now ("unresponsive", "gone", ...)
    };

    // Why a node did not open, in the words of the map: "denied" (EACCES, EPERM), "gone" (ENXIO,
    // ENOENT, ENODEV) or "error".
    static std::string openFailureState(int error);
    // Whether the device answered its INQUIRY.
    static bool answered(const SMapVolume& volume) { return volume.state == "running"; }

    // The designators of page 0x83 that name the logical unit (NAA, then EUI-64, then T10 vendor
    // id), or the unit serial of page 0x80 with the vendor when page 0x83 names none; "" when
    // neither does. Reads only the bytes the record holds.
    static std::string volumeKey(const CScsiDeviceData& record);

    // The device map of the installed host, computed as enumerateDeviceMap(false, false, false)
    // does, with each entry's address, volume key and state; then the disks the kernel lists and
    // the multipath and PowerPath nodes that the map left out because their node does not open,
    // each with its state and no UDID.
    static SHostMap describeHost(CUDIDFactory& factory);
    // The entries the map holds for the whole sd disks among these kernel names ("sdc"; others
    // are left out as the map leaves them out), each queried on its own the way the map validates
    // one device: the same UDIDs at half the cost of an enumeration, but without the multipath
    // and PowerPath pseudo-devices that front them.
    static SHostMap describeDisks(CUDIDFactory& factory, const std::vector<std::string>& names);
    // The same from records already queried (the factory computes the UDIDs and deletes them).
    static SHostMap describeRecords(CUDIDFactory& factory, std::vector<CScsiDeviceData*>& records,
                                    const std::string& hostName);

    // The findings from `before` to `after` in the order of the kinds, each kind in the order of
    // its subject. A name that answered before and does not now is unavailable, whatever UDID it
    // has now, and takes no further part; nor does a name that did not answer before. A UDID that
    // a remap, an identity change or an unavailable name accounts for is not reported again as
    // added or removed. A name that has a host-local UDID on both sides is left out: those UDIDs
    // differ whenever the host names do.
    static std::vector<Finding> compare(const SHostMap& before, const SHostMap& after);
};

// The volumes that several hosts see. Hosts are added one at a time and only what the view
// reports is kept, so memory grows with the distinct volumes, not with the hosts added.
class SCSITOOL_EXPORT CFleetView {
public:
    struct Sighting {
        std::string host;
        std::string machineId;
        std::vector<std::string> deviceNames;
    };
    struct SharedVolume {
        const std::string& udid;
        const std::vector<Sighting>& sightings;  // one per host, in the order hosts were added
    };
    // One volume that hosts name by different UDIDs.
    struct Conflict {
        std::string volumeKey;
        std::map<std::string, std::vector<std::string>> hostsByUdid;
    };

    // Host-local and empty UDIDs are left out. Hosts are told apart by their names: two hosts
    // must not come with the same one.
    void addHost(const SHostMap& host);
    size_t hosts() const { return m_hosts; }
    // Hands each UDID seen on more than one host to `visit`, in UDID order.
    void visitShared(const std::function<void(const SharedVolume&)>& visit) const;
    // Volume keys seen under more than one UDID, in key order.
    std::vector<Conflict> conflicts() const;

private:
    // A sighting as it is kept: the host by its place in m_hostNames, whose names are kept once.
    struct Seen {
        size_t host;
        std::vector<std::string> deviceNames;
    };
    size_t m_hosts = 0;
    std::vector<std::pair<std::string, std::string>> m_hostNames;  // name and machine id
    std::map<std::string, std::vector<Seen>> m_byUdid;
    std::map<std::string, std::set<std::string>> m_byKey;  // the UDIDs of each volume key
};

#endif
