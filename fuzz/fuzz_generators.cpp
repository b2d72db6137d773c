// SPDX-License-Identifier: Apache-2.0
// The thirteen generators and the factory's claim loop over an arbitrary page cache, supported
// page list and identity strings; the NetApp identity command answered by a simulated filer.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "device_udid_factory.h"
#include "fuzz_input.h"
#include "simhost.h"
#include "stringtool.h"
#include "udid_read_recorder.h"

namespace {

CUDIDFactory& factory()
{
    return fuzzinput::sharedFactory();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using fuzzinput::Chunk;
    std::vector<Chunk> chunks = fuzzinput::parseChunks(data, size);

    simhost::SimHost host;
    simhost::SimDevice filer;
    filer.name = "sdq";
    CScsiDeviceData device("/dev/sdq", "", "fuzzhost", 0, 0, 0, -1, "", "", "", 0);
    bool vendorGiven = false;
    bool productGiven = false;
    for (const Chunk& chunk : chunks) {
        switch (chunk.tag) {
            case 'I':
                device.m_pageCache[0].set(chunk.data.data(), chunk.data.size());
                break;
            case 'G':
                device.m_pageCache[chunk.code].set(chunk.data.data(), chunk.data.size());
                break;
            case 'S':
                device.m_supportedPages.insert(device.m_supportedPages.end(), chunk.data.begin(),
                                               chunk.data.end());
                break;
            case 'V':
                device.m_vendorId = fuzzinput::text(chunk.data);
                vendorGiven = true;
                break;
            case 'P':
                device.m_productId = fuzzinput::text(chunk.data);
                productGiven = true;
                break;
            case 'N':
                filer.hasVendorCommand = true;
                filer.vendorCommand = chunk.data;
                break;
            default:
                break;
        }
    }
    // Without explicit ids, the ids come from the INQUIRY data as the SCSI layer reads them.
    const CScsiModePage* inquiry = device.findPage(0);
    if (inquiry && inquiry->getLength() >= 32) {
        const char* bytes = reinterpret_cast<const char*>(inquiry->getData());
        if (!vendorGiven) {
            device.m_vendorId =
                CStringTool::rtrim(std::string(bytes + 8, strnlen(bytes + 8, 8)), ' ');
        }
        if (!productGiven) {
            device.m_productId =
                CStringTool::rtrim(std::string(bytes + 16, strnlen(bytes + 16, 16)), ' ');
        }
    }
    host.addDevice(filer);
    simhost::SimHostInstall installed(host);

    const std::string vendor = device.m_vendorId;
    const std::string product = device.m_productId;
    const std::string udid = factory().getUniqueDeviceID(&device);
    {
        // Listening changes no answer.
        CUdidReadRecorder recorder;
        device.m_vendorId = vendor;
        device.m_productId = product;
        if (factory().getUniqueDeviceID(&device) != udid) {
            __builtin_trap();
        }
    }

    // Every generator on every input, claimed or not: bad data must end in the one exception.
    for (CUdidGenerator* generator : factory().m_generators) {
        device.m_vendorId = vendor;
        device.m_productId = product;
        try {
            generator->claimDevice(&device);
            generator->getUniqueDeviceIDPrefix(&device);
            generator->getUniqueDeviceID(&device);
        } catch (const CUdidGeneratorException&) {
        }
        if (auto* netapp = dynamic_cast<CNetAppUdidGenerator*>(generator)) {
            netapp->getEnclosureID(&device);
        }
    }
    return 0;
}
