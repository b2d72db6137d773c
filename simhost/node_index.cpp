// The index of device-node names: answers the per-command lookups (open, ioctl, the node of a
// path) without a walk over every device. The walks stay the reference: the index answers only
// when it is sure to give what they would.
#include "simhost.h"
#include "simhost_state.h"

namespace simhost {

namespace {

const char kDev[] = "/dev/";
const char kMapper[] = "/dev/mapper/";
const size_t kDevLength = sizeof kDev - 1;
const size_t kMapperLength = sizeof kMapper - 1;

bool plainName(const std::string& name)
{
    return !name.empty() && name.find('/') == std::string::npos;
}

// The name behind "/dev/" or "/dev/mapper/" in `path`; `mapper` tells which. False for any
// other path and for names with a further '/' in them.
bool nodeName(const std::string& path, std::string& name, bool& mapper)
{
    mapper = path.compare(0, kMapperLength, kMapper) == 0;
    if (!mapper && path.compare(0, kDevLength, kDev) != 0) {
        return false;
    }
    name = path.substr(mapper ? kMapperLength : kDevLength);
    return plainName(name);
}

}  // namespace

const SimHost::State::NodeIndex* SimHost::State::currentIndex() const
{
    NodeIndex& x = index;
    if (x.built && x.devices == devices.size() && x.maps == maps.size() &&
        x.powerpath == powerpath.size()) {
        return x.unique ? &x : nullptr;
    }
    x = NodeIndex();
    x.built = true;
    x.devices = devices.size();
    x.maps = maps.size();
    x.powerpath = powerpath.size();
    auto add = [&](const std::string& name, NodeIndex::Kind kind, size_t position) {
        if (!plainName(name) || !x.names.emplace(name, NodeIndex::Entry{kind, position}).second) {
            x.unique = false;
        }
    };
    for (size_t i = 0; i < devices.size(); ++i) {
        add(devices[i].name, NodeIndex::Disk, i);
        for (const std::string& partition : devices[i].partitions) {
            add(partition, NodeIndex::Partition, i);
        }
    }
    for (size_t i = 0; i < powerpath.size(); ++i) {
        add(powerpath[i].name, NodeIndex::PowerPath, i);
    }
    for (size_t i = 0; i < maps.size(); ++i) {
        if (!plainName(maps[i].name) || maps[i].name == "control" ||
            !x.mapNames.emplace(maps[i].name, i).second) {
            x.unique = false;
        }
    }
    if (!x.unique) {
        x.names.clear();
        x.mapNames.clear();
    }
    return x.unique ? &x : nullptr;
}

namespace {

bool hasPartition(const SimDevice& disk, const std::string& name)
{
    for (const std::string& partition : disk.partitions) {
        if (partition == name) {
            return true;
        }
    }
    return false;
}

}  // namespace

const SimDevice* SimHost::State::indexedDisk(const std::string& name) const
{
    const NodeIndex* x = currentIndex();
    if (!x) {
        return nullptr;
    }
    auto found = x->names.find(name);
    if (found == x->names.end() || found->second.kind != NodeIndex::Disk) {
        return nullptr;
    }
    const SimDevice& disk = devices[found->second.position];
    if (disk.name != name) {
        index.built = false;  // renamed through a reference: rebuild on the next call
        return nullptr;
    }
    return &disk;
}

bool SimHost::State::indexedDeviceNode(const std::string& path, SimNode& node) const
{
    std::string name;
    bool mapper = false;
    const NodeIndex* x = nodeName(path, name, mapper) ? currentIndex() : nullptr;
    if (!x) {
        return false;
    }
    if (mapper) {
        if (!deviceMapper) {
            return false;
        }
        if (name == "control") {
            node = deviceNode(SimNode::CharDevice, 10, 236);
            return true;
        }
        auto found = x->mapNames.find(name);
        if (found == x->mapNames.end()) {
            return false;
        }
        if (maps[found->second].name != name) {
            index.built = false;
            return false;
        }
        node = deviceNode(SimNode::BlockDevice, 253, static_cast<unsigned int>(found->second));
        return true;
    }
    auto found = x->names.find(name);
    if (found == x->names.end()) {
        return false;
    }
    const size_t position = found->second.position;
    switch (found->second.kind) {
        case NodeIndex::Disk:
        case NodeIndex::Partition: {
            const SimDevice& disk = devices[position];
            const bool partition = found->second.kind == NodeIndex::Partition;
            if (partition ? !hasPartition(disk, name) : disk.name != name) {
                index.built = false;
                return false;
            }
            // A disk the kernel does not list has no node; the walk and the tree decide.
            if (!listed(disk)) {
                return false;
            }
            node = diskNode(disk, partition ? &name : nullptr);
            return true;
        }
        case NodeIndex::PowerPath:
            if (powerpath[position].name != name) {
                index.built = false;
                return false;
            }
            node = deviceNode(SimNode::BlockDevice, 120, static_cast<unsigned int>(position * 16));
            return true;
    }
    return false;
}

bool SimHost::State::indexedAnswerer(const std::string& path, std::string& device) const
{
    std::string name;
    bool mapper = false;
    const NodeIndex* x = nodeName(path, name, mapper) ? currentIndex() : nullptr;
    if (!x) {
        return false;
    }
    if (mapper) {
        auto found = x->mapNames.find(name);
        if (found == x->mapNames.end() || maps[found->second].name != name) {
            return false;
        }
        device = maps[found->second].device;
        return true;
    }
    auto found = x->names.find(name);
    if (found == x->names.end()) {
        return false;
    }
    const size_t position = found->second.position;
    switch (found->second.kind) {
        case NodeIndex::Disk:
            if (devices[position].name != name) {
                return false;
            }
            device = name;
            return true;
        case NodeIndex::Partition:
            if (!hasPartition(devices[position], name)) {
                return false;
            }
            device = devices[position].name;
            return true;
        case NodeIndex::PowerPath:
            if (powerpath[position].name != name) {
                return false;
            }
            device = powerpath[position].device;
            return true;
    }
    return false;
}

}  // namespace simhost
