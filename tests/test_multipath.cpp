// Multipath discovery on the simulated host: which device-mapper and PowerPath nodes become
// pseudo-devices, the commands the modules run and their messages, the manager's module order.
#include <gtest/gtest.h>

#include "dmp_discovery_manager.h"
#include "dmp_linux_device_mapper.h"
#include "dmp_powerpath.h"
#include "sim_disks.h"
#include "trace_capture.h"

using Lines = std::vector<std::string>;

namespace {

struct Multipath : ::testing::Test {
    simhost::SimHost host;
    simhost::SimHostInstall install{host};
    TraceCapture trace;
};

Lines keysOf(const DeviceMap& map)
{
    Lines keys;
    for (const auto& entry : map) {
        keys.push_back(entry.first);
        EXPECT_EQ(entry.second.dmpClaimLevel, 16) << entry.first;
        EXPECT_EQ(entry.second.DeviceName, entry.first);
        EXPECT_EQ(entry.second.Uid, "") << "an existing entry is overwritten";
    }
    return keys;
}

}  // namespace

TEST_F(Multipath, DeviceMapperEntersWholeMapsTheControlNodeAndDotEntries)
{
    for (const char* name : {"mpatha", "mpatha1", "mpathap1", "vg-lv", "mpathb"})
        host.addMultipathMap(name);
    CDmpLinuxDeviceMapper mapper;
    mapper.registerTraceLog(trace.log());
    DeviceMap map;
    map["/dev/mapper/mpathb"].Uid = "stale";
    EXPECT_EQ(mapper.enumerateDmpDevices(map), 0);
    EXPECT_EQ(keysOf(map),
              (Lines{"/dev/mapper/.", "/dev/mapper/..", "/dev/mapper/control", "/dev/mapper/mpatha",
                     "/dev/mapper/mpatha1", "/dev/mapper/mpathb"}));
    Lines info = trace.at(3);
    ASSERT_EQ(info.size(), 1u + 8u + 6u);
    EXPECT_EQ(info[0], "INFO: readdir lines returned [8] devices.");
    EXPECT_EQ(info[1], "Working on device [/dev/mapper/.]");
    EXPECT_EQ(info[2], "INFO: adding device mapper multipath device to the map [/dev/mapper/.]");

    // Without /dev/mapper/ there is nothing to enter.
    host.setDeviceMapper(false);
    trace.clear();
    map.clear();
    mapper.enumerateDmpDevices(map);
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(trace.at(3), Lines{"INFO: readdir lines returned [0] devices."});
}

TEST_F(Multipath, DeviceMapperRescanReportsTheToolsOutputOnFailure)
{
    for (int code : {0, 1}) {
        host.scriptCommand("/sbin/multipath -v0 ", {code, {"no ", "paths"}});
        trace.clear();
        CDmpLinuxDeviceMapper mapper;
        mapper.registerTraceLog(trace.log());
        EXPECT_EQ(mapper.rescan(), code);
        EXPECT_EQ(trace.at(1),
                  code ? Lines{"Failed to refresh devices with message ==>no paths."} : Lines{});
        EXPECT_TRUE(trace.has(6, "calling command [/sbin/multipath -v0 ]."));
    }
    EXPECT_EQ(host.commandsRun(), Lines(2, "/sbin/multipath -v0 "));
}

TEST_F(Multipath, PowerPathEntersPseudoDevicesAndSkipsTheirPartitions)
{
    for (const char* name : {"emcpowera", "emcpowera1", "emcpower", "emcpowerb12"})
        host.addPowerPathDevice(name);
    host.addDevice(simDisk("sda", 0, 0, 0, 0));
    CDmpPowerPathDiscovery powerPath;
    powerPath.registerTraceLog(trace.log());
    DeviceMap map;
    EXPECT_EQ(powerPath.enumerateDmpDevices(map), 0);
    EXPECT_EQ(keysOf(map), (Lines{"/dev/emcpower", "/dev/emcpowera"}));
    EXPECT_EQ(trace.at(3), (Lines{"INFO: enumerating devices using command [], lines returned [4]",
                                  "INFO: adding powerpath device to the map [/dev/emcpower]",
                                  "INFO: adding powerpath device to the map [/dev/emcpowera]"}));
}

TEST_F(Multipath, PowerPathRescanRunsAllFourCommandsWhateverTheirResults)
{
    const Lines commands = {"/sbin/powermt check force dev=all class=all", "/sbin/powermt release",
                            "/sbin/powermt config", "/sbin/powermt save"};
    const Lines failures = {
        "CDmpPowerPathDiscovery: removal of dead powerpath devices failed with message [ out0 ].",
        "CDmpPowerPathDiscovery: Linux powermt release failed, some emcpower devices may not "
        "have been reclaimed for later use, error message - [out1].",
        "CDmpPowerPathDiscovery: removal of dead powerpath devices failed with error [out2].",
        "CDmpPowerPathDiscovery: running powerpath save failed with error [ out3]."};
    const Lines announcements = {
        "CDmpPowerPathDiscovery: ExecuteEmcPowerPathCommands() called.",
        "CDmpPowerPathDiscovery: removing dead powerpath devices",
        "CDmpPowerPathDiscovery: running powermt release (Linux only) ",
        "CDmpPowerPathDiscovery: running powermt config",
        "CDmpPowerPathDiscovery: running powermt save",
        "CDmpPowerPathDiscovery: ExecuteEmcPowerPathCommands() completed."};
    CDmpPowerPathDiscovery powerPath;
    powerPath.registerTraceLog(trace.log());
    // Without the tool: one warning and nothing run.
    EXPECT_EQ(powerPath.rescan(), 0);
    EXPECT_TRUE(host.commandsRun().empty());
    EXPECT_EQ(trace.at(2), Lines{"CDmpPowerPathDiscovery: WARNING: powermt command "
                                 "(/sbin/powermt) was not found."});
    EXPECT_EQ(trace.at(3), Lines{announcements[0]});

    host.addExecutable("/sbin/powermt");
    for (unsigned failing : {0u, 15u, 5u}) {  // bit i: command i fails
        Lines expected;
        for (size_t i = 0; i < commands.size(); ++i) {
            bool fails = failing & (1u << i);
            host.scriptCommand(commands[i], {fails ? 2 : 0, {"out" + std::to_string(i)}});
            if (fails)
                expected.push_back(failures[i]);
        }
        host.clearEvents();
        trace.clear();
        EXPECT_EQ(powerPath.rescan(), 0);
        EXPECT_EQ(host.commandsRun(), commands);
        EXPECT_EQ(trace.at(2), expected) << failing;
        EXPECT_EQ(trace.at(3), announcements);
    }
}

namespace {
struct RecordingModule : CDmpDiscoveryBase {
    Lines calls;
    int enumerateDmpDevices(DeviceMap& map) override
    {
        calls.push_back("enumerate " + std::to_string(map.size()));
        map["/dev/extra"].dmpClaimLevel = 16;
        return 5;
    }
    int rescan() override
    {
        calls.push_back("rescan");
        return 7;
    }
};
}  // namespace

TEST_F(Multipath, ManagerAsksPowerPathFirstThenDeviceMapper)
{
    host.addPowerPathDevice("emcpowerc");
    host.addMultipathMap("mpatha");
    host.addExecutable("/sbin/powermt");
    CDmpDiscoveryManager manager;
    const std::vector<CDmpDiscoveryBase*>& modules = manager.getDiscoveryModules();
    ASSERT_EQ(modules.size(), 2u);  // their order shows in the commands a rescan runs

    manager.registerTraceLog(trace.log());
    EXPECT_EQ(trace.at(3), Lines(2, "INFO: registering trace log on discovery module"));
    EXPECT_EQ(modules[1]->getTraceLog(), trace.log());

    trace.clear();
    DeviceMap map;
    EXPECT_EQ(manager.enumerateDmpDevices(map), 0);
    EXPECT_EQ(map.count("/dev/emcpowerc") + map.count("/dev/mapper/mpatha"), 2u);
    EXPECT_EQ(trace.at(3)[0],
              "INFO: CDmpDiscoveryManager::enumerateDmpDevices 2 modules registered");
    EXPECT_EQ(manager.rescan(), 0);
    Lines run = host.commandsRun();
    ASSERT_EQ(run.size(), 5u);
    EXPECT_EQ(run.front(), "/sbin/powermt check force dev=all class=all");
    EXPECT_EQ(run.back(), "/sbin/multipath -v0 ");
}

TEST_F(Multipath, ManagerWithoutALogWritesNothingAndForwardsTheEmptyPointer)
{
    CDmpDiscoveryManager manager;
    RecordingModule extra;
    extra.registerTraceLog(trace.log());
    manager.registerDiscoveryModule(nullptr);
    EXPECT_EQ(manager.getDiscoveryModules().size(), 2u);
    manager.registerDiscoveryModule(&extra);
    ASSERT_EQ(manager.getDiscoveryModules().size(), 3u);
    EXPECT_TRUE(extra.getTraceLog().isNull()) << "a registered module takes the manager's log";

    manager.registerTraceLog(kzfi_pdk_4_4::CFiTraceLogPtr());
    DeviceMap map;
    EXPECT_EQ(manager.enumerateDmpDevices(map), 0);
    EXPECT_EQ(manager.rescan(), 0) << "module results are not looked at";
    EXPECT_EQ(extra.calls, (Lines{"enumerate 0", "rescan"}));
    EXPECT_TRUE(trace.all().empty());
}
