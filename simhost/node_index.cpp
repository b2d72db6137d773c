// SPDX-License-Identifier: Apache-2.0
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

// An index entry for a node path, checked against the model.
struct Hit {
    bool mapper = false;
    SimHost::State::NodeIndex::Kind kind = SimHost::State::NodeIndex::Disk;
    size_t position = 0;
    std::string name;
};

// False when the index cannot tell; an entry that no longer matches the model also has the
// index rebuilt on its next use.
bool checkedHit(const SimHost::State& state, const std::string& path, Hit& hit)
{
    typedef SimHost::State::NodeIndex NodeIndex;
    const NodeIndex* x = nodeName(path, hit.name, hit.mapper) ? state.currentIndex() : nullptr;
    if (!x) {
        return false;
    }
    bool current = false;
    if (hit.mapper) {
        auto found = x->mapNames.find(hit.name);
        if (found == x->mapNames.end()) {
            return false;
        }
        hit.position = found->second;
        current = state.maps[hit.position].name == hit.name;
    } else {
        auto found = x->names.find(hit.name);
        if (found == x->names.end()) {
            return false;
        }
        hit.kind = found->second.kind;
        hit.position = found->second.position;
        switch (hit.kind) {
            case NodeIndex::Disk:
                current = state.devices[hit.position].name == hit.name;
                break;
            case NodeIndex::Partition:
                current = hasPartition(state.devices[hit.position], hit.name);
                break;
            case NodeIndex::PowerPath:
                current = state.powerpath[hit.position].name == hit.name;
                break;
        }
    }
    if (!current) {
        state.index.built = false;
    }
    return current;
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
        index.built = false;  // renamed through a reference
        return nullptr;
    }
    return &disk;
}

bool SimHost::State::indexedDeviceNode(const std::string& path, SimNode& node) const
{
    if (deviceMapper && path == "/dev/mapper/control") {
        node = deviceNode(SimNode::CharDevice, 10, 236);
        return true;
    }
    Hit hit;
    if (!checkedHit(*this, path, hit)) {
        return false;
    }
    if (hit.mapper) {
        if (!deviceMapper) {
            return false;
        }
        node = deviceNode(SimNode::BlockDevice, 253, static_cast<unsigned int>(hit.position));
        return true;
    }
    if (hit.kind == NodeIndex::PowerPath) {
        node = deviceNode(SimNode::BlockDevice, 120, static_cast<unsigned int>(hit.position * 16));
        return true;
    }
    // A disk the kernel does not list has no node; the walk and the tree decide.
    const SimDevice& disk = devices[hit.position];
    if (!listed(disk)) {
        return false;
    }
    node = diskNode(disk, hit.kind == NodeIndex::Partition ? &hit.name : nullptr);
    return true;
}

bool SimHost::State::indexedAnswerer(const std::string& path, std::string& device) const
{
    Hit hit;
    if (!checkedHit(*this, path, hit)) {
        return false;
    }
    if (hit.mapper) {
        device = maps[hit.position].device;
    } else if (hit.kind == NodeIndex::PowerPath) {
        device = powerpath[hit.position].device;
    } else {
        device = devices[hit.position].name;
    }
    return true;
}

}  // namespace simhost
