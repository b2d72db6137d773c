// SPDX-License-Identifier: Apache-2.0
#include "device_map_compare.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <iterator>

#include "device_udid_factory.h"
#include "discovery_common.h"
#include "fi_system.h"
#include "kernel_files.h"
#include "pseudo_devices.h"
#include "scsi_page_codes.h"
#include "stringtool.h"

namespace {

std::string trimmed(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// The logical unit's designator of page 0x83 by preference: NAA (type 3), EUI-64 (2), T10 vendor
// id (1). Designators of the target port or the target device (association 1 and 2) are shared
// by every LUN behind them and never name a volume.
std::string designatorKey(const unsigned char* page, size_t length)
{
    static const struct {
        unsigned int type;
        const char* prefix;
    } kPreferred[] = {{3, "naa."}, {2, "eui."}, {1, "t10."}};
    if (page == nullptr || length < 4) {
        return std::string();
    }
    const size_t end = std::min(length, static_cast<size_t>(4 + ((page[2] << 8) | page[3])));
    std::string found[std::size(kPreferred)];
    for (size_t offset = 4; offset + 4 <= end;) {
        const unsigned char* descriptor = page + offset;
        const size_t designatorLength = descriptor[3];
        if (offset + 4 + designatorLength > end) {
            break;  // a descriptor cut short by the page names nothing
        }
        const unsigned int association = (descriptor[1] >> 4) & 0x03;
        const unsigned int type = descriptor[1] & 0x0F;
        for (size_t i = 0; i < std::size(kPreferred); ++i) {
            if (association == 0 && type == kPreferred[i].type && designatorLength != 0 &&
                found[i].empty()) {
                found[i] = kPreferred[i].prefix +
                           CStringTool::binary2str(descriptor + 4, int(designatorLength));
            }
        }
        offset += 4 + designatorLength;
    }
    for (const std::string& key : found) {
        if (!key.empty()) {
            return key;
        }
    }
    return std::string();
}

// The unit serial of page 0x80, blanks trimmed, behind the vendor: a serial alone is unique only
// within one vendor's arrays.
std::string serialKey(const CScsiDeviceData& record)
{
    const CScsiModePage* page = record.findPage(scsi_page::kUnitSerial);
    if (page == nullptr || page->getData() == nullptr || page->getLength() < 4) {
        return std::string();
    }
    const unsigned char* data = page->getData();
    const size_t count = std::min(static_cast<size_t>(data[3]), page->getLength() - size_t(4));
    std::string serial = trimmed(std::string(reinterpret_cast<const char*>(data + 4), count));
    serial.erase(std::find(serial.begin(), serial.end(), '\0'), serial.end());
    if (serial.empty()) {
        return std::string();
    }
    return "serial." + trimmed(record.m_vendorId) + "." + serial;
}

std::string addressOf(const CScsiDeviceData& record)
{
    if (pseudo_device::isPseudo(record.m_deviceName) || record.m_port < 0) {
        return std::string();
    }
    return scsitool_discovery::scsiAddress(record.m_port, static_cast<int>(record.m_bus),
                                           record.m_target, record.m_lun, ":");
}

// A record whose standard INQUIRY is cached answered. A pseudo-device that does not answer has no
// live path behind it; the device-mapper control node answers nothing by nature.
std::string stateOf(const CScsiDeviceData& record)
{
    if (record.findPage(scsi_page::kStandardInquiry) != nullptr) {
        return "running";
    }
    if (pseudo_device::kindOf(record.m_deviceName) == pseudo_device::kMapperControl) {
        return "-";
    }
    return pseudo_device::isPseudo(record.m_deviceName) ? "no-path" : "unresponsive";
}

// 0 when the node opens, otherwise the errno of the failed open.
int openError(const std::string& node)
{
    errno = 0;
    const int fd = kzfi_pdk_4_4::fiSystem().open(node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return errno != 0 ? errno : EIO;
    }
    kzfi_pdk_4_4::fiSystem().close(fd);
    return 0;
}

// "sd" and lower-case letters: a whole disk, not a partition. Checked here rather than by
// discovery, whose check traces every name it is given.
bool isWholeDisk(const std::string& name)
{
    return name.size() > 2 && name.compare(0, 2, "sd") == 0 &&
           std::all_of(name.begin() + 2, name.end(), [](char c) { return c >= 'a' && c <= 'z'; });
}

// The nodes a person expects to see: the whole disks the kernel lists, every multipath map and
// every PowerPath device.
std::vector<std::string> expectedNodes()
{
    std::vector<std::string> nodes;
    for (const SPartitionRow& row : readProcPartitions()) {
        if (isWholeDisk(row.name)) {
            nodes.push_back("/dev/" + row.name);
        }
    }
    for (const char* directory : {pseudo_device::kMapperDirectory, "/dev/"}) {
        void* dir = kzfi_pdk_4_4::fiSystem().opendir(directory);
        if (dir == nullptr) {
            continue;
        }
        while (struct dirent* entry = kzfi_pdk_4_4::fiSystem().readdir(dir)) {
            const std::string name = std::string(directory) + entry->d_name;
            if (entry->d_name[0] != '.' && pseudo_device::isPseudo(name) &&
                name != pseudo_device::kMapperControlNode) {
                nodes.push_back(name);
            }
        }
        kzfi_pdk_4_4::fiSystem().closedir(dir);
    }
    std::sort(nodes.begin(), nodes.end());
    nodes.erase(std::unique(nodes.begin(), nodes.end()), nodes.end());
    return nodes;
}

// The name the default generator puts into host-local UDIDs ("" when there is none).
std::string installedHostName()
{
    std::string host;
    return kzfi_pdk_4_4::fiHostName(host, 511) ? host : std::string();
}

typedef CDeviceMapCompare::Side Side;

// The entries of one map grouped by UDID (empty UDIDs left out).
std::map<std::string, Side> byUdid(const SHostMap& map)
{
    std::map<std::string, Side> groups;
    for (const SMapVolume& volume : map.entries) {
        if (volume.udid.empty()) {
            continue;
        }
        Side& side = groups[volume.udid];
        side.udid = volume.udid;
        side.deviceNames.push_back(volume.deviceName);
        if (!volume.address.empty()) {
            side.addresses.push_back(volume.address);
        }
    }
    return groups;
}

// The entries of one map by `field` (entries with an empty field left out).
std::map<std::string, const SMapVolume*> index(const SHostMap& map, std::string SMapVolume::*field)
{
    std::map<std::string, const SMapVolume*> result;
    for (const SMapVolume& volume : map.entries) {
        if (!(volume.*field).empty() && !volume.udid.empty()) {
            result.emplace(volume.*field, &volume);
        }
    }
    return result;
}

// A name that has a host-local UDID on both sides tells nothing about a volume: the UDIDs differ
// as soon as the host name does. Such entries take no part in the comparison.
void dropHostLocalPairs(SHostMap& before, SHostMap& after)
{
    std::set<std::string> localBefore;
    for (const SMapVolume& volume : before.entries) {
        if (volume.hostLocal) {
            localBefore.insert(volume.deviceName);
        }
    }
    std::set<std::string> pairs;
    for (const SMapVolume& volume : after.entries) {
        if (volume.hostLocal && localBefore.count(volume.deviceName) != 0) {
            pairs.insert(volume.deviceName);
        }
    }
    for (SHostMap* map : {&before, &after}) {
        std::vector<SMapVolume>& entries = map->entries;
        entries.erase(std::remove_if(entries.begin(), entries.end(),
                                     [&](const SMapVolume& volume) {
                                         return volume.hostLocal &&
                                                pairs.count(volume.deviceName) != 0;
                                     }),
                      entries.end());
    }
}

Side sideOf(const std::map<std::string, Side>& groups, const std::string& udid)
{
    auto it = groups.find(udid);
    return it == groups.end() ? Side() : it->second;
}

}  // namespace

const char* CDeviceMapCompare::kindName(Kind kind)
{
    switch (kind) {
        case Remapped:
            return "remapped";
        case IdentityChanged:
            return "identity-changed";
        case Unavailable:
            return "unavailable";
        case Readdressed:
            return "readdressed";
        case Moved:
            return "moved";
        case Added:
            return "added";
        case Removed:
            return "removed";
    }
    return "";
}

std::string CDeviceMapCompare::openFailureState(int error)
{
    switch (error) {
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
}

std::string CDeviceMapCompare::volumeKey(const CScsiDeviceData& record)
{
    const CScsiModePage* page = record.findPage(scsi_page::kDeviceIdentification);
    std::string key =
        page == nullptr ? std::string() : designatorKey(page->getData(), page->getLength());
    return key.empty() ? serialKey(record) : key;
}

SHostMap CDeviceMapCompare::describeHost(CUDIDFactory& factory)
{
    std::vector<CScsiDeviceData*> records = factory.m_discovery.rescan(false, false, false);
    SHostMap host = describeRecords(factory, records, installedHostName());
    std::set<std::string> mapped;
    for (const SMapVolume& volume : host.entries) {
        mapped.insert(volume.deviceName);
    }
    // A node that opens and is not in the map is one the library has no use for (a map of
    // another kind): it is left out as the map leaves it out.
    for (const std::string& node : expectedNodes()) {
        if (mapped.count(node) != 0) {
            continue;
        }
        if (const int error = openError(node)) {
            SMapVolume volume;
            volume.deviceName = node;
            volume.state = openFailureState(error);
            volume.openError = error;
            host.entries.push_back(volume);
        }
    }
    std::sort(host.entries.begin(), host.entries.end(),
              [](const SMapVolume& a, const SMapVolume& b) { return a.deviceName < b.deviceName; });
    return host;
}

SHostMap CDeviceMapCompare::describeDisks(CUDIDFactory& factory,
                                          const std::vector<std::string>& names)
{
    std::vector<CScsiDeviceData*> records;
    for (const std::string& name : names) {
        if (name.empty() || !factory.m_discovery.IsValidDeviceName(name)) {
            continue;
        }
        std::vector<CScsiDeviceData*> found = factory.m_discovery.validateDevice("/dev/" + name);
        records.insert(records.end(), found.begin(), found.end());
    }
    return describeRecords(factory, records, installedHostName());
}

SHostMap CDeviceMapCompare::describeRecords(CUDIDFactory& factory,
                                            std::vector<CScsiDeviceData*>& records,
                                            const std::string& hostName)
{
    // The map keeps the last record of a name; so does the description.
    std::map<std::string, SMapVolume> described;
    for (const CScsiDeviceData* record : records) {
        SMapVolume& volume = described[record->m_deviceName];
        volume.address = addressOf(*record);
        volume.volumeKey = volumeKey(*record);
        volume.state = stateOf(*record);
    }
    DeviceMap map = factory.fillDeviceMap(records, false);
    SHostMap result;
    result.hostName = hostName;
    for (const auto& entry : map) {
        SMapVolume volume = described[entry.first];
        volume.deviceName = entry.first;
        volume.udid = entry.second.Uid;
        volume.hostLocal = isHostLocalUdid(volume.udid, volume.deviceName, hostName);
        result.entries.push_back(volume);
    }
    return result;
}

std::vector<CDeviceMapCompare::Finding> CDeviceMapCompare::compare(const SHostMap& fullBefore,
                                                                   const SHostMap& fullAfter)
{
    SHostMap before = fullBefore;
    SHostMap after = fullAfter;
    std::vector<Finding> findings;
    std::set<std::string> accounted;  // UDIDs a remap, an identity change or an outage explains

    // A name that answered and now does not: the volume it carried is out of reach, nothing is
    // known of what the name points at now. Names that do not answer on either side take no
    // further part: their UDIDs (host-local, or none) say nothing of a volume.
    const std::map<std::string, Side> allBefore = byUdid(before);
    std::set<std::string> silent;
    for (const SMapVolume& now : after.entries) {
        if (answered(now)) {
            continue;
        }
        silent.insert(now.deviceName);
        for (const SMapVolume& old : before.entries) {
            if (old.deviceName == now.deviceName && answered(old) && !old.udid.empty()) {
                Finding finding{Unavailable, now.deviceName, sideOf(allBefore, old.udid), Side(),
                                now.state};
                finding.after.deviceNames.push_back(now.deviceName);
                if (!now.address.empty()) {
                    finding.after.addresses.push_back(now.address);
                }
                findings.push_back(finding);
                accounted.insert(old.udid);
            }
        }
    }
    for (SHostMap* map : {&before, &after}) {
        std::vector<SMapVolume>& entries = map->entries;
        entries.erase(std::remove_if(entries.begin(), entries.end(),
                                     [&](const SMapVolume& volume) {
                                         return !answered(volume) ||
                                                silent.count(volume.deviceName) != 0;
                                     }),
                      entries.end());
    }
    dropHostLocalPairs(before, after);
    const std::map<std::string, Side> udidsBefore = byUdid(before);
    const std::map<std::string, Side> udidsAfter = byUdid(after);

    // A name, then an address, that answers as another volume. The same volume under another
    // UDID is an identity change, not a remap.
    std::set<std::pair<std::string, std::string>> remaps;
    for (std::string SMapVolume::*field : {&SMapVolume::deviceName, &SMapVolume::address}) {
        const auto namesAfter = index(after, field);
        for (const auto& old : index(before, field)) {
            auto now = namesAfter.find(old.first);
            if (now == namesAfter.end()) {
                continue;
            }
            const SMapVolume& a = *old.second;
            const SMapVolume& b = *now->second;
            // Host-local UDIDs tell nothing about the volume, and differ with the host name.
            if (a.udid == b.udid || (a.hostLocal && b.hostLocal) ||
                (!a.volumeKey.empty() && a.volumeKey == b.volumeKey) ||
                !remaps.insert(std::make_pair(a.udid, b.udid)).second) {
                continue;
            }
            findings.push_back(Finding{Remapped, old.first, sideOf(udidsBefore, a.udid),
                                       sideOf(udidsAfter, b.udid), std::string()});
            accounted.insert(a.udid);
            accounted.insert(b.udid);
        }
    }

    // One volume, known by its designators, under another UDID.
    const auto keysAfter = index(after, &SMapVolume::volumeKey);
    for (const auto& old : index(before, &SMapVolume::volumeKey)) {
        auto now = keysAfter.find(old.first);
        if (now == keysAfter.end() || old.second->udid == now->second->udid) {
            continue;
        }
        findings.push_back(Finding{IdentityChanged, old.first,
                                   sideOf(udidsBefore, old.second->udid),
                                   sideOf(udidsAfter, now->second->udid), std::string()});
        accounted.insert(old.second->udid);
        accounted.insert(now->second->udid);
    }

    // The same name and volume at another SCSI address.
    const auto namesAfter = index(after, &SMapVolume::deviceName);
    for (const auto& old : index(before, &SMapVolume::deviceName)) {
        auto now = namesAfter.find(old.first);
        if (now != namesAfter.end() && old.second->udid == now->second->udid &&
            !old.second->address.empty() && !now->second->address.empty() &&
            old.second->address != now->second->address) {
            Finding finding{Readdressed, old.first, sideOf(udidsBefore, old.second->udid),
                            sideOf(udidsAfter, now->second->udid), std::string()};
            // Each side shows the one name and its address.
            finding.before.deviceNames = {old.first};
            finding.before.addresses = {old.second->address};
            finding.after.deviceNames = {old.first};
            finding.after.addresses = {now->second->address};
            findings.push_back(finding);
        }
    }

    for (const auto& old : udidsBefore) {
        auto now = udidsAfter.find(old.first);
        if (now != udidsAfter.end() && old.second.deviceNames != now->second.deviceNames) {
            findings.push_back(Finding{Moved, old.first, old.second, now->second, std::string()});
        }
    }
    for (const auto& now : udidsAfter) {
        if (udidsBefore.count(now.first) == 0 && accounted.count(now.first) == 0) {
            findings.push_back(Finding{Added, now.first, Side(), now.second, std::string()});
        }
    }
    for (const auto& old : udidsBefore) {
        if (udidsAfter.count(old.first) == 0 && accounted.count(old.first) == 0) {
            findings.push_back(Finding{Removed, old.first, old.second, Side(), std::string()});
        }
    }
    std::stable_sort(findings.begin(), findings.end(),
                     [](const Finding& a, const Finding& b) { return a.kind < b.kind; });
    return findings;
}

void CFleetView::addHost(const SHostMap& host)
{
    ++m_hosts;
    std::map<std::string, std::vector<std::string>> names;
    for (const SMapVolume& volume : host.entries) {
        if (volume.udid.empty() || volume.hostLocal) {
            continue;
        }
        names[volume.udid].push_back(volume.deviceName);
        if (!volume.volumeKey.empty()) {
            m_byKey[volume.volumeKey].insert(volume.udid);
        }
    }
    // Captures of one host in a row share its names.
    if (m_hostNames.empty() || m_hostNames.back().first != host.hostName ||
        m_hostNames.back().second != host.machineId) {
        m_hostNames.emplace_back(host.hostName, host.machineId);
    }
    for (auto& entry : names) {
        m_byUdid[entry.first].push_back(Seen{m_hostNames.size() - 1, std::move(entry.second)});
    }
}

void CFleetView::visitShared(const std::function<void(const SharedVolume&)>& visit) const
{
    std::vector<Sighting> sightings;
    for (const auto& entry : m_byUdid) {
        const std::vector<Seen>& seen = entry.second;
        // Two captures of one host share nothing with each other.
        const std::string& firstHost = m_hostNames[seen.front().host].first;
        const bool elsewhere = std::any_of(seen.begin(), seen.end(), [&](const Seen& sighting) {
            return m_hostNames[sighting.host].first != firstHost;
        });
        if (!elsewhere) {
            continue;
        }
        sightings.clear();
        for (const Seen& sighting : seen) {
            const auto& host = m_hostNames[sighting.host];
            sightings.push_back(Sighting{host.first, host.second, sighting.deviceNames});
        }
        visit(SharedVolume{entry.first, sightings});
    }
}

std::vector<CFleetView::Conflict> CFleetView::conflicts() const
{
    std::vector<Conflict> result;
    for (const auto& entry : m_byKey) {
        if (entry.second.size() < 2) {
            continue;
        }
        Conflict conflict;
        conflict.volumeKey = entry.first;
        for (const std::string& udid : entry.second) {
            std::vector<std::string>& hosts = conflict.hostsByUdid[udid];
            for (const Seen& sighting : m_byUdid.at(udid)) {
                const std::string& host = m_hostNames[sighting.host].first;
                if (std::find(hosts.begin(), hosts.end(), host) == hosts.end()) {
                    hosts.push_back(host);
                }
            }
        }
        result.push_back(conflict);
    }
    return result;
}
