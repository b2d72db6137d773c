// The rescan protocol: what a rescan with and without bus rescanning runs, and its messages.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "device_discovery.h"
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

TEST_F(RescanProtocol, BusRescanOrFlushNeverBoth)
{
    struct Case {
        bool rescanBuses, busScanFlag, removeLun0;
        std::vector<std::string> steps;
    } cases[] = {
        {false, true, true, {"enumerate", "flush"}},
        {true, true, false, {"rescanScsiBus 1", "enumerate", "removeDeadDevices 2 0"}},
        {true, false, true, {"rescanScsiBus 0", "enumerate", "removeDeadDevices 2 1"}},
    };
    for (const Case& c : cases) {
        discovery.steps.clear();
        capture.clear();
        std::vector<CScsiDeviceData*> records =
            discovery.rescan(c.rescanBuses, c.busScanFlag, c.removeLun0);
        EXPECT_EQ(discovery.steps, c.steps);
        // Records whose query failed stay in the result.
        ASSERT_EQ(records.size(), 2u);
        EXPECT_EQ(records[0]->m_deviceName, "/dev/sdx");
        // The discovery's own lines (the SCSI layer adds its own at other levels).
        std::vector<std::string> own;
        for (const std::string& line : capture.at(3)) {
            if (line.find("CDeviceDiscoveryBase") != std::string::npos ||
                line.find("lock .") != std::string::npos) {
                own.push_back(line);
            }
        }
        const std::string failed =
            "libscsitool: Info: CDeviceDiscoveryBase::rescan FAILED - Remove disk ";
        EXPECT_EQ(own, (std::vector<std::string>{
                           "libscsitool: Info: CDeviceDiscoveryBase::rescan().", "Acquring lock .",
                           "Got the lock .", failed + "/dev/sdx.", failed + "/dev/sdy.",
                           "Releasing the lock .",
                           "libscsitool: DEBUG : CDeviceDiscoveryBase::rescan Exit."}));
        EXPECT_TRUE(capture.has(
            6, "libscsitool: Info: CDeviceDiscoveryBase:: Getting data for disk /dev/sdy."));
        deleteAll(records);
    }
}

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
}
