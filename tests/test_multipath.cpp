// Multipath discovery: which device-mapper and PowerPath nodes become pseudo-devices, the
// commands the modules run and their messages, and the manager's module order and trace log.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>

#include "dmp_discovery_manager.h"
#include "dmp_linux_device_mapper.h"
#include "dmp_powerpath.h"
#include "fi_system.h"
#include "trace_capture.h"

using namespace kzfi_pdk_4_4;

namespace {

// Just enough of a host for the modules: directory listings, existing paths, scripted commands.
class FakeSystem : public CFiSystem {
public:
    struct Script {
        int code;
        std::vector<std::string> output;
    };
    std::map<std::string, std::vector<std::string>> directories;
    std::set<std::string> paths;
    std::map<std::string, Script> scripts;
    std::vector<std::string> commands;

    FakeSystem() : m_previous(fiInstallSystem(this)) {}
    ~FakeSystem() override { fiInstallSystem(m_previous); }

    void* opendir(const char* path) override
    {
        auto it = directories.find(path);
        if (it == directories.end()) {
            return nullptr;
        }
        m_listing = it->second;
        m_next = 0;
        return &m_listing;
    }
    struct dirent* readdir(void*) override
    {
        if (m_next >= m_listing.size()) {
            return nullptr;
        }
        std::memset(&m_entry, 0, sizeof m_entry);
        std::strncpy(m_entry.d_name, m_listing[m_next++].c_str(), sizeof m_entry.d_name - 1);
        return &m_entry;
    }
    int closedir(void*) override { return 0; }
    int stat(const char* path, struct stat* st) override
    {
        std::memset(st, 0, sizeof *st);
        return paths.count(path) ? 0 : -1;
    }
    int exec(const std::string& command, std::vector<std::string>& output, unsigned long,
             int& sysErrno) override
    {
        commands.push_back(command);
        sysErrno = 0;
        auto it = scripts.find(command);
        if (it == scripts.end()) {
            return 127;
        }
        output = it->second.output;
        return it->second.code;
    }

private:
    CFiSystem* m_previous;
    std::vector<std::string> m_listing;
    size_t m_next = 0;
    struct dirent m_entry;
};

std::vector<std::string> keysOf(const DeviceMap& map)
{
    std::vector<std::string> keys;
    for (const auto& entry : map) {
        keys.push_back(entry.first);
    }
    return keys;
}

}  // namespace

TEST(DeviceMapper, EntersWholeMapsTheControlNodeAndDotEntries)
{
    FakeSystem host;
    host.directories["/dev/mapper/"] = {".",       "..",       "control", "mpatha",
                                        "mpatha1", "mpathap1", "vg-lv",   "mpathb"};
    TraceCapture capture;
    CDmpLinuxDeviceMapper mapper;
    mapper.registerTraceLog(capture.log());
    DeviceMap map;
    map["/dev/mapper/mpathb"].Uid = "stale";

    EXPECT_EQ(mapper.enumerateDmpDevices(map), 0);

    EXPECT_EQ(keysOf(map), (std::vector<std::string>{"/dev/mapper/.", "/dev/mapper/..",
                                                     "/dev/mapper/control", "/dev/mapper/mpatha",
                                                     "/dev/mapper/mpatha1", "/dev/mapper/mpathb"}));
    for (const auto& entry : map) {
        EXPECT_EQ(entry.second.dmpClaimLevel, 16) << entry.first;
        EXPECT_EQ(entry.second.DeviceName, entry.first);
        EXPECT_EQ(entry.second.Uid, "") << "an existing entry is overwritten";
        EXPECT_TRUE(entry.second.NativePath.empty());
    }
    std::vector<std::string> info = capture.at(3);
    ASSERT_EQ(info.size(), 1u + 8u + 6u);
    EXPECT_EQ(info[0], "INFO: readdir lines returned [8] devices.");
    EXPECT_EQ(info[1], "Working on device [/dev/mapper/.]");
    EXPECT_EQ(info[2], "INFO: adding device mapper multipath device to the map [/dev/mapper/.]");
    EXPECT_TRUE(capture.has(3, "Working on device [/dev/mapper/mpathap1]"));
    EXPECT_FALSE(capture.has(
        3, "INFO: adding device mapper multipath device to the map [/dev/mapper/vg-lv]"));
}

TEST(DeviceMapper, MissingDirectoryGivesNothing)
{
    FakeSystem host;
    TraceCapture capture;
    CDmpLinuxDeviceMapper mapper;
    mapper.registerTraceLog(capture.log());
    DeviceMap map;
    EXPECT_EQ(mapper.enumerateDmpDevices(map), 0);
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(capture.at(3), std::vector<std::string>{"INFO: readdir lines returned [0] devices."});
}

TEST(DeviceMapper, RescanRunsMultipathAndReportsItsOutputOnFailure)
{
    struct Case {
        int code;
        std::vector<std::string> output;
        std::vector<std::string> errors;
    } cases[] = {
        {0, {"ignored"}, {}},
        {1, {"no ", "paths"}, {"Failed to refresh devices with message ==>no paths."}},
    };
    for (const Case& c : cases) {
        FakeSystem host;
        host.scripts["/sbin/multipath -v0 "] = {c.code, c.output};
        TraceCapture capture;
        CDmpLinuxDeviceMapper mapper;
        mapper.registerTraceLog(capture.log());
        EXPECT_EQ(mapper.rescan(), c.code);
        EXPECT_EQ(host.commands, std::vector<std::string>{"/sbin/multipath -v0 "});
        EXPECT_EQ(capture.at(1), c.errors);
        EXPECT_TRUE(capture.has(6, "calling command [/sbin/multipath -v0 ]."));
    }
}

TEST(PowerPath, EntersPseudoDevicesAndSkipsTheirPartitions)
{
    FakeSystem host;
    host.directories["/dev/"] = {"sda",      "emcpowera", "emcpowera1",
                                 "emcpower", "emcpowerb", "emcpowerb12"};
    TraceCapture capture;
    CDmpPowerPathDiscovery powerPath;
    powerPath.registerTraceLog(capture.log());
    DeviceMap map;
    EXPECT_EQ(powerPath.enumerateDmpDevices(map), 0);
    EXPECT_EQ(keysOf(map),
              (std::vector<std::string>{"/dev/emcpower", "/dev/emcpowera", "/dev/emcpowerb"}));
    EXPECT_EQ(map["/dev/emcpowera"].dmpClaimLevel, 16);
    EXPECT_EQ(map["/dev/emcpowera"].DeviceName, "/dev/emcpowera");
    EXPECT_EQ(capture.at(3), (std::vector<std::string>{
                                 "INFO: enumerating devices using command [], lines returned [5]",
                                 "INFO: adding powerpath device to the map [/dev/emcpowera]",
                                 "INFO: adding powerpath device to the map [/dev/emcpower]",
                                 "INFO: adding powerpath device to the map [/dev/emcpowerb]"}));
}

TEST(PowerPath, WithoutTheToolOnlyWarns)
{
    FakeSystem host;
    TraceCapture capture;
    CDmpPowerPathDiscovery powerPath;
    powerPath.registerTraceLog(capture.log());
    EXPECT_EQ(powerPath.rescan(), 0);
    EXPECT_TRUE(host.commands.empty());
    EXPECT_EQ(
        capture.at(2),
        std::vector<std::string>{
            "CDmpPowerPathDiscovery: WARNING: powermt command (/sbin/powermt) was not found."});
    EXPECT_EQ(capture.at(3), std::vector<std::string>{
                                 "CDmpPowerPathDiscovery: ExecuteEmcPowerPathCommands() called."});
}

TEST(PowerPath, RunsAllFourCommandsWhateverTheirResults)
{
    const std::vector<std::string> commands = {"/sbin/powermt check force dev=all class=all",
                                               "/sbin/powermt release", "/sbin/powermt config",
                                               "/sbin/powermt save"};
    const std::vector<std::string> failures = {
        "CDmpPowerPathDiscovery: removal of dead powerpath devices failed with message [ out0 ].",
        "CDmpPowerPathDiscovery: Linux powermt release failed, some emcpower devices may not "
        "have been reclaimed for later use, error message - [out1].",
        "CDmpPowerPathDiscovery: removal of dead powerpath devices failed with error [out2].",
        "CDmpPowerPathDiscovery: running powerpath save failed with error [ out3]."};
    // Each case: which of the four commands fail.
    const std::vector<std::vector<bool>> cases = {
        {false, false, false, false}, {true, true, true, true}, {true, false, true, false}};
    for (const std::vector<bool>& failing : cases) {
        FakeSystem host;
        host.paths.insert("/sbin/powermt");
        std::vector<std::string> expectedFailures;
        for (size_t i = 0; i < commands.size(); ++i) {
            host.scripts[commands[i]] = {failing[i] ? 2 : 0, {"out" + std::to_string(i)}};
            if (failing[i]) {
                expectedFailures.push_back(failures[i]);
            }
        }
        TraceCapture capture;
        CDmpPowerPathDiscovery powerPath;
        powerPath.registerTraceLog(capture.log());
        EXPECT_EQ(powerPath.rescan(), 0);
        EXPECT_EQ(host.commands, commands);
        EXPECT_EQ(capture.at(2), expectedFailures);
        EXPECT_EQ(capture.at(3),
                  (std::vector<std::string>{
                      "CDmpPowerPathDiscovery: ExecuteEmcPowerPathCommands() called.",
                      "CDmpPowerPathDiscovery: removing dead powerpath devices",
                      "CDmpPowerPathDiscovery: running powermt release (Linux only) ",
                      "CDmpPowerPathDiscovery: running powermt config",
                      "CDmpPowerPathDiscovery: running powermt save",
                      "CDmpPowerPathDiscovery: ExecuteEmcPowerPathCommands() completed."}));
    }
}

namespace {
struct RecordingModule : CDmpDiscoveryBase {
    std::string name;
    std::vector<std::string>* calls;
    RecordingModule(const std::string& n, std::vector<std::string>* c) : name(n), calls(c) {}
    int enumerateDmpDevices(DeviceMap& map) override
    {
        calls->push_back(name + " enumerate " + std::to_string(map.size()));
        map["/dev/" + name].dmpClaimLevel = 16;
        return 5;
    }
    int rescan() override
    {
        calls->push_back(name + " rescan");
        return 7;
    }
};
}  // namespace

TEST(DiscoveryManager, AsksPowerPathFirstThenDeviceMapper)
{
    FakeSystem host;
    host.directories["/dev/"] = {"emcpowerc"};
    host.directories["/dev/mapper/"] = {"mpatha"};
    host.paths.insert("/sbin/powermt");
    TraceCapture capture;
    CDmpDiscoveryManager manager;
    ASSERT_EQ(manager.getDiscoveryModules().size(), 2u);
    EXPECT_NE(dynamic_cast<CDmpPowerPathDiscovery*>(manager.getDiscoveryModules()[0]), nullptr);
    EXPECT_NE(dynamic_cast<CDmpLinuxDeviceMapper*>(manager.getDiscoveryModules()[1]), nullptr);

    manager.registerTraceLog(capture.log());
    EXPECT_EQ(capture.at(3),
              (std::vector<std::string>{"INFO: registering trace log on discovery module",
                                        "INFO: registering trace log on discovery module"}));
    for (CDmpDiscoveryBase* module : manager.getDiscoveryModules()) {
        EXPECT_EQ(module->getTraceLog(), capture.log());
    }

    capture.clear();
    DeviceMap map;
    EXPECT_EQ(manager.enumerateDmpDevices(map), 0);
    EXPECT_EQ(keysOf(map), (std::vector<std::string>{"/dev/emcpowerc", "/dev/mapper/mpatha"}));
    EXPECT_EQ(capture.at(3)[0],
              "INFO: CDmpDiscoveryManager::enumerateDmpDevices 2 modules registered");

    EXPECT_EQ(manager.rescan(), 0);
    ASSERT_EQ(host.commands.size(), 5u);
    EXPECT_EQ(host.commands.front(), "/sbin/powermt check force dev=all class=all");
    EXPECT_EQ(host.commands.back(), "/sbin/multipath -v0 ");
}

TEST(DiscoveryManager, WithoutALogWritesNothingAndForwardsTheEmptyPointer)
{
    FakeSystem host;
    TraceCapture capture;
    CDmpDiscoveryManager manager;
    std::vector<std::string> calls;
    RecordingModule extra("extra", &calls);
    extra.registerTraceLog(capture.log());
    manager.registerDiscoveryModule(nullptr);
    EXPECT_EQ(manager.getDiscoveryModules().size(), 2u);
    manager.registerDiscoveryModule(&extra);
    ASSERT_EQ(manager.getDiscoveryModules().size(), 3u);
    EXPECT_TRUE(extra.getTraceLog().isNull()) << "a registered module takes the manager's log";

    manager.registerTraceLog(CFiTraceLogPtr());
    DeviceMap map;
    EXPECT_EQ(manager.enumerateDmpDevices(map), 0);
    EXPECT_EQ(manager.rescan(), 0) << "module results are not looked at";
    EXPECT_EQ(calls, (std::vector<std::string>{"extra enumerate 0", "extra rescan"}));
    EXPECT_EQ(keysOf(map), std::vector<std::string>{"/dev/extra"});
    EXPECT_TRUE(capture.all().empty());
}
