// `scsitool capture`: this host's SCSI view written as a snapshot that the simulated host
// replays. Everything is read through the system interface, so a capture made while a snapshot
// is replayed reproduces that snapshot.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <set>

#include "commands.h"
#include "device_discovery.h"
#include "errors.h"
#include "fi_system.h"
#include "kernel_files.h"
#include "progress.h"
#include "scsitool.h"
#include "simhost.h"
#include "stringtool.h"

namespace scsitool_cli {

namespace {

using kzfi_pdk_4_4::fiSystem;
using simhost::Bytes;

// Executables whose presence changes what the library does.
const char* const kExecutables[] = {"/sbin/iscsiadm", "/sbin/powermt", "/bin/rescan-scsi-bus.sh",
                                    "/sbin/multipath", "/sbin/pidof"};
const char* const kInitiatorFile = "/etc/iscsi/initiatorname.iscsi";

bool readText(const std::string& path, std::string& text)
{
    FILE* file = fiSystem().fopen(path.c_str(), "r");
    if (file == nullptr) {
        return false;
    }
    text.clear();
    char buffer[4096];
    size_t count;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        text.append(buffer, count);
    }
    std::fclose(file);
    return true;
}

std::string firstLine(const std::string& text)
{
    std::string line = text.substr(0, text.find('\n'));
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back()))) {
        line.pop_back();
    }
    return line;
}

std::vector<std::string> listDirectory(const std::string& path)
{
    std::vector<std::string> names;
    void* dir = fiSystem().opendir(path.c_str());
    if (dir == nullptr) {
        return names;
    }
    while (struct dirent* entry = fiSystem().readdir(dir)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    fiSystem().closedir(dir);
    return names;
}

bool isNumber(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

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

Bytes toBytes(const ScsiPagePtr& page, unsigned int length)
{
    if (!page || page->get() == nullptr) {
        return Bytes();
    }
    return Bytes(page->get(), page->get() + length);
}

// One answer of the device: the standard INQUIRY data (evpd false, code 0) or a VPD page.
bool readPage(CScsiTool& tool, CScsiDeviceHandle& handle, CScsiDeviceData& record,
              unsigned int code, bool evpd, Bytes& bytes)
{
    unsigned int length = 0;
    ScsiPagePtr page;
    try {
        if (tool.GetModePageInfo(handle, record, code, length, evpd ? 1 : 0, page) != 0 ||
            length == 0) {
            return false;
        }
    } catch (...) {
        return false;
    }
    bytes = toBytes(page, length);
    return !bytes.empty();
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
    if (!readPage(tool, handle, record, 0, false, device.inquiry)) {
        device.state = simhost::DeviceState::Unresponsive;
        return device;
    }
    Bytes supported;
    if (readPage(tool, handle, record, 0, true, supported)) {
        device.vpd[0] = supported;
        size_t count = supported.size() > 3 ? supported[3] : 0;
        for (size_t i = 4; i < 4 + count && i < supported.size(); ++i) {
            Bytes page;
            if (supported[i] != 0 && readPage(tool, handle, record, supported[i], true, page)) {
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

bool isWholeDisk(const std::string& name)
{
    if (name.size() < 3 || name.compare(0, 2, "sd") != 0) {
        return false;
    }
    for (size_t i = 2; i < name.size(); ++i) {
        if (!std::islower(static_cast<unsigned char>(name[i]))) {
            return false;
        }
    }
    return true;
}

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

// The identity a pseudo-device shows: its INQUIRY data and its identification pages. A map or
// PowerPath node answers like the disk behind it, so equal identities pair them.
Bytes identity(Session& session, const std::string& node)
{
    CScsiDeviceData record(node, "", "", 0, 0, 0, -1, "", "", "", 0);
    CScsiTool tool;
    tool.registerTraceLog(session.log());
    CScsiDeviceHandle handle(session.log());
    Bytes key;
    for (unsigned int code : {0x83u, 0x80u}) {
        Bytes page;
        if (readPage(tool, handle, record, code, true, page)) {
            key.insert(key.end(), page.begin(), page.end());
        }
    }
    if (key.empty()) {
        return key;
    }
    Bytes inquiry;
    readPage(tool, handle, record, 0, false, inquiry);
    key.insert(key.end(), inquiry.begin(), inquiry.end());
    return key;
}

std::string behind(Session& session, const std::string& node,
                   const std::vector<std::pair<Bytes, std::string>>& identities)
{
    Bytes key = identity(session, node);
    if (!key.empty()) {
        for (const auto& known : identities) {
            if (known.first == key) {
                return known.second;
            }
        }
    }
    return "";
}

// The adapter of a sysfs entry "hostN", made when first seen; nullptr for other names.
simhost::SimAdapter* adapterOf(std::map<int, simhost::SimAdapter>& adapters,
                               const std::string& name)
{
    if (name.compare(0, 4, "host") != 0 || !isNumber(name.substr(4))) {
        return nullptr;
    }
    int number = std::stoi(name.substr(4));
    simhost::SimAdapter& adapter = adapters[number];
    adapter.host = number;
    return &adapter;
}

void captureAdapters(simhost::SimHost& snapshot)
{
    std::map<int, simhost::SimAdapter> adapters;
    for (const std::string& driver : listDirectory("/proc/scsi/")) {
        for (const std::string& entry : listDirectory("/proc/scsi/" + driver + "/")) {
            if (!isNumber(entry)) {
                continue;
            }
            simhost::SimAdapter& adapter = adapters[std::stoi(entry)];
            adapter.host = std::stoi(entry);
            adapter.driver = driver;
            readText("/proc/scsi/" + driver + "/" + entry, adapter.procText);
        }
    }
    std::string text;
    for (const std::string& name : listDirectory("/sys/class/scsi_host/")) {
        simhost::SimAdapter* adapter = adapterOf(adapters, name);
        if (adapter && adapter->driver.empty() &&
            readText("/sys/class/scsi_host/" + name + "/proc_name", text)) {
            adapter->driver = firstLine(text);
        }
    }
    for (const std::string& name : listDirectory("/sys/class/fc_host/")) {
        if (simhost::SimAdapter* adapter = adapterOf(adapters, name)) {
            adapter->fcHost = true;
            if (readText("/sys/class/fc_host/" + name + "/port_name", text)) {
                adapter->portName = firstLine(text);
            }
        }
    }
    for (const auto& adapter : adapters) {
        snapshot.addAdapter(adapter.second);
    }
}

void captureHost(Session& session, simhost::SimHost& snapshot)
{
    char buffer[256] = {0};
    if (fiSystem().gethostname(buffer, sizeof buffer - 1) == 0) {
        snapshot.setHostname(buffer);
    } else {
        snapshot.setHostnameFails();
    }
    struct utsname uts;
    if (fiSystem().uname(&uts) == 0) {
        snapshot.setKernelRelease(uts.release);
    }
    struct stat st;
    snapshot.setProcScsi(fiSystem().stat("/proc/scsi/scsi", &st) == 0);

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
    // Disks the kernel lists whose node does not open.
    std::map<std::string, PartitionEntry> partitions = readPartitions();
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

    if (void* mapper = fiSystem().opendir("/dev/mapper/")) {
        fiSystem().closedir(mapper);
        snapshot.setDeviceMapper(true);
    }
    for (const std::string& map : listDirectory("/dev/mapper/")) {
        // The device-mapper control node is no map; a replayed host makes its own.
        if (map != "control") {
            snapshot.addMultipathMap(map, behind(session, "/dev/mapper/" + map, identities));
        }
    }
    for (const std::string& node : listDirectory("/dev/")) {
        if (node.compare(0, 8, "emcpower") == 0) {
            snapshot.addPowerPathDevice(node, behind(session, "/dev/" + node, identities));
        }
    }
    captureAdapters(snapshot);
    std::string initiator;
    if (readText(kInitiatorFile, initiator)) {
        snapshot.addFile(kInitiatorFile, initiator);
    }
    for (const char* path : kExecutables) {
        if (fiSystem().access(path, X_OK) == 0) {
            snapshot.addExecutable(path);
        }
    }
}

}  // namespace

std::string runCapture(Session& session, const std::string& file)
{
    std::string text;
    {
        ProgressLine progress("capturing the host");
        simhost::SimHost snapshot;
        captureHost(session, snapshot);
        text = snapshot.toJson();
    }
    if (!text.empty() && text.back() != '\n') {
        text += '\n';
    }
    if (file == "-") {
        return text;
    }
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) {
        throw CommandError(kExitBadInput,
                           file + ": cannot write the snapshot: " + std::strerror(errno));
    }
    return "";
}

}  // namespace scsitool_cli
