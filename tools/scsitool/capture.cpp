// `scsitool capture`: this host's SCSI view written as a snapshot that the simulated host
// replays. Everything is read through the system interface, so a capture made while a snapshot
// is replayed reproduces that snapshot.
#include <fcntl.h>
#include <scsi/sg.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "commands.h"
#include "device_discovery.h"
#include "device_probe.h"
#include "device_udid_factory.h"
#include "errors.h"
#include "fi_system.h"
#include "map_view.h"
#include "output_file.h"
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
    std::string text;
    if (!readText("/proc/partitions", text)) {
        return disks;
    }
    std::vector<std::pair<std::string, unsigned long long>> rows;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? end : end - start);
        start = end == std::string::npos ? text.size() : end + 1;
        unsigned int major, minor;
        unsigned long long blocks;
        char name[256];
        if (std::sscanf(line.c_str(), "%u %u %llu %255s", &major, &minor, &blocks, name) == 4) {
            rows.emplace_back(name, blocks);
        }
    }
    for (const auto& row : rows) {
        disks[row.first].blocks = row.second;
    }
    // A partition is a disk's name followed by its number.
    for (const auto& row : rows) {
        for (auto& disk : disks) {
            const std::string& name = disk.first;
            if (row.first.size() > name.size() && row.first.compare(0, name.size(), name) == 0 &&
                isNumber(row.first.substr(name.size()))) {
                disk.second.partitions.push_back(row.first);
            }
        }
    }
    return disks;
}

// The filer identity command that the NetApp generator sends; its raw answer, trailing zero
// bytes left out.
bool readNetAppIdentity(const std::string& node, Bytes& answer)
{
    int fd = fiSystem().open(node.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        return false;
    }
    unsigned char cdb[10] = {0xC0, 0x00, 0x00, 0x0A, 0x98, 0x0A, 0x22, 0x10, 0x00, 0x00};
    unsigned char sense[64] = {0};
    std::vector<unsigned char> buffer(4096, 0);
    sg_io_hdr_t header;
    std::memset(&header, 0, sizeof header);
    header.interface_id = 'S';
    header.dxfer_direction = SG_DXFER_FROM_DEV;
    header.cmd_len = sizeof cdb;
    header.mx_sb_len = sizeof sense;
    header.dxfer_len = buffer.size();
    header.dxferp = buffer.data();
    header.cmdp = cdb;
    header.sbp = sense;
    header.timeout = 10;
    int result = fiSystem().ioctl(fd, SG_IO, &header);
    fiSystem().close(fd);
    if (result != 0) {
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

// A direct-access device as "/proc/scsi/scsi" shows it.
struct ListedDisk {
    Address address;
    Bytes inquiry;  // rebuilt from the vendor, model, revision and ANSI version shown
};

std::string fieldAfter(const std::string& line, const std::string& label, size_t width)
{
    size_t at = line.find(label);
    if (at == std::string::npos) {
        return std::string(width, ' ');
    }
    std::string field = line.substr(at + label.size(), width);
    return field + std::string(width - field.size(), ' ');
}

// The direct-access devices of "/proc/scsi/scsi", in the kernel's order.
std::vector<ListedDisk> listedDisks()
{
    std::vector<ListedDisk> disks;
    std::string text;
    if (!readText("/proc/scsi/scsi", text)) {
        return disks;
    }
    ListedDisk pending;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? end : end - start);
        start = end == std::string::npos ? text.size() : end + 1;
        int host, channel, id, lun, revision;
        if (std::sscanf(line.c_str(), "Host: scsi%d Channel: %d Id: %d Lun: %d", &host, &channel,
                        &id, &lun) == 4) {
            pending = ListedDisk();
            pending.address = {host, channel, id, lun};
        } else if (!pending.address.empty() && line.find("Vendor:") != std::string::npos) {
            std::string text = fieldAfter(line, "Vendor: ", 8) + fieldAfter(line, "Model: ", 16) +
                               fieldAfter(line, "Rev: ", 4);
            pending.inquiry.assign(36, 0);
            std::copy(text.begin(), text.end(), pending.inquiry.begin() + 8);
        } else if (!pending.address.empty() && line.find("Type:") != std::string::npos) {
            if (line.find("Direct-Access ") != std::string::npos && !pending.inquiry.empty()) {
                size_t at = line.find("revision:");
                if (at != std::string::npos &&
                    std::sscanf(line.c_str() + at, "revision: %x", &revision) == 1) {
                    pending.inquiry[2] = static_cast<uint8_t>(revision);
                }
                pending.inquiry[3] = 2;
                pending.inquiry[4] = 31;
                disks.push_back(pending);
            }
            pending = ListedDisk();
        }
    }
    return disks;
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
    std::vector<ListedDisk> free;
    for (const ListedDisk& listed : listedDisks()) {
        if (!used.count(listed.address)) {
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
            address = free[next].address;
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
        if (readDevicePage(tool, handle, record, code, true, page)) {
            key.insert(key.end(), page.begin(), page.end());
        }
    }
    if (key.empty()) {
        return key;
    }
    Bytes inquiry;
    readDevicePage(tool, handle, record, 0, false, inquiry);
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
            if (readText("/sys/class/fc_host/" + name + "/port_state", text)) {
                adapter->portState = firstLine(text);
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

namespace {

// "2026-11-22T21:50:00Z": now, or SOURCE_DATE_EPOCH when set, for captures that compare equal.
std::string captureTime()
{
    time_t now = std::time(nullptr);
    if (const char* epoch = std::getenv("SOURCE_DATE_EPOCH")) {
        now = static_cast<time_t>(std::strtoll(epoch, nullptr, 10));
    }
    struct tm utc;
    gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

void replaceAll(std::string& text, const std::string& from, const std::string& to)
{
    if (from.empty()) {
        return;
    }
    for (size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

// The names that identify the customer's host, each with its stand-in: the host name (also
// upper-case, as host-local UDIDs hold it), the iSCSI initiator name and the FC port names
// (their 16 hexadecimal digits, in either case).
std::vector<std::pair<std::string, std::string>> standIns(const simhost::SimHost& snapshot)
{
    std::vector<std::pair<std::string, std::string>> names;
    char name[256] = {0};
    if (fiSystem().gethostname(name, sizeof name - 1) == 0 && name[0] != '\0') {
        names.emplace_back(name, "host.example.invalid");
        names.emplace_back(CStringTool::tostrupper(name), "HOST.EXAMPLE.INVALID");
    }
    std::string initiator;
    if (snapshot.fileText(kInitiatorFile, initiator)) {
        size_t at = initiator.find("InitiatorName=");
        if (at != std::string::npos) {
            names.emplace_back(firstLine(initiator.substr(at + 14)),
                               "iqn.2000-01.invalid.example:initiator");
        }
    }
    int port = 0;
    for (const simhost::SimAdapter& adapter : snapshot.adapters()) {
        std::string digits = adapter.portName;
        if (digits.compare(0, 2, "0x") == 0) {
            digits = digits.substr(2);
        }
        if (digits.size() == 16) {
            char standIn[24];
            std::snprintf(standIn, sizeof standIn, "20000000000000%02x", ++port & 0xff);
            std::string lower = digits, upper = digits;
            std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
            std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
            names.emplace_back(lower, standIn);
            names.emplace_back(upper, CStringTool::tostrupper(standIn));
        }
    }
    return names;
}

}  // namespace

std::string runCapture(Session& session, const std::string& file, bool anonymise)
{
    std::string text;
    {
        ProgressLine progress("capturing the host");
        simhost::SimHost snapshot;
        captureHost(session, snapshot);
        // The map as this host gives it, for verify.
        DeviceMap map = session.factory().enumerateDeviceMap(false, false, false);
        nlohmann::ordered_json origin;
        origin["scsitool_version"] = SCSITOOL_VERSION;
        origin["time"] = captureTime();
        origin["anonymised"] = anonymise;
        origin["map"] = nlohmann::ordered_json::parse(
            formatMapRowsJson(describeMap(session, map, Session::hostName())));
        snapshot.setCapture(origin.dump());
        text = snapshot.toJson();
        if (anonymise) {
            for (const auto& name : standIns(snapshot)) {
                replaceAll(text, name.first, name.second);
            }
        }
    }
    if (!text.empty() && text.back() != '\n') {
        text += '\n';
    }
    if (file == "-") {
        return text;
    }
    writeFileInPlace(file, text, "cannot write the snapshot");
    return "";
}

}  // namespace scsitool_cli
