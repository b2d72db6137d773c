// SPDX-License-Identifier: Apache-2.0
// The multipath discovery manager: its module order and the modules registered on it.
#include <gtest/gtest.h>

#include "dmp_discovery_manager.h"
#include "simhost.h"
#include "trace_capture.h"

using Lines = std::vector<std::string>;

namespace {

struct Multipath : ::testing::Test {
    simhost::SimHost host;
    simhost::SimHostInstall install{host};
    TraceCapture trace;
};

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
    // PowerPath's own rescan answers 0 whatever its commands did; device-mapper's gives its tool's.
    host.scriptCommand("/sbin/multipath -v0 ", simhost::SimCommandScript{3, {}});
    EXPECT_EQ(modules[0]->rescan(), 0);
    EXPECT_EQ(modules[1]->rescan(), 3);
    // Each module's own enumeration answers 0, whatever it found.
    for (CDmpDiscoveryBase* module : modules)
        EXPECT_EQ(module->enumerateDmpDevices(map), 0);
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
