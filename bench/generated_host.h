// SPDX-License-Identifier: Apache-2.0
// Generated simulated hosts for the benchmarks: a fibre-channel host whose LUNs come from every
// array family the generators know, with the page shapes those arrays really send, a quarter as
// many device-mapper multipath maps, some partitions, and multipathd running.
#ifndef BENCH_GENERATED_HOST_H
#define BENCH_GENERATED_HOST_H

#include <memory>
#include <string>
#include <vector>

#include "simhost.h"

namespace bench {

// One array family: what its LUNs answer to INQUIRY and to the VPD pages they list.
struct ArrayFamily {
    std::string label;          // "HP MSA", "EMC Clariion", ...
    simhost::SimDevice device;  // pages of a typical LUN; name and address unset
};

// The families, one per generator of the table (the default generator last).
const std::vector<ArrayFamily>& arrayFamilies();

// "sda", "sdz", "sdaa", ...: the kernel's name of disk `index`.
std::string diskName(size_t index);

// A host with `luns` disks spread over 16 targets of 32 LUNs per FC adapter, family
// `index % families` each, every eighth with a partition, and `luns / 4` multipath maps
// "mpath<k>" fronting every fourth disk.
std::unique_ptr<simhost::SimHost> makeHost(size_t luns);

}  // namespace bench

#endif
