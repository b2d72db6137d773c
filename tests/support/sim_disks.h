// SPDX-License-Identifier: Apache-2.0
// Disks and adapters for the simulated host, for the discovery tests.
#ifndef TESTS_SIM_DISKS_H
#define TESTS_SIM_DISKS_H

#include <cstdio>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "simhost.h"
#include "trace_capture.h"

// A direct-access disk "ACME Disk" named `name` at host:channel:id:lun.
simhost::SimDevice simDisk(const std::string& name, int host, int channel, int id, int lun,
                           simhost::DeviceState state = simhost::DeviceState::Running);

// An adapter `driver` with host number `host`; a non-empty `procText` gives it its
// /proc/scsi/<driver>/<host> file.
simhost::SimAdapter simAdapter(int host, const std::string& driver, bool fcHost = false,
                               const std::string& procText = "");

#endif
