// Bus rescanning, dead-device removal and the stale multipath flush on the simulated host: the
// control files written, in order, the pauses asked for, the commands run and their messages.
#include <gtest/gtest.h>

#include "device_discovery.h"
#include "sim_disks.h"
#include "trace_capture.h"

using simhost::DeviceState;
using Lines = std::vector<std::string>;

namespace {

struct Rescan : ::testing::Test {
    simhost::SimHost host;
    simhost::SimHostInstall install{host};
    TraceCapture trace;
    CLinuxDeviceDiscovery discovery;
    Rescan() { discovery.registerTraceLog(trace.log()); }
    bool has(const std::string& message)
    {
        return trace.has(1, message) || trace.has(2, message) || trace.has(3, message) ||
               trace.has(4, message);
    }
};

// "scsi add-single-device 0 c t l\n" for each LUN of each {channel, id, first, last}.
Lines probes(const std::vector<std::vector<int>>& ranges)
{
    Lines lines;
    for (const std::vector<int>& r : ranges) {
        for (int lun = r[2]; lun <= r[3]; ++lun) {
            char line[64];
            snprintf(line, sizeof line, "scsi add-single-device 0 %d %d %d\n", r[0], r[1], lun);
            lines.push_back(line);
        }
    }
    return lines;
}

}  // namespace

TEST_F(Rescan, KernelReleasePicksTheScan)
{
    struct Case {
        const char* release;
        const char* family;  // "" for an unknown family
        size_t qlogicScans;
        std::vector<unsigned int> sleeps;
    };
    // clang-format off
    const Case cases[] = {
        {"2.6.18-8.el5", "INFO: doing redhat 2.6 kernel SCSI bus scan", 1, {3, 5}},
        {"2.4.21", "INFO: doing redhat 2.4 kernel SCSI bus scan", 2, {3, 3}},
        {"3.0.1", "", 1, {3}}, {"2.60", "", 1, {3}}};
    // clang-format on
    for (const Case& c : cases) {
        simhost::SimHost fresh;
        simhost::SimHostInstall use(fresh);
        fresh.setKernelRelease(c.release);
        fresh.addAdapter(simAdapter(1, "qla2300", false, "QLogic\n"));
        trace.clear();
        EXPECT_EQ(discovery.rescanScsiBus(true), 0);
        EXPECT_EQ(writtenTo(fresh, "/proc/scsi/qla2300/1"), Lines(c.qlogicScans, "scsi-qlascan\n"));
        EXPECT_EQ(fresh.sleeps(), c.sleeps) << c.release;
        EXPECT_EQ(trace.has(3, c.family), *c.family != '\0') << c.release;
        EXPECT_EQ(trace.has(1,
                            "ERROR: libscsitool: Unable to determine kernel version from uname, "
                            "scsi bus scan skipped."),
                  *c.family == '\0')
            << c.release;
    }
}

TEST_F(Rescan, AdapterListAndQlogicRescan)
{
    host.addAdapter(simAdapter(1, "qla2300", true, "QLogic\n"));
    host.addAdapter(simAdapter(2, "lpfc", true, "Emulex\n"));
    std::map<std::string, std::vector<int>> adapters;
    discovery.GetHostAdapterList(adapters);
    EXPECT_EQ(adapters, (std::map<std::string, std::vector<int>>{
                            {"lpfc", {2}}, {"qla", {1}}, {"qla2300", {1}}}));
    EXPECT_TRUE(trace.has(3, "INFO: adding: qla2300 - 1\n"));

    trace.clear();
    discovery.RescanQlogicHBAs(adapters);
    EXPECT_EQ(allWrites(host), Lines{"/proc/scsi/qla2300/1 scsi-qlascan\n"});
    EXPECT_EQ(host.sleeps(), std::vector<unsigned int>{3});
    EXPECT_EQ(trace.at(2), Lines{"Warning: adapter device failed to open for: /proc/scsi/qla/1\n"});
    EXPECT_EQ(trace.at(3), Lines{"INFO: low-level rescanning qlogic hba: /proc/scsi/qla2300/1\n"});
}

TEST_F(Rescan, MidLayerProbeOn24)
{
    // One host whose highest LUN, id and channel are 0 (not QLogic: nothing appears unasked).
    // Beyond id 0 or channel 0 a channel is given up after LUN 7 unless the count rose.
    struct Case {
        bool latent;
        std::vector<std::vector<int>> ranges;
    } cases[] = {{false, {{0, 0, 1, 15}, {0, 1, 0, 7}, {1, 0, 0, 7}}},
                 {true, {{0, 0, 1, 15}, {0, 1, 0, 15}, {1, 0, 0, 7}}}};
    for (const Case& c : cases) {
        simhost::SimHost fresh;
        simhost::SimHostInstall use(fresh);
        fresh.setKernelRelease("2.4.21");
        fresh.addAdapter(simAdapter(0, "lpfc", false, "Emulex\n"));
        fresh.addDevice(simDisk("sda", 0, 0, 0, 0));
        if (c.latent)
            fresh.addDevice(simDisk("sdb", 0, 0, 1, 3, DeviceState::Latent));
        discovery.rescanScsiBus(false);
        EXPECT_EQ(writtenTo(fresh, "/proc/scsi/scsi"), probes(c.ranges));
        EXPECT_EQ(discovery.getDeviceCount(), c.latent ? 2 : 1);
    }
}

TEST_F(Rescan, SysfsScanOn26)
{
    struct Case {
        bool script;
        int exitCode;
        Lines warnings;  // of the shared log
    };
    const std::string failed = "Warning: rescan_scsi_bus.sh failed with ";
    // clang-format off
    const Case cases[] = {{false, 0, {}}, {true, 0, {}}, {true, 3, {failed + "execpipe code [3]"}},
                          {true, 11, {failed + "execpipe code [11]", failed + "error [0]."}}};
    // clang-format on
    for (const Case& c : cases) {
        simhost::SimHost fresh;
        simhost::SimHostInstall use(fresh);
        SharedLogCapture shared;
        fresh.addAdapter(simAdapter(0, "mptspi"));  // no fc_host, no issue_lip of its own
        fresh.addAdapter(simAdapter(1, "lpfc", true));
        fresh.addDevice(simDisk("sdc", 0, 0, 2, 0, DeviceState::Latent));
        if (c.script) {
            fresh.addExecutable("/bin/rescan-scsi-bus.sh");
            fresh.scriptCommand("/bin/rescan-scsi-bus.sh", {c.exitCode, {"output"}});
        }
        trace.clear();
        EXPECT_EQ(discovery.RescanScsiMidLayer2_6(), 0);
        EXPECT_EQ(allWrites(fresh), (Lines{"/sys/class/fc_host/host1/issue_lip 1\n",
                                           "/sys/class/scsi_host/host1/issue_lip 1\n",
                                           "/sys/class/scsi_host/host0/scan - - -\n",
                                           "/sys/class/scsi_host/host1/scan - - -\n"}));
        EXPECT_EQ(fresh.sleeps(), (std::vector<unsigned int>{5, 5, 5}));
        EXPECT_EQ(fresh.findDevice("sdc")->state, DeviceState::Running) << "latent LUN found";
        EXPECT_EQ(fresh.commandsRun().size(), c.script ? 2u : 1u);
        EXPECT_EQ(shared.at(2), c.warnings);
        EXPECT_TRUE(trace.at(2).empty()) << "the script's warnings go to the shared log only";
        Lines info = {"Info: failed to open /sys/class/fc_host/host0/issue_lip to issue_lip scan",
                      "Info: Waiting for scan to complete issue_lip scans.",
                      "Info: failed to open /sys/class/scsi_host/host0/issue_lip to issue_lip scan "
                      "for Emulex",
                      "Info: Waiting for scan to complete issue_lip scan.",
                      "Info: Waiting for device scan to complete",
                      "Info:Trying with rescan_scsi_bus.sh"};
        if (!c.script)
            info.push_back("Info: failed to open rescan_scsi_bus.sh");
        EXPECT_EQ(trace.at(4), info);
    }
    // Without any host nothing is written and nobody waits; the script is still tried.
    host.addExecutable("/bin/rescan-scsi-bus.sh");
    discovery.RescanScsiMidLayer2_6();
    EXPECT_TRUE(host.sleeps().empty());
    EXPECT_EQ(host.commandsRun(),
              (Lines{"/bin/ls /sys/class/scsi_host", "/bin/rescan-scsi-bus.sh"}));
}

TEST_F(Rescan, DeadDevicesAreDroppedAndRemoved)
{
    for (bool removeLun0 : {false, true}) {
        simhost::SimHost fresh;
        simhost::SimHostInstall use(fresh);
        fresh.addAdapter(simAdapter(0, "mptspi"));
        fresh.addDevice(simDisk("sda", 0, 0, 0, 0));
        fresh.addDevice(simDisk("sdb", 0, 0, 1, 3));
        fresh.addDevice(simDisk("sdc", 0, 0, 2, 0, DeviceState::Unresponsive));
        fresh.addDevice(simDisk("sdd", 0, 0, 2, 4, DeviceState::Unresponsive));
        trace.clear();
        // The second record failed its query (adapter -1): the call erases and deletes it, which
        // the sanitizer preset checks (no leak, no double delete).
        std::vector<CScsiDeviceData*> devices;
        for (int adapter : {0, -1, 0}) {
            int target = devices.size() == 2 ? 1 : 0;
            devices.push_back(new CScsiDeviceData("/dev/x", "", "h", target, 0, target * 3, adapter,
                                                  "ACME  ", "Disk ", "", 0));
        }
        std::vector<CScsiDeviceData*> kept = {devices[0], devices[2]};
        discovery.removeDeadDevices(devices, removeLun0);

        EXPECT_EQ(devices, kept);
        EXPECT_EQ(kept[0]->m_vendorId + "|" + kept[0]->m_productId, "ACME|Disk");
        Lines removals = {"scsi remove-single-device 0 0 2 4\n"};
        if (removeLun0)
            removals.insert(removals.begin(), "scsi remove-single-device 0 0 2 0\n");
        EXPECT_EQ(writtenTo(fresh, "/proc/scsi/scsi"), removals);
        EXPECT_EQ(has("INFO: Device is not removed as LUN=0 and removeLun0 = false"), !removeLun0);
        EXPECT_TRUE(has("INFO: iter devices a[-1] b[0] t[0] l[0] vendor[ACME], product[Disk]"));
        EXPECT_TRUE(has("INFO: found match comparing devices a[0,0] b[0,0] t[1,1] l[3,3]"));
        EXPECT_TRUE(has("INFO: removing device a[0] b[0] t[2] l[4]"));
        // Once the mid-layer forgot the device its sysfs node is gone too.
        EXPECT_TRUE(
            has("WARNING: remove device failed to open "
                "/sys/class/scsi_device/0:0:2:4/device/delete for device removal"));
        EXPECT_TRUE(has("INFO: doing redhat 2.6 kernel SCSI bus scan")) << "final bus rescan";
        for (CScsiDeviceData* d : devices)
            delete d;
    }
}

TEST_F(Rescan, RemoveDeviceWritesByKernelFamily)
{
    struct Case {
        const char* release;
        bool procScsi, procIgnores, adapter;
        Lines writes;         // sysfs and acted-on /proc writes
        std::string message;  // "" for none
    };
    const std::string remove = "scsi remove-single-device 2 0 1 3\n";
    const std::string del = "/sys/class/scsi_device/2:0:1:3/device/delete 1";
    // clang-format off
    const Case cases[] = {
        {"2.4.21", true, false, true, {"/proc/scsi/scsi " + remove}, ""},
        {"2.6.18-8.el5", true, true, true, {del, "/sys/class/scsi_host/host2/scan 0 1 3\n"}, "INFO: scaning after remove: 0 1 3\n"},
        {"2.6.18-8.el5", true, true, false, {del}, "WARNING: device failed to open /sys/class/scsi_host/host2/scan for device scan 0 1 3\n"},
        {"2.6.18-8.el5", false, false, true, {}, "INFO: remove device failed to open /proc/scsi/scsi for: " + remove + "\n"},
    };
    // clang-format on
    for (const Case& c : cases) {
        simhost::SimHost fresh;
        simhost::SimHostInstall use(fresh);
        fresh.setKernelRelease(c.release);
        fresh.setProcScsi(c.procScsi);
        if (c.procIgnores)
            fresh.addInertFile("/proc/scsi/scsi");
        if (c.adapter)
            fresh.addAdapter(simAdapter(2, "lpfc"));
        fresh.addDevice(simDisk("sdf", 2, 0, 1, 3));
        trace.clear();
        discovery.RemoveDevice(2, 0, 1, 3);
        Lines writes = allWrites(fresh);
        if (c.procIgnores) {
            EXPECT_EQ(writtenTo(fresh, "/proc/scsi/scsi"), Lines{remove});
            writes.erase(writes.begin());
        }
        EXPECT_EQ(writes, c.writes) << c.release;
        EXPECT_TRUE(c.message.empty() || has(c.message)) << c.message;
    }
}

TEST_F(Rescan, StaleMultipathFlush)
{
    const std::string pidof = "/sbin/pidof -x multipathd";
    const std::string flush = "/sbin/multipath -F";
    const char* const prefix = "INFO: CLinuxDeviceDiscovery::FlushMultipathStaleDevices";
    struct Case {
        const char* release;
        simhost::SimCommandScript daemon;
        bool mapper;
        int result;
        bool flushed;
        std::string message;
    };
    const std::string info = std::string(prefix) + " ";
    // clang-format off
    const Case cases[] = {
        {"2.6.18-8.el5", {1, {"pid", "of"}}, true, 1, false, info + "- command  [" + pidof + "] failed  with output [pidof]"},
        {"2.6.18-8.el5", {0, {}}, true, 0, false, info + "multipathd daemon not running"},
        {"2.6.18-8.el5", {0, {"4242"}}, true, 0, true, info + "Calling Multipath Stale Device Path Flushing command [" + flush + "]."},
        {"2.4.21", {0, {"4242"}}, true, 0, true, info + "multipath unused/stale device maps"},
        {"2.6.18-8.el5", {0, {"4242"}}, false, 0, false, ""},
        {"3.10.0", {0, {"4242"}}, true, 0, false, "INFO: OS not supported for FlushMultipathStaleDevices"},
    };
    // clang-format on
    for (const Case& c : cases) {
        simhost::SimHost fresh;
        simhost::SimHostInstall use(fresh);
        SharedLogCapture shared;
        fresh.setKernelRelease(c.release);
        fresh.setDeviceMapper(c.mapper);
        fresh.scriptCommand(pidof, c.daemon);
        fresh.scriptCommand(flush, {1, {" mpatha \t", "mpathb"}});
        trace.clear();
        EXPECT_EQ(discovery.FlushMultipathStaleDevices(), c.result) << c.release;
        EXPECT_EQ(fresh.commandsRun(), (c.flushed ? Lines{pidof, flush} : Lines{pidof}));
        EXPECT_TRUE(c.message.empty() || has(c.message)) << c.message;
        EXPECT_EQ(trace.at(5), c.flushed ? (Lines{"INFO: Mapped Devices in use :mpatha",
                                                  "INFO: Mapped Devices in use :mpathb"})
                                         : Lines{});
        EXPECT_EQ(shared.at(2), c.flushed ? Lines{"WARN: FlushMultipathStaleDevices - command "
                                                  "[/sbin/multipath -F] executed with value [1]"}
                                          : Lines{});
    }
}
