// SPDX-License-Identifier: Apache-2.0
// `scsitool capture`: the host adapters, their drivers, proc files and FC port names.
#include <map>

#include "capture_parts.h"

namespace scsitool_cli {
namespace capture {

namespace {

// The adapter of a sysfs entry "hostN", made when first seen; nullptr for other names.
simhost::SimAdapter* adapterOf(std::map<int, simhost::SimAdapter>& adapters,
                               const std::string& name)
{
    if (name.compare(0, 4, "host") != 0 || !isNumber(name.substr(4))) {
        return nullptr;
    }
    int number = std::stoi(name.substr(4));
    simhost::SimAdapter& adapter = adapters[number];
    adapter.host = number;
    return &adapter;
}

}  // namespace

void captureAdapters(simhost::SimHost& snapshot)
{
    std::map<int, simhost::SimAdapter> adapters;
    for (const std::string& driver : listDirectory("/proc/scsi/")) {
        for (const std::string& entry : listDirectory("/proc/scsi/" + driver + "/")) {
            if (!isNumber(entry)) {
                continue;
            }
            simhost::SimAdapter& adapter = adapters[std::stoi(entry)];
            adapter.host = std::stoi(entry);
            adapter.driver = driver;
            readText("/proc/scsi/" + driver + "/" + entry, adapter.procText);
        }
    }
    std::string text;
    for (const std::string& name : listDirectory("/sys/class/scsi_host/")) {
        simhost::SimAdapter* adapter = adapterOf(adapters, name);
        if (adapter && adapter->driver.empty() &&
            readText("/sys/class/scsi_host/" + name + "/proc_name", text)) {
            adapter->driver = firstLine(text);
        }
    }
    for (const std::string& name : listDirectory("/sys/class/fc_host/")) {
        if (simhost::SimAdapter* adapter = adapterOf(adapters, name)) {
            adapter->fcHost = true;
            if (readText("/sys/class/fc_host/" + name + "/port_name", text)) {
                adapter->portName = firstLine(text);
            }
            if (readText("/sys/class/fc_host/" + name + "/port_state", text)) {
                adapter->portState = firstLine(text);
            }
        }
    }
    for (const auto& adapter : adapters) {
        snapshot.addAdapter(adapter.second);
    }
}

}  // namespace capture
}  // namespace scsitool_cli
