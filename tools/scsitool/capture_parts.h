// SPDX-License-Identifier: Apache-2.0
// The parts of `scsitool capture`, one file each: the disks and their pages, the
// pseudo-devices, the adapters; the host's own identity and the whole run are in capture.cpp.
#ifndef SCSITOOL_CLI_CAPTURE_PARTS_H
#define SCSITOOL_CLI_CAPTURE_PARTS_H

#include <string>
#include <utility>
#include <vector>

#include "scsitool.h"
#include "session.h"
#include "simhost.h"

namespace scsitool_cli {
namespace capture {

using simhost::Bytes;

// The identity of a disk node and the disk's name, for the pseudo-devices to find it by.
typedef std::vector<std::pair<Bytes, std::string>> Identities;

bool readText(const std::string& path, std::string& text);
std::string firstLine(const std::string& text);
std::vector<std::string> listDirectory(const std::string& path);
bool isNumber(const std::string& text);

// The disks discovery opens and those the kernel still lists, with their pages and partitions.
Identities captureDisks(Session& session, simhost::SimHost& snapshot);
// The identity a node shows: its identification pages and INQUIRY data; empty when it has none.
Bytes identity(Session& session, const std::string& node);
// The multipath maps and PowerPath devices, each with the disk behind it.
void capturePseudoDevices(Session& session, simhost::SimHost& snapshot,
                          const Identities& identities);
// The host adapters of "/proc/scsi", "/sys/class/scsi_host" and "/sys/class/fc_host".
void captureAdapters(simhost::SimHost& snapshot);

}  // namespace capture
}  // namespace scsitool_cli

#endif
