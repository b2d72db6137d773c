#include "device_probe.h"

#include <fcntl.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "errors.h"
#include "fi_system.h"
#include "stringtool.h"

namespace scsitool_cli {

using kzfi_pdk_4_4::fiSystem;

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

DeviceProbe probeDevice(Session& session, const std::string& node)
{
    DeviceProbe probe;
    probe.openErrno = openErrno(node);
    if (probe.openErrno != 0) {
        return probe;
    }
    CScsiDeviceData record(node, "", "", 0, 0, 0, -1, "", "", "", 0);
    CScsiTool tool;
    tool.registerTraceLog(session.log());
    CScsiDeviceHandle handle(session.log());
    try {
        tool.GetTargetLunPortInfo(handle, record);
        probe.placed = true;
        probe.address[0] = record.m_port;
        probe.address[1] = static_cast<int>(record.m_bus);
        probe.address[2] = record.m_target;
        probe.address[3] = record.m_lun;
    } catch (...) {
        // A pseudo-device or a device that does not answer: no address.
    }
    if (readDevicePage(tool, handle, record, 0, false, probe.inquiry) &&
        probe.inquiry.size() >= 32) {
        probe.vendor = CStringTool::rtrim(
            std::string(probe.inquiry.begin() + 8, probe.inquiry.begin() + 16), ' ');
        probe.product = CStringTool::rtrim(
            std::string(probe.inquiry.begin() + 16, probe.inquiry.begin() + 32), ' ');
    }
    return probe;
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

std::vector<std::string> candidateNodes()
{
    std::vector<std::string> nodes;
    if (FILE* file = fiSystem().fopen("/proc/partitions", "r")) {
        char line[512];
        while (std::fgets(line, sizeof line, file) != nullptr) {
            unsigned int major, minor;
            unsigned long long blocks;
            char name[256];
            if (std::sscanf(line, "%u %u %llu %255s", &major, &minor, &blocks, name) == 4 &&
                isWholeDisk(name)) {
                nodes.push_back(std::string("/dev/") + name);
            }
        }
        std::fclose(file);
    }
    addEntries(
        "/dev/mapper/", [](const std::string&) { return true; }, nodes);
    addEntries(
        "/dev/", [](const std::string& name) { return name.compare(0, 8, "emcpower") == 0; },
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
