// SPDX-License-Identifier: Apache-2.0
// Device nodes: open and close, and the SCSI commands a device answers through ioctl.
#include <errno.h>
#include <string.h>

#include "fi_scsi_ioctl.h"
#include "simhost.h"
#include "simhost_state.h"

namespace simhost {

namespace {

const uint8_t kInquiry = 0x12;
const uint8_t kVendorIdentity = 0xC0;  // the NetApp identity command
const int kCheckCondition = 0x02;      // SCSI status byte

// The CDB length that the operation code's group implies.
size_t cdbLength(uint8_t opcode)
{
    switch (opcode >> 5) {
        case 0:
            return 6;
        case 1:
        case 2:
            return 10;
        case 4:
            return 16;
        case 5:
            return 12;
        default:
            return 10;  // vendor groups: the NetApp command is a 10-byte one
    }
}

uint32_t littleEndian32(const uint8_t* bytes)
{
    return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

// What a device does with one CDB.
struct Outcome {
    enum { Good, CheckCondition, Failed } kind = Good;
    Bytes data;   // Good: the whole answer, before any cut
    Bytes sense;  // CheckCondition: fixed-format sense data
};

Outcome illegalRequest(uint8_t asc)
{
    Outcome outcome;
    outcome.kind = Outcome::CheckCondition;
    outcome.sense.assign(18, 0);
    outcome.sense[0] = 0x70;  // current error, fixed format
    outcome.sense[2] = 0x05;  // ILLEGAL REQUEST
    outcome.sense[7] = 10;    // additional sense length
    outcome.sense[12] = asc;
    return outcome;
}

// A responsive device answers INQUIRY from its pages and the vendor identity command when it
// has one; anything else is an illegal request. A device that does not answer fails the
// command outright (the mid-layer gives up on it).
Outcome execute(const SimDevice* device, const Bytes& cdb)
{
    Outcome outcome;
    if (!device || device->state != DeviceState::Running) {
        outcome.kind = Outcome::Failed;
        return outcome;
    }
    if (cdb[0] == kInquiry) {
        const bool evpd = cdb[1] & 1;
        const bool cmddt = cdb[1] & 2;
        const unsigned int page = cdb[2];
        // SPC-3 widened the allocation length to bytes 3 and 4; older callers leave byte 3 zero.
        const size_t allocation = static_cast<size_t>(cdb[3]) << 8 | cdb[4];
        if (cmddt || (!evpd && page != 0)) {
            return illegalRequest(0x24);  // INVALID FIELD IN CDB
        }
        if (!evpd) {
            outcome.data = device->inquiry;
        } else {
            auto found = device->vpd.find(static_cast<int>(page));
            if (found == device->vpd.end()) {
                return illegalRequest(0x24);
            }
            outcome.data = found->second;
        }
        if (outcome.data.size() > allocation) {
            outcome.data.resize(allocation);
        }
        return outcome;
    }
    if (cdb[0] == kVendorIdentity) {
        if (!device->hasVendorCommand) {
            outcome.kind = Outcome::Failed;
            return outcome;
        }
        outcome.data = device->vendorCommand;
        return outcome;
    }
    return illegalRequest(0x20);  // INVALID COMMAND OPERATION CODE
}

// Whether the disk node `name` of `disk` refuses to open, errno set: a gone device's node is
// still there without the device behind it; a denied one needs rights the caller lacks.
bool refusedOpen(const SimDevice* disk, const std::string& name)
{
    if (disk == nullptr || disk->name != name) {
        return false;
    }
    if (disk->state == DeviceState::Gone) {
        errno = ENXIO;
        return true;
    }
    if (disk->state == DeviceState::Denied) {
        errno = EACCES;
        return true;
    }
    return false;
}

}  // namespace

int SimHost::open(const char* path, int flags)
{
    const auto guard = m_state->guard();
    const int fd = openNode(path);
    char flagText[16];
    snprintf(flagText, sizeof flagText, "0x%x", static_cast<unsigned int>(flags));
    m_state->nodeCalls.push_back("open " + std::string(path ? path : "(null)") + " " + flagText +
                                 " = " + std::to_string(fd));
    return fd;
}

int SimHost::openNode(const char* path)
{
    State& state = *m_state;
    ++state.openCalls;
    if (!path) {
        errno = EFAULT;
        return -1;
    }
    const std::string node = normalizePath(path);
    SimNode entry;
    if (!state.lookup(node, entry)) {
        errno = ENOENT;
        return -1;
    }
    if (entry.kind == SimNode::Directory) {
        errno = EISDIR;
        return -1;
    }
    if (entry.kind != SimNode::BlockDevice && entry.kind != SimNode::CharDevice) {
        errno = EACCES;  // plain files are read through fopen
        return -1;
    }
    // Which device answers on this node: a disk, one of its partitions, or the device that a
    // multipath map or a PowerPath pseudo-device fronts.
    std::string name = node.substr(node.rfind('/') + 1);
    SimDevice* own = node == "/dev/" + name ? state.find(name) : nullptr;
    if (own && own->name == name && own->vanishAtOpen > 0 &&
        ++state.opensOf[name] == own->vanishAtOpen) {
        own->state = DeviceState::Gone;
    }
    std::string device;
    if (state.indexedAnswerer(node, device)) {
        if (node.compare(0, 12, "/dev/mapper/") != 0) {
            if (refusedOpen(state.find(device), name)) {
                return -1;
            }
        }
    } else if (node.compare(0, 12, "/dev/mapper/") == 0) {
        for (const SimPseudoDevice& map : state.maps) {
            if (map.name == name) {
                device = map.device;
            }
        }
    } else {
        for (const SimPseudoDevice& pseudo : state.powerpath) {
            if (pseudo.name == name) {
                device = pseudo.device;
            }
        }
        for (const SimDevice& disk : state.devices) {
            if (disk.name == name) {
                device = name;
            }
            for (const std::string& partition : disk.partitions) {
                if (partition == name) {
                    device = disk.name;
                }
            }
        }
        if (refusedOpen(state.find(device), name)) {
            return -1;
        }
    }
    int fd = state.nextFd++;
    state.fds[fd] = State::OpenNode{node, device};
    return fd;
}

int SimHost::close(int fd)
{
    const auto guard = m_state->guard();
    m_state->nodeCalls.push_back("close " + std::to_string(fd));
    if (m_state->fds.erase(fd) == 0) {
        errno = EBADF;
        return -1;
    }
    return 0;
}

int SimHost::ioctl(int fd, unsigned long request, void* arg)
{
    const auto guard = m_state->guard();
    State& state = *m_state;
    auto open = state.fds.find(fd);
    if (open == state.fds.end()) {
        errno = EBADF;
        return -1;
    }
    if (!arg) {
        errno = EFAULT;
        return -1;
    }
    SimDevice* device = state.find(open->second.device);
    std::vector<Bytes>& sent = state.cdbs[open->second.node];

    const char* kind = request == SCSI_IOCTL_SEND_COMMAND ? "SEND_COMMAND"
                       : request == SCSI_IOCTL_GET_IDLUN  ? "GET_IDLUN"
                       : request == SG_IO                 ? "SG_IO"
                                                          : "";
    std::string call = "ioctl " + std::to_string(fd) + " " + kind;
    if (request == SCSI_IOCTL_SEND_COMMAND) {
        const uint8_t* words = static_cast<const uint8_t*>(arg);
        call += " " + std::to_string(littleEndian32(words)) + " " +
                std::to_string(littleEndian32(words + 4));
    }
    state.nodeCalls.push_back(call);
    if (device && open->second.node == "/dev/" + device->name) {
        if (device->vanishAtIoctl > 0 && ++state.ioctlsOf[device->name] == device->vanishAtIoctl) {
            device->state = DeviceState::Gone;
        }
        for (const std::string& failing : device->failingIoctls) {
            if (failing == kind) {
                errno = EIO;
                return -1;
            }
        }
    }

    if (request == SCSI_IOCTL_SEND_COMMAND) {
        // Buffer: input length, output length (both little-endian), then the CDB; the answer
        // (or the sense data of a failed command) is written from offset 8.
        uint8_t* buffer = static_cast<uint8_t*>(arg);
        const uint32_t outputLength = littleEndian32(buffer + 4);
        Bytes cdb(buffer + 8, buffer + 8 + cdbLength(buffer[8]));
        sent.push_back(cdb);
        Outcome outcome = execute(device, cdb);
        if (outcome.kind == Outcome::Failed) {
            // Choice: a device that does not answer fails the call itself (-1, EIO); a device
            // that rejects the command answers with CHECK CONDITION, returned as the positive
            // status byte with the sense data in place of the answer, as the kernel does.
            errno = EIO;
            return -1;
        }
        const Bytes& answer = outcome.kind == Outcome::Good ? outcome.data : outcome.sense;
        size_t count = answer.size() < outputLength ? answer.size() : outputLength;
        if (outcome.kind == Outcome::Good) {
            // The mid-layer transfers into a zeroed bounce buffer and copies the whole output
            // length back: what the device did not send reads as zeros, over the CDB too.
            memset(buffer + 8, 0, outputLength);
        }
        if (count > 0) {  // an empty answer has no bytes to copy (and may have no array)
            memcpy(buffer + 8, answer.data(), count);
        }
        return outcome.kind == Outcome::Good ? 0 : kCheckCondition;
    }

    if (request == SCSI_IOCTL_GET_IDLUN) {
        if (!device || device->state != DeviceState::Running) {
            errno = EIO;
            return -1;
        }
        uint32_t word = (static_cast<uint32_t>(device->id) & 0xff) |
                        (static_cast<uint32_t>(device->lun) & 0xff) << 8 |
                        (static_cast<uint32_t>(device->channel) & 0xff) << 16 |
                        (static_cast<uint32_t>(device->host) & 0xff) << 24;
        uint32_t unique = static_cast<uint32_t>(device->host) + 1;  // the host's unique id
        uint32_t answer[2] = {word, unique};
        memcpy(arg, answer, sizeof answer);
        return 0;
    }

    if (request == SG_IO) {
        return state.sgIo(device, arg, sent);
    }

    errno = ENOTTY;
    return -1;
}

int SimHost::State::sgIo(SimDevice* device, void* arg, std::vector<Bytes>& sent)
{
    sg_io_hdr_t* header = static_cast<sg_io_hdr_t*>(arg);
    if (header->interface_id != 'S') {
        errno = ENOSYS;
        return -1;
    }
    if (!header->cmdp || header->cmd_len < 6 || header->cmd_len > 16) {
        errno = EINVAL;
        return -1;
    }
    Bytes cdb(header->cmdp, header->cmdp + header->cmd_len);
    sent.push_back(cdb);
    Outcome outcome = execute(device, cdb);
    if (outcome.kind == Outcome::Failed) {
        errno = EIO;
        return -1;
    }
    header->status = 0;
    header->masked_status = 0;
    header->msg_status = 0;
    header->host_status = 0;
    header->driver_status = 0;
    header->sb_len_wr = 0;
    header->info = SG_INFO_OK;
    header->duration = 1;
    header->resid = static_cast<int>(header->dxfer_len);
    if (outcome.kind == Outcome::CheckCondition) {
        header->status = kCheckCondition;
        header->masked_status = kCheckCondition >> 1;
        header->driver_status = 0x08;  // DRIVER_SENSE
        header->info |= SG_INFO_CHECK;
        size_t count = outcome.sense.size();
        if (count > header->mx_sb_len) {
            count = header->mx_sb_len;
        }
        if (header->sbp && count) {
            memcpy(header->sbp, outcome.sense.data(), count);
            header->sb_len_wr = static_cast<unsigned char>(count);
        }
        return 0;
    }
    size_t count = outcome.data.size();
    if (count > header->dxfer_len) {
        count = header->dxfer_len;
    }
    if (header->dxferp && count && header->dxfer_direction == SG_DXFER_FROM_DEV) {
        memcpy(header->dxferp, outcome.data.data(), count);
        header->resid = static_cast<int>(header->dxfer_len - count);
    }
    return 0;
}

}  // namespace simhost
