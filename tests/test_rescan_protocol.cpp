// SPDX-License-Identifier: Apache-2.0
// The rescan protocol where no command reaches: an enumeration that throws, a failed flush, and
// the validation of one device.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <new>
#include <set>
#include <string>

#include "WWPN_discovery.h"
#include "device_discovery.h"
#include "scsitool.h"
#include "sim_disks.h"
#include "simhost.h"
#include "trace_capture.h"

namespace {

// Discovery whose enumeration hands out records that fail their query, and which records the
// steps of the protocol.
class ScriptedDiscovery : public CLinuxDeviceDiscovery {
public:
    std::vector<std::string> steps;
    std::vector<std::string> names = {"/dev/sdx", "/dev/sdy"};
    int flushResult = 0;
    bool throwInEnumeration = false;

    std::vector<CScsiDeviceData*> enumerateDevices() override
    {
        steps.push_back("enumerate");
        if (throwInEnumeration)
            throw 6;
        std::vector<CScsiDeviceData*> records;
        for (const std::string& name : names)
            records.push_back(new CScsiDeviceData(name, "", "h", 0, 0, 0, -1, "", "", "", 0));
        return records;
    }
    std::vector<CScsiDeviceData*> validateEnumerateDevices(std::string name) override
    {
        return {new CScsiDeviceData(name, "", "h", 0, 0, 0, -1, "", "", "", 0)};
    }
    int rescanScsiBus(bool flag) override
    {
        steps.push_back(std::string("rescanScsiBus ") + (flag ? "1" : "0"));
        return 0;
    }
    void removeDeadDevices(std::vector<CScsiDeviceData*>& devices, bool removeLun0) override
    {
        steps.push_back("removeDeadDevices " + std::to_string(devices.size()) + " " +
                        (removeLun0 ? "1" : "0"));
    }
    int FlushMultipathStaleDevices() override
    {
        steps.push_back("flush");
        return flushResult;
    }
};

void deleteAll(std::vector<CScsiDeviceData*>& records)
{
    for (CScsiDeviceData* record : records)
        delete record;
    records.clear();
}

struct RescanProtocol : ::testing::Test {
    simhost::SimHost host;
    simhost::SimHostInstall install{host};
    TraceCapture capture;
    ScriptedDiscovery discovery;
    RescanProtocol() { discovery.registerTraceLog(capture.log()); }
};

}  // namespace

TEST_F(RescanProtocol, FailuresAreReportedAndTheLockIsReleased)
{
    discovery.flushResult = 1;
    std::vector<CScsiDeviceData*> records = discovery.rescan(false, false, false);
    EXPECT_TRUE(capture.has(
        1, "ERROR: unable to invoke the command to flush multipath stale device paths"));
    deleteAll(records);

    capture.clear();
    discovery.throwInEnumeration = true;
    records = discovery.rescan(false, false, false);
    EXPECT_TRUE(records.empty());
    EXPECT_EQ(capture.at(1), std::vector<std::string>{
                                 "libscsitool: ERROR: CDeviceDiscoveryBase::rescan() failed."});
    EXPECT_EQ(capture.at(3).back(), "libscsitool: DEBUG : CDeviceDiscoveryBase::rescan Exit.");

    // The lock was given back: a further rescan does not block.
    discovery.throwInEnumeration = false;
    records = discovery.rescan(false, false, false);
    EXPECT_EQ(records.size(), 2u);
    deleteAll(records);
}

TEST_F(RescanProtocol, ValidationKeepsAFailedDeviceAndTakesNoLock)
{
    std::vector<CScsiDeviceData*> records = discovery.validateDevice("/dev/sdq");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0]->m_deviceName, "/dev/sdq");
    EXPECT_TRUE(capture.has(
        3,
        "libscsitool: Info: CDeviceDiscoveryBase:: validateDevice FAILED - Remove disk /dev/sdq."));
    EXPECT_FALSE(capture.has(3, "Got the lock ."));
    deleteAll(records);

    // A device that answers is validated without a word.
    simhost::SimDevice sda = simDisk("sda", 0, 0, 0, 0);
    sda.vpd[0x00] = {0x00, 0x00, 0x00, 0x00};
    host.addDevice(sda);
    capture.clear();
    records = discovery.validateDevice("/dev/sda");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_FALSE(capture.has(3,
                             "libscsitool: Info: CDeviceDiscoveryBase:: validateDevice FAILED "
                             "- Remove disk /dev/sda."));
    deleteAll(records);
}

namespace {
// A host whose commands throw, as a failed allocation in the command pipe would.
class ThrowingHost : public simhost::SimHost {
public:
    int exec(const std::string&, std::vector<std::string>&, unsigned long, int&) override
    {
        throw std::bad_alloc();
    }
};
}  // namespace

// Each step that runs a command reports an exception at level 2 and answers as if nothing was
// found.
TEST(RescanSteps, ACommandThatThrowsIsReportedAtLevelTwo)
{
    ThrowingHost host;
    simhost::SimHostInstall install(host);
    TraceCapture capture;
    CLinuxDeviceDiscovery discovery;
    discovery.registerTraceLog(capture.log());
    std::map<std::string, std::vector<int>> adapters;
    std::vector<std::string> hosts;
    EXPECT_EQ(discovery.GetHostAdapterList(adapters), 0);
    EXPECT_EQ(discovery.GetHostAdapterList2_6(hosts), 0);
    EXPECT_EQ(discovery.FlushMultipathStaleDevices(), 0);
    EXPECT_TRUE(adapters.empty());
    EXPECT_TRUE(hosts.empty());
    EXPECT_EQ(capture.at(2),
              (std::vector<std::string>{
                  "CLinuxDeviceDiscovery::GetHostAdapterList: Exception Occurred",
                  "CLinuxDeviceDiscovery::GetHostAdapterList2_6: Exception Occurred",
                  "CLinuxDeviceDiscovery::FlushMultipathStaleDevices: Exception Occurred"}));
}

namespace {
// A host that notes the time limit each command was given.
class LimitNotingHost : public simhost::SimHost {
public:
    std::vector<std::string> limits;
    int exec(const std::string& command, std::vector<std::string>& output,
             unsigned long limitSeconds, int& sysErrno) override
    {
        limits.push_back(command + " " + std::to_string(limitSeconds));
        return SimHost::exec(command, output, limitSeconds, sysErrno);
    }
};
}  // namespace

// Every command the library runs, the rescan script as much as a directory listing, has ten
// minutes before it is stopped.
TEST(RescanSteps, EveryCommandHasTenMinutes)
{
    LimitNotingHost host;
    simhost::SimHostInstall install(host);
    host.addAdapter(simAdapter(3, "qla2xxx", true));
    host.addDevice(simDisk("sda", 3, 0, 0, 0));
    host.addMultipathMap("mpatha", "sda");
    for (const char* tool : {"/bin/rescan-scsi-bus.sh", "/sbin/multipath", "/sbin/powermt"})
        host.addExecutable(tool);
    host.scriptCommand("/sbin/pidof -x multipathd", simhost::SimCommandScript{0, {"42"}});
    CLinuxDeviceDiscovery discovery;
    std::vector<CScsiDeviceData*> records = discovery.rescan(true, false, false);
    deleteAll(records);
    discovery.FlushMultipathStaleDevices();
    WWPN().getWWPN();
    std::set<std::string> commands;
    for (const std::string& limit : host.limits) {
        EXPECT_EQ(limit.substr(limit.rfind(' ') + 1), "600") << limit;
        commands.insert(limit.substr(0, limit.rfind(' ')));
    }
    for (const char* command :
         {"/bin/rescan-scsi-bus.sh", "/bin/ls /sys/class/scsi_host", "/sbin/pidof -x multipathd",
          "/sbin/multipath -F", "/bin/ls /sys/class/fc_host/", "/sbin/powermt config",
          "/sbin/multipath -v0 "})
        EXPECT_EQ(commands.count(command), 1u) << command;
}

// Every kernel, control and identity file the library opens is closed again, on 2.6 and on 2.4,
// whether the step wrote to it or only read it.
TEST(RescanSteps, EveryFileOpenedIsClosed)
{
    for (const char* release : {"2.6.18-8.el5", "2.4.21"}) {
        const long before = simhost::SimHost::openStreams();
        {
            simhost::SimHost host;
            simhost::SimHostInstall install(host);
            host.setKernelRelease(release);
            host.addAdapter(simAdapter(3, "qla2300", true));
            host.addDevice(simDisk("sda", 3, 0, 0, 0));
            host.addDevice(simDisk("sdb", 3, 0, 1, 0));
            host.findDevice("sdb")->state = simhost::DeviceState::Unresponsive;
            host.addMultipathMap("mpatha", "sda");
            for (const char* tool :
                 {"/bin/rescan-scsi-bus.sh", "/sbin/multipath", "/sbin/iscsiadm"})
                host.addExecutable(tool);
            host.addFile("/etc/iscsi/initiatorname.iscsi", "InitiatorName=iqn.2001-04.com.x:h\n");
            CLinuxDeviceDiscovery discovery;
            std::vector<CScsiDeviceData*> records = discovery.rescan(true, false, false);
            discovery.removeDeadDevices(records, true);
            deleteAll(records);
            discovery.RemoveDevice(3, 0, 1, 0);
            discovery.FlushMultipathStaleDevices();
            WWPN().getWWPN();
            std::string iqn;
            CScsiTool().GetHostIQN(iqn);
            EXPECT_EQ(iqn, "iqn.2001-04.com.x:h") << release;
            EXPECT_FALSE(host.writesTo("/proc/scsi/scsi").empty()) << release;
        }
        EXPECT_EQ(simhost::SimHost::openStreams(), before) << release;
    }
}
