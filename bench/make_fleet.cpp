// SPDX-License-Identifier: Apache-2.0
// Writes the captures of a generated fleet for the `scsitool fleet` benchmark (bench/fleet.sh):
// HOSTS hosts in clusters of 8, each host zoned to its cluster's LUNS LUNs (the generated host of
// bench_device_map, every LUN given the identity of its cluster's volume), so that every volume is
// seen by 8 hosts. Usage: make_fleet DIR HOSTS [LUNS]
#include <cstdio>
#include <cstdlib>
#include <string>

#include "generated_host.h"

namespace {

const size_t kClusterSize = 8;

// Volume `volume`'s identity: the last three bytes of its designator, the digits of its serial.
void identify(simhost::SimDevice& device, size_t volume)
{
    auto designator = device.vpd.find(0x83);
    if (designator != device.vpd.end() && designator->second.size() >= 12) {
        simhost::Bytes& page = designator->second;
        for (size_t i = 0; i < 3; ++i) {
            page[page.size() - 1 - i] = static_cast<uint8_t>(volume >> (8 * i));
        }
    }
    auto serial = device.vpd.find(0x80);
    if (serial != device.vpd.end() && serial->second.size() >= 10) {
        char digits[16];
        std::snprintf(digits, sizeof digits, "%06zu", volume % 1000000);
        simhost::Bytes& page = serial->second;
        for (size_t i = 0; i < 6; ++i) {
            page[page.size() - 6 + i] = static_cast<uint8_t>(digits[i]);
        }
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: make_fleet DIR HOSTS [LUNS]\n");
        return 1;
    }
    const std::string dir = argv[1];
    const size_t hosts = std::strtoul(argv[2], nullptr, 10);
    const size_t luns = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 64;
    for (size_t h = 0; h < hosts; ++h) {
        std::unique_ptr<simhost::SimHost> host = bench::makeHost(luns);
        char name[64];
        std::snprintf(name, sizeof name, "node%05zu", h);
        host->setHostname(name);
        const size_t cluster = h / kClusterSize;
        for (size_t i = 0; i < luns; ++i) {
            identify(*host->findDevice(bench::diskName(i)), cluster * luns + i);
        }
        const std::string path = dir + "/" + name + ".json";
        FILE* file = std::fopen(path.c_str(), "w");
        const std::string text = host->toJson();
        if (file == nullptr || std::fwrite(text.data(), 1, text.size(), file) != text.size() ||
            std::fclose(file) != 0) {
            std::fprintf(stderr, "make_fleet: cannot write %s\n", path.c_str());
            return 1;
        }
    }
    return 0;
}
