// Faults on the host: devices that vanish mid-query, stop answering, or fail every ioctl;
// commands that hang; garbage configuration; kernel files with overlong lines. Whatever one
// device does, every other device keeps its record, its map entry and its UDID.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
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
#include "simhost.h"
#include "simhost_state.h"
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

// A simulated host whose named nodes misbehave on request: a node vanishes (turns Gone) at its
// n-th ioctl, or fails every ioctl of the listed kinds while still opening.
class FaultyHost : public simhost::SimHost {
public:
    int open(const char* path, int flags) override
    {
        if (path == vanishing && ++m_opens == vanishAtOpen) {
            findDevice(vanishing.substr(5))->state = DeviceState::Gone;
        }
        int fd = SimHost::open(path, flags);
        if (fd >= 0) {
            m_nodes[fd] = path;
        }
        return fd;
    }
    int ioctl(int fd, unsigned long request, void* arg) override
    {
        const std::string node = m_nodes.count(fd) ? m_nodes[fd] : "";
        if (node == vanishing && ++m_ioctls == vanishAt) {
            findDevice(node.substr(5))->state = DeviceState::Gone;
        }
        if (node == failing && (failRequest == 0 || failRequest == request)) {
            errno = EIO;
            return -1;
        }
        return SimHost::ioctl(fd, request, arg);
    }
    // Hands `output` back with the code of a command killed at its limit.
    int exec(const std::string& command, std::vector<std::string>& output, unsigned long limit,
             int& sysErrno) override
    {
        if (command == hanging) {
            SimHost::exec(command, output, limit, sysErrno);
            output.push_back("partial line");
            sysErrno = 0;
            return kzfi_pdk_4_4::FI_EXEC_TIMED_OUT;
        }
        return SimHost::exec(command, output, limit, sysErrno);
    }
    // Files whose text wins over the host's own (the kernel's generated files included).
    FILE* fopen(const char* path, const char* mode) override
    {
        auto found = texts.find(path);
        if (found != texts.end() && mode[0] == 'r') {
            return simhost::openTextStream(found->second);
        }
        return SimHost::fopen(path, mode);
    }

    std::string vanishing;  // "/dev/sdX"
    int vanishAt = 0;       // at its n-th ioctl
    int vanishAtOpen = 0;   // at its n-th open
    std::string failing;
    unsigned long failRequest = 0;  // 0: every request
    std::string hanging;
    std::map<std::string, std::string> texts;

private:
    std::map<int, std::string> m_nodes;
    int m_ioctls = 0;
    int m_opens = 0;
};

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
    FaultyHost healthyHost;
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
        FaultyHost host;
        for (int i = 0; i < 3; ++i) {
            host.addDevice(disk(i));
        }
        host.vanishing = "/dev/sdb";
        host.vanishAt = c.vanishAt;
        host.vanishAtOpen = c.vanishAtOpen;
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
    FaultyHost healthyHost;
    FaultyHost host;
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
        unsigned long request;
        std::vector<std::string> warnings;
    } cases[] = {
        {0,
         {"WARNING: UpdateStdInquiryString invalid SCSI inq page size, device may have been "
          "removed.",
          "WARNING: CScsiToolBase::UpdateDevice() call to UpdateStdInquiryString for device "
          "/dev/sdb"}},
        {SCSITOOL_IOCTL_GET_IDLUN, {"UpdateDevice: Exception Occurred"}},
    };
    for (const Case& c : cases) {
        FaultyHost host;
        host.addDevice(disk(0));
        simhost::SimDevice filer = disk(1);
        filer.hasVendorCommand = true;
        filer.vendorCommand = PageBuilder(300).byte(8, 0x22).text(36, "FILER");
        host.addDevice(filer);
        host.failing = "/dev/sdb";
        host.failRequest = c.request;
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
        EXPECT_EQ(netapp.getEnclosureID(&sdb), c.request == 0 ? "" : "FILER");
    }
}

// A device whose INQUIRY answer is empty, or shorter than the 5-byte header: the answer's
// length byte is read from the zeroed buffer, never from beyond what came back.
TEST(Faults, EmptyOrTruncatedInquiryAnswers)
{
    for (size_t length : {0, 1, 4, 31}) {
        simhost::SimHost host;
        simhost::SimDevice d = disk(0);
        d.inquiry.resize(length);
        if (length > 4) {
            d.inquiry[4] = static_cast<uint8_t>(length - 5);  // the answer tells its true size
        }
        host.addDevice(d);
        simhost::SimHostInstall installed(host);
        TraceCapture trace(2);
        CScsiTool tool;
        tool.registerTraceLog(trace.log());
        CScsiDeviceData record("/dev/sda", "", "h", 0, 0, 0, -1, "", "", "", 0);
        EXPECT_EQ(tool.UpdateDevice(&record), 6) << length;
        EXPECT_TRUE(trace.has(2,
                              "WARNING: UpdateStdInquiryString invalid SCSI inq page size, device "
                              "may have been removed."))
            << length;
    }
}

TEST(Faults, HangingCommandIsKilledAtItsLimit)
{
    // The real pipe: a command that outlives its limit is killed with its process group.
    kzfi_pdk_4_4::CFiExecPipePosix pipe(1);
    std::vector<std::string> output;
    auto start = std::chrono::steady_clock::now();
    int result = pipe.Exec("echo started; sleep 30", output, "", 1, "", "", "");
    auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_EQ(result, kzfi_pdk_4_4::FI_EXEC_TIMED_OUT);
    EXPECT_LT(seconds, 5.0);
    EXPECT_EQ(output, std::vector<std::string>{"started"});

    // On a simulated host: the QLogic listing hangs, so the port names come from sysfs.
    FaultyHost host;
    simhost::SimAdapter adapter;
    adapter.host = 3;
    adapter.driver = "qla2xxx";
    adapter.procText = "scsi-qla0-adapter-port=21000024ff2c3d4e;\n";
    adapter.fcHost = true;
    adapter.portName = "0x21000024ff2c3d4e";
    host.addAdapter(adapter);
    host.hanging = "/bin/ls /proc/scsi/qla2xxx/";
    simhost::SimHostInstall installed(host);
    TraceCapture trace(1);
    WWPN wwpn;
    wwpn.registerTraceLog(trace.log());
    EXPECT_EQ(wwpn.getWWPN(), std::vector<std::string>{"0x21000024ff2c3d4e"});
    EXPECT_TRUE(trace.has(1, "Error: command /bin/ls /proc/scsi/qla2xxx/ failed.\n"));
}

TEST(Faults, GarbageConfigurationKeepsTheDefaults)
{
    const std::string path = "/tmp/test_faults." + std::to_string(getpid()) + ".ini";
    struct Case {
        std::string text;
        unsigned int delay;
        unsigned int attempts;
    } cases[] = {
        {std::string("\x00\xff\x13[\n\x80\x81=\x00", 10), 3, 8},
        {"[TUNING_PARAMS\nOPEN_DEVICE_RETRY_ATTEMPTS=5\n", 3, 8},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=abc\nOPEN_DEVICE_RETRY_DELAY_IN_SEC=-1\n", 3,
         8},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=99999999999\n", 3, 8},
        {"[TUNING_PARAMS]\n" + std::string(100000, '=') + "\n", 3, 8},
        {"=\n[[[]]]\n[]\n=x\n", 3, 8},
        {"", 3, 8},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=12\n", 3, 12},  // the file is read at all
        // A zero byte, a nameless value or a line over 4094 characters anywhere makes the whole
        // file no configuration.
        {std::string("[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=12\n\0\n", 47), 3, 8},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=12\n \t=5\n", 3, 8},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=12\n;" + std::string(4094, 'x') + "\n", 3, 8},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=12\n;" + std::string(4093, 'x') + "\n", 3,
         12},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=12\nOPEN_DEVICE_RETRY_DELAY_IN_SEC=\n", 3,
         12},
    };
    for (const Case& c : cases) {
        FILE* file = fopen(path.c_str(), "w");
        ASSERT_NE(file, nullptr);
        fwrite(c.text.data(), 1, c.text.size(), file);
        fclose(file);
        kzfi_pdk_4_4::CFiConfigurationPathTool::setConfigFile(path);
        CScsiTuningParams params{3, 8};
        EXPECT_EQ(CScsiConfiguration::importTuningSettings(params), 0);
        EXPECT_EQ(params.m_openDeviceRetryDelay, c.delay) << c.text.substr(0, 40);
        EXPECT_EQ(params.m_openDeviceRetryAttempts, c.attempts) << c.text.substr(0, 40);
    }
    for (const std::string& missing : {std::string("/tmp"), path + ".none"}) {
        kzfi_pdk_4_4::CFiConfigurationPathTool::setConfigFile(missing);
        CScsiTuningParams params{3, 8};
        EXPECT_EQ(CScsiConfiguration::importTuningSettings(params), 0);
        EXPECT_EQ(params.m_openDeviceRetryAttempts, 8u);
    }
    kzfi_pdk_4_4::CFiConfigurationPathTool::setConfigFile("");
    unlink(path.c_str());
}

// Lines over 254 characters come back in pieces from the 255-byte reads. A long vendor line
// pushes sdb's type line out of place, so the disk-only list drops it; the address lines around
// it still count.
TEST(Faults, ProcLinesOverTheLineLimitAreSplitNotOverrun)
{
    FaultyHost host;
    const std::string longVendor = "  Vendor: " + std::string(300, 'V') + "\n";
    host.texts["/proc/scsi/scsi"] =
        "Attached devices:\n"
        "Host: scsi0 Channel: 00 Id: 00 Lun: 00\n  Vendor: A\n  Type:   Direct-Access\n"
        "Host: scsi0 Channel: 00 Id: 01 Lun: 00\n" +
        longVendor +
        "  Type:   Direct-Access\n"
        "Host: scsi0 Channel: 00 Id: 02 Lun: 00\n  Vendor: C\n  Type:   Direct-Access" +
        std::string(300, ' ') + "\n";
    host.texts["/proc/partitions"] = "major minor  #blocks  name\n\n   8  0  1000 sda\n" +
                                     std::string(250, ' ') + "8 16 1000 sdb1 8 32 1000 sdc\n" +
                                     "   8  48  1000 sddverylongname\n";
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

// A snapshot rejected inside a device leaves nothing behind (the sanitizer and memcheck runs
// watch for leaks); each names its field.
TEST(Faults, SnapshotRejectedInsideADeviceLeaksNothing)
{
    const std::string head = R"({"format": 1, "hostname": "h", "kernel_release": "2.6.18",
        "proc_scsi": true, "devices": [{"name": "sda", "address": [0, 0, 0, 0],
        "inquiry": "00 00 05 02", "vpd": {"83": "00 83 00 00"}, "partitions": ["sda1"], )";
    const std::pair<std::string, std::string> cases[] = {
        {R"("vdp": {}}]})", "devices[0].vdp: unknown field"},
        {R"("state": "dead"}]})",
         "devices[0].state: unknown state \"dead\" (expected running, latent, unresponsive, gone "
         "or removed)"},
        {R"("blocks": -1}]})", "devices[0].blocks: expected an integer from 0 to 1125899906842624"},
    };
    for (const auto& c : cases) {
        std::string error;
        EXPECT_EQ(simhost::SimHost::fromJson(head + c.first, error), nullptr);
        EXPECT_EQ(error, c.second);
    }
}
