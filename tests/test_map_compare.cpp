// SPDX-License-Identifier: Apache-2.0
// Device map comparison: the volume key of a device's pages, the findings between two small
// hosts cut from the datacenter example, the fleet view, and the fleet's one-disk-at-a-time
// description against the whole enumeration.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "device_map_compare.h"
#include "device_udid_factory.h"
#include "page_builders.h"
#include "pseudo_devices.h"
#include "simhost.h"

namespace {

using nlohmann::json;
typedef CDeviceMapCompare::Finding Finding;

const std::string kExamples = std::string(SCSITOOL_SOURCE_DIR) + "/examples/hosts/";

TEST(VolumeKey, PrefersTheUnitsNaaThenEuiThenT10ThenTheSerial)
{
    const std::vector<unsigned char> naa = {0x01, 0x03, 0x00, 0x04, 0x60, 0x01, 0x02, 0x03};
    const std::vector<unsigned char> eui = {0x01, 0x02, 0x00, 0x02, 0xAB, 0xCD};
    const std::vector<unsigned char> t10 = {0x02, 0x01, 0x00, 0x03, 'A', 'B', 'C'};
    // The same NAA of the target port (association 1) names every LUN behind it.
    const std::vector<unsigned char> portNaa = {0x01, 0x13, 0x00, 0x04, 0x50, 0x0a, 0x0b, 0x0c};
    auto page83 = [](std::vector<std::vector<unsigned char>> descriptors) {
        std::vector<unsigned char> page = {0x00, 0x83, 0x00, 0x00};
        for (const auto& d : descriptors) {
            page.insert(page.end(), d.begin(), d.end());
        }
        page[3] = static_cast<unsigned char>(page.size() - 4);
        return page;
    };
    const std::vector<unsigned char> serial =
        Bytes({0x00, 0x80, 0x00, 0x08, ' ', ' ', 'S', 'N', '4', '2', ' ', ' '});
    struct Case {
        const char* what;
        std::map<unsigned int, std::vector<unsigned char>> pages;
        const char* vendor;
        const char* key;
    } cases[] = {
        {"NAA after T10 and EUI", {{0x83, page83({t10, eui, naa})}}, "ACME", "naa.60010203"},
        {"EUI before T10", {{0x83, page83({t10, eui})}}, "ACME", "eui.abcd"},
        {"T10 alone", {{0x83, page83({t10})}, {0x80, serial}}, "ACME", "t10.414243"},
        {"port NAA ignored", {{0x83, page83({portNaa, t10})}}, "ACME", "t10.414243"},
        {"no designator: the serial behind the trimmed vendor",
         {{0x83, page83({portNaa})}, {0x80, serial}},
         "ACME    ",
         "serial.ACME.SN42"},
        {"no page 0x83", {{0x80, serial}}, "ACME", "serial.ACME.SN42"},
        {"blank serial", {{0x80, Bytes({0x00, 0x80, 0x00, 0x02, ' ', ' '})}}, "ACME", ""},
        {"serial length past the page",
         {{0x80, Bytes({0x00, 0x80, 0x00, 0x40, 'X', '1'})}},
         "ACME",
         "serial.ACME.X1"},
        {"descriptor cut by the page",
         {{0x83, Bytes({0x00, 0x83, 0x00, 0x08, 0x01, 0x03, 0x00, 0x08, 0x60, 0x01, 0x02, 0x03})}},
         "ACME",
         ""},
        {"page length past the bytes received",
         {{0x83, Bytes({0x00, 0x83, 0x00, 0x40, 0x01, 0x03, 0x00, 0x02, 0x60, 0x01})}},
         "ACME",
         "naa.6001"},
        {"bytes past the page length are no descriptor",
         {{0x83, Bytes({0x00, 0x83, 0x00, 0x07, 0x02, 0x01, 0x00, 0x03, 'A', 'B', 'C', 0x01, 0x03,
                        0x00, 0x02, 0x60, 0x01})}},
         "ACME",
         "t10.414243"},
        {"descriptor one byte past the page length",
         {{0x83, Bytes({0x00, 0x83, 0x00, 0x07, 0x02, 0x01, 0x00, 0x04, 'A', 'B', 'C', 'D'})}},
         "ACME",
         ""},
        {"page shorter than its header", {{0x83, Bytes({0x00, 0x83})}}, "ACME", ""},
        {"serial page shorter than its header", {{0x80, Bytes({0x00, 0x80, 0x00})}}, "ACME", ""},
        {"pages cached without their bytes", {{0x80, {}}, {0x83, {}}}, "ACME", ""},
        {"no pages", {}, "ACME", ""},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(CDeviceMapCompare::volumeKey(*makeDevice(c.vendor, "DISK", c.pages)), c.key)
            << c.what;
    }
}

TEST(DeviceMapCompare, ANodeThatDoesNotOpenIsDeniedGoneOrInError)
{
    const struct {
        int error;
        const char* state;
    } cases[] = {{EACCES, "denied"}, {EPERM, "denied"}, {ENXIO, "gone"}, {ENOENT, "gone"},
                 {ENODEV, "gone"},   {EIO, "error"},    {EBUSY, "error"}};
    for (const auto& c : cases) {
        EXPECT_EQ(CDeviceMapCompare::openFailureState(c.error), c.state) << c.error;
    }
}

std::string readText(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A small host cut from the datacenter example: an IBM, a Fujitsu, an ACME behind multipath,
// a Clariion LUN and the unresponsive disk with its host-local UDID.
json smallHost()
{
    json host = json::parse(readText(kExamples + "datacenter.json"));
    const std::set<std::string> keep = {"sdd", "sdk", "sdl", "sdm", "sdn"};
    json devices = json::array();
    for (const json& device : host["devices"]) {
        if (keep.count(device["name"].get<std::string>()) != 0) {
            devices.push_back(device);
        }
    }
    host["devices"] = devices;
    host["multipath_maps"] = json::array({{{"name", "mpathb"}, {"device", "sdl"}}});
    host["powerpath"] = json::array();
    return host;
}

json& deviceNamed(json& host, const std::string& name)
{
    for (json& device : host["devices"]) {
        if (device["name"] == name) {
            return device;
        }
    }
    throw std::runtime_error("no device " + name);
}

void replaceIn(json& field, const std::string& from, const std::string& to)
{
    std::string text = field.get<std::string>();
    const size_t at = text.find(from);
    if (at == std::string::npos) {
        throw std::runtime_error("no " + from + " in " + text);
    }
    field = text.replace(at, from.size(), to);
}

SHostMap describe(const json& snapshot)
{
    std::string error;
    std::unique_ptr<simhost::SimHost> host = simhost::SimHost::fromJson(snapshot.dump(), error);
    if (!host) {
        throw std::runtime_error(error);
    }
    simhost::SimHostInstall install(*host);
    static CUDIDFactory* factory = new CUDIDFactory();
    return CDeviceMapCompare::describeHost(*factory);
}

// A node the map left out is opened once more to learn why: read-only, without waiting for the
// device and never handed to a child the host process starts. A node that opens (a map of another
// kind) is closed again and left out, as the map leaves it out; one that does not is shown.
TEST(DeviceMapCompare, ANodeLeftOutIsOpenedReadOnlyNonBlockingCloseOnExec)
{
    json snapshot = smallHost();
    // Both ends of the letters a whole disk's name is made of.
    deviceNamed(snapshot, "sdd")["name"] = "sdaz";
    deviceNamed(snapshot, "sdaz")["state"] = "gone";
    snapshot["multipath_maps"].push_back({{"name", "vg-lv"}, {"device", ""}});
    // A whole disk of another driver is none the map could have: it is not even opened.
    json virtio = deviceNamed(snapshot, "sdk");
    virtio["name"] = "vda";
    virtio["state"] = "gone";
    virtio["address"] = {9, 0, 0, 0};
    snapshot["devices"].push_back(virtio);
    std::string error;
    std::unique_ptr<simhost::SimHost> host = simhost::SimHost::fromJson(snapshot.dump(), error);
    ASSERT_TRUE(host) << error;
    simhost::SimHostInstall install(*host);
    CUDIDFactory factory;
    const SHostMap map = CDeviceMapCompare::describeHost(factory);
    const std::vector<std::string> calls = host->nodeCalls();
    const std::string flags = "0x" + [] {
        char hex[16];
        std::snprintf(hex, sizeof hex, "%x", unsigned(O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        return std::string(hex);
    }();
    struct Case {
        const char* node;
        const char* state;  // "" when left out
    } cases[] = {{"/dev/sdaz", "gone"}, {"/dev/mapper/vg-lv", ""}};
    for (const std::string& call : calls)
        EXPECT_EQ(call.find("/dev/vda"), std::string::npos) << call;
    for (const Case& c : cases) {
        const std::string prefix = std::string("open ") + c.node + " " + flags + " = ";
        const auto open = std::find_if(calls.begin(), calls.end(), [&](const std::string& call) {
            return call.compare(0, prefix.size(), prefix) == 0;
        });
        ASSERT_NE(open, calls.end()) << c.node;
        EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                                [&](const std::string& call) {
                                    return call.compare(0, prefix.size(), prefix) == 0;
                                }),
                  1)
            << c.node;
        const std::string fd = open->substr(prefix.size());
        const auto closed = std::find(open, calls.end(), "close " + fd);
        EXPECT_EQ(fd == "-1", closed == calls.end()) << c.node << ": " << *open;
        const auto entry =
            std::find_if(map.entries.begin(), map.entries.end(),
                         [&](const SMapVolume& v) { return v.deviceName == c.node; });
        if (*c.state == 0) {
            EXPECT_EQ(entry, map.entries.end()) << c.node;
            continue;
        }
        ASSERT_NE(entry, map.entries.end()) << c.node;
        EXPECT_EQ(entry->state, c.state) << c.node;
    }
}

// A finding as one line: kind, subject, the UDIDs' last fields and the names of both sides.
std::string summary(const Finding& f)
{
    auto tail = [](const std::string& udid) {
        return udid.empty() ? std::string("-") : udid.substr(udid.rfind("##") + 2);
    };
    auto names = [](const CDeviceMapCompare::Side& side) {
        std::string text;
        for (const std::string& name : side.deviceNames) {
            text += (text.empty() ? "" : ",") + name;
        }
        for (const std::string& address : side.addresses) {
            text += " " + address;
        }
        return text;
    };
    return std::string(CDeviceMapCompare::kindName(f.kind)) + " " + f.subject +
           (f.state.empty() ? "" : " (" + f.state + ")") + ": " + tail(f.before.udid) + " [" +
           names(f.before) + "] -> " + tail(f.after.udid) + " [" + names(f.after) + "]";
}

TEST(DeviceMapCompare, EachFindingBetweenTwoSmallHosts)
{
    const std::string acmeNaa = "naa.600123456789abcdef0123456789abcd";
    const std::string acmeOld = "0083001401030010600123456789ABCDEF0123456789ABCD";
    const std::string acmeNew = "0083002001030010600123456789ABCDEF0123456789ABCD0201000441434D45";
    // The ACME disk without page 0x83, on both sides: its UDID comes from its serial.
    auto serialOnly = [](json& h) {
        json& vpd = deviceNamed(h, "sdl")["vpd"];
        vpd.erase("83");
        vpd["00"] = "00 00 00 02 00 80";
        vpd["80"] = "00 80 00 04 41 42 43 44";
    };
    struct Case {
        const char* what;
        std::function<void(json&)> change;
        std::vector<std::string> findings;
        std::function<void(json&)> both = [](json&) {};
    } cases[] = {
        {"nothing changed", [](json&) {}, {}},
        {"the host renamed: host-local UDIDs are no finding",
         [](json& h) { h["hostname"] = "dbhost09"; },
         {}},
        {"the array reused the LUN behind sdd for a new volume",
         [](json& h) { replaceIn(deviceNamed(h, "sdd")["vpd"]["83"], "1a 2b", "1a 2c"); },
         {"remapped /dev/sdd: 1A2B [/dev/sdd 3:0:1:0] -> 1A2C [/dev/sdd 3:0:1:0]"}},
        {"the new volume at sdd's address came up as sdz",
         [](json& h) {
             json& sdd = deviceNamed(h, "sdd");
             sdd["name"] = "sdz";
             replaceIn(sdd["vpd"]["83"], "1a 2b", "1a 2c");
         },
         {"remapped 3:0:1:0: 1A2B [/dev/sdd 3:0:1:0] -> 1A2C [/dev/sdz 3:0:1:0]"}},
        {"new firmware added a T10 designator beside the NAA",
         [](json& h) {
             json& page = deviceNamed(h, "sdl")["vpd"]["83"];
             replaceIn(page, "00 83 00 14", "00 83 00 20");
             page = page.get<std::string>() + " 02 01 00 04 41 43 4d 45";
         },
         {"identity-changed " + acmeNaa + ": " + acmeOld +
          " [/dev/mapper/mpathb,/dev/sdl 4:0:2:0] -> " + acmeNew +
          " [/dev/mapper/mpathb,/dev/sdl 4:0:2:0]"}},
        {"new firmware reports another product: the serial still names the volume",
         [](json& h) {
             replaceIn(deviceNamed(h, "sdl")["inquiry"], "44 69 73 6b 20 32", "44 69 73 6b 20 33");
         },
         {"identity-changed serial.ACME.ABCD: 0080000441424344 [/dev/mapper/mpathb,/dev/sdl "
          "4:0:2:0] -> 0080000441424344 [/dev/mapper/mpathb,/dev/sdl 4:0:2:0]"},
         serialOnly},
        {"the disk that did not answer answers: a volume came, nothing was remapped",
         [](json& h) { deviceNamed(h, "sdn")["state"] = "running"; },
         {"added "
          "UDID##DGC##CLARIION##CK200083300789##60:06:01:60:3A:B1:1E:00:4C:8F:5E:59:72:C3:E0:33: "
          "- [] -> "
          "60:06:01:60:3A:B1:1E:00:4C:8F:5E:59:72:C3:E0:33 [/dev/sdn 4:0:3:0]"}},
        {"sdd stops answering: unavailable, its volume neither remapped nor removed",
         [](json& h) { deviceNamed(h, "sdd")["state"] = "unresponsive"; },
         {"unavailable /dev/sdd (unresponsive): 1A2B [/dev/sdd 3:0:1:0] -> - [/dev/sdd]"}},
        {"sdd's node no longer opens: unavailable, gone",
         [](json& h) { deviceNamed(h, "sdd")["state"] = "gone"; },
         {"unavailable /dev/sdd (gone): 1A2B [/dev/sdd 3:0:1:0] -> - [/dev/sdd]"}},
        {"the one path of mpathb stops answering: the path and the map, each with its state",
         [](json& h) { deviceNamed(h, "sdl")["state"] = "unresponsive"; },
         {"unavailable /dev/mapper/mpathb (no-path): " + acmeOld +
              " [/dev/mapper/mpathb,/dev/sdl 4:0:2:0] -> - [/dev/mapper/mpathb]",
          "unavailable /dev/sdl (unresponsive): " + acmeOld +
              " [/dev/mapper/mpathb,/dev/sdl 4:0:2:0] -> - [/dev/sdl]"}},
        {"the Fujitsu LUN at another address under the same name",
         [](json& h) {
             deviceNamed(h, "sdk")["address"] = json::array({5, 0, 1, 1});
         },
         {"readdressed /dev/sdk: 600000E00D0000000001234500010000 [/dev/sdk 4:0:1:1] -> "
          "600000E00D0000000001234500010000 [/dev/sdk 5:0:1:1]"}},
        {"the Fujitsu LUN came back as sdr",
         [](json& h) { deviceNamed(h, "sdk")["name"] = "sdr"; },
         {"moved UDID##FUJITSU##ETERNUS##4321ABCD##600000E00D0000000001234500010000: "
          "600000E00D0000000001234500010000 [/dev/sdk 4:0:1:1] -> 600000E00D0000000001234500010000 "
          "[/dev/sdr 4:0:1:1]"}},
        {"a LUN was unmapped, another one mapped",
         [](json& h) {
             json& sdm = deviceNamed(h, "sdm");
             sdm["name"] = "sdo";
             sdm["address"] = json::array({3, 0, 0, 2});
             replaceIn(sdm["vpd"]["83"], "5e 59", "5e 58");
             replaceIn(sdm["vpd"]["80"], "34 35 36", "34 35 37");
             json& sdd = deviceNamed(h, "sdd");
             sdd["state"] = "removed";
         },
         {"added UDID##DGC##RAID_5##0083001001030010600601603AB11E004C8F5E58: - [] -> "
          "0083001001030010600601603AB11E004C8F5E58 [/dev/sdo 3:0:0:2]",
          "removed UDID##DGC##RAID_5##0083001001030010600601603AB11E004C8F5E59: "
          "0083001001030010600601603AB11E004C8F5E59 [/dev/sdm 4:0:2:1] -> - []",
          "removed UDID##IBM##TOTALSTORAGE##IBM.2107-7512345##1A2B: 1A2B [/dev/sdd 3:0:1:0] -> - "
          "[]"}},
    };
    ASSERT_EQ(describe(smallHost()).entries.size(), 7u);  // five disks, mpathb, the control node
    for (const Case& c : cases) {
        json before = smallHost();
        c.both(before);
        const SHostMap first = describe(before);
        json after = before;
        c.change(after);
        std::vector<std::string> found;
        for (const Finding& finding : CDeviceMapCompare::compare(first, describe(after))) {
            found.push_back(summary(finding));
        }
        EXPECT_EQ(found, c.findings) << c.what;
    }
}

SMapVolume entry(const std::string& name, const std::string& udid, const std::string& key,
                 bool hostLocal = false)
{
    SMapVolume volume;
    volume.deviceName = name;
    volume.udid = udid;
    volume.volumeKey = key;
    volume.hostLocal = hostLocal;
    return volume;
}

// Each rule of the comparison on both sides of each of its conditions, on maps of one or two
// entries: a name that stops answering, a name or an address under another volume, one volume
// under another UDID, another address, other names, a volume that came or went.
TEST(DeviceMapCompare, EachRuleOnBothSidesOfItsConditions)
{
    auto v = [](const char* name, const char* udid, const char* key, const char* address,
                const char* state = "running") {
        SMapVolume volume = entry(name, udid, key);
        volume.address = address;
        volume.state = state;
        return volume;
    };
    // A host-local UDID, as the default generator makes it on host `H`.
    auto local = [](const char* name, const char* udid) {
        SMapVolume volume = entry(name, udid, "", true);
        volume.address = "0:0:2:0";
        volume.state = "running";
        return volume;
    };
    struct Case {
        const char* what;
        std::vector<SMapVolume> before;
        std::vector<SMapVolume> after;
        std::vector<std::string> findings;
    } cases[] = {
        {"host-local on both sides of a name",
         {local("/dev/sdc", "UDID####/DEV/SDC@H1")},
         {local("/dev/sdc", "UDID####/DEV/SDC@H2")},
         {}},
        {"host-local on both sides of an address",
         {local("/dev/sdc", "UDID####/DEV/SDC@H1")},
         {local("/dev/sdd", "UDID####/DEV/SDD@H2")},
         {"added UDID####/DEV/SDD@H2: - [] -> /DEV/SDD@H2 [/dev/sdd 0:0:2:0]",
          "removed UDID####/DEV/SDC@H1: /DEV/SDC@H1 [/dev/sdc 0:0:2:0] -> - []"}},
        {"host-local before only",
         {local("/dev/sdc", "UDID####/DEV/SDC@H1")},
         {v("/dev/sdc", "UDID##A##1", "naa.1", "0:0:2:0")},
         {"remapped /dev/sdc: /DEV/SDC@H1 [/dev/sdc 0:0:2:0] -> 1 [/dev/sdc 0:0:2:0]"}},
        {"host-local after only",
         {v("/dev/sdc", "UDID##A##1", "naa.1", "0:0:2:0")},
         {local("/dev/sdc", "UDID####/DEV/SDC@H2")},
         {"remapped /dev/sdc: 1 [/dev/sdc 0:0:2:0] -> /DEV/SDC@H2 [/dev/sdc 0:0:2:0]"}},
        {"stops answering",
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:0")},
         {v("/dev/sdc", "", "", "0:0:2:0", "unresponsive")},
         {"unavailable /dev/sdc (unresponsive): 1 [/dev/sdc 0:0:2:0] -> - [/dev/sdc 0:0:2:0]"}},
        {"a map loses its paths",
         {v("/dev/mapper/m", "U##1", "naa.1", "")},
         {v("/dev/mapper/m", "", "", "", "no-path")},
         {"unavailable /dev/mapper/m (no-path): 1 [/dev/mapper/m] -> - [/dev/mapper/m]"}},
        {"one path stops answering and its volume's other path goes: the volume is unavailable",
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:0"), v("/dev/sdd", "U##1", "naa.1", "1:0:2:0")},
         {v("/dev/sdc", "", "", "0:0:2:0", "unresponsive")},
         {"unavailable /dev/sdc (unresponsive): 1 [/dev/sdc,/dev/sdd 0:0:2:0 1:0:2:0] -> - "
          "[/dev/sdc 0:0:2:0]"}},
        {"silent on both sides",
         {v("/dev/sdc", "", "", "0:0:2:0", "gone")},
         {v("/dev/sdc", "", "", "", "gone")},
         {}},
        {"answered without a UDID, then silent",
         {v("/dev/sdc", "", "", "0:0:2:0")},
         {v("/dev/sdc", "", "", "0:0:2:0", "unresponsive")},
         {}},
        {"silent, then answers",
         {v("/dev/sdc", "", "", "", "gone")},
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:0")},
         {"added U##1: - [] -> 1 [/dev/sdc 0:0:2:0]"}},
        {"a name under another volume",
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:0")},
         {v("/dev/sdc", "U##2", "naa.2", "0:0:2:0")},
         {"remapped /dev/sdc: 1 [/dev/sdc 0:0:2:0] -> 2 [/dev/sdc 0:0:2:0]"}},
        {"a name under another UDID, its volume the same",
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:0")},
         {v("/dev/sdc", "U##2", "naa.1", "0:0:2:0")},
         {"identity-changed naa.1: 1 [/dev/sdc 0:0:2:0] -> 2 [/dev/sdc 0:0:2:0]"}},
        {"a name under another UDID, no volume key before",
         {v("/dev/sdc", "U##1", "", "0:0:2:0")},
         {v("/dev/sdc", "U##2", "naa.1", "0:0:2:0")},
         {"remapped /dev/sdc: 1 [/dev/sdc 0:0:2:0] -> 2 [/dev/sdc 0:0:2:0]"}},
        {"a name under another UDID, no volume key on either side",
         {v("/dev/sdc", "U##1", "", "0:0:2:0")},
         {v("/dev/sdc", "U##2", "", "0:0:2:0")},
         {"remapped /dev/sdc: 1 [/dev/sdc 0:0:2:0] -> 2 [/dev/sdc 0:0:2:0]"}},
        {"an address under another volume and name",
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:0")},
         {v("/dev/sdd", "U##2", "naa.2", "0:0:2:0")},
         {"remapped 0:0:2:0: 1 [/dev/sdc 0:0:2:0] -> 2 [/dev/sdd 0:0:2:0]"}},
        {"one remap by name and by address, reported once",
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:0"), v("/dev/sdd", "U##3", "naa.3", "0:0:3:0")},
         {v("/dev/sdc", "U##2", "naa.2", "0:0:2:0"), v("/dev/sdd", "U##3", "naa.3", "0:0:3:0")},
         {"remapped /dev/sdc: 1 [/dev/sdc 0:0:2:0] -> 2 [/dev/sdc 0:0:2:0]"}},
        {"the same name and volume at another address",
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:0")},
         {v("/dev/sdc", "U##1", "naa.1", "1:0:2:0")},
         {"readdressed /dev/sdc: 1 [/dev/sdc 0:0:2:0] -> 1 [/dev/sdc 1:0:2:0]"}},
        {"one path of a two-path volume at another address: that path alone on each side",
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:0"), v("/dev/sdd", "U##1", "naa.1", "1:0:2:0")},
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:1"), v("/dev/sdd", "U##1", "naa.1", "1:0:2:0")},
         {"readdressed /dev/sdc: 1 [/dev/sdc 0:0:2:0] -> 1 [/dev/sdc 0:0:2:1]"}},
        {"an address only on one side",
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:0")},
         {v("/dev/sdc", "U##1", "naa.1", "")},
         {}},
        {"the same volume under other names",
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:0")},
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:0"), v("/dev/sdd", "U##1", "naa.1", "0:0:3:0")},
         {"moved U##1: 1 [/dev/sdc 0:0:2:0] -> 1 [/dev/sdc,/dev/sdd 0:0:2:0 0:0:3:0]"}},
        {"a volume came, another went",
         {v("/dev/sdc", "U##1", "naa.1", "0:0:2:0")},
         {v("/dev/sdd", "U##2", "naa.2", "0:0:3:0")},
         {"added U##2: - [] -> 2 [/dev/sdd 0:0:3:0]",
          "removed U##1: 1 [/dev/sdc 0:0:2:0] -> - []"}},
    };
    for (const Case& c : cases) {
        std::vector<std::string> found;
        for (const Finding& finding :
             CDeviceMapCompare::compare({"h1", c.before, ""}, {"h2", c.after, ""})) {
            found.push_back(summary(finding));
        }
        EXPECT_EQ(found, c.findings) << c.what;
    }
}

// A host-local UDID tells nothing about the volume: two of them on one name are no finding, two
// at one address under two names no remap, but a host-local UDID on one side only is a remap,
// whichever side it is on.
TEST(FleetView, SharedVolumesAndOneVolumeUnderTwoUdids)
{
    const SHostMap hosts[] = {
        {"node1",
         {entry("/dev/mapper/mpatha", "UDID##A", "naa.1"), entry("/dev/sdb", "UDID##A", "naa.1"),
          entry("/dev/sdc", "UDID##C", "naa.3"),
          entry("/dev/sdd", "UDID####/DEV/SDD@NODE1", "", true), entry("/dev/sde", "", "naa.5"),
          entry("/dev/sdf", "UDID##ONLY1", "naa.6")},
         "m1"},
        {"node2",
         {entry("/dev/sdx", "UDID##A", "naa.1"), entry("/dev/sdc", "UDID##C-NEW", "naa.3"),
          entry("/dev/sdd", "UDID####/DEV/SDD@NODE1", "", true), entry("/dev/sde", "", "naa.5")},
         "m2"},
        // A second capture of node1 shares nothing with the first.
        {"node1", {entry("/dev/sdf", "UDID##ONLY1", "naa.6")}, "m1"},
    };
    CFleetView fleet;
    for (const SHostMap& host : hosts) {
        fleet.addHost(host);
    }
    EXPECT_EQ(fleet.hosts(), 3u);
    std::vector<std::string> shared;
    fleet.visitShared([&](const CFleetView::SharedVolume& volume) {
        std::string line = volume.udid;
        for (const CFleetView::Sighting& sighting : volume.sightings) {
            line += " " + sighting.host + "(" + sighting.machineId + ")=";
            for (const std::string& name : sighting.deviceNames) {
                line += name + ";";
            }
        }
        shared.push_back(line);
    });
    EXPECT_EQ(shared, (std::vector<std::string>{
                          "UDID##A node1(m1)=/dev/mapper/mpatha;/dev/sdb; node2(m2)=/dev/sdx;"}));
    const std::vector<CFleetView::Conflict> conflicts = fleet.conflicts();
    ASSERT_EQ(conflicts.size(), 1u);
    EXPECT_EQ(conflicts[0].volumeKey, "naa.3");
    EXPECT_EQ(conflicts[0].hostsByUdid, (std::map<std::string, std::vector<std::string>>{
                                            {"UDID##C", {"node1"}}, {"UDID##C-NEW", {"node2"}}}));
}

// Captures of one host name in a row are one host only while the machine id agrees; a volume
// one host knows under two UDIDs names that host once per UDID.
TEST(FleetView, HostNamesKeptPerMachineAndHostsNamedOncePerUdid)
{
    const SHostMap hosts[] = {
        {"node1", {entry("/dev/sdb", "UDID##A", "naa.1")}, "m1"},
        {"node1", {entry("/dev/sdc", "UDID##A", "naa.1")}, "m9"},
        {"node1",
         {entry("/dev/sdd", "UDID##A", "naa.1"), entry("/dev/sde", "UDID##B", "naa.1")},
         "m9"},
        {"node2", {entry("/dev/sdx", "UDID##A", "naa.1")}, "m2"},
    };
    CFleetView fleet;
    for (const SHostMap& host : hosts) {
        fleet.addHost(host);
    }
    std::vector<std::string> shared;
    fleet.visitShared([&](const CFleetView::SharedVolume& volume) {
        std::string line = volume.udid;
        for (const CFleetView::Sighting& sighting : volume.sightings) {
            line += " " + sighting.host + "(" + sighting.machineId + ")";
        }
        shared.push_back(line);
    });
    EXPECT_EQ(shared, std::vector<std::string>{"UDID##A node1(m1) node1(m9) node1(m9) node2(m2)"});
    const std::vector<CFleetView::Conflict> conflicts = fleet.conflicts();
    ASSERT_EQ(conflicts.size(), 1u);
    EXPECT_EQ(conflicts[0].hostsByUdid,
              (std::map<std::string, std::vector<std::string>>{{"UDID##A", {"node1", "node2"}},
                                                               {"UDID##B", {"node1"}}}));
}

// The fleet queries each disk on its own instead of enumerating: the same entries as the map
// for every disk of every example host, pseudo-devices left out.
TEST(DeviceMapCompare, DisksQueriedOneByOneGiveTheMapsEntries)
{
    for (const char* name : {"datacenter", "host24", "modern", "dbhost02"}) {
        std::string error;
        std::unique_ptr<simhost::SimHost> host =
            simhost::SimHost::fromFile(kExamples + name + ".json", error);
        ASSERT_TRUE(host) << error;
        std::vector<std::string> disks;
        for (const simhost::SimDevice& device : host->devices()) {
            disks.push_back(device.name);  // latent and removed ones too: they have no node
        }
        simhost::SimHostInstall install(*host);
        CUDIDFactory factory;
        const SHostMap whole = CDeviceMapCompare::describeHost(factory);
        const SHostMap queried = CDeviceMapCompare::describeDisks(factory, disks);
        EXPECT_EQ(queried.hostName, whole.hostName) << name;
        size_t matched = 0;
        for (const SMapVolume& volume : queried.entries) {
            auto same = std::find_if(
                whole.entries.begin(), whole.entries.end(),
                [&](const SMapVolume& v) { return v.deviceName == volume.deviceName; });
            ASSERT_NE(same, whole.entries.end()) << name << " " << volume.deviceName;
            ++matched;
            EXPECT_EQ(volume.udid, same->udid) << name << " " << volume.deviceName;
            EXPECT_EQ(volume.address, same->address) << name << " " << volume.deviceName;
            EXPECT_EQ(volume.volumeKey, same->volumeKey) << name << " " << volume.deviceName;
            EXPECT_EQ(volume.hostLocal, same->hostLocal) << name << " " << volume.deviceName;
        }
        size_t disksInMap = 0;
        for (const SMapVolume& volume : whole.entries) {
            // Nodes that do not open are described without being in the map.
            disksInMap += volume.deviceName.compare(0, 7, "/dev/sd") == 0 && volume.openError == 0;
        }
        EXPECT_EQ(matched, disksInMap) << name;
    }
}

// A snapshot's capture record: its text and its strings, as loaded, as set, and after a rescan of
// the whole snapshot back through toJson.
TEST(FleetReplay, TheCaptureRecordGivesItsTextAndStrings)
{
    json host = smallHost();
    host["capture"] = {{"capture_id", "c-1"}, {"machine_id", 42}, {"time", "2026-01-01T00:00:00Z"}};
    std::string error;
    std::unique_ptr<simhost::SimHost> loaded = simhost::SimHost::fromJson(host.dump(), error);
    ASSERT_TRUE(loaded) << error;
    std::unique_ptr<simhost::SimHost> set = simhost::SimHost::fromJson(smallHost().dump(), error);
    ASSERT_TRUE(set) << error;
    set->setCapture(R"({"capture_id":"c-2","machine_id":["x"]})");
    host.erase("capture");
    std::unique_ptr<simhost::SimHost> none = simhost::SimHost::fromJson(host.dump(), error);
    ASSERT_TRUE(none) << error;
    const struct {
        const simhost::SimHost& host;
        std::string text, captureId, machineId, time;
    } cases[] = {
        {*loaded, R"({"capture_id":"c-1","machine_id":42,"time":"2026-01-01T00:00:00Z"})", "c-1",
         "", "2026-01-01T00:00:00Z"},
        {*set, R"({"capture_id":"c-2","machine_id":["x"]})", "c-2", "", ""},
        {*none, "", "", "", ""},
    };
    for (const auto& c : cases) {
        // The strings before the text is made, then after: the same.
        for (int pass = 0; pass < 2; ++pass) {
            EXPECT_EQ(c.host.captureString("capture_id"), c.captureId) << c.text;
            EXPECT_EQ(c.host.captureString("machine_id"), c.machineId) << c.text;
            EXPECT_EQ(c.host.captureString("time"), c.time) << c.text;
            EXPECT_EQ(c.host.captureString("missing"), "") << c.text;
            EXPECT_EQ(c.host.capture(), c.text);
        }
        const json again = json::parse(c.host.toJson());
        EXPECT_EQ(again.contains("capture") ? again["capture"].dump() : "", c.text);
    }
}

// A capture record written by hand: of a repeated key the last one counts, for its strings and
// its text alike, whether the snapshot is read as it stands or, after a byte-order mark, through
// the lenient reading.
TEST(FleetReplay, ARepeatedKeyOfTheCaptureRecordIsItsLastOne)
{
    std::string text = smallHost().dump();
    text.pop_back();  // the closing brace
    text += R"(,"capture":{"capture_id":"a","machine_id":"m","capture_id":"b","machine_id":7}})";
    for (const std::string& snapshot : {text, "\xEF\xBB\xBF" + text}) {
        std::string error;
        std::unique_ptr<simhost::SimHost> host = simhost::SimHost::fromJson(snapshot, error);
        ASSERT_TRUE(host) << error;
        EXPECT_EQ(host->captureString("capture_id"), "b");
        EXPECT_EQ(host->captureString("machine_id"), "");
        EXPECT_EQ(host->capture(), R"({"capture_id":"b","machine_id":7})");
    }
}

}  // namespace

// The one rule that map, show, diff and fleet share: a host-local UDID is the default
// generator's "<node>@<host>" body, upper-cased, behind a whole prefix.
TEST(HostLocalUdid, OnlyTheDefaultGeneratorsNodeAtHostBody)
{
    struct Case {
        const char* udid;
        const char* node;
        const char* host;
        bool hostLocal;
    };
    // clang-format off
    const Case cases[] = {
        {"UDID##ACME##DISK##/DEV/SDC@TESTHOST", "/dev/sdc", "testhost", true},
        {"UDID##ACME##DISK##/DEV/SDC@UNKNOWN", "/dev/sdc", "", true},
        {"UDID##ACME##DISK##/DEV/SDC@UNKNOWN", "/dev/sdc", "testhost", false},
        {"UDID##ACME##DISK##/DEV/SDC@TESTHOST", "/dev/sdd", "testhost", false},
        {"UDID##ACME##DISK##X/DEV/SDC@TESTHOST", "/dev/sdc", "testhost", false},
        {"OVERRIDE##/DEV/SDC@TESTHOST", "/dev/sdc", "testhost", false},
        {"UDID####/DEV/SDC@TESTHOST", "/dev/sdc", "testhost", true},
        {"UDID##/DEV/SDC@TESTHOST", "/dev/sdc", "testhost", false},
        {"", "/dev/sdc", "testhost", false},
    };
    // clang-format on
    for (const Case& c : cases) {
        EXPECT_EQ(isHostLocalUdid(c.udid, c.node, c.host), c.hostLocal) << c.udid << " " << c.host;
    }
}

// Every pseudo-device kind by its node, and the nodes that only look like one.
TEST(PseudoDevices, KindOfEachNode)
{
    using namespace pseudo_device;
    const std::pair<const char*, EKind> cases[] = {
        {"/dev/mapper/control", kMapperControl},
        {"/dev/mapper/mpatha", kMapper},
        {"/dev/mapper/", kMapper},
        {"/dev/emcpowera", kPowerPath},
        {"/dev/sdc", kNative},
        {"/dev/mapperx/a", kNative},
        {"emcpowera", kNative},
        {"/dev/dm-0", kNative},
        {"/dev/mapper/control2", kMapper},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(kindOf(c.first), c.second) << c.first;
        EXPECT_EQ(isPseudo(c.first), c.second != kNative) << c.first;
    }
}
