// SPDX-License-Identifier: Apache-2.0
// CScsiToolBase::UpdateDevice through CScsiTool over arbitrary device answers: a simulated host
// with one disk whose INQUIRY data, VPD pages, SCSI address and state come from the input. The
// filled record then goes through the factory, as an enumeration would take it.
#include <cstddef>
#include <cstdint>

#include "device_udid_factory.h"
#include "fuzz_input.h"
#include "scsitool.h"
#include "simhost.h"

namespace {

CUDIDFactory& factory()
{
    return fuzzinput::sharedFactory();
}

const simhost::DeviceState kStates[] = {
    simhost::DeviceState::Running, simhost::DeviceState::Unresponsive, simhost::DeviceState::Gone};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using fuzzinput::Chunk;
    simhost::SimHost host;
    simhost::SimDevice disk;
    disk.name = "sdc";
    std::vector<unsigned int> presetPages;
    for (const Chunk& chunk : fuzzinput::parseChunks(data, size)) {
        switch (chunk.tag) {
            case 'I':
                disk.inquiry = chunk.data;
                break;
            case 'G':
                disk.vpd[chunk.code] = chunk.data;
                break;
            case 'S':
                // Codes already in the record's list before the query (a second query appends).
                presetPages.insert(presetPages.end(), chunk.data.begin(), chunk.data.end());
                break;
            case 'A':
                if (chunk.data.size() >= 4) {
                    disk.host = chunk.data[0];
                    disk.channel = chunk.data[1];
                    disk.id = chunk.data[2];
                    disk.lun = chunk.data[3];
                }
                break;
            case 'X':
                disk.state = kStates[chunk.code % 3];
                break;
            default:
                break;
        }
    }
    host.addDevice(disk);
    simhost::SimHostInstall installed(host);

    CScsiTool tool;
    tool.registerTraceLog(fuzzinput::discardLog());
    CScsiDeviceData device("/dev/sdc", "", "fuzzhost", 0, 0, 0, -1, "", "", "", 0);
    device.m_pagesValid = 1;
    device.m_supportedPages = presetPages;
    if (tool.UpdateDevice(&device) == 0) {
        factory().getUniqueDeviceID(&device);
    }
    return 0;
}
