// SPDX-License-Identifier: Apache-2.0
// The kernel file parsers over arbitrary file contents and command output: /proc/scsi/scsi,
// /proc/partitions, the /proc driver listings, the initiator name file and the port_name files,
// all served by a simulated host.
//
// Input: chunks as in fuzz_input.h, with two tags of their own:
//   'f' a file: its path, a newline, then its contents (which win over the host's own files);
//   'c' a command: its line, a newline, then its output lines; the chunk's code is the exit code.
#include <cstddef>
#include <cstdint>
#include <map>

#include "WWPN_discovery.h"
#include "device_discovery.h"
#include "fuzz_input.h"
#include "scsitool.h"
#include "simhost.h"

namespace {

CLinuxDeviceDiscovery& discovery()
{
    // One for the process: its multipath modules are kept for the process anyway.
    static CLinuxDeviceDiscovery* instance = [] {
        CLinuxDeviceDiscovery* d = new CLinuxDeviceDiscovery();
        d->registerTraceLog(fuzzinput::discardLog());
        return d;
    }();
    return *instance;
}

void split(const std::vector<uint8_t>& data, std::string& head, std::string& rest)
{
    std::string all = fuzzinput::text(data);
    size_t newline = all.find('\n');
    head = all.substr(0, newline);
    rest = newline == std::string::npos ? "" : all.substr(newline + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    simhost::SimHost host;
    host.setProcScsi(false);
    host.addExecutable("/sbin/iscsiadm");
    for (const fuzzinput::Chunk& chunk : fuzzinput::parseChunks(data, size)) {
        std::string head;
        std::string rest;
        split(chunk.data, head, rest);
        if (chunk.tag == 'f') {
            host.setKernelFile(head, rest);
        } else if (chunk.tag == 'c') {
            simhost::SimCommandScript script;
            script.exitCode = chunk.code;
            size_t at = 0;
            while (at < rest.size()) {
                size_t newline = rest.find('\n', at);
                if (newline == std::string::npos) {
                    newline = rest.size();
                }
                script.output.push_back(rest.substr(at, newline - at));
                at = newline + 1;
            }
            host.scriptCommand(head, script);
        }
    }
    simhost::SimHostInstall installed(host);

    CLinuxDeviceDiscovery& d = discovery();
    d.getDeviceList(true);
    d.getDeviceList(false);
    d.getDeviceCount();
    std::map<int, std::vector<int>> targets;
    d.getTargetIds(targets);
    std::map<int, int> maxLun = {{0, 0}, {1, 0}, {2, 0}, {3, 0}};
    std::map<int, int> maxId = maxLun;
    std::map<int, int> maxChannel = maxLun;
    d.scanForAdapterMaximums(maxLun, maxId, maxChannel);
    try {
        d.enumerateNativeDevicePaths();
    } catch (int) {
    }
    std::map<std::string, std::vector<int>> adapters;
    d.GetHostAdapterList(adapters);
    d.RescanQlogicHBAs(adapters);
    std::vector<std::string> hosts;
    d.GetHostAdapterList2_6(hosts);
    for (CScsiDeviceData* record : d.enumerateDevices()) {
        delete record;
    }

    CScsiTool tool;
    tool.registerTraceLog(fuzzinput::discardLog());
    std::string iqn;
    tool.GetHostIQN(iqn);
    WWPN wwpn;
    wwpn.registerTraceLog(fuzzinput::discardLog());
    wwpn.getWWPN();
    return 0;
}
