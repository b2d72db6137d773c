// Disks for the simulated host and a capture of the plug-in's shared trace log, for the
// discovery tests.
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

// What the library writes to the plug-in's shared trace log while the object lives.
class SharedLogCapture : public TraceCapture {
public:
    SharedLogCapture();
    ~SharedLogCapture();
};

// The data of every write to `path`, in order.
std::vector<std::string> writtenTo(const simhost::SimHost& host, const std::string& path);
// Every write as "path data", in order.
std::vector<std::string> allWrites(const simhost::SimHost& host);

#endif
