// What the command itself reads from a device node, beside the library's answers: whether the
// node opens (and the reason when it does not), the SCSI address and the standard INQUIRY data.
#ifndef SCSITOOL_CLI_DEVICE_PROBE_H
#define SCSITOOL_CLI_DEVICE_PROBE_H

#include <string>
#include <vector>

#include "scsitool.h"
#include "session.h"
#include "simhost.h"

namespace scsitool_cli {

struct DeviceProbe {
    int openErrno = 0;              // 0: the node opened
    bool placed = false;            // the address could be read
    int address[4] = {0, 0, 0, 0};  // host, channel, id, LUN
    simhost::Bytes inquiry;         // empty when the device did not answer
    std::string vendor;             // INQUIRY bytes 8 to 15, trailing blanks left out
    std::string product;            // bytes 16 to 31, the same
};

DeviceProbe probeDevice(Session& session, const std::string& node);
// 0 when `node` opens, otherwise the errno of the failed open.
int openErrno(const std::string& node);
// The reason a device named on the command line gives no answer, as an exit-3 error: not
// found, cannot open (with the system's reason), or does not answer as a disk.
[[noreturn]] void throwUnanswered(const std::string& node);

// One answer of the device: the standard INQUIRY data (evpd false, code 0) or a VPD page.
bool readDevicePage(CScsiTool& tool, CScsiDeviceHandle& handle, CScsiDeviceData& record,
                    unsigned int code, bool evpd, simhost::Bytes& bytes);

// The nodes a person expects in the map: the whole disks of "/proc/partitions", every node
// under "/dev/mapper/" and the PowerPath nodes, sorted.
std::vector<std::string> candidateNodes();

// Whole SCSI disk names: "sd" and lower-case letters.
bool isWholeDisk(const std::string& name);

// Names the nodes that did not open, one line each on stderr ("scsitool: NODE: cannot open:
// REASON"); returns how many did not open for lack of rights.
int reportUnopened(const std::vector<std::pair<std::string, int>>& failures);
// No device could be queried: exit 3, saying when it was for lack of rights.
[[noreturn]] void throwNoDeviceQueried(bool denied);

}  // namespace scsitool_cli

#endif
