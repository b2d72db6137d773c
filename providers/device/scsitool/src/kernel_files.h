// SPDX-License-Identifier: Apache-2.0
// What the library knows of the kernel's SCSI text files, offered to the tools that capture a
// host: the rows of "/proc/partitions" and the disks "/proc/scsi/scsi" lists.
#ifndef SCSITOOL_KERNEL_FILES_H
#define SCSITOOL_KERNEL_FILES_H

#include <string>
#include <vector>

#include "device_scsi_data.h"

// A row "major minor blocks name" of "/proc/partitions".
struct SPartitionRow {
    unsigned long long blocks = 0;
    std::string name;
};

// The rows of "/proc/partitions" in the kernel's order; none when it does not open.
std::vector<SPartitionRow> readProcPartitions();
bool parsePartitionLine(const std::string& line, SPartitionRow& row);

// A direct-access device of "/proc/scsi/scsi": its address and the 36 bytes of INQUIRY data
// rebuilt from the vendor, model, revision and ANSI version the kernel shows.
struct SListedScsiDisk {
    SLinuxScsiDevice address;
    std::vector<unsigned char> inquiry;
};

// The direct-access devices of "/proc/scsi/scsi", in the kernel's order.
std::vector<SListedScsiDisk> readProcScsiDisks();

#endif
