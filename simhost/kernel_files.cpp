// SPDX-License-Identifier: Apache-2.0
// The host's files: the kernel's generated files and directories, the snapshot's own files, and
// the kernel's reactions to writes on its control files.
#include <errno.h>
#include <string.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "simhost.h"
#include "simhost_state.h"

namespace simhost {

std::string scsiDeviceTypeName(unsigned int type)
{
    static const char* const names[] = {
        "Direct-Access    ", "Sequential-Access", "Printer          ", "Processor        ",
        "WORM             ", "CD-ROM           ", "Scanner          ", "Optical Device   ",
        "Medium Changer   ", "Communications   ", "ASC IT8          ", "ASC IT8          ",
        "RAID             ", "Enclosure        ", "Direct-Access-RBC", "Optical card     ",
        "Bridge controller", "Object storage   ", "Automation/Drive ", "Security Manager ",
        "Direct-Access-ZBC"};
    if (type == 0x1e) {
        return "Well-known LUN   ";
    }
    if (type == 0x1f) {
        return "No Device        ";
    }
    if (type >= sizeof names / sizeof names[0]) {
        return "Unknown          ";
    }
    return names[type];
}

namespace {

bool isRelease24(const std::string& release)
{
    return release.compare(0, 4, "2.4.") == 0;
}

// Index of an sd disk from its letters: sda 0, sdz 25, sdaa 26; -1 for other names.
int sdIndex(const std::string& name)
{
    if (name.compare(0, 2, "sd") != 0 || name.size() < 3) {
        return -1;
    }
    // The kernel never names more disks than fit in an int; longer made-up names saturate.
    const long long ceiling = 1000000;
    long long index = 0;
    for (size_t i = 2; i < name.size(); ++i) {
        if (name[i] < 'a' || name[i] > 'z') {
            return -1;
        }
        index = index < ceiling ? index * 26 + (name[i] - 'a' + 1) : ceiling;
    }
    return static_cast<int>(index - 1);
}

// The sd driver's block numbers: 16 minors per disk over majors 8, 65-71, 128-135.
void sdNumbers(int index, int partition, unsigned int& major, unsigned int& minor)
{
    int group = index / 16;
    major = group == 0 ? 8 : group < 8 ? 64 + group : 128 + (group - 8) % 8;
    minor = static_cast<unsigned int>((index % 16) * 16 + partition);
}

// The partition number at the end of a partition name ("sdc1" -> 1).
int partitionNumber(const std::string& name)
{
    size_t digits = name.find_last_not_of("0123456789");
    return digits + 1 < name.size() ? atoi(name.c_str() + digits + 1) : 0;
}

std::string inquiryField(const Bytes& inquiry, size_t offset, size_t length)
{
    std::string text;
    for (size_t i = offset; i < offset + length; ++i) {
        uint8_t c = i < inquiry.size() ? inquiry[i] : 0;
        text += (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : ' ';
    }
    return text;
}

bool addressLess(const SimDevice* a, const SimDevice* b)
{
    if (a->host != b->host) {
        return a->host < b->host;
    }
    if (a->channel != b->channel) {
        return a->channel < b->channel;
    }
    if (a->id != b->id) {
        return a->id < b->id;
    }
    return a->lun < b->lun;
}

// "host3" -> 3; -1 when the name is not of that form.
int hostNumber(const std::string& name)
{
    if (name.compare(0, 4, "host") != 0 || name.size() == 4 ||
        name.find_first_not_of("0123456789", 4) != std::string::npos) {
        return -1;
    }
    return atoi(name.c_str() + 4);
}

std::vector<std::string> splitPath(const std::string& path)
{
    std::vector<std::string> parts;
    std::stringstream stream(path);
    std::string part;
    while (std::getline(stream, part, '/')) {
        if (!part.empty()) {
            parts.push_back(part);
        }
    }
    return parts;
}

// A field of a sysfs scan request: "-" is every value.
bool scanField(const std::string& text, int& value)
{
    if (text == "-") {
        value = -1;
        return true;
    }
    char* end = nullptr;
    long parsed = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || parsed < 0) {
        return false;
    }
    value = static_cast<int>(parsed);
    return true;
}

}  // namespace

std::string SimHost::State::procScsiText() const
{
    std::vector<const SimDevice*> shown;
    for (const SimDevice& device : devices) {
        if (listed(device)) {
            shown.push_back(&device);
        }
    }
    std::stable_sort(shown.begin(), shown.end(), addressLess);
    const bool old = isRelease24(release);
    std::string text = "Attached devices:\n";
    char line[256];
    for (const SimDevice* device : shown) {
        const Bytes& inquiry = device->inquiry;
        snprintf(line, sizeof line, "Host: scsi%d Channel: %02d Id: %02d Lun: %02d\n", device->host,
                 device->channel, device->id, device->lun);
        text += line;
        text += "  Vendor: " + inquiryField(inquiry, 8, 8) +
                " Model: " + inquiryField(inquiry, 16, 16) +
                " Rev: " + inquiryField(inquiry, 32, 4) + "\n";
        unsigned int type = inquiry.empty() ? 0x1f : inquiry[0] & 0x1f;
        // The mid-layer's SCSI level: the ANSI version, plus one from SCSI-2 on (or for a
        // SCSI-1 device with CCS response data).
        int level = inquiry.size() > 2 ? inquiry[2] & 7 : 0;
        if (level >= 2 || (level == 1 && inquiry.size() > 3 && (inquiry[3] & 0x0f) == 1)) {
            ++level;
        }
        int shownLevel = old ? (level - 1 ? level - 1 : 1) : level - (level > 1);
        // 2.4 kernels print "ANSI SCSI revision", later ones "ANSI  SCSI revision".
        snprintf(line, sizeof line, "  Type:   %s                %s: %02x%s\n",
                 scsiDeviceTypeName(type).c_str(),
                 old ? "ANSI SCSI revision" : "ANSI  SCSI revision", shownLevel,
                 level == 2 ? " CCS" : "");
        text += line;
    }
    return text;
}

std::string SimHost::State::procPartitionsText() const
{
    const bool old = isRelease24(release);
    std::string text = "major minor  #blocks  name\n\n";
    char line[128];
    auto add = [&](unsigned int major, unsigned int minor, unsigned long long blocks,
                   const std::string& name) {
        snprintf(line, sizeof line, old ? "%4u  %4u %10llu %s\n" : "%4u  %7u %10llu %s\n", major,
                 minor, blocks, name.c_str());
        text += line;
    };
    for (const SimDevice& device : devices) {
        int index = sdIndex(device.name);
        if (!listed(device) || index < 0) {
            continue;
        }
        unsigned int major, minor;
        sdNumbers(index, 0, major, minor);
        add(major, minor, device.blocks, device.name);
        for (const std::string& partition : device.partitions) {
            sdNumbers(index, partitionNumber(partition), major, minor);
            add(major, minor, device.blocks / (device.partitions.size() + 1), partition);
        }
    }
    for (size_t i = 0; i < powerpath.size(); ++i) {
        const SimDevice* device = find(powerpath[i].device);
        add(120, static_cast<unsigned int>(i * 16), device ? device->blocks : 0, powerpath[i].name);
    }
    if (deviceMapper) {
        for (size_t i = 0; i < maps.size(); ++i) {
            const SimDevice* device = find(maps[i].device);
            add(253, static_cast<unsigned int>(i), device ? device->blocks : 0,
                "dm-" + std::to_string(i));
        }
    }
    return text;
}

SimNode SimHost::State::deviceNode(SimNode::Kind kind, unsigned int major, unsigned int minor)
{
    SimNode result;
    result.kind = kind;
    result.major = major;
    result.minor = minor;
    result.writable = true;
    return result;
}

SimNode SimHost::State::diskNode(const SimDevice& disk, const std::string* partition)
{
    // Names outside the sd scheme get numbers 0, 0 for the disk and its partitions alike.
    int index = sdIndex(disk.name);
    unsigned int major = 0, minor = 0;
    if (index >= 0) {
        sdNumbers(index, partition ? partitionNumber(*partition) : 0, major, minor);
    }
    return deviceNode(SimNode::BlockDevice, major, minor);
}

bool SimHost::State::forEachDeviceNode(
    const std::function<bool(const std::string&, const SimNode&)>& visit) const
{
    auto node = deviceNode;
    for (const SimDevice& disk : devices) {
        if (!listed(disk)) {
            continue;
        }
        if (visit("/dev/" + disk.name, diskNode(disk, nullptr))) {
            return true;
        }
        for (const std::string& partition : disk.partitions) {
            if (visit("/dev/" + partition, diskNode(disk, &partition))) {
                return true;
            }
        }
    }
    for (size_t i = 0; i < powerpath.size(); ++i) {
        if (visit("/dev/" + powerpath[i].name,
                  node(SimNode::BlockDevice, 120, static_cast<unsigned int>(i * 16)))) {
            return true;
        }
    }
    if (deviceMapper) {
        if (visit("/dev/mapper/control", node(SimNode::CharDevice, 10, 236))) {
            return true;
        }
        for (size_t i = 0; i < maps.size(); ++i) {
            if (visit("/dev/mapper/" + maps[i].name,
                      node(SimNode::BlockDevice, 253, static_cast<unsigned int>(i)))) {
                return true;
            }
        }
    }
    return false;
}

bool SimHost::State::lookup(const std::string& path, SimNode& found) const
{
    const bool known = lookupModel(path, found);
    auto text = kernelFiles.find(path);
    const bool inert = inertFiles.count(path) != 0;
    if (text == kernelFiles.end() && !inert) {
        return known;
    }
    if (!known || found.kind != SimNode::File) {
        found = SimNode();
    }
    if (text != kernelFiles.end()) {
        found.content = text->second;
    }
    found.writable = found.writable || inert;
    return true;
}

bool SimHost::State::lookupModel(const std::string& path, SimNode& found) const
{
    // The paths asked for most often are answered without building the whole tree.
    if ((path == "/proc/scsi/scsi" && procScsi) || path == "/proc/partitions") {
        found = SimNode();
        found.content = path == "/proc/partitions" ? procPartitionsText() : procScsiText();
        found.writable = path != "/proc/partitions";
        return true;
    }
    if (path.compare(0, 5, "/dev/") == 0 && indexedDeviceNode(path, found)) {
        return true;
    }
    if (path.compare(0, 5, "/dev/") == 0 &&
        forEachDeviceNode([&](const std::string& nodePath, const SimNode& node) {
            if (nodePath != path) {
                return false;
            }
            found = node;
            return true;
        })) {
        return true;
    }
    // Both kernel files whose text the tree would generate were answered above; the path and
    // what lies below it (which makes it a directory) are all that is looked at.
    SimTree whole = tree(false, path);
    auto entry = whole.find(path);
    if (entry == whole.end()) {
        return false;
    }
    found = entry->second;
    return true;
}

SimTree SimHost::State::tree(bool kernelText, const std::string& subtree) const
{
    SimTree tree;
    const std::string under = subtree == "/" ? std::string() : subtree;  // "/" holds everything
    // Whether `path` is `under` or below it, and whether a part of the tree rooted at `section`
    // can hold such paths.
    auto wanted = [&](const std::string& path) {
        return under.empty() || (path.compare(0, under.size(), under) == 0 &&
                                 (path.size() == under.size() || path[under.size()] == '/'));
    };
    auto overlaps = [&](const std::string& section) {
        return wanted(section) || (under.compare(0, section.size(), section) == 0 &&
                                   under.size() > section.size() && under[section.size()] == '/');
    };
    SimNode unwanted;
    auto file = [&](const std::string& path, const std::string& content, bool readable,
                    bool writable) -> SimNode& {
        if (!wanted(path)) {
            return unwanted;
        }
        SimNode& node = tree[path];
        node.kind = SimNode::File;
        node.content = content;
        node.readable = readable;
        node.writable = writable;
        return node;
    };
    auto directory = [&](const std::string& path) {
        if (wanted(path)) {
            tree[path].kind = SimNode::Directory;
        }
    };

    // Snapshot files and executables first: the kernel's own files take precedence.
    for (const auto& entry : files) {
        file(entry.first, entry.second, true, true);
    }
    for (const std::string& path : executables) {
        if (!wanted(path)) {
            continue;
        }
        if (!tree.count(path)) {
            file(path, "", true, false);
        }
        tree[path].executable = true;
    }

    directory("/dev");
    directory("/proc");
    if (procScsi && wanted("/proc/scsi/scsi")) {
        file("/proc/scsi/scsi", kernelText ? procScsiText() : std::string(), true, true);
    }
    if (wanted("/proc/partitions")) {
        file("/proc/partitions", kernelText ? procPartitionsText() : std::string(), true, false);
    }

    // sysfs came with 2.6; a 2.4 kernel has none of it.
    const bool sysfs = !isRelease24(release);
    if (sysfs) {
        directory("/sys/class/scsi_host");
        directory("/sys/class/scsi_device");
    }
    for (const SimAdapter& adapter : adapters) {
        const std::string host = "host" + std::to_string(adapter.host);
        if (!adapter.procText.empty()) {
            file("/proc/scsi/" + adapter.driver + "/" + std::to_string(adapter.host),
                 adapter.procText, true, true);
        }
        if (!sysfs) {
            continue;
        }
        const std::string scsiHost = "/sys/class/scsi_host/" + host;
        file(scsiHost + "/scan", "", false, true);
        file(scsiHost + "/proc_name", adapter.driver + "\n", true, false);
        // Emulex exposes a loop reset of its own under scsi_host.
        if (adapter.driver == "lpfc") {
            file(scsiHost + "/issue_lip", "", false, true);
        }
        if (adapter.fcHost) {
            const std::string fcHost = "/sys/class/fc_host/" + host;
            file(fcHost + "/port_name", adapter.portName + "\n", true, false);
            if (!adapter.portState.empty()) {
                file(fcHost + "/port_state", adapter.portState + "\n", true, false);
            }
            file(fcHost + "/issue_lip", "", false, true);
            file(scsiHost + "/device/fc_host/" + host + "/port_name", adapter.portName + "\n", true,
                 false);
        }
    }

    for (const SimDevice& disk : devices) {
        if (!listed(disk) || !overlaps("/sys/class/scsi_device")) {
            continue;
        }
        if (sysfs) {
            char address[64];
            snprintf(address, sizeof address, "%d:%d:%d:%d", disk.host, disk.channel, disk.id,
                     disk.lun);
            file(std::string("/sys/class/scsi_device/") + address + "/device/delete", "", false,
                 true);
        }
    }
    if (overlaps("/dev")) {
        forEachDeviceNode([&](const std::string& path, const SimNode& node) {
            if (wanted(path)) {
                tree[path] = node;
            }
            return false;
        });
    }

    // Kernel files whose text the snapshot gives, and control files the kernel ignores.
    for (const auto& entry : kernelFiles) {
        auto existing = tree.find(entry.first);
        const bool writable = existing != tree.end() && existing->second.writable;
        file(entry.first, kernelText ? entry.second : std::string(), true,
             writable || inertFiles.count(entry.first));
    }
    for (const std::string& path : inertFiles) {
        if (wanted(path) && !kernelFiles.count(path)) {
            auto existing = tree.find(path);
            file(path, existing != tree.end() ? existing->second.content : std::string(), true,
                 true);
        }
    }

    // Every parent of an entry is a directory.
    std::vector<std::string> parents;
    for (const auto& entry : tree) {
        std::string path = entry.first;
        for (size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0;
             slash = path.rfind('/', slash - 1)) {
            parents.push_back(path.substr(0, slash));
        }
    }
    for (const std::string& parent : parents) {
        tree[parent].kind = SimNode::Directory;
    }
    directory("/");
    return tree;
}

bool SimHost::fileText(const std::string& path, std::string& text) const
{
    SimNode node;
    if (!m_state->lookup(normalizePath(path), node) || node.kind != SimNode::File) {
        return false;
    }
    text = node.content;
    return true;
}

// --- reactions to writes -----------------------------------------------------------------------

void SimHost::State::appear(int host, int channel, int id, int lun)
{
    for (SimDevice& device : devices) {
        if (device.state == DeviceState::Latent && device.host == host &&
            (channel < 0 || device.channel == channel) && (id < 0 || device.id == id) &&
            (lun < 0 || device.lun == lun)) {
            device.state = DeviceState::Running;
        }
    }
}

void SimHost::State::remove(int host, int channel, int id, int lun)
{
    for (SimDevice& device : devices) {
        if (listed(device) && device.host == host && device.channel == channel && device.id == id &&
            device.lun == lun) {
            // A device that still answers is found again by the next scan of its address; a
            // dead one stays gone.
            device.state =
                device.state == DeviceState::Running ? DeviceState::Latent : DeviceState::Removed;
        }
    }
}

void SimHost::State::actOnWrite(const std::string& written, const std::string& data, bool append)
{
    events.push_back(SimEvent{SimEvent::Write, written, data, 0});
    const std::string path = normalizePath(written);
    if (inertFiles.count(path)) {
        return;
    }
    std::vector<std::string> lines;
    std::stringstream stream(data);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    const std::vector<std::string> parts = splitPath(path);

    if (path == "/proc/scsi/scsi") {
        for (const std::string& line : lines) {
            int h, c, t, l;
            if (sscanf(line.c_str(), " scsi add-single-device %d %d %d %d", &h, &c, &t, &l) == 4) {
                appear(h, c, t, l);
            } else if (sscanf(line.c_str(), " scsi remove-single-device %d %d %d %d", &h, &c, &t,
                              &l) == 4) {
                remove(h, c, t, l);
            }
        }
        return;
    }
    if (parts.size() == 5 && parts[0] == "sys" && parts[2] == "scsi_host" && parts[4] == "scan") {
        int host = hostNumber(parts[3]);
        for (const std::string& line : lines) {
            std::stringstream fields(line);
            std::string a, b, c;
            int channel, id, lun;
            if (fields >> a >> b >> c && scanField(a, channel) && scanField(b, id) &&
                scanField(c, lun)) {
                appear(host, channel, id, lun);
            }
        }
        return;
    }
    if (parts.size() == 6 && parts[0] == "sys" && parts[2] == "scsi_device" &&
        parts[5] == "delete") {
        int h, c, t, l;
        if (!data.empty() && data[0] == '1' &&
            sscanf(parts[3].c_str(), "%d:%d:%d:%d", &h, &c, &t, &l) == 4) {
            remove(h, c, t, l);
        }
        return;
    }
    if (parts.size() == 5 && parts[0] == "sys" && parts[4] == "issue_lip") {
        appear(hostNumber(parts[3]), -1, -1, -1);
        return;
    }
    if (parts.size() == 4 && parts[0] == "proc" && parts[1] == "scsi") {
        // The QLogic drivers rescan their fabric on "scsi-qlascan".
        if (parts[2].compare(0, 3, "qla") == 0 && data.find("scsi-qlascan") != std::string::npos) {
            appear(atoi(parts[3].c_str()), -1, -1, -1);
        }
        return;
    }
    auto found = files.find(path);
    if (found != files.end()) {
        found->second = append ? found->second + data : data;
    }
}

// --- the system interface: files --------------------------------------------------------------

FILE* SimHost::fopen(const char* path, const char* mode)
{
    const auto guard = m_state->guard();
    if (!path || !mode) {
        errno = EINVAL;
        return nullptr;
    }
    const std::string normal = normalizePath(path);
    SimNode node;
    if (!m_state->lookup(normal, node)) {
        errno = ENOENT;
        return nullptr;
    }
    if (node.kind == SimNode::Directory) {
        errno = EISDIR;
        return nullptr;
    }
    const bool reading = mode[0] == 'r' && !strchr(mode, '+');
    if (node.kind != SimNode::File || (reading ? !node.readable : !node.writable)) {
        errno = EACCES;
        return nullptr;
    }
    if (reading) {
        return openTextStream(node.content);
    }
    State* state = m_state.get();
    const std::string written = path;
    const bool append = mode[0] == 'a';
    // The kernel acts on what was written when the stream is flushed at fclose.
    return openControlStream(
        [state, written, append](const std::string& data) {
            const auto guard = state->guard();
            state->actOnWrite(written, data, append);
        },
        append);
}

namespace {

struct DirectoryHandle {
    std::vector<struct dirent> entries;
    size_t next = 0;
};

struct dirent makeEntry(const std::string& name, const SimNode* node, ino_t inode)
{
    struct dirent entry;
    memset(&entry, 0, sizeof entry);
    entry.d_ino = inode;
    entry.d_type = !node                                ? DT_DIR
                   : node->kind == SimNode::Directory   ? DT_DIR
                   : node->kind == SimNode::BlockDevice ? DT_BLK
                   : node->kind == SimNode::CharDevice  ? DT_CHR
                                                        : DT_REG;
    entry.d_reclen = sizeof entry;
    snprintf(entry.d_name, sizeof entry.d_name, "%s", name.c_str());
    return entry;
}

}  // namespace

void* SimHost::opendir(const char* path)
{
    const auto guard = m_state->guard();
    if (!path) {
        errno = EFAULT;
        return nullptr;
    }
    const std::string directory = normalizePath(path);
    // Names and kinds of the directory's own entries are all a listing shows.
    SimTree tree = m_state->tree(false, directory);
    auto found = tree.find(directory);
    if (found == tree.end()) {
        errno = ENOENT;
        return nullptr;
    }
    if (found->second.kind != SimNode::Directory) {
        errno = ENOTDIR;
        return nullptr;
    }
    DirectoryHandle* handle = new DirectoryHandle;
    ino_t inode = 2;
    handle->entries.push_back(makeEntry(".", nullptr, inode++));
    handle->entries.push_back(makeEntry("..", nullptr, inode++));
    const std::string prefix = directory == "/" ? "/" : directory + "/";
    for (auto entry = tree.lower_bound(prefix);
         entry != tree.end() && entry->first.compare(0, prefix.size(), prefix) == 0; ++entry) {
        std::string name = entry->first.substr(prefix.size());
        if (!name.empty() && name.find('/') == std::string::npos) {
            handle->entries.push_back(makeEntry(name, &entry->second, inode++));
        }
    }
    m_state->dirs.insert(handle);
    return handle;
}

struct dirent* SimHost::readdir(void* dir)
{
    const auto guard = m_state->guard();
    if (!m_state->dirs.count(dir)) {
        errno = EBADF;
        return nullptr;
    }
    DirectoryHandle* handle = static_cast<DirectoryHandle*>(dir);
    if (handle->next >= handle->entries.size()) {
        return nullptr;
    }
    return &handle->entries[handle->next++];
}

void SimHost::State::closeDirectories()
{
    for (void* dir : dirs) {
        delete static_cast<DirectoryHandle*>(dir);
    }
    dirs.clear();
}

int SimHost::closedir(void* dir)
{
    const auto guard = m_state->guard();
    if (!m_state->dirs.erase(dir)) {
        errno = EBADF;
        return -1;
    }
    delete static_cast<DirectoryHandle*>(dir);
    return 0;
}

int SimHost::stat(const char* path, struct stat* st)
{
    const auto guard = m_state->guard();
    if (!path || !st) {
        errno = EFAULT;
        return -1;
    }
    const std::string normal = normalizePath(path);
    SimNode node;
    if (!m_state->lookup(normal, node)) {
        errno = ENOENT;
        return -1;
    }
    memset(st, 0, sizeof *st);
    st->st_nlink = 1;
    st->st_ino = static_cast<ino_t>(std::hash<std::string>()(normal) | 2);
    switch (node.kind) {
        case SimNode::Directory:
            st->st_mode = S_IFDIR | 0755;
            st->st_nlink = 2;
            break;
        case SimNode::BlockDevice:
        case SimNode::CharDevice:
            st->st_mode = (node.kind == SimNode::BlockDevice ? S_IFBLK : S_IFCHR) | 0660;
            st->st_rdev = makedev(node.major, node.minor);
            break;
        case SimNode::File:
            st->st_mode = S_IFREG | (node.executable ? 0755 : 0) | (node.readable ? 0444 : 0) |
                          (node.writable ? 0200 : 0);
            st->st_size = static_cast<off_t>(node.content.size());
            break;
    }
    st->st_blksize = 4096;
    return 0;
}

int SimHost::access(const char* path, int mode)
{
    const auto guard = m_state->guard();
    struct stat st;
    if (stat(path, &st) != 0) {
        return -1;
    }
    if (((mode & R_OK) && !(st.st_mode & 0444)) || ((mode & W_OK) && !(st.st_mode & 0222)) ||
        ((mode & X_OK) && !(st.st_mode & 0111))) {
        errno = EACCES;
        return -1;
    }
    return 0;
}

}  // namespace simhost
