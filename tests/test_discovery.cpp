// SPDX-License-Identifier: Apache-2.0
// Device enumeration on the simulated host: the kernel's SCSI list and its filters, whole-disk
// names from /proc/partitions, and the records made for multipath and native devices.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "device_discovery.h"
#include "kernel_files.h"
#include "sim_disks.h"
#include "simhost.h"
#include "trace_capture.h"

using simhost::DeviceState;

namespace {

struct Enumeration : ::testing::Test {
    simhost::SimHost host;
    simhost::SimHostInstall install{host};
    TraceCapture trace;
    CLinuxDeviceDiscovery discovery;
    Enumeration() { discovery.registerTraceLog(trace.log()); }

    // Replaces the kernel's /proc/scsi/scsi by `text`.
    void procScsi(const std::string& text)
    {
        host.setProcScsi(false);
        host.addFile("/proc/scsi/scsi", text);
    }
};

std::string addresses(const std::vector<SLinuxScsiDevice>& list)
{
    std::string text;
    for (const SLinuxScsiDevice& d : list) {
        text += std::to_string(d.host) + ":" + std::to_string(d.channel) + ":" +
                std::to_string(d.id) + ":" + std::to_string(d.lun) + " ";
    }
    return text;
}

const char kVendor[] = "  Vendor: ACME     Model: Disk             Rev: 0001\n";

}  // namespace

TEST_F(Enumeration, KernelListFiltersDiskTypes)
{
    procScsi(std::string("Attached devices:\n") + "Host: scsi0 Channel: 00 Id: 00 Lun: 00\n" +
             kVendor + "  Type:   Direct-Access                    ANSI  SCSI revision: 05\n" +
             "Host: scsi0 Channel: 00 Id: 01 Lun: 00\n" + kVendor +
             "  Type:   Sequential-Access                ANSI  SCSI revision: 02\n" +
             "Host: scsi1 Channel: 00 Id: 02 Lun: 03\n" + kVendor +
             "  Type:   RAID                             ANSI  SCSI revision: 05\n" +
             "Host: scsi1 Channel: 00 Id: 02 Lun: 04\n" + kVendor +
             "  Type:   Unknown                          ANSI  SCSI revision: 05\n" +
             "Host: scsi3 Channel: 01 Id: 03 Lun: 07\n" + kVendor);

    EXPECT_EQ(addresses(discovery.getDeviceList(false)),
              "0:0:0:0 0:0:1:0 1:0:2:3 1:0:2:4 3:1:3:7 ");
    EXPECT_EQ(addresses(discovery.getDeviceList(true)), "0:0:0:0 1:0:2:4 ");
    EXPECT_EQ(discovery.getDeviceCount(), 5);

    trace.clear();
    std::map<int, std::vector<int>> targets;
    discovery.getTargetIds(targets);
    EXPECT_EQ(targets, (std::map<int, std::vector<int>>{{0, {0}}, {1, {2}}}));
    EXPECT_EQ(trace.at(3),
              (std::vector<std::string>{
                  "Adding to the list for type [  Type:   Direct-Access                    ANSI  "
                  "SCSI revision: 05\n] [0 0 0 0] ",
                  "Adding to the list for type [  Type:   RAID                             ANSI  "
                  "SCSI revision: 05\n] [1 0 2 3] ",
                  "Adding to the list for type [  Type:   Unknown                          ANSI  "
                  "SCSI revision: 05\n] [1 0 2 4] ",
                  "target 2 already in map"}));
    EXPECT_EQ(trace.at(5), std::vector<std::string>{"INFO: reading /proc/scsi/scsi\n"});

    // An entry whose type line ends the file, without a line end, is whole.
    procScsi(std::string("Attached devices:\n") + "Host: scsi2 Channel: 00 Id: 05 Lun: 01\n" +
             kVendor + "  Type:   Direct-Access                    ANSI  SCSI revision: 05");
    EXPECT_EQ(addresses(discovery.getDeviceList(true)), "2:0:5:1 ");
    targets.clear();
    discovery.getTargetIds(targets);
    EXPECT_EQ(targets, (std::map<int, std::vector<int>>{{2, {5}}}));
}

TEST_F(Enumeration, MissingKernelListIsReportedAndEmpty)
{
    host.setProcScsi(false);
    EXPECT_TRUE(discovery.getDeviceList(true).empty());
    EXPECT_EQ(discovery.getDeviceCount(), 0);
    std::map<int, std::vector<int>> targets;
    discovery.getTargetIds(targets);
    EXPECT_TRUE(targets.empty());
    EXPECT_EQ(trace.at(2), (std::vector<std::string>{
                               "Warning: LinuxDeviceDiscovery::getDeviceList() failed to open "
                               "/proc/scsi/scsi for reading.",
                               "Warning: CLinuxDeviceDiscovery::getDeviceList() failed to open "
                               "/proc/scsi/scsi for reading."}));
}

TEST_F(Enumeration, WholeSdDiskNames)
{
    struct Case {
        const char* name;
        bool valid;
    } cases[] = {{"sda", true},   {"sdab", true}, {"sda1", false}, {"sdb10", false},
                 {"sdc9", false}, {"hda", false}, {"xsda", false}};
    for (const Case& c : cases) {
        trace.clear();
        EXPECT_EQ(discovery.IsValidDeviceName(c.name), c.valid) << c.name;
        EXPECT_EQ(trace.at(4).size(), c.valid ? 0u : 1u) << c.name;
        EXPECT_EQ(trace.at(6).size(), 2u) << c.name << ": the entry and exit lines";
    }
    // An empty name has no last character to look at: it is refused with 6.
    trace.clear();
    EXPECT_THROW(discovery.IsValidDeviceName(""), int);
    EXPECT_EQ(trace.at(1),
              std::vector<std::string>{
                  "libscsitool: ERROR: CLinuxDeviceDiscovery::IsValidDeviceName() failed"});
}

TEST_F(Enumeration, NativePathsAreWholeSdDisksCutToEightCharacters)
{
    host.setKernelFile(
        "/proc/partitions",
        "major minor  #blocks  name\n\n"
        "   8     0   10485760 sda\n   8     1    5242880 sda1\n   3     0    1000000 hda\n"
        "   8    16   10485760 sdabcdefgh\n 120     0   10485760 emcpowera\n"
        " 253     0   10485760 dm-0\n   8    32   10485760 sdb\n");
    EXPECT_EQ(discovery.enumerateNativeDevicePaths(),
              (std::vector<std::string>{"/dev/sda", "/dev/sdabcdef", "/dev/sdb"}));
    EXPECT_TRUE(trace.has(3, "INFO: reading /proc/partitions\n"));
}

TEST_F(Enumeration, MultipathRecordsFirstThenNativeDisksThatOpen)
{
    host.setHostname("dbhost");
    simhost::SimDevice a = simDisk("sda", 0, 0, 0, 0);
    a.partitions = {"sda1"};
    host.addDevice(a);
    host.addDevice(simDisk("sdb", 0, 0, 1, 0, DeviceState::Gone));
    host.addDevice(simDisk("sdc", 1, 0, 0, 0));
    host.addMultipathMap("mpatha", "sdc");
    host.addPowerPathDevice("emcpowera", "sda");

    std::vector<CScsiDeviceData*> records = discovery.enumerateDevices();

    struct Expected {
        const char* name;
        const char* hostName;
        int claimLevel;
    } expected[] = {{"/dev/emcpowera", "", 16},
                    {"/dev/mapper/control", "", 16},
                    {"/dev/mapper/mpatha", "", 16},
                    {"/dev/sda", "dbhost", 2},
                    {"/dev/sdc", "dbhost", 2}};
    ASSERT_EQ(records.size(), sizeof expected / sizeof expected[0]);
    for (size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i]->m_deviceName, expected[i].name);
        EXPECT_EQ(records[i]->m_hostName, expected[i].hostName) << expected[i].name;
        EXPECT_EQ(records[i]->dmpClaimLevel, expected[i].claimLevel) << expected[i].name;
        EXPECT_EQ(records[i]->m_pagesValid, 1);
        EXPECT_EQ(records[i]->m_secondFlag, 1);
        EXPECT_EQ(records[i]->m_port, -1);
        delete records[i];
    }
    // "." and ".." of /dev/mapper/ are entered by the module and dropped here: they do not open.
    EXPECT_TRUE(trace.has(3, "INFO: enumerate DMP devices returned [5] devices"));
    EXPECT_TRUE(trace.has(3, "dmp: /dev/mapper/.."));
}

TEST_F(Enumeration, ValidationMakesOneRecordWithoutClaimLevel)
{
    host.addDevice(simDisk("sda", 0, 0, 0, 0));
    host.addDevice(simDisk("sdb", 0, 0, 1, 0, DeviceState::Gone));
    struct Case {
        const char* name;
        bool hostnameFails;
        size_t records;
        const char* hostName;
    } cases[] = {{"/dev/sda", false, 1, "simhost"},
                 {"/dev/sda", true, 1, ""},
                 {"/dev/sdb", false, 0, ""},
                 {"/dev/sdz", false, 0, ""}};
    for (const Case& c : cases) {
        if (c.hostnameFails)
            host.setHostnameFails();
        std::vector<CScsiDeviceData*> records = discovery.validateEnumerateDevices(c.name);
        ASSERT_EQ(records.size(), c.records) << c.name;
        for (CScsiDeviceData* record : records) {
            EXPECT_EQ(record->m_deviceName, c.name);
            EXPECT_EQ(record->m_hostName, c.hostName);
            EXPECT_EQ(record->dmpClaimLevel, 0);
            EXPECT_EQ(record->m_pagesValid, 1);
            delete record;
        }
    }
}

// The disks /proc/scsi/scsi lists, each from its address line: a Vendor or Type line that no
// address line opens belongs to no disk.
TEST_F(Enumeration, ListedDisksStartAtTheirAddressLines)
{
    procScsi(
        "Attached devices:\n"
        "Host: scsi0 Channel: 00 Id: 00 Lun: 00\n" +
        std::string(kVendor) +
        "  Type:   Direct-Access                    ANSI  SCSI revision: 05\n" + kVendor +
        "  Type:   Direct-Access                    ANSI  SCSI revision: 05\n"
        "Host: scsi0 Channel: 00 Id: 01 Lun: 00\n"
        "  Type:   Direct-Access                    ANSI  SCSI revision: 05\n");
    const std::vector<SListedScsiDisk> disks = readProcScsiDisks();
    ASSERT_EQ(disks.size(), 1u);
    EXPECT_EQ(disks[0].address.id, 0);
    EXPECT_EQ(std::string(disks[0].inquiry.begin() + 8, disks[0].inquiry.begin() + 16), "ACME    ");
}

namespace {
// A host whose kernel files fail: one path, or every file opened for appending, does not open;
// reading one path, or the host name, throws.
class FaultyFilesHost : public simhost::SimHost {
public:
    std::string missing;
    bool noAppending = false;
    std::string throwOn;
    FILE* fopen(const char* path, const char* mode) override
    {
        if (throwOn == path)
            throw std::bad_alloc();
        if (missing == path || (noAppending && std::string(mode) == "a")) {
            errno = EACCES;
            return nullptr;
        }
        return SimHost::fopen(path, mode);
    }
    int gethostname(char* name, size_t length) override
    {
        if (throwOn == "hostname")
            throw std::bad_alloc();
        return SimHost::gethostname(name, length);
    }
};
}  // namespace

TEST(EnumerationWithoutPartitions, NoNativePathsAndAnErrorAtLevelOne)
{
    FaultyFilesHost host;
    host.missing = "/proc/partitions";
    simhost::SimHostInstall install(host);
    host.addDevice(simDisk("sda", 0, 0, 0, 0));
    TraceCapture trace;
    CLinuxDeviceDiscovery discovery;
    discovery.registerTraceLog(trace.log());
    EXPECT_TRUE(discovery.enumerateNativeDevicePaths().empty());
    EXPECT_EQ(trace.at(1),
              std::vector<std::string>{"ERROR: failed to open /proc/partitions for reading."});
}

// An exception while enumerating is reported at level 1 and answered with what was found so far;
// the disk count is then 0; the list of native paths passes it on as the integer 6.
TEST(EnumerationThatThrows, IsReportedAndGivesWhatWasFound)
{
    const std::string failed =
        "libscsitool: ERROR: CLinuxDeviceDiscovery::EnumerateDevices() failed.";
    for (const char* throwOn : {"/proc/partitions", "hostname", "/proc/scsi/scsi"}) {
        FaultyFilesHost host;
        host.throwOn = throwOn;
        simhost::SimHostInstall install(host);
        host.addDevice(simDisk("sda", 0, 0, 0, 0));
        host.addMultipathMap("mpatha", "sda");
        TraceCapture trace;
        CLinuxDeviceDiscovery discovery;
        discovery.registerTraceLog(trace.log());
        std::vector<CScsiDeviceData*> all = discovery.enumerateDevices();
        std::vector<CScsiDeviceData*> one = discovery.validateEnumerateDevices("/dev/sda");
        const std::string what = throwOn;
        if (what == "/proc/scsi/scsi") {
            EXPECT_EQ(discovery.getDeviceCount(), 0);
            ASSERT_EQ(all.size(), 3u);
            EXPECT_EQ(all.back()->m_deviceName, "/dev/sda");
            EXPECT_EQ(one.size(), 1u);
            EXPECT_TRUE(trace.at(1).empty());
        } else {
            // The multipath maps are found before the native disks are listed.
            EXPECT_EQ(all.size(), 2u) << what;
            for (CScsiDeviceData* record : all)
                EXPECT_EQ(record->m_deviceName.compare(0, 12, "/dev/mapper/"), 0) << what;
            EXPECT_EQ(one.size(), what == "hostname" ? 0u : 1u) << what;
            EXPECT_EQ(trace.at(1), std::vector<std::string>(what == "hostname" ? 2 : 1, failed))
                << what;
        }
        if (what == "/proc/partitions") {
            int thrown = 0;
            try {
                discovery.enumerateNativeDevicePaths();
            } catch (int e) {
                thrown = e;
            }
            EXPECT_EQ(thrown, 6);
        }
        for (CScsiDeviceData* record : all)
            delete record;
        for (CScsiDeviceData* record : one)
            delete record;
    }
}

// A removal the kernel's list does not take is told at level 3 and goes no further: no write, and
// on 2.6 not the device's own delete file either.
TEST(Removal, AKernelListThatCannotBeAppendedTo)
{
    FaultyFilesHost host;
    host.noAppending = true;
    simhost::SimHostInstall install(host);
    host.setKernelRelease("2.6.18-8.el5");
    host.addDevice(simDisk("sda", 1, 2, 3, 4));
    TraceCapture trace;
    CLinuxDeviceDiscovery discovery;
    discovery.registerTraceLog(trace.log());
    trace.clear();
    discovery.RemoveDevice(1, 2, 3, 4);
    EXPECT_EQ(trace.at(3), (std::vector<std::string>{
                               "INFO: RemoveDevice [1,2,3,4]",
                               "INFO: remove device failed to open /proc/scsi/scsi for: scsi "
                               "remove-single-device 1 2 3 4\n\n"}));
    EXPECT_TRUE(trace.at(2).empty());
    EXPECT_TRUE(host.writesTo("/proc/scsi/scsi").empty());
}
