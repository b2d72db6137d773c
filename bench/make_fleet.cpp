// SPDX-License-Identifier: Apache-2.0
// Writes the captures of a generated fleet for the `scsitool fleet` benchmark (bench/fleet.sh):
// HOSTS hosts in clusters of 8, each host zoned to its cluster's LUNS LUNs (the generated host of
// bench_device_map, every LUN given the identity of its cluster's volume), so that every volume is
// seen by 8 hosts. Each is written as capture writes one: the machine id among the files, and the
// record of the capture (version, time, machine id, its own id, and the device map the library
// gives on that host, as `map --json` shows it). Usage: make_fleet DIR HOSTS [LUNS]
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "device_udid_factory.h"
#include "generated_host.h"
#include "stringtool.h"

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

std::string kindOf(const std::string& node)
{
    if (node == "/dev/mapper/control") {
        return "dm-control";
    }
    if (node.compare(0, 12, "/dev/mapper/") == 0) {
        return "dm-multipath";
    }
    return node.compare(0, 13, "/dev/emcpower") == 0 ? "powerpath" : "disk";
}

std::string trimmed(const simhost::Bytes& inquiry, size_t from, size_t to)
{
    if (inquiry.size() < to) {
        return std::string();
    }
    std::string text(inquiry.begin() + from, inquiry.begin() + to);
    return text.erase(text.find_last_not_of(' ') + 1);
}

// The record capture keeps: the map the library gives on `host`, as `map --json` shows it.
std::string captureRecord(simhost::SimHost& host, const std::string& hostName,
                          const std::string& machineId, size_t index)
{
    static CUDIDFactory* factory = new CUDIDFactory();
    nlohmann::ordered_json map = nlohmann::ordered_json::array();
    {
        simhost::SimHostInstall install(host);
        for (const auto& entry : factory->enumerateDeviceMap(false, false, false)) {
            const std::string& node = entry.first;
            const simhost::SimDevice* device =
                node.compare(0, 5, "/dev/") == 0 ? host.findDevice(node.substr(5)) : nullptr;
            const std::string kind = kindOf(node);
            const std::string local = "##" + CStringTool::tostrupper(node + "@" + hostName);
            const std::string& udid = entry.second.Uid;
            nlohmann::ordered_json row;
            row["DeviceName"] = entry.second.DeviceName;
            row["Uid"] = udid;
            row["dmpClaimLevel"] = entry.second.dmpClaimLevel;
            row["NativePath"] = nlohmann::ordered_json::array();
            row["address"] = device != nullptr && kind == "disk"
                                 ? nlohmann::ordered_json::array(
                                       {device->host, device->channel, device->id, device->lun})
                                 : nlohmann::ordered_json(nullptr);
            row["kind"] = kind;
            row["vendor"] = device != nullptr ? trimmed(device->inquiry, 8, 16) : "";
            row["product"] = device != nullptr ? trimmed(device->inquiry, 16, 32) : "";
            row["state"] = kind == "dm-control" ? "-" : "running";
            row["host_local"] = udid.size() >= local.size() &&
                                udid.compare(udid.size() - local.size(), local.size(), local) == 0;
            map.push_back(row);
        }
    }
    char id[40];
    std::snprintf(id, sizeof id, "%032zx", index + 1);
    nlohmann::ordered_json record;
    record["scsitool_version"] = "bench";
    record["time"] = "2026-11-23T00:00:00Z";
    record["anonymised"] = false;
    record["machine_id"] = machineId;
    record["capture_id"] = id;
    record["map"] = map;
    return record.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
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
        char machineId[40];
        std::snprintf(machineId, sizeof machineId, "%016zx%016zx", h + 1, h * 7919 + 13);
        host->addFile("/etc/machine-id", std::string(machineId) + "\n");
        host->setCapture(captureRecord(*host, name, machineId, h));
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
