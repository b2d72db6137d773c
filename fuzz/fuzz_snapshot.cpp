// SPDX-License-Identifier: Apache-2.0
// The host snapshot loader and the "devicefi" configuration reader over arbitrary text. A
// snapshot that loads must write itself back into a snapshot that loads to the same text; the
// configuration reader must leave the defaults or take whole numbers, never fail outwardly. The
// device map of a snapshot that loads, compared with itself, shows no finding; compared with an
// empty map, each of its UDIDs is removed and nothing else is reported.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "device_map_compare.h"
#include "device_scsi_data.h"
#include "device_udid_factory.h"
#include "fi_configuration.h"
#include "simhost.h"

namespace {

const std::string& configPath()
{
    static std::string* path =
        new std::string("/tmp/fuzz_snapshot." + std::to_string(getpid()) + ".ini");
    return *path;
}

void removeConfig()
{
    unlink(configPath().c_str());
}

void checkComparison(simhost::SimHost& host)
{
    static CUDIDFactory* factory = new CUDIDFactory();
    SHostMap map;
    {
        simhost::SimHostInstall install(host);
        map = CDeviceMapCompare::describeHost(*factory);
    }
    if (!CDeviceMapCompare::compare(map, map).empty()) {
        fprintf(stderr, "a device map differs from itself\n");
        abort();
    }
    // Against an empty map every volume that answered is removed; names that did not answer
    // (the control node, a disk that is gone) say nothing of a volume and are not reported.
    std::set<std::string> udids;
    for (const SMapVolume& volume : map.entries) {
        if (!volume.udid.empty() && CDeviceMapCompare::answered(volume)) {
            udids.insert(volume.udid);
        }
    }
    const std::vector<CDeviceMapCompare::Finding> findings =
        CDeviceMapCompare::compare(map, SHostMap());
    for (const CDeviceMapCompare::Finding& finding : findings) {
        if (finding.kind != CDeviceMapCompare::Removed || udids.erase(finding.subject) != 1) {
            fprintf(stderr, "against an empty map: %s %s\n",
                    CDeviceMapCompare::kindName(finding.kind), finding.subject.c_str());
            abort();
        }
    }
    if (!udids.empty()) {
        fprintf(stderr, "against an empty map: %s not removed\n", udids.begin()->c_str());
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    kzfi_pdk_4_4::CFiConfigurationPathTool::setConfigFile(configPath());
    atexit(removeConfig);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);

    std::string error;
    std::unique_ptr<simhost::SimHost> host = simhost::SimHost::fromJson(text, error);
    if (host) {
        const std::string written = host->toJson();
        std::string again;
        std::unique_ptr<simhost::SimHost> reloaded = simhost::SimHost::fromJson(written, again);
        if (!reloaded) {
            fprintf(stderr, "a loaded snapshot wrote one that does not load: %s\n%s\n",
                    again.c_str(), written.c_str());
            abort();
        }
        if (reloaded->toJson() != written) {
            fprintf(stderr, "a snapshot changed on its way round:\n%s\n", written.c_str());
            abort();
        }
        checkComparison(*host);
    } else if (error.empty()) {
        fprintf(stderr, "a snapshot was rejected without a message\n");
        abort();
    }

    // A JSON object is left to the snapshot loader; everything else is a configuration file too.
    FILE* file = size > 0 && data[0] == '{' ? nullptr : fopen(configPath().c_str(), "w");
    if (file) {
        fwrite(data, 1, size, file);
        fclose(file);
        CScsiTuningParams params;
        params.m_openDeviceRetryDelay = 3;
        params.m_openDeviceRetryAttempts = 8;
        if (CScsiConfiguration::importTuningSettings(params) != 0) {
            abort();
        }
    }
    return 0;
}
