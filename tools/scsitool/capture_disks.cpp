// SPDX-License-Identifier: Apache-2.0
// `scsitool capture`: the disks, their address, INQUIRY data, pages and partitions.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <map>
#include <set>

#include "capture_parts.h"
#include "device_discovery.h"
#include "device_probe.h"
#include "errors.h"
#include "kernel_files.h"
#include "netapp_identity.h"
#include "scsitool.h"
#include "stringtool.h"

namespace scsitool_cli {
namespace capture {

namespace {

struct PartitionEntry {
    unsigned long long blocks = 0;
    std::vector<std::string> partitions;
};

// "/proc/partitions": the size of each disk and the partitions listed after it.
std::map<std::string, PartitionEntry> readPartitions()
{
    std::map<std::string, PartitionEntry> disks;
    std::vector<SPartitionRow> rows = readProcPartitions();
    for (const SPartitionRow& row : rows) {
        disks[row.name].blocks = row.blocks;
    }
    // A partition is a disk's name followed by its number.
    for (const SPartitionRow& row : rows) {
        for (auto& disk : disks) {
            const std::string& name = disk.first;
            if (row.name.size() > name.size() && row.name.compare(0, name.size(), name) == 0 &&
                isNumber(row.name.substr(name.size()))) {
                disk.second.partitions.push_back(row.name);
            }
        }
    }
    return disks;
}

// The filer identity command that the NetApp generator sends; its raw answer, trailing zero
// bytes left out.
bool readNetAppIdentity(const std::string& node, Bytes& answer)
{
    std::vector<unsigned char> buffer;
    int result = 0;
    if (!sendNetAppIdentityCommand(node, buffer, result) || result != 0) {
        return false;
    }
    size_t used = buffer.size();
    while (used > 0 && buffer[used - 1] == 0) {
        --used;
    }
    answer.assign(buffer.begin(), buffer.begin() + used);
    return true;
}

// A disk node's address, INQUIRY data and every page its page 0x00 lists, as a device of the
// snapshot. A node that opens but does not answer is kept as an unresponsive device; `placed`
// tells whether its address could be read.
simhost::SimDevice captureDevice(Session& session, const std::string& node, bool& placed)
{
    simhost::SimDevice device;
    device.name = node.substr(node.rfind('/') + 1);
    CScsiDeviceData record(node, "", "", 0, 0, 0, -1, "", "", "", 0);
    CScsiTool tool;
    tool.registerTraceLog(session.log());
    CScsiDeviceHandle handle(session.log());
    placed = false;
    try {
        tool.GetTargetLunPortInfo(handle, record);
        device.host = record.m_port;
        device.channel = static_cast<int>(record.m_bus);
        device.id = record.m_target;
        device.lun = record.m_lun;
        placed = true;
    } catch (...) {
        device.state = simhost::DeviceState::Unresponsive;
        return device;
    }
    if (!readDevicePage(tool, handle, record, 0, false, device.inquiry)) {
        device.state = simhost::DeviceState::Unresponsive;
        return device;
    }
    Bytes supported;
    if (readDevicePage(tool, handle, record, 0, true, supported)) {
        device.vpd[0] = supported;
        size_t count = supported.size() > 3 ? supported[3] : 0;
        for (size_t i = 4; i < 4 + count && i < supported.size(); ++i) {
            Bytes page;
            if (supported[i] != 0 &&
                readDevicePage(tool, handle, record, supported[i], true, page)) {
                device.vpd[supported[i]] = page;
            }
        }
    }
    if (device.inquiry.size() >= 32) {
        std::string vendor(device.inquiry.begin() + 8, device.inquiry.begin() + 16);
        std::string product(device.inquiry.begin() + 16, device.inquiry.begin() + 32);
        if (CStringTool::rtrim(vendor, ' ') == "NETAPP" &&
            CStringTool::rtrim(product, ' ') == "LUN") {
            device.hasVendorCommand = readNetAppIdentity(node, device.vendorCommand);
        }
    }
    return device;
}

typedef std::vector<int> Address;  // host, channel, id, LUN

// Disks whose address could not be read (they do not answer) take the disks of
// "/proc/scsi/scsi" that no answering disk holds, in order, with the identity the kernel still
// shows for them; past those, free LUNs of 0:0:0. The kernel does not say which node sits at
// which address, so this is the best guess the system interface allows.
void placeDisks(std::vector<simhost::SimDevice>& disks, const std::vector<bool>& placed)
{
    std::set<Address> used;
    for (size_t i = 0; i < disks.size(); ++i) {
        if (placed[i]) {
            used.insert({disks[i].host, disks[i].channel, disks[i].id, disks[i].lun});
        }
    }
    std::vector<SListedScsiDisk> free;
    for (const SListedScsiDisk& listed : readProcScsiDisks()) {
        const SLinuxScsiDevice& at = listed.address;
        if (!used.count({at.host, at.channel, at.id, at.lun})) {
            free.push_back(listed);
        }
    }
    size_t next = 0;
    int lun = 0;
    for (size_t i = 0; i < disks.size(); ++i) {
        if (placed[i]) {
            continue;
        }
        Address address;
        if (next < free.size()) {
            const SLinuxScsiDevice& at = free[next].address;
            address = {at.host, at.channel, at.id, at.lun};
            disks[i].inquiry = free[next++].inquiry;
        } else {
            while (used.count({0, 0, 0, lun})) {
                ++lun;
            }
            address = {0, 0, 0, lun};
        }
        used.insert(address);
        disks[i].host = address[0];
        disks[i].channel = address[1];
        disks[i].id = address[2];
        disks[i].lun = address[3];
    }
}

}  // namespace

Identities captureDisks(Session& session, simhost::SimHost& snapshot)
{
    // The disks discovery finds; multipath nodes are taken from their directories below.
    CLinuxDeviceDiscovery discovery;
    discovery.registerTraceLog(session.log());
    std::vector<CScsiDeviceData*> records = discovery.enumerateDevices();
    std::vector<std::string> opened;
    for (CScsiDeviceData* record : records) {
        if (record->m_deviceName.compare(0, 5, "/dev/") == 0 &&
            isWholeDisk(record->m_deviceName.substr(5))) {
            opened.push_back(record->m_deviceName.substr(5));
        }
        delete record;
    }
    std::vector<simhost::SimDevice> disks;
    std::vector<bool> placed;
    std::vector<std::pair<Bytes, std::string>> identities;
    for (const std::string& name : opened) {
        bool known = false;
        disks.push_back(captureDevice(session, "/dev/" + name, known));
        placed.push_back(known);
        Bytes key = identity(session, "/dev/" + name);
        if (!key.empty()) {
            identities.emplace_back(key, name);
        }
    }
    // Disks the kernel lists whose node does not open. Without the rights to open them a
    // capture would show live disks as gone: it is refused.
    std::map<std::string, PartitionEntry> partitions = readPartitions();
    std::vector<std::pair<std::string, int>> denied;
    for (const auto& listed : partitions) {
        const int error = isWholeDisk(listed.first) ? openErrno("/dev/" + listed.first) : 0;
        if (error == EACCES || error == EPERM) {
            denied.emplace_back("/dev/" + listed.first, error);
        }
    }
    if (!denied.empty()) {
        reportUnopened(denied);
        throw CommandError(kExitNotFound, "capture refused: " + std::to_string(denied.size()) +
                                              " disk nodes cannot be opened (the capture needs "
                                              "root to open every disk node)");
    }
    for (const auto& listed : partitions) {
        if (isWholeDisk(listed.first) &&
            std::find(opened.begin(), opened.end(), listed.first) == opened.end()) {
            simhost::SimDevice gone;
            gone.name = listed.first;
            gone.state = simhost::DeviceState::Gone;
            disks.push_back(gone);
            placed.push_back(false);
        }
    }
    placeDisks(disks, placed);
    for (simhost::SimDevice& disk : disks) {
        auto listed = partitions.find(disk.name);
        if (listed != partitions.end()) {
            disk.blocks = listed->second.blocks;
            disk.partitions = listed->second.partitions;
        }
        snapshot.addDevice(disk);
    }
    return identities;
}

}  // namespace capture
}  // namespace scsitool_cli
