// Device nodes of the simulated host looked up by name: which node a path is, which device
// answers on it, and that changes made through the references the builder hands out are seen
// at once, also after the nodes were looked up before.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <string>
#include <vector>

#include "page_builders.h"
#include "sim_disks.h"
#include "simhost.h"

using simhost::Bytes;
using simhost::DeviceState;
using simhost::SimDevice;
using simhost::SimHost;

namespace {

SimDevice disk(const std::string& name, const std::string& vendor, int lun,
               DeviceState state = DeviceState::Running)
{
    SimDevice device = simDisk(name, 2, 0, 0, lun, state);
    device.inquiry = inquiryPage(vendor, "", 36);
    return device;
}

// What opening `path` gives: "errno N", or "major:minor vendor" with the vendor that the
// standard INQUIRY on the node returns ("-" when the command fails).
std::string probe(SimHost& host, const std::string& path)
{
    int fd = host.open(path.c_str(), O_RDWR | O_NONBLOCK);
    if (fd < 0)
        return "errno " + std::to_string(errno);
    struct stat st;
    std::string result = "?";
    if (host.stat(path.c_str(), &st) == 0)
        result = std::to_string(major(st.st_rdev)) + ":" + std::to_string(minor(st.st_rdev));
    unsigned char buffer[8 + 96] = {0};
    buffer[4] = 96;  // output length
    buffer[8] = 0x12;
    buffer[12] = 96;
    if (host.ioctl(fd, 1, buffer) == 0) {
        result += " " + std::string(reinterpret_cast<char*>(buffer) + 16, 8);
    } else {
        result += " -";
    }
    host.close(fd);
    return result;
}

struct Case {
    std::string path;
    std::string expected;
};

void expectProbes(SimHost& host, const std::vector<Case>& cases)
{
    for (const Case& c : cases) {
        EXPECT_EQ(c.expected, probe(host, c.path)) << c.path;
    }
}

class SimHostNodes : public ::testing::Test {
protected:
    void SetUp() override
    {
        SimDevice sda = disk("sda", "ALPHA", 0);
        sda.partitions.push_back("sda1");
        host.addDevice(sda);
        host.addDevice(disk("sdb", "BRAVO", 1, DeviceState::Gone));
        host.addDevice(disk("sdc", "CHARLIE", 2, DeviceState::Latent));
        host.addDevice(disk("sdaa", "DELTA", 3));
        host.addPowerPathDevice("emcpowera", "sdaa");
        host.addMultipathMap("mpatha", "sda");
        host.addMultipathMap("mpathb");
    }
    SimHost host;
};

TEST_F(SimHostNodes, EachNodeIsItsDeviceOrWhatItFronts)
{
    expectProbes(host, {
                           {"/dev/sda", "8:0 ALPHA   "},
                           {"/dev/sda1", "8:1 ALPHA   "},
                           {"/dev//sda", "8:0 ALPHA   "},
                           {"/dev/sdb", "errno " + std::to_string(ENXIO)},
                           {"/dev/sdc", "errno " + std::to_string(ENOENT)},
                           {"/dev/sdaa", "65:160 DELTA   "},
                           {"/dev/emcpowera", "120:0 DELTA   "},
                           {"/dev/mapper/mpatha", "253:0 ALPHA   "},
                           {"/dev/mapper/mpathb", "253:1 -"},
                           {"/dev/mapper/control", "10:236 -"},
                           {"/dev/mapper/.", "errno " + std::to_string(ENOENT)},
                           {"/dev/sdz", "errno " + std::to_string(ENOENT)},
                           {"/dev/mapper", "errno " + std::to_string(EISDIR)},
                       });
}

TEST_F(SimHostNodes, ChangesThroughHeldReferencesAreSeenAfterEarlierLookups)
{
    probe(host, "/dev/sda");
    SimDevice* sda = host.findDevice("sda");
    ASSERT_NE(nullptr, sda);
    sda->name = "sdq";
    sda->partitions.assign(1, "sdq2");
    host.findDevice("sdc")->state = DeviceState::Running;
    host.findDevice("sdaa")->state = DeviceState::Gone;
    expectProbes(host, {
                           {"/dev/sda", "errno " + std::to_string(ENOENT)},
                           {"/dev/sda1", "errno " + std::to_string(ENOENT)},
                           {"/dev/sdq", "65:0 ALPHA   "},
                           {"/dev/sdq2", "65:2 ALPHA   "},
                           {"/dev/sdc", "8:32 CHARLIE "},
                           {"/dev/sdaa", "errno " + std::to_string(ENXIO)},
                           // The map still names sda, which no device is called any more.
                           {"/dev/mapper/mpatha", "253:0 -"},
                       });
    host.addDevice(disk("sda", "ECHO", 4));
    expectProbes(host, {{"/dev/sda", "8:0 ECHO    "}, {"/dev/mapper/mpatha", "253:0 ECHO    "}});
}

// A name the kernel gave again: the node is the listed device's, and commands reach the first
// device of that name, as the walks over the devices have it.
TEST_F(SimHostNodes, ReusedNamesKeepTheFirstDevicesAnswers)
{
    host.findDevice("sdb")->state = DeviceState::Removed;
    host.addDevice(disk("sdb", "FOXTROT", 5));
    expectProbes(host, {{"/dev/sdb", "8:16 -"}, {"/dev/sda", "8:0 ALPHA   "}});
}

}  // namespace

namespace {

std::string listing(SimHost& host, const std::string& path)
{
    void* dir = host.opendir(path.c_str());
    if (!dir)
        return "errno " + std::to_string(errno);
    std::string names;
    while (struct dirent* entry = host.readdir(dir)) {
        names += std::string(names.empty() ? "" : " ") + entry->d_name +
                 (entry->d_type == DT_DIR   ? "/"
                  : entry->d_type == DT_BLK ? "#"
                                            : "");
    }
    host.closedir(dir);
    return names;
}

std::string statOf(SimHost& host, const std::string& path)
{
    struct stat st;
    if (host.stat(path.c_str(), &st) != 0)
        return "errno " + std::to_string(errno);
    return (S_ISDIR(st.st_mode)   ? "dir "
            : S_ISREG(st.st_mode) ? "file "
                                  : "node ") +
           std::to_string(st.st_size);
}

TEST_F(SimHostNodes, ListingsAndStatsSeeTheWholeTree)
{
    host.addFile("/etc/iscsi/initiatorname.iscsi", "InitiatorName=iqn.x\n");
    host.addExecutable("/sbin/multipath");
    const std::vector<Case> listings = {
        {"/", "./ ../ dev/ etc/ proc/ sbin/ sys/"},
        {"/dev", "./ ../ emcpowera# mapper/ sda# sda1# sdaa# sdb#"},
        {"/dev/", "./ ../ emcpowera# mapper/ sda# sda1# sdaa# sdb#"},
        {"/dev/mapper", "./ ../ control mpatha# mpathb#"},
        {"/sys/class/scsi_device", "./ ../ 2:0:0:0/ 2:0:0:1/ 2:0:0:3/"},
        {"/proc", "./ ../ partitions scsi/"},
        {"/dev/sda", "errno " + std::to_string(ENOTDIR)},
        {"/dev/mapper/.", "errno " + std::to_string(ENOENT)},
    };
    for (const Case& c : listings) {
        EXPECT_EQ(c.expected, listing(host, c.path)) << c.path;
    }
    std::string partitions;
    ASSERT_TRUE(host.fileText("/proc/partitions", partitions));
    const std::vector<Case> stats = {
        {"/", "dir 0"},
        {"/dev/mapper", "dir 0"},
        {"/sys/class/scsi_device/2:0:0:1/device", "dir 0"},
        {"/sys/class/scsi_device/2:0:0:1/device/delete", "file 0"},
        {"/etc/iscsi/initiatorname.iscsi", "file 20"},
        {"/proc/partitions", "file " + std::to_string(partitions.size())},
        {"/sbin/multipath", "file 0"},
        {"/dev/sdaa", "node 0"},
        {"/sys/class/scsi_device/2:0:0:2", "errno " + std::to_string(ENOENT)},
    };
    for (const Case& c : stats) {
        EXPECT_EQ(c.expected, statOf(host, c.path)) << c.path;
    }
}

}  // namespace
