// SPDX-License-Identifier: Apache-2.0
// The kernel's SCSI text files read for the tools.
#include "kernel_files.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "discovery_common.h"
#include "fi_system.h"

using kzfi_pdk_4_4::fiSystem;
using scsitool_discovery::parseAddressLine;
using scsitool_discovery::readLines;

namespace {

// The lines of a kernel file without their line ends; none when it does not open.
std::vector<std::string> kernelFileLines(const char* path)
{
    FILE* file = fiSystem().fopen(path, "r");
    std::vector<std::string> lines = file != nullptr ? readLines(file) : std::vector<std::string>();
    for (std::string& line : lines) {
        if (!line.empty() && line.back() == '\n') {
            line.pop_back();
        }
    }
    return lines;
}

// The `width` characters behind `label`, padded with blanks; all blanks without the label.
std::string fieldAfter(const std::string& line, const std::string& label, size_t width)
{
    size_t at = line.find(label);
    if (at == std::string::npos) {
        return std::string(width, ' ');
    }
    std::string field = line.substr(at + label.size(), width);
    return field + std::string(width - field.size(), ' ');
}

}  // namespace

bool parsePartitionLine(const std::string& line, SPartitionRow& row)
{
    unsigned int major = 0;
    unsigned int minor = 0;
    char name[256];
    if (std::sscanf(line.c_str(), "%u %u %llu %255s", &major, &minor, &row.blocks, name) != 4) {
        return false;
    }
    row.name = name;
    return true;
}

std::vector<SPartitionRow> readProcPartitions()
{
    std::vector<SPartitionRow> rows;
    for (const std::string& line : kernelFileLines("/proc/partitions")) {
        SPartitionRow row;
        if (parsePartitionLine(line, row)) {
            rows.push_back(row);
        }
    }
    return rows;
}

std::vector<SListedScsiDisk> readProcScsiDisks()
{
    std::vector<SListedScsiDisk> disks;
    SListedScsiDisk pending;
    bool addressed = false;
    for (const std::string& line : kernelFileLines("/proc/scsi/scsi")) {
        SLinuxScsiDevice address;
        if (parseAddressLine(line, address)) {
            pending.address = address;
            pending.inquiry.clear();
            addressed = true;
        } else if (addressed && line.find("Vendor:") != std::string::npos) {
            std::string text = fieldAfter(line, "Vendor: ", 8) + fieldAfter(line, "Model: ", 16) +
                               fieldAfter(line, "Rev: ", 4);
            pending.inquiry.assign(36, 0);
            std::copy(text.begin(), text.end(), pending.inquiry.begin() + 8);
        } else if (addressed && line.find("Type:") != std::string::npos) {
            unsigned int revision = 0;
            size_t at = line.find("revision:");
            bool disk =
                line.find("Direct-Access ") != std::string::npos && !pending.inquiry.empty();
            if (disk && at != std::string::npos &&
                std::sscanf(line.c_str() + at, "revision: %x", &revision) == 1) {
                pending.inquiry[2] = static_cast<unsigned char>(revision);
            }
            if (disk) {
                pending.inquiry[3] = 2;
                pending.inquiry[4] = 31;
                disks.push_back(pending);
            }
            addressed = false;
        }
    }
    return disks;
}
