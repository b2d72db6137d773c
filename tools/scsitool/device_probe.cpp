// SPDX-License-Identifier: Apache-2.0
#include "device_probe.h"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "device_map_compare.h"
#include "errors.h"
#include "fi_system.h"
#include "pseudo_devices.h"
#include "stringtool.h"

namespace scsitool_cli {

using kzfi_pdk_4_4::fiSystem;

// The first line of a sysfs attribute without its line end, "" when it cannot be read.
std::string sysfsLine(const std::string& path)
{
    std::string line;
    if (FILE* file = fiSystem().fopen(path.c_str(), "r")) {
        char buffer[256];
        if (std::fgets(buffer, sizeof buffer, file) != nullptr) {
            line = buffer;
        }
        std::fclose(file);
    }
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) {
        line.pop_back();
    }
    return line;
}

bool readDevicePage(CScsiTool& tool, CScsiDeviceHandle& handle, CScsiDeviceData& record,
                    unsigned int code, bool evpd, simhost::Bytes& bytes)
{
    unsigned int length = 0;
    ScsiPagePtr page;
    try {
        if (tool.GetModePageInfo(handle, record, code, length, evpd ? 1 : 0, page) != 0 ||
            length == 0 || !page || page->get() == nullptr) {
            return false;
        }
    } catch (...) {
        return false;
    }
    bytes.assign(page->get(), page->get() + length);
    return true;
}

int openErrno(const std::string& node)
{
    errno = 0;
    int fd = fiSystem().open(node.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        return errno != 0 ? errno : EIO;
    }
    fiSystem().close(fd);
    return 0;
}

void throwUnanswered(const std::string& node)
{
    const int error = openErrno(node);
    if (error == ENOENT) {
        throw CommandError(kExitNotFound, node + ": device not found");
    }
    if (error != 0) {
        throw CommandError(kExitNotFound, node + ": cannot open: " + std::strerror(error));
    }
    throw CommandError(kExitNotFound, node + ": the device does not answer as a disk");
}

DeviceProbe probeOfRecord(const CScsiDeviceData& record)
{
    DeviceProbe probe;
    const CScsiModePage* inquiry = record.findPage(0);
    if (inquiry == nullptr || inquiry->getData() == nullptr || inquiry->getLength() < 32) {
        return probe;  // no answer: neither the address nor the pages were asked for
    }
    const char* data = reinterpret_cast<const char*>(inquiry->getData());
    probe.answered = true;
    probe.vendor = CStringTool::rtrim(std::string(data + 8, 8), ' ');
    probe.product = CStringTool::rtrim(std::string(data + 16, 16), ' ');
    // The address is read right after the INQUIRY; a LUN still below 0 is one that was not read.
    probe.placed = record.m_port >= 0 && record.m_lun >= 0;
    probe.address[0] = record.m_port;
    probe.address[1] = static_cast<int>(record.m_bus);
    probe.address[2] = record.m_target;
    probe.address[3] = record.m_lun;
    // The volume key prefers the logical unit's NAA designator, then its EUI-64: what the
    // array's console shows as the WWN. A T10 vendor id or a serial is no WWN.
    const std::string key = CDeviceMapCompare::volumeKey(record);
    if (key.compare(0, 4, "naa.") == 0 || key.compare(0, 4, "eui.") == 0) {
        probe.wwn = "0x" + key.substr(4);
    }
    return probe;
}

RecordReadings::RecordReadings(CUDIDFactory& factory) : m_factory(factory)
{
    m_factory.setRecordObserver([this](const CScsiDeviceData& record) {
        m_probes[record.m_deviceName] = probeOfRecord(record);
    });
}

RecordReadings::~RecordReadings()
{
    m_factory.setRecordObserver(nullptr);
}

DeviceProbe RecordReadings::of(const std::string& node) const
{
    auto found = m_probes.find(node);
    return found == m_probes.end() ? DeviceProbe() : found->second;
}

std::map<std::string, DmMap> deviceMapperMaps()
{
    std::map<std::string, DmMap> maps;
    void* dir = fiSystem().opendir("/sys/block/");
    if (dir == nullptr) {
        return maps;
    }
    while (struct dirent* entry = fiSystem().readdir(dir)) {
        const std::string block = entry->d_name;
        if (block.compare(0, 3, "dm-") != 0) {
            continue;
        }
        const std::string base = "/sys/block/" + block + "/dm/";
        const std::string name = sysfsLine(base + "name");
        if (!name.empty()) {
            maps[name] = {block, sysfsLine(base + "uuid").compare(0, 6, "mpath-") == 0};
        }
    }
    fiSystem().closedir(dir);
    return maps;
}

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

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

namespace {

void addEntries(const std::string& directory, bool (*wanted)(const std::string&),
                std::vector<std::string>& nodes)
{
    void* dir = fiSystem().opendir(directory.c_str());
    if (dir == nullptr) {
        return;
    }
    while (struct dirent* entry = fiSystem().readdir(dir)) {
        std::string name = entry->d_name;
        if (name != "." && name != ".." && wanted(name)) {
            nodes.push_back(directory + name);
        }
    }
    fiSystem().closedir(dir);
}

}  // namespace

std::vector<std::string> candidateNodes(const std::vector<SPartitionRow>& partitions)
{
    std::vector<std::string> nodes;
    for (const SPartitionRow& device : partitions) {
        if (isWholeDisk(device.name)) {
            nodes.push_back("/dev/" + device.name);
        }
    }
    addEntries(
        pseudo_device::kMapperDirectory, [](const std::string&) { return true; }, nodes);
    addEntries(
        "/dev/",
        [](const std::string& name) {
            return pseudo_device::beginsWith(name, pseudo_device::kPowerPathName);
        },
        nodes);
    std::sort(nodes.begin(), nodes.end());
    nodes.erase(std::unique(nodes.begin(), nodes.end()), nodes.end());
    return nodes;
}

int reportUnopened(const std::vector<std::pair<std::string, int>>& failures)
{
    int denied = 0;
    for (const auto& failure : failures) {
        std::fprintf(stderr, "scsitool: %s: cannot open: %s\n", failure.first.c_str(),
                     std::strerror(failure.second));
        if (failure.second == EACCES || failure.second == EPERM) {
            ++denied;
        }
    }
    return denied;
}

void throwNoDeviceQueried(bool denied)
{
    throw CommandError(kExitNotFound,
                       denied ? "no device could be queried: permission denied (the command needs "
                                "root to open the disk nodes)"
                              : "no device could be queried");
}

}  // namespace scsitool_cli
