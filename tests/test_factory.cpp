// SPDX-License-Identifier: Apache-2.0
// The UDID factory and the device map: the claim loop, the exception rule, map building, the
// cached lookup, and whole enumerations on simulated hosts.
#include <gtest/gtest.h>

#include <memory>

#include "device_udid_factory.h"
#include "trace_capture.h"

namespace {

CScsiDeviceData* makeRecord(const std::string& name, const std::string& vendor,
                            const std::string& product, int claimLevel = 2)
{
    CScsiDeviceData* d = new CScsiDeviceData(name, "", "host", 0, 0, 0, -1, vendor, product, "", 0);
    d->dmpClaimLevel = claimLevel;
    return d;
}

// A generator for the claim loop's corner cases: claims what its vendor names, then either
// answers `body` or throws after its prefix was taken.
class ScriptedGenerator : public CUdidGenerator {
public:
    ScriptedGenerator(const std::string& vendor, const char* body)
        : CUdidGenerator(vendor, "P"), m_body(body)
    {
    }
    bool claimDevice(CScsiDeviceData* device) override { return device->m_vendorId == m_vendorId; }
    std::string getUniqueDeviceID(CScsiDeviceData*) override
    {
        if (m_body == nullptr)
            throw CUdidGeneratorException("MSG_UDID_ERROR_INVALID_SCSI_PAGE_DATA", m_vendorId, "P");
        return m_body;
    }

private:
    const char* m_body;
};

class FactoryTest : public ::testing::Test {
protected:
    void SetUp() override { factory.registerTraceLog(capture.log()); }
    // Replaces the generator table (the originals stay alive for the process, as always).
    void useGenerators(std::vector<CUdidGenerator*> generators)
    {
        for (CUdidGenerator* g : generators) {
            owned.emplace_back(g);
            g->registerTraceLog(capture.log());
        }
        factory.m_generators = generators;
    }

    TraceCapture capture;
    CUDIDFactory factory;
    std::vector<std::unique_ptr<CUdidGenerator>> owned;
};

}  // namespace

// The table's order is pinned by the generator tests; here the factory holds that table and every
// part shares the one log.
TEST_F(FactoryTest, TableHasThirteenGeneratorsDefaultLastAndAllShareTheLog)
{
    ASSERT_EQ(factory.m_generators.size(), 13u);
    EXPECT_EQ(factory.m_generators.front()->getGeneratorName(), "HP:MSA");
    EXPECT_EQ(factory.m_generators.back()->getGeneratorName(), ":");
    for (CUdidGenerator* g : factory.m_generators) {
        EXPECT_EQ(g->getTraceLog().get(), capture.log().get()) << g->getGeneratorName();
    }
    EXPECT_EQ(factory.m_discovery.getTraceLog().get(), capture.log().get());
    EXPECT_EQ(factory.m_dmpManager.getTraceLog().get(), capture.log().get());
}

TEST_F(FactoryTest, ClaimLoopExceptionRuleAndWorkingString)
{
    struct Case {
        const char* name;
        const char* vendor;
        std::string expected;
        size_t warnings;
    } cases[] = {
        {"first claimer answers", "A", "UDID##A##P##BODY-A", 0},
        {"thrower then next claimer", "B", "UDID##B##P##FROM-B2", 1},
        {"last claimer throws: its prefix stays", "C", "UDID##C##P##", 1},
        {"nobody claims: empty", "Z", "", 0},
    };
    useGenerators({new ScriptedGenerator("A", "body-a"), new ScriptedGenerator("B", nullptr),
                   new ScriptedGenerator("B", "from-b2"), new ScriptedGenerator("C", nullptr)});
    for (const Case& c : cases) {
        capture.clear();
        std::unique_ptr<CScsiDeviceData> d(makeRecord("/dev/sdx", c.vendor, "P"));
        EXPECT_EQ(factory.getUniqueDeviceID(d.get()), c.expected) << c.name;
        EXPECT_EQ(capture.at(2).size(), c.warnings) << c.name;
    }
    capture.clear();
    std::unique_ptr<CScsiDeviceData> d(makeRecord("/dev/sdx", "B", "P"));
    factory.getUniqueDeviceID(d.get());
    EXPECT_EQ(capture.at(2), std::vector<std::string>{
                                 "WARNING: getUniqueDeviceID caught exception: "
                                 "[MSG_UDID_ERROR_INVALID_SCSI_PAGE_DATA:B:P],skipping device."});
}

TEST_F(FactoryTest, OverrideMapWinsInUpperCaseForComputationAsStoredForLookup)
{
    SDeviceInfo info;
    info.Uid = "udid##mixed##case";
    factory.m_overrideDeviceMap["/dev/sdq"] = info;
    std::unique_ptr<CScsiDeviceData> d(makeRecord("/dev/sdq", "DGC", "RAID 5"));
    EXPECT_EQ(factory.getUniqueDeviceID(d.get()), "UDID##MIXED##CASE");
    EXPECT_EQ(factory.getCachedUniqueDeviceID("/dev/sdq", false), "udid##mixed##case");
    // The origin tells each lookup's own way: one object reused for the next device starts afresh.
    SUdidOrigin origin;
    factory.getUniqueDeviceID(d.get(), origin);
    EXPECT_TRUE(origin.fromOverride);
    std::unique_ptr<CScsiDeviceData> other(makeRecord("/dev/sdr", "DGC", "RAID 5"));
    factory.getUniqueDeviceID(other.get(), origin);
    EXPECT_FALSE(origin.fromOverride);
}

TEST_F(FactoryTest, FillDeviceMapKeepsShortUdidsAndDropsInvalidOnlyWhenRescanningBuses)
{
    SDeviceInfo shortUid;
    shortUid.Uid = "abc";
    factory.m_overrideDeviceMap["/dev/sdb"] = shortUid;
    for (bool rescanBuses : {false, true}) {
        capture.clear();
        std::vector<CScsiDeviceData*> records = {makeRecord("/dev/mapper/mpatha", "X", "Y", 16),
                                                 makeRecord("/dev/sdb", "X", "Y"),
                                                 makeRecord("/dev/sdb", "X", "Y")};
        records[2]->m_invalid = 1;  // a second record of the same name, marked invalid
        std::map<std::string, SDeviceInfo> map = factory.fillDeviceMap(records, rescanBuses);
        EXPECT_TRUE(records.empty());
        EXPECT_EQ(map.count("/dev/sdb"), rescanBuses ? 0u : 1u) << rescanBuses;
        EXPECT_EQ(map, factory.m_deviceMap);
        ASSERT_EQ(map.count("/dev/mapper/mpatha"), 1u);
        EXPECT_EQ(map["/dev/mapper/mpatha"].dmpClaimLevel, 16);
        EXPECT_EQ(capture.has(3, "INFO: removing invalid device data for [/dev/sdb]"), rescanBuses);
        EXPECT_TRUE(
            capture.has(2, "WARNING: invalid UDID for device /dev/sdb, assigned empty UDID"));
        if (!rescanBuses) {
            EXPECT_EQ(map["/dev/sdb"].Uid, "ABC");  // kept, whatever the message says
            EXPECT_EQ(map["/dev/sdb"].DeviceName, "/dev/sdb");
            EXPECT_EQ(map["/dev/sdb"].dmpClaimLevel, 2);
        }
    }
}

TEST_F(FactoryTest, PrintDeviceMapLines)
{
    std::map<std::string, SDeviceInfo> map;
    map["/dev/sdb"] = SDeviceInfo{2, "/dev/sdb", "UDID##X", {"/dev/sdc", "/dev/sdd"}};
    map["/dev/sda"] = SDeviceInfo{16, "/dev/sda", "", {}};
    capture.clear();
    factory.printDeviceMap(map);
    EXPECT_EQ(capture.at(3),
              (std::vector<std::string>{"Uid [] \tDeviceName [/dev/sda] \tdmpClaimLevel [16]",
                                        "Uid [UDID##X] \tDeviceName [/dev/sdb] \tdmpClaimLevel [2]",
                                        "DeviceName [/dev/sdb] \tNativePath [/dev/sdc]",
                                        "DeviceName [/dev/sdb] \tNativePath [/dev/sdd]"}));
}

// --- Whole enumerations and cached lookups on simulated hosts ----------------------------------

#include "page_builders.h"
#include "sim_disks.h"
#include "simhost.h"

namespace {

// A disk the default generator serves: page 0x00 lists 0x83, whose four designator bytes
// make the body.
simhost::SimDevice defaultDisk(const std::string& name, int id, int lun, uint8_t serial)
{
    simhost::SimDevice d = simDisk(name, 0, 0, id, lun);
    d.inquiry = inquiryPage("ACME", "Big Disk 2", 36);
    d.vpd[0x00] = hexBytes("00 00 00 02 00 83");
    d.vpd[0x83] = hexBytes("00 83 00 04 01 02 03");
    d.vpd[0x83].push_back(serial);
    return d;
}

// The UDID of defaultDisk(serial) for a serial with a non-zero low digit.
std::string defaultUdid(uint8_t serial)
{
    char body[64];
    snprintf(body, sizeof body, "UDID##ACME##BIG_DISK_2##00830004010203%02X", serial);
    return body;
}

size_t countPrefix(const std::vector<std::string>& lines, const std::string& prefix)
{
    size_t n = 0;
    for (const std::string& line : lines)
        n += line.compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
    return n;
}

class CachedLookupTest : public ::testing::Test {
protected:
    CachedLookupTest() : install(host)
    {
        host.setKernelRelease("2.6.32-431.el6.x86_64");
        host.addAdapter(simAdapter(0, "mptspi"));
        host.addDevice(defaultDisk("sda", 0, 0, 0x11));
        factory.registerTraceLog(capture.log());
    }
    std::vector<std::string> validations() const
    {
        std::vector<std::string> out;
        for (const std::string& line : capture.at(6)) {
            if (line.compare(0, 31, "Entering Function validateDevic") == 0)
                out.push_back(line);
        }
        return out;
    }

    simhost::SimHost host;
    simhost::SimHostInstall install;
    TraceCapture capture;
    CUDIDFactory factory;
};

}  // namespace

TEST_F(CachedLookupTest, FirstCallEnumeratesSecondValidatesAndMapKeepsTheOldUdid)
{
    EXPECT_EQ(factory.getCachedUniqueDeviceID("/dev/sda", false), defaultUdid(0x11));
    EXPECT_EQ(capture.at(6).front(),
              "CUDIDFactory::getCachedUniqueDeviceID() Device map is empty, re-enumerating.");
    EXPECT_TRUE(validations().empty());

    host.findDevice("sda")->vpd[0x83].back() = 0x22;  // the volume behind sda changed
    EXPECT_EQ(factory.getCachedUniqueDeviceID("/dev/sda", false), defaultUdid(0x22));
    EXPECT_EQ(validations().size(), 1u);
    EXPECT_EQ(factory.m_deviceMap["/dev/sda"].Uid, defaultUdid(0x11));
    EXPECT_EQ(
        countPrefix(capture.at(6), "CUDIDFactory::getCachedUniqueDeviceID() Device map is empty"),
        1u);
}

TEST_F(CachedLookupTest, UnknownDeviceDumpsTheMapOrRescansTheBuses)
{
    simhost::SimDevice latent = defaultDisk("sdb", 1, 0, 0x33);
    latent.state = simhost::DeviceState::Latent;
    host.addDevice(latent);

    EXPECT_EQ(factory.getCachedUniqueDeviceID("/dev/sdb", false), "");
    EXPECT_TRUE(capture.has(
        2, "CUDIDFactory::getCachedUniqueDeviceID() Device /dev/sdb not found, map contents are:"));
    EXPECT_TRUE(capture.has(2, "\t\t[/dev/sda] : [" + defaultUdid(0x11) + "]\n"));
    EXPECT_TRUE(host.sleeps().empty());  // no bus was rescanned

    // With rescanIfMissing the buses are rescanned: the wildcard scan finds the latent LUN.
    EXPECT_EQ(factory.getCachedUniqueDeviceID("/dev/sdb", true), defaultUdid(0x33));
    EXPECT_FALSE(host.writesTo("/sys/class/scsi_host/host0/scan").empty());
    EXPECT_EQ(factory.m_deviceMap.count("/dev/sdb"), 1u);

    capture.clear();
    EXPECT_EQ(factory.getCachedUniqueDeviceID("/dev/sdz", true), "");
    EXPECT_TRUE(capture.has(
        2, "CUDIDFactory::getCachedUniqueDeviceID() Device /dev/sdz not found, map contents are:"));
    EXPECT_EQ(countPrefix(capture.at(2), "\t\t["), factory.m_deviceMap.size());
}

TEST_F(CachedLookupTest, AnEmptyMapIsReEnumeratedOnEveryCall)
{
    host.findDevice("sda")->state = simhost::DeviceState::Removed;
    for (int call = 1; call <= 3; ++call) {
        EXPECT_EQ(factory.getCachedUniqueDeviceID("/dev/sda", false), "");
        EXPECT_EQ(countPrefix(capture.at(6),
                              "CUDIDFactory::getCachedUniqueDeviceID() Device map is empty"),
                  static_cast<size_t>(call));
    }
}

TEST_F(CachedLookupTest, TheRecordObserverSeesEveryRecordAndChangesNothing)
{
    simhost::SimDevice silent = defaultDisk("sdb", 1, 0, 0x33);
    silent.state = simhost::DeviceState::Unresponsive;
    host.addDevice(silent);
    capture.clear();
    const DeviceMap plain = factory.enumerateDeviceMap(false, false, false);
    std::vector<std::pair<int, std::string>> plainTrace = capture.lines();
    capture.clear();

    // In discovery's order, each record with what its enumeration read, before its entry exists.
    std::vector<std::string> seen;
    factory.setRecordObserver([&](const CScsiDeviceData& record) {
        seen.push_back(record.m_deviceName + " " + record.m_vendorId + " " +
                       std::to_string(record.m_lun) + " " +
                       std::to_string(record.findPage(0) != nullptr));
        EXPECT_EQ(factory.m_deviceMap.count(record.m_deviceName), 0u);
    });
    const DeviceMap observed = factory.enumerateDeviceMap(false, false, false);
    EXPECT_EQ(seen, (std::vector<std::string>{"/dev/sda ACME 0 1", "/dev/sdb  0 0"}));
    EXPECT_EQ(observed, plain);
    EXPECT_EQ(capture.lines(), plainTrace);

    // Let go of, it is called no more.
    factory.setRecordObserver(nullptr);
    seen.clear();
    factory.enumerateDeviceMap(false, false, false);
    EXPECT_TRUE(seen.empty());
}

// One device validated on its own: its entry, named and with its UDID; the map is left alone.
TEST_F(CachedLookupTest, ValidatingOneDeviceGivesItsEntryAndLeavesTheMap)
{
    const DeviceMap map = factory.enumerateDeviceMap(false, false, false);
    const DeviceMap one = factory.validateDeviceMap("/dev/sda");
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one.at("/dev/sda").DeviceName, "/dev/sda");
    EXPECT_EQ(one.at("/dev/sda").Uid, defaultUdid(0x11));
    EXPECT_EQ(factory.m_deviceMap, map);
    EXPECT_TRUE(factory.validateDeviceMap("/dev/sdz").empty());
}
