// SPDX-License-Identifier: Apache-2.0
// A test program built against the installed simulated host: it loads a host snapshot and prints
// the device map the library makes of it, one "DEVICE UDID" line per entry.
#include <device_udid_factory.h>
#include <simhost.h>

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: sim_consumer SNAPSHOT\n");
        return 2;
    }
    std::string error;
    std::unique_ptr<simhost::SimHost> host = simhost::SimHost::fromFile(argv[1], error);
    if (!host) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    simhost::SimHostInstall install(*host);
    CUDIDFactory factory;
    for (const auto& entry : factory.enumerateDeviceMap(false, false, false))
        std::printf("%s %s\n", entry.second.DeviceName.c_str(), entry.second.Uid.c_str());
    return 0;
}
