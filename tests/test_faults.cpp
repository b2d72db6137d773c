// Faults on the host: devices that vanish mid-query, stop answering, or fail every ioctl;
// commands that hang; garbage configuration; kernel files with overlong lines. Whatever one
// device does, every other device keeps its record, its map entry and its UDID.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "WWPN_discovery.h"
#include "device_udid_factory.h"
#include "fi_configuration.h"
#include "fi_execpipe.h"
#include "page_builders.h"
#include "scsitool.h"
#include "sim_disks.h"
#include "temp_dir.h"
#include "trace_capture.h"

namespace {

using simhost::DeviceState;

// "sda" ... "sdz", "sdaa" ...: the kernel's names of the first disks.
std::string diskName(int index)
{
    std::string suffix;
    for (int i = index + 1; i > 0; i = (i - 1) / 26) {
        suffix.insert(suffix.begin(), char('a' + (i - 1) % 26));
    }
    return "sd" + suffix;
}

// A running disk at 0:0:index:0 that answers INQUIRY, pages 0x00 and 0x83 (a NAA designator
// unique to `index`), so the default generator gives it its own UDID.
simhost::SimDevice disk(int index)
{
    char naa[17];
    snprintf(naa, sizeof naa, "600a0b80%08x", static_cast<unsigned int>(index));
    simhost::SimDevice d;
    d.name = diskName(index);
    d.id = index;
    d.inquiry = inquiryPage("ACME", "DISK", 36);
    d.vpd[0x00] = hexBytes("00 00 00 02 00 83");
    d.vpd[0x83] = naaPage83(naa);
    return d;
}

DeviceMap enumerate(simhost::SimHost& host, TraceCapture* trace = nullptr)
{
    simhost::SimHostInstall installed(host);
    CUDIDFactory factory;
    if (trace) {
        factory.registerTraceLog(trace->log());
    }
    return factory.enumerateDeviceMap(false, false, false);
}

// Every entry of `healthy` but `except` is in `faulty`, unchanged.
void expectOthersKept(const DeviceMap& healthy, const DeviceMap& faulty, const std::string& except)
{
    for (const auto& entry : healthy) {
        if (entry.first == except) {
            continue;
        }
        auto found = faulty.find(entry.first);
        ASSERT_NE(found, faulty.end()) << entry.first << " lost to a fault of " << except;
        EXPECT_EQ(found->second.Uid, entry.second.Uid) << entry.first;
        EXPECT_EQ(found->second.dmpClaimLevel, 2) << entry.first;
    }
}

}  // namespace

// sdb vanishes at its n-th ioctl: during the INQUIRY, the address query, the page list, a page.
// A device whose query failed keeps its map entry: before its identity strings were read (INQUIRY
// or address failed) with empty vendor and product, and either way with the host-local body.
// sda and sdc never notice.
TEST(Faults, DeviceVanishingBetweenEnumerationAndQueryCostsOnlyItself)
{
    simhost::SimHost healthyHost;
    for (int i = 0; i < 3; ++i) {
        healthyHost.addDevice(disk(i));
    }
    const DeviceMap healthy = enumerate(healthyHost);
    ASSERT_EQ(healthy.size(), 3u);
    ASSERT_EQ(healthy.at("/dev/sdb").Uid.compare(0, 20, "UDID##ACME##DISK##00"), 0);

    struct Case {
        int vanishAt;
        int vanishAtOpen;
        std::string sdbUid;  // "": the healthy UDID
        std::string warning;
    } cases[] = {
        // Enumeration opened it; the query's own open fails.
        {0, 2, "UDID######/DEV/SDB@SIMHOST", "GetModePageInfo: Exception Ocurred"},
        {1, 0, "UDID######/DEV/SDB@SIMHOST",
         "WARNING: UpdateStdInquiryString invalid SCSI inq page size, device may have been "
         "removed."},
        {2, 0, "UDID######/DEV/SDB@SIMHOST", "UpdateDevice: Exception Occurred"},
        {3, 0, "UDID##ACME##DISK##/DEV/SDB@SIMHOST", ""},  // no page list: no page is read
        {4, 0, "UDID##ACME##DISK##/DEV/SDB@SIMHOST", ""},  // the list, but page 0x83 fails
        {5, 0, "", ""},                                    // every query was done
    };
    for (const Case& c : cases) {
        simhost::SimHost host;
        for (int i = 0; i < 3; ++i) {
            host.addDevice(disk(i));
        }
        host.findDevice("sdb")->vanishAtIoctl = c.vanishAt;
        host.findDevice("sdb")->vanishAtOpen = c.vanishAtOpen;
        TraceCapture trace;
        const DeviceMap map = enumerate(host, &trace);
        SCOPED_TRACE(c.vanishAt * 10 + c.vanishAtOpen);
        EXPECT_EQ(map.size(), 3u);
        expectOthersKept(healthy, map, "/dev/sdb");
        ASSERT_EQ(map.count("/dev/sdb"), 1u);
        EXPECT_EQ(map.at("/dev/sdb").Uid, c.sdbUid.empty() ? healthy.at("/dev/sdb").Uid : c.sdbUid);
        if (!c.warning.empty()) {
            EXPECT_TRUE(trace.has(2, c.warning));
        }
    }
}

TEST(Faults, UnresponsiveDeviceInTheMiddleOfTwoHundred)
{
    simhost::SimHost healthyHost;
    simhost::SimHost host;
    for (int i = 0; i < 200; ++i) {
        healthyHost.addDevice(disk(i));
        simhost::SimDevice d = disk(i);
        if (i == 100) {
            d.state = DeviceState::Unresponsive;
        }
        host.addDevice(d);
    }
    const DeviceMap healthy = enumerate(healthyHost);
    ASSERT_EQ(healthy.size(), 200u);
    TraceCapture trace(3);
    const DeviceMap map = enumerate(host, &trace);
    const std::string middle = "/dev/" + diskName(100);
    EXPECT_EQ(middle, "/dev/sdcw");
    EXPECT_EQ(map.size(), 200u);
    expectOthersKept(healthy, map, middle);
    EXPECT_EQ(map.at(middle).Uid, "UDID######/DEV/SDCW@SIMHOST");
    EXPECT_TRUE(trace.has(3,
                          "libscsitool: Info: CDeviceDiscoveryBase::rescan FAILED - Remove "
                          "disk /dev/sdcw."));
    // Each healthy disk got a UDID of its own.
    std::set<std::string> udids;
    for (const auto& entry : map) {
        udids.insert(entry.second.Uid);
    }
    EXPECT_EQ(udids.size(), 200u);
}

// A node that opens and fails every ioctl (or only one kind): the query reports it, the NetApp
// identity command gives no enclosure, and the neighbour is untouched.
TEST(Faults, NodeThatOpensButFailsItsIoctls)
{
    struct Case {
        std::vector<std::string> failing;
        std::vector<std::string> warnings;
    } cases[] = {
        {{"SEND_COMMAND", "GET_IDLUN", "SG_IO"},
         {"WARNING: UpdateStdInquiryString invalid SCSI inq page size, device may have been "
          "removed.",
          "WARNING: CScsiToolBase::UpdateDevice() call to UpdateStdInquiryString for device "
          "/dev/sdb"}},
        {{"GET_IDLUN"}, {"UpdateDevice: Exception Occurred"}},
    };
    for (const Case& c : cases) {
        simhost::SimHost host;
        host.addDevice(disk(0));
        simhost::SimDevice filer = disk(1);
        filer.hasVendorCommand = true;
        filer.vendorCommand = PageBuilder(300).byte(8, 0x22).text(36, "FILER");
        filer.failingIoctls = c.failing;
        host.addDevice(filer);
        simhost::SimHostInstall installed(host);
        TraceCapture trace(2);
        CScsiTool tool;
        tool.registerTraceLog(trace.log());
        CScsiDeviceData sdb("/dev/sdb", "", "h", 0, 0, 0, -1, "", "", "", 0);
        EXPECT_EQ(tool.UpdateDevice(&sdb), 6);
        EXPECT_EQ(trace.at(2), c.warnings);
        EXPECT_EQ(sdb.m_port, -1);
        CScsiDeviceData sda("/dev/sda", "", "h", 0, 0, 0, -1, "", "", "", 0);
        EXPECT_EQ(tool.UpdateDevice(&sda), 0);
        EXPECT_EQ(sda.m_pageCache.count(0x83), 1u);
        CNetAppUdidGenerator netapp("NETAPP", "LUN");
        EXPECT_EQ(netapp.getEnclosureID(&sdb), c.failing.size() > 1 ? "" : "FILER");
    }
}

// The QLogic listing hangs and is killed at its limit (the pipe itself is tested with a real
// command in the framework tests), so the port names come from sysfs.
TEST(Faults, HangingCommandIsKilledAtItsLimit)
{
    simhost::SimHost host;
    host.addAdapter(
        {3, "qla2xxx", "scsi-qla0-adapter-port=21000024ff2c3d4e;\n", true, "0x21000024ff2c3d4e"});
    host.scriptCommand("/bin/ls /proc/scsi/qla2xxx/",
                       {kzfi_pdk_4_4::FI_EXEC_TIMED_OUT, {"3", "partial line"}});
    simhost::SimHostInstall installed(host);
    TraceCapture trace(1);
    WWPN wwpn;
    wwpn.registerTraceLog(trace.log());
    EXPECT_EQ(wwpn.getWWPN(), std::vector<std::string>{"0x21000024ff2c3d4e"});
    EXPECT_TRUE(trace.has(1, "Error: command /bin/ls /proc/scsi/qla2xxx/ failed.\n"));
}

// Only the keys that are present and readable are imported; anything else keeps the defaults.
TEST(Faults, GarbageConfigurationKeepsTheDefaults)
{
    TempDir dir;
    const std::string path = dir.file("devicefi.ini");
    const std::string attempts12 = "[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=12\n";
    struct Case {
        std::string text;
        unsigned int delay;
        unsigned int attempts;
    } cases[] = {
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=5\nOPEN_DEVICE_RETRY_DELAY_IN_SEC=1\n", 1, 5},
        {attempts12, 3, 12},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_DELAY_IN_SEC=4000000000\n", 4000000000u,
         8},  // no bounds
        {"[OTHER]\nOPEN_DEVICE_RETRY_ATTEMPTS=12\n", 3, 8},
        {std::string("\x00\xff\x13[\n\x80\x81=\x00", 10), 3, 8},
        {"[TUNING_PARAMS\nOPEN_DEVICE_RETRY_ATTEMPTS=5\n", 3, 8},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=abc\nOPEN_DEVICE_RETRY_DELAY_IN_SEC=-1\n", 3,
         8},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=99999999999\n", 3, 8},
        {"[TUNING_PARAMS]\n" + std::string(100000, '=') + "\n", 3, 8},
        {"=\n[[[]]]\n[]\n=x\n", 3, 8},
        {"\x01\x02 this is = not [ an ini\n]]]\n", 3, 8},
        {"", 3, 8},
        // A zero byte, a nameless value or a line over 4094 characters anywhere makes the whole
        // file no configuration.
        {attempts12 + std::string(1, '\0'), 3, 8},
        {attempts12 + " \t=5\n", 3, 8},
        {attempts12 + ";" + std::string(4094, 'x') + "\n", 3, 8},
        {attempts12 + ";" + std::string(4093, 'x') + "\n", 3, 12},
        {attempts12 + "OPEN_DEVICE_RETRY_DELAY_IN_SEC=\n", 3, 12},
    };
    for (const Case& c : cases) {
        writeFile(path, c.text);
        kzfi_pdk_4_4::CFiConfigurationPathTool::setConfigFile(path);
        CScsiTuningParams params{3, 8};
        EXPECT_EQ(CScsiConfiguration::importTuningSettings(params), 0);
        EXPECT_EQ(params.m_openDeviceRetryDelay, c.delay) << c.text.substr(0, 40);
        EXPECT_EQ(params.m_openDeviceRetryAttempts, c.attempts) << c.text.substr(0, 40);
    }
    for (const std::string& missing : {dir.path(), path + ".none"}) {
        kzfi_pdk_4_4::CFiConfigurationPathTool::setConfigFile(missing);
        CScsiTuningParams params{3, 8};
        EXPECT_EQ(CScsiConfiguration::importTuningSettings(params), 0);
        EXPECT_EQ(params.m_openDeviceRetryAttempts, 8u);
    }
    kzfi_pdk_4_4::CFiConfigurationPathTool::setConfigFile("");
}

// Lines over 254 characters come back in pieces from the 255-byte reads. A long vendor line
// pushes sdb's type line out of place, so the disk-only list drops it; the address lines around
// it still count.
TEST(Faults, ProcLinesOverTheLineLimitAreSplitNotOverrun)
{
    simhost::SimHost host;
    const std::string longVendor = "  Vendor: " + std::string(300, 'V') + "\n";
    host.setKernelFile(
        "/proc/scsi/scsi",
        "Attached devices:\n"
        "Host: scsi0 Channel: 00 Id: 00 Lun: 00\n  Vendor: A\n  Type:   Direct-Access\n"
        "Host: scsi0 Channel: 00 Id: 01 Lun: 00\n" +
            longVendor +
            "  Type:   Direct-Access\n"
            "Host: scsi0 Channel: 00 Id: 02 Lun: 00\n  Vendor: C\n  Type:   Direct-Access" +
            std::string(300, ' ') + "\n");
    host.setKernelFile("/proc/partitions",
                       "major minor  #blocks  name\n\n   8  0  1000 sda\n" + std::string(250, ' ') +
                           "8 16 1000 sdb1 8 32 1000 sdc\n" + "   8  48  1000 sddverylongname\n");
    simhost::SimHostInstall installed(host);
    CLinuxDeviceDiscovery discovery;
    std::vector<std::pair<int, int>> ids;
    for (const SLinuxScsiDevice& d : discovery.getDeviceList(true)) {
        ids.push_back({d.id, d.lun});
    }
    EXPECT_EQ(ids, (std::vector<std::pair<int, int>>{{0, 0}, {2, 0}}));
    EXPECT_EQ(discovery.getDeviceList(false).size(), 3u);
    EXPECT_EQ(discovery.getDeviceCount(), 3);
    EXPECT_EQ(discovery.enumerateNativeDevicePaths(),
              (std::vector<std::string>{"/dev/sda", "/dev/sddveryl"}));
}
