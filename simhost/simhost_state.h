// SPDX-License-Identifier: Apache-2.0
// The simulated host's state and the helpers its parts share. Private to simhost/.
#ifndef SIMHOST_SIMHOST_STATE_H
#define SIMHOST_SIMHOST_STATE_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "simhost.h"

namespace simhost {

// One entry of the host's file tree as it stands now.
struct SimNode {
    enum Kind { Directory, File, BlockDevice, CharDevice } kind = File;
    std::string content;      // what a read gives (File)
    bool readable = true;     // File: may be opened for reading
    bool writable = false;    // File: a control file or a writable file
    bool executable = false;  // File: an executable program
    unsigned int major = 0;   // device nodes
    unsigned int minor = 0;
};

typedef std::map<std::string, SimNode> SimTree;

// "/dev//mapper/" -> "/dev/mapper"; the root stays "/".
std::string normalizePath(const std::string& path);

// Hex text (blanks allowed) to bytes; false on a non-hex character or an odd digit count.
bool parseHex(std::string_view text, Bytes& bytes);
std::string formatHex(const Bytes& bytes);  // "00 1f a0"

// The kernel's names for peripheral device types, padded to 17 characters.
std::string scsiDeviceTypeName(unsigned int type);

// A read-only stream over an owned copy of `text`.
FILE* openTextStream(const std::string& text);
// A write stream whose bytes are handed to `onClose` when it is closed.
FILE* openControlStream(std::function<void(const std::string&)> onClose, bool append);

struct SimHost::State {
    std::string hostname = "simhost";
    bool hostnameFails = false;
    std::string release = "2.6.18-8.el5";
    bool procScsi = true;
    bool deviceMapper = false;
    std::deque<SimDevice> devices;  // a deque keeps the references addDevice hands out
    std::vector<SimAdapter> adapters;
    std::vector<SimPseudoDevice> maps;
    std::vector<SimPseudoDevice> powerpath;
    std::map<std::string, std::string> files;
    std::set<std::string> executables;
    std::map<std::string, SimCommandScript> commands;
    std::string capture;  // the snapshot's "capture" object as JSON text ("" when none)
    // A loaded snapshot keeps its "capture" object: the text is made when first asked for, and
    // one string of it is had without the text.
    std::function<std::string()> captureText;
    std::function<std::string(const std::string&)> captureString;
    std::map<std::string, std::string> kernelFiles;  // text that wins over the generated one
    std::set<std::string> inertFiles;                // control files whose writes do nothing

    std::vector<SimEvent> events;
    int openCalls = 0;
    std::vector<std::string> nodeCalls;
    struct OpenNode {
        std::string node;    // the path as opened
        std::string device;  // the SimDevice that answers ("" for none)
    };
    std::map<int, OpenNode> fds;
    int nextFd = 3;
    std::map<std::string, int> opensOf;   // opens of a device's own node, by device name
    std::map<std::string, int> ioctlsOf;  // ioctls on a device's own node, by device name
    std::map<std::string, std::vector<Bytes>> cdbs;
    std::set<void*> dirs;  // open directory handles

    // System V semaphore sets of this host (semaphores.cpp): ids by key, values by id.
    std::map<int, int> semaphoreIds;
    std::map<int, std::vector<int>> semaphores;
    // The thread of this process that holds each set (last raised it), so that another thread's
    // wait blocks until it lets go, as the kernel's would; the one thread of a replay never
    // waits for itself: its wait fails with EAGAIN.
    std::map<int, std::thread::id> semaphoreHolders;
    std::condition_variable_any semaphoreReleased;

    // Threads of one process may use the host at once: every call of the system interface, and
    // the write a control stream makes at fclose, holds this lock.
    std::recursive_mutex mutex;
    std::unique_lock<std::recursive_mutex> guard()
    {
        return std::unique_lock<std::recursive_mutex>(mutex);
    }
    int nextSemaphore = 1;

    // Devices.
    SimDevice* find(const std::string& name);
    const SimDevice* find(const std::string& name) const;
    static bool listed(const SimDevice& device);  // the kernel knows it

    // The names under /dev and /dev/mapper by position (node_index.cpp), so that opening a node
    // and answering on it cost the same on a host of 4096 disks as on one of 4. Every hit is
    // checked against the model, which callers may change through the references addDevice and
    // findDevice hand out; a stale entry or a miss is answered by the walks over the model, and
    // the index is rebuilt when the model grew or an entry went stale. It serves only while all
    // the names are unique (a snapshot requires it); with a duplicate the walks answer alone.
    struct NodeIndex {
        enum Kind { Disk, Partition, PowerPath };
        struct Entry {
            Kind kind;
            size_t position;  // in devices (Disk, Partition: the disk's) or in powerpath
        };
        bool built = false;
        bool unique = true;
        size_t devices = 0;
        size_t maps = 0;
        size_t powerpath = 0;
        std::unordered_map<std::string, Entry> names;  // disks, partitions, PowerPath devices
        std::unordered_map<std::string, size_t> mapNames;
    };
    mutable NodeIndex index;
    // The index, rebuilt first when the model has grown; nullptr while names are not unique.
    const NodeIndex* currentIndex() const;
    // The indexed disk called `name`, checked; nullptr when the index cannot tell.
    const SimDevice* indexedDisk(const std::string& name) const;
    // The node at `path` when the index knows it for sure; false when it cannot tell.
    bool indexedDeviceNode(const std::string& path, SimNode& node) const;
    // The name of the device that answers on the node at `path` (see SimHost::open); false when
    // the index cannot tell.
    bool indexedAnswerer(const std::string& path, std::string& device) const;
    // The node of `disk`, or of its partition `partition` when that is not null.
    static SimNode diskNode(const SimDevice& disk, const std::string* partition);
    static SimNode deviceNode(SimNode::Kind kind, unsigned int major, unsigned int minor);

    // The file tree (kernel_files.cpp).
    // With `kernelText` false the generated /proc/scsi/scsi and /proc/partitions are listed
    // without their text, for callers that want names and kinds only. A non-empty `under`
    // keeps only that path and what lies below it (and the directories above those).
    SimTree tree(bool kernelText = true, const std::string& under = std::string()) const;
    bool lookup(const std::string& normalPath, SimNode& node) const;  // false: no such path
    // The same without the snapshot's kernel-file texts and inert control files.
    bool lookupModel(const std::string& normalPath, SimNode& node) const;
    // Visits the nodes under /dev until `visit` returns true; true when it did.
    bool forEachDeviceNode(
        const std::function<bool(const std::string&, const SimNode&)>& visit) const;
    std::string procScsiText() const;
    std::string procPartitionsText() const;
    void actOnWrite(const std::string& path, const std::string& data, bool append);
    void appear(int host, int channel, int id, int lun);  // -1 matches any
    void remove(int host, int channel, int id, int lun);

    // SCSI commands (devices.cpp).
    int sgIo(SimDevice* device, void* header, std::vector<Bytes>& sent);
    void closeDirectories();

    // Commands (commands.cpp).
    int run(const std::string& command, std::vector<std::string>& output, bool shell);
};

}  // namespace simhost

#endif
