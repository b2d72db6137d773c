// The simulated host: CDB decoding, address packing, SG_IO, generated files and their reaction
// to control writes, commands, the event record and snapshot validation.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <scsi/sg.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "device_discovery.h"
#include "device_scsi_data.h"
#include "page_builders.h"
#include "sim_disks.h"
#include "simhost.h"

using simhost::Bytes;
using simhost::DeviceState;
using simhost::SimAdapter;
using simhost::SimDevice;
using simhost::SimEvent;
using simhost::SimHost;

namespace {

const std::string kHosts = std::string(SCSITOOL_SOURCE_DIR) + "/examples/hosts/";

// A disk answering a 40-byte standard INQUIRY (direct access, SPC-3, "ACME    Big Disk 2
// 0100"), page 0x00 and page 0x83.
SimDevice disk(const std::string& name, int host, int channel, int id, int lun,
               DeviceState state = DeviceState::Running)
{
    SimDevice device = simDisk(name, host, channel, id, lun, state);
    device.inquiry =
        PageBuilder(40).hex(0, "00 00 05 02 23").text(8, "ACME    Big Disk 2      0100");
    device.vpd[0x00] = hexBytes("00 00 00 02 00 83");
    device.vpd[0x83] = hexBytes("00 83 00 08 01 03 00 04 de ad be ef");
    return device;
}

// An example host from the repository.
std::unique_ptr<SimHost> load(const std::string& name)
{
    std::string error;
    std::unique_ptr<SimHost> host = SimHost::fromFile(kHosts + name, error);
    EXPECT_TRUE(host) << name << ": " << error;
    return host;
}

// The SCSI_IOCTL_SEND_COMMAND buffer as the library fills it.
struct Command {
    uint8_t buffer[512];
    Command(int byte1, int page, int allocation, uint32_t outputLength = 480)
    {
        memset(buffer, 0xaa, sizeof buffer);
        memset(buffer, 0, 8);
        buffer[4] = outputLength & 0xff;
        buffer[5] = (outputLength >> 8) & 0xff;
        const uint8_t cdb[6] = {0x12, static_cast<uint8_t>(byte1),      static_cast<uint8_t>(page),
                                0,    static_cast<uint8_t>(allocation), 0};
        memcpy(buffer + 8, cdb, 6);
    }
    Bytes answer(size_t length) const { return Bytes(buffer + 8, buffer + 8 + length); }
};

std::string text(SimHost& host, const std::string& path)
{
    std::string content;
    return host.fileText(path, content) ? content : "<missing>";
}

bool writeFile(SimHost& host, const char* path, const char* data)
{
    FILE* file = host.fopen(path, "a");
    if (!file)
        return false;
    fputs(data, file);
    fclose(file);
    return true;
}

// The names in a directory, blank-separated, directories marked "/" and block nodes "#"; or
// "errno N" when it does not open.
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

const std::string kNoEntry = "errno " + std::to_string(ENOENT);

class SimHostTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        host.addDevice(disk("sdb", 3, 0, 0, 0));
        host.addDevice(disk("sdc", 3, 0, 0, 2));
        host.addDevice(disk("sdd", 3, 0, 1, 0, DeviceState::Latent));
        host.addDevice(disk("sde", 4, 0, 0, 0, DeviceState::Latent));
        host.addDevice(disk("sdf", 3, 0, 2, 0, DeviceState::Unresponsive));
        host.addAdapter({3, "qla2xxx", "scsi-qla0-adapter-port=21000024ff2c3d4e;\n", true,
                         "0x21000024ff2c3d4e"});
        host.addAdapter(simAdapter(4, "lpfc"));
    }
    SimHost host;
};

TEST_F(SimHostTest, InquiryIsDecodedAndCutToTheSmallerOfAllocationAndOutputLength)
{
    struct Case {
        const char* what;
        int byte1, page, allocation;
        uint32_t outputLength;
        int result;
        Bytes expected;
    };
    // Rejected: CHECK CONDITION with ILLEGAL REQUEST / INVALID FIELD IN CDB sense data.
    const Bytes sense = hexBytes("70 00 05 00 00 00 00 0a 00 00 00 00 24 00 00 00 00 00");
    // Whole answers, EVPD pages and the LUN bits are decoded as the SCSI access tests send them.
    // clang-format off
    const Case cases[] = {
        {"standard, allocation 10", 0x00, 0, 10, 480, 0, hexBytes("00 00 05 02 23 00 00 00 41 43")},
        {"standard, output 3", 0x00, 0, 252, 3, 0, hexBytes("00 00 05")},
        {"unsupported page", 0x01, 0x80, 252, 480, 2, sense},
        {"page without EVPD", 0x00, 0x83, 252, 480, 2, sense},
    };
    // clang-format on
    int fd = host.open("/dev/sdb", O_RDWR | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    for (const Case& c : cases) {
        Command command(c.byte1, c.page, c.allocation, c.outputLength);
        EXPECT_EQ(c.result, host.ioctl(fd, 1, command.buffer)) << c.what;
        EXPECT_EQ(c.expected, command.answer(c.expected.size())) << c.what;
        // A good answer is followed by zeros up to the output length (over the CDB too); past
        // it, and past the sense data of a rejected command, the buffer is untouched.
        const size_t end = 8 + c.expected.size();
        if (c.result == 0) {
            EXPECT_EQ(0, command.buffer[end]) << c.what << ": not zero-filled";
            const size_t past = 8 + c.outputLength;
            EXPECT_EQ(0xaa, command.buffer[past < 14 ? 14 : past]) << c.what << ": wrote past";
        } else {
            EXPECT_EQ(0xaa, command.buffer[end < 14 ? 14 : end]) << c.what << ": wrote past";
        }
    }
    // Byte 3 is the high byte of the allocation length (SPC-3): 0x0100 lets 256 bytes through.
    host.findDevice("sdb")->vpd[0x80] = Bytes(300, 0x33);
    Command wide(0x01, 0x80, 0x00);
    wide.buffer[8 + 3] = 0x01;
    EXPECT_EQ(0, host.ioctl(fd, 1, wide.buffer));
    EXPECT_EQ(0x33, wide.buffer[8 + 255]);
    EXPECT_EQ(0, wide.buffer[8 + 256]);
    EXPECT_EQ(5u, host.cdbsSent("/dev/sdb").size());
    EXPECT_EQ(host.cdbsSent("/dev/sdb"), host.cdbsSent("sdb"));
    host.close(fd);
}

// The word the kernel packs: host, channel, LUN and id from the high byte down.
TEST_F(SimHostTest, IdLunPacksTheAddress)
{
    host.addDevice(disk("sdx", 3, 2, 5, 1));
    uint32_t idlun[2] = {0, 0};
    ASSERT_EQ(0, host.ioctl(host.open("/dev/sdx", O_RDWR), 0x5382, idlun));
    EXPECT_EQ(0x03020105u, idlun[0]);
}

TEST_F(SimHostTest, SgIoAnswersTheVendorCommandWithinTheCallersBuffer)
{
    SimDevice* sdb = host.findDevice("sdb");
    sdb->hasVendorCommand = true;
    sdb->vendorCommand = Bytes(64, 0x5a);
    int fd = host.open("/dev/sdb", O_RDONLY | O_NONBLOCK);
    unsigned char cdb[10] = {0xC0, 0, 0, 0x0A, 0x98, 0x0A, 0x22, 0x10, 0, 0};
    unsigned char data[48] = {0};
    sg_io_hdr_t header{};
    header.interface_id = 'S';
    header.dxfer_direction = SG_DXFER_FROM_DEV;
    header.cmd_len = 10;
    header.cmdp = cdb;
    header.dxferp = data;
    header.dxfer_len = 40;  // less than the answer: the cut keeps the last 8 bytes untouched
    ASSERT_EQ(0, host.ioctl(fd, 0x2285, &header));
    EXPECT_EQ(0x5a, data[39]);
    EXPECT_EQ(0, data[40]);
    EXPECT_EQ(0, header.resid);
    EXPECT_EQ(Bytes(cdb, cdb + 10), host.cdbsSent("/dev/sdb").back());

    // INQUIRY through SG_IO: a rejected page comes back as CHECK CONDITION with sense data.
    unsigned char inquiry[6] = {0x12, 1, 0x80, 0, 252, 0};
    unsigned char sense[32] = {0};
    header.cmd_len = 6;
    header.cmdp = inquiry;
    header.sbp = sense;
    header.mx_sb_len = 16;
    ASSERT_EQ(0, host.ioctl(fd, 0x2285, &header));
    EXPECT_EQ(2, header.status);
    EXPECT_EQ(16, header.sb_len_wr);
    EXPECT_EQ(0x05, sense[2]);
    EXPECT_EQ(0, sense[16]);  // cut to mx_sb_len
    header.cmd_len = 10;
    header.cmdp = cdb;

    int other = host.open("/dev/sdc", O_RDONLY);  // no vendor command
    errno = 0;
    EXPECT_EQ(-1, host.ioctl(other, 0x2285, &header));
    EXPECT_EQ(EIO, errno);
    header.interface_id = 'Q';
    EXPECT_EQ(-1, host.ioctl(fd, 0x2285, &header));
}

TEST_F(SimHostTest, ProcScsiAndPartitionsFollowAddRemoveScanLipAndQlascan)
{
    const std::string sdb =
        "Host: scsi3 Channel: 00 Id: 00 Lun: 00\n"
        "  Vendor: ACME     Model: Big Disk 2       Rev: 0100\n"
        "  Type:   Direct-Access                    ANSI  SCSI revision: 05\n";
    const std::string sdc = "Host: scsi3 Channel: 00 Id: 00 Lun: 02\n";
    const std::string sdd = "Host: scsi3 Channel: 00 Id: 01 Lun: 00\n";
    const std::string sde = "Host: scsi4 Channel: 00 Id: 00 Lun: 00\n";
    auto shows = [&](const std::string& entry) {
        return text(host, "/proc/scsi/scsi").find(entry) != std::string::npos;
    };
    EXPECT_EQ(0u, text(host, "/proc/scsi/scsi").find("Attached devices:\n" + sdb));
    EXPECT_EQ(
        "major minor  #blocks  name\n\n"
        "   8       16   10485760 sdb\n"
        "   8       32   10485760 sdc\n"
        "   8       80   10485760 sdf\n",
        text(host, "/proc/partitions"));
    EXPECT_FALSE(shows(sdd));

    ASSERT_TRUE(writeFile(host, "/proc/scsi/scsi", "scsi remove-single-device 3 0 0 2\n"));
    EXPECT_FALSE(shows(sdc));
    EXPECT_EQ(ENOENT, (host.open("/dev/sdc", O_RDWR), errno));
    ASSERT_TRUE(writeFile(host, "/proc/scsi/scsi", "scsi add-single-device 3 0 0 2\n"));
    EXPECT_TRUE(shows(sdc));  // it still answers, so a probe finds it again

    ASSERT_TRUE(writeFile(host, "/proc/scsi/qla2xxx/3", "scsi-qlascan\n"));
    EXPECT_TRUE(shows(sdd));
    EXPECT_FALSE(shows(sde));
    ASSERT_TRUE(writeFile(host, "/sys/class/scsi_host/host4/issue_lip", "1\n"));
    EXPECT_TRUE(shows(sde));

    ASSERT_TRUE(writeFile(host, "/sys/class/scsi_device/3:0:1:0/device/delete", "1"));
    EXPECT_FALSE(shows(sdd));
    ASSERT_TRUE(writeFile(host, "/sys/class/scsi_host/host3/scan", "0 1 0\n"));
    EXPECT_TRUE(shows(sdd));

    // A dead device, once removed, is not found again.
    ASSERT_TRUE(writeFile(host, "/proc/scsi/scsi", "scsi remove-single-device 3 0 2 0\n"));
    ASSERT_TRUE(writeFile(host, "/sys/class/scsi_host/host3/scan", "- - -\n"));
    EXPECT_FALSE(shows("Id: 02"));
}

// Sleeps, the event order and clearing the record are pinned by the rescan and multipath tests.
TEST_F(SimHostTest, CommandsAreScriptedOrNotFoundAndEverythingIsRecorded)
{
    host.addExecutable("/sbin/powermt");
    host.scriptCommand("/sbin/multipath -v0 ", {1, {"error", "more"}});
    int sysErrno = -1;
    // "status|line|line..." of a command run through exec.
    auto exec = [&](const char* command) {
        std::vector<std::string> output;
        std::string result = std::to_string(host.exec(command, output, 600, sysErrno));
        for (const std::string& line : output)
            result += "|" + line;
        return result;
    };
    EXPECT_EQ("1|error|more", exec("/sbin/multipath -v0 "));
    EXPECT_EQ(0, sysErrno);
    EXPECT_EQ("0", exec("/sbin/powermt save"));
    EXPECT_EQ("127|sh: 1: /sbin/pidof: not found", exec("/sbin/pidof -x multipathd"));
    EXPECT_EQ("2|/bin/ls: cannot access '/proc/scsi/lpfc/': No such file or directory",
              exec("/bin/ls /proc/scsi/lpfc/"));

    const char* removal = "/bin/echo \"scsi remove-single-device 3 0 0 2\" >  /proc/scsi/scsi";
    EXPECT_EQ(0, host.system(removal));
    EXPECT_EQ(127 << 8, host.system("/sbin/nothing here"));
    host.scriptCommand("/bin/rescan-scsi-bus.sh", {kzfi_pdk_4_4::FI_EXEC_TIMED_OUT, {}});
    EXPECT_EQ(std::to_string(kzfi_pdk_4_4::FI_EXEC_TIMED_OUT), exec("/bin/rescan-scsi-bus.sh"));
    EXPECT_EQ(ETIMEDOUT, sysErrno);
    host.scriptCommand("/bin/killed", {256 + 9, {}});
    EXPECT_EQ(9, host.system("/bin/killed"));

    EXPECT_EQ(
        (std::vector<std::string>{"/sbin/multipath -v0 ", "/sbin/powermt save",
                                  "/sbin/pidof -x multipathd", "/bin/ls /proc/scsi/lpfc/", removal,
                                  "/sbin/nothing here", "/bin/rescan-scsi-bus.sh", "/bin/killed"}),
        host.commandsRun());
    std::vector<SimEvent> writes = host.writesTo("/proc/scsi/scsi");
    ASSERT_EQ(1u, writes.size());
    EXPECT_EQ("scsi remove-single-device 3 0 0 2\n", writes[0].data);
    EXPECT_EQ(std::string::npos, text(host, "/proc/scsi/scsi").find("Lun: 02"));
}

TEST_F(SimHostTest, NodesDirectoriesAndProgramsStatLikeTheirKind)
{
    host.addExecutable("/sbin/powermt");
    host.addFile("/etc/iscsi/initiatorname.iscsi", "InitiatorName=iqn.x\n");
    // Sizes, kinds and device numbers are pinned by the node tests; here what only programs,
    // control files and snapshot files do.
    struct stat st;
    ASSERT_EQ(0, host.stat("/dev/sdc", &st));
    EXPECT_TRUE(S_ISBLK(st.st_mode));
    EXPECT_EQ(0, host.access("/sbin/powermt", X_OK));
    EXPECT_EQ(-1, host.access("/etc/iscsi/initiatorname.iscsi", X_OK));
    EXPECT_EQ(-1, host.access("/bin/rescan-scsi-bus.sh", F_OK));
    EXPECT_EQ(ENOENT, errno);
    // Control files are write-only; the kernel's tables read-only; snapshot files take writes.
    EXPECT_EQ(nullptr, host.fopen("/sys/class/scsi_host/host3/scan", "r"));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(nullptr, host.fopen("/proc/partitions", "w"));
    ASSERT_TRUE(writeFile(host, "/etc/iscsi/initiatorname.iscsi", "#more\n"));
    EXPECT_EQ("InitiatorName=iqn.x\n#more\n", text(host, "/etc/iscsi/initiatorname.iscsi"));
    host.setDeviceMapper(true);
    ASSERT_EQ(0, host.stat("/dev/mapper/control", &st));
    EXPECT_TRUE(S_ISCHR(st.st_mode));
}

TEST_F(SimHostTest, EchoIntoAMissingControlFileFailsLikeTheShell)
{
    EXPECT_EQ(2 << 8, host.system("/bin/echo \"1\" > /sys/class/fc_host/host4/issue_lip"));
    EXPECT_TRUE(host.writesTo("/sys/class/fc_host/host4/issue_lip").empty());
    EXPECT_EQ(0, host.system("echo 1 >> /sys/class/fc_host/host3/issue_lip"));
    ASSERT_EQ(1u, host.writesTo("/sys/class/fc_host/host3/issue_lip").size());
    EXPECT_EQ("1\n", host.writesTo("/sys/class/fc_host/host3/issue_lip")[0].data);
}

TEST(SimHostKernel24, OldKernelFormatsAndNoSysfs)
{
    std::unique_ptr<SimHost> host = load("host24.json");
    ASSERT_TRUE(host);
    std::string scsi = text(*host, "/proc/scsi/scsi");
    EXPECT_EQ(0u, scsi.find("Attached devices:\n"
                            "Host: scsi0 Channel: 00 Id: 00 Lun: 00\n"
                            "  Vendor: SEAGATE  Model: ST336607LW       Rev: 0007\n"
                            "  Type:   Direct-Access                    ANSI SCSI revision: 03\n"))
        << scsi;
    EXPECT_NE(std::string::npos,
              text(*host, "/proc/partitions").find("   8     0   35843670 sda\n"));
    EXPECT_EQ(kNoEntry, listing(*host, "/sys/class/scsi_host"));
    EXPECT_EQ("./ ../ aic7xxx/ lpfc/ qla2300/ scsi", listing(*host, "/proc/scsi"));
    // The probe's add-single-device finds the latent LUN behind the Emulex adapter.
    ASSERT_EQ(std::string::npos, scsi.find("Host: scsi3 Channel: 00 Id: 00 Lun: 01"));
    ASSERT_TRUE(writeFile(*host, "/proc/scsi/scsi", "scsi add-single-device 3 0 0 1\n"));
    EXPECT_NE(std::string::npos,
              text(*host, "/proc/scsi/scsi").find("Host: scsi3 Channel: 00 Id: 00 Lun: 01"));
    std::string error;
    std::unique_ptr<SimHost> again = SimHost::fromJson(host->toJson(), error);
    ASSERT_TRUE(again) << error;
    EXPECT_EQ(DeviceState::Running, again->findDevice("sdg")->state);
    EXPECT_EQ(DeviceState::Latent, again->findDevice("sdh")->state);
}

// The QLogic port name is pinned by the command's initiator report of this host.
TEST(SimHostDatacenter, TypesOfEveryDeviceAndTheAdaptersFiles)
{
    std::unique_ptr<SimHost> host = load("datacenter.json");
    ASSERT_TRUE(host);
    std::string scsi = text(*host, "/proc/scsi/scsi");
    for (const char* line : {"  Type:   CD-ROM                           ANSI  SCSI revision: 05\n",
                             "  Type:   Sequential-Access                ANSI  SCSI revision: 03\n",
                             "  Vendor: DGC      Model: RAID 5           Rev: 0326\n"}) {
        EXPECT_NE(std::string::npos, scsi.find(line)) << line;
    }
    EXPECT_EQ("0x10000000c9a1b2c3\n", text(*host, "/sys/class/fc_host/host4/port_name"));
    EXPECT_NE(std::string::npos,
              text(*host, "/proc/partitions").find(" 253        0   52428800 dm-0\n"));
}

// A rescan with bus rescanning replays each example host: latent LUNs are found by the 2.6
// sysfs scans or the 2.4 probe, dead ones are dropped.
TEST(SimHostExamples, RescanFindsTheLatentLunsOfEachHost)
{
    struct Case {
        const char* file;
        std::vector<std::string> devices;
    } cases[] = {
        {"datacenter.json",
         {"/dev/emcpowera", "/dev/emcpowerb", "/dev/mapper/mpatha", "/dev/mapper/mpathb",
          "/dev/sda", "/dev/sdb", "/dev/sdc", "/dev/sdd", "/dev/sde", "/dev/sdf", "/dev/sdg",
          "/dev/sdh", "/dev/sdi", "/dev/sdj", "/dev/sdk", "/dev/sdl", "/dev/sdm", "/dev/sdo",
          "/dev/sdp"}},
        {"host24.json",
         {"/dev/sda", "/dev/sdb", "/dev/sdc", "/dev/sdd", "/dev/sde", "/dev/sdf", "/dev/sdg",
          "/dev/sdh"}},
        {"modern.json", {"/dev/mapper/mpatha", "/dev/sda", "/dev/sdb"}},
    };
    for (const Case& c : cases) {
        std::unique_ptr<SimHost> host = load(c.file);
        ASSERT_TRUE(host);
        simhost::SimHostInstall install(*host);
        CLinuxDeviceDiscovery discovery;
        std::vector<std::string> found;
        for (CScsiDeviceData* record : discovery.rescan(true, false, false)) {
            found.push_back(record->m_deviceName);
            delete record;
        }
        EXPECT_EQ(c.devices, found) << c.file;
    }
}

TEST(SimHostSnapshot, ExampleHostsLoadAndSurviveARoundTrip)
{
    for (const char* name : {"datacenter.json", "host24.json", "modern.json"}) {
        std::unique_ptr<SimHost> host = load(name);
        ASSERT_TRUE(host);
        std::string error;
        std::unique_ptr<SimHost> again = SimHost::fromJson(host->toJson(), error);
        ASSERT_TRUE(again) << name << ": " << error;
        EXPECT_EQ(host->toJson(), again->toJson()) << name;
        // Only the modern host's kernel is built without /proc/scsi/scsi.
        std::string procScsi;
        EXPECT_EQ(std::string(name) != "modern.json", host->fileText("/proc/scsi/scsi", procScsi));
    }
}

TEST(SimHostSnapshot, TheDocumentedExampleLoads)
{
    std::ifstream file(std::string(SCSITOOL_SOURCE_DIR) + "/docs/host-snapshot.md");
    std::stringstream doc;
    doc << file.rdbuf();
    const std::string text = doc.str();
    size_t start = text.find("```json\n");
    ASSERT_NE(std::string::npos, start);
    start += 8;
    std::string error;
    std::unique_ptr<SimHost> host =
        SimHost::fromJson(text.substr(start, text.find("```", start) - start), error);
    ASSERT_TRUE(host) << error;
    EXPECT_EQ(1u, host->devices().size());
}

TEST(SimHostSnapshot, BadSnapshotsAreRejectedWithOneMessage)
{
    const std::string head =
        R"("format": 1, "hostname": "h", "kernel_release": "2.6.18-8.el5", "proc_scsi": true)";
    const std::string sdb = R"({"name": "sdb", "address": [0, 0, 1, 0], "inquiry": "00"})";
    struct Case {
        std::string json;
        std::string message;
    };
    auto with = [&](const std::string& rest) { return "{" + head + ", " + rest + "}"; };
    auto device = [&](const std::string& fields) {
        return with(R"("devices": [{"name": "sdb", "address": [0, 0, 1, 0], )" + fields + "}]");
    };
    const std::string full =
        R"("inquiry": "00 00 05 02", "vpd": {"83": "00 83 00 00"}, "partitions": ["sdb1"], )";
    // clang-format off
    const Case cases[] = {
        {"{", "not JSON: "},
        {"[]", "snapshot: expected a JSON object"},
        {R"({"format": 2})", "format: unsupported format 2 (expected 1)"},
        {R"({"format": 1, "hostname": "h", "kernel_release": "r", "proc_scsi": true})", "devices: missing"},
        {with(R"("devices": [], "hostname2": 1)"), "hostname2: unknown field"},
        {R"({"format": 1, "hostname": 7, "kernel_release": "r", "proc_scsi": true, "devices": []})", "hostname: expected a string or null"},
        {with(R"("devices": [{"name": "sdb", "address": [0, 0, 1], "inquiry": ""}])"), "devices[0].address: expected [host, channel, id, lun]"},
        {with(R"("devices": [{"name": "sdb", "address": [0, 0, 1, 0]}])"), "devices[0].inquiry: missing"},
        {device(R"("inquiry": "0g")"), "devices[0].inquiry: not hexadecimal"},
        {device(R"("inquiry": "00", "vpd": {"83": "123"})"), "devices[0].vpd.83: not hexadecimal"},
        // Rejected inside a device that already holds pages and partitions: nothing leaks.
        {device(full + R"("state": "dead")"), "devices[0].state: unknown state \"dead\" (expected running, latent, unresponsive, gone or removed)"},
        {device(full + R"("vdp": {})"), "devices[0].vdp: unknown field"},
        {device(full + R"("blocks": -1)"), "devices[0].blocks: expected an integer from 0 to 1125899906842624"},
        {with("\"devices\": [" + sdb + ", " + sdb + "]"), "devices[1].name: duplicate device name sdb"},
        {with("\"devices\": [" + sdb + R"(, {"name": "sdc", "address": [0, 0, 1, 0], "inquiry": "00"}])"), "devices[1].address: duplicate address 0:0:1:0"},
        {with("\"devices\": [" + sdb + R"(], "multipath_maps": [{"name": "mpatha", "device": "sdz"}])"), "multipath_maps[0].device: unknown device sdz"},
        {device(R"("inquiry": "00", "partitions": ["sdc1"])"), "devices[0].partitions[0]: sdc1 is not a partition of sdb"},
        {with("\"devices\": [" + sdb + R"(], "powerpath": [{"name": "sdb", "device": "sdb"}])"), "powerpath[0].name: node /dev/sdb is a device's node"},
        {with(R"("devices": [], "adapters": [{"host": -1, "driver": "lpfc"}])"), "adapters[0].host: expected an integer from 0 to 65535"},
        {with(R"("devices": [], "commands": {"/bin/x": {"exit": "0"}})"), "commands[\"/bin/x\"].exit: expected an integer from 0 to 1001"},
    };
    // clang-format on
    for (const Case& c : cases) {
        std::string error;
        EXPECT_EQ(nullptr, SimHost::fromJson(c.json, error)) << c.json;
        if (c.message == "not JSON: ") {
            EXPECT_EQ(0u, error.find(c.message)) << error;
            EXPECT_EQ(std::string::npos, error.find('\n')) << error;
        } else {
            EXPECT_EQ(c.message, error) << c.json;
        }
    }
    std::string error;
    EXPECT_EQ(nullptr, SimHost::fromFile("/nonexistent/host.json", error));
    EXPECT_EQ("cannot read /nonexistent/host.json: No such file or directory", error);
    EXPECT_EQ(nullptr, SimHost::fromFile(kHosts, error));
    EXPECT_EQ("cannot read " + kHosts + ": Is a directory", error);
}

// ---- device nodes looked up by name, and changes made through held references

SimDevice labelledDisk(const std::string& name, const std::string& vendor, int lun,
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
        SimDevice sda = labelledDisk("sda", "ALPHA", 0);
        sda.partitions.push_back("sda1");
        host.addDevice(sda);
        host.addDevice(labelledDisk("sdb", "BRAVO", 1, DeviceState::Gone));
        host.addDevice(labelledDisk("sdc", "CHARLIE", 2, DeviceState::Latent));
        host.addDevice(labelledDisk("sdaa", "DELTA", 3));
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
                           {"/dev/sdc", kNoEntry},
                           {"/dev/sdaa", "65:160 DELTA   "},
                           {"/dev/emcpowera", "120:0 DELTA   "},
                           {"/dev/mapper/mpatha", "253:0 ALPHA   "},
                           {"/dev/mapper/mpathb", "253:1 -"},
                           {"/dev/mapper/control", "10:236 -"},
                           {"/dev/mapper/.", kNoEntry},
                           {"/dev/sdz", kNoEntry},
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
                           {"/dev/sda", kNoEntry},
                           {"/dev/sda1", kNoEntry},
                           {"/dev/sdq", "65:0 ALPHA   "},
                           {"/dev/sdq2", "65:2 ALPHA   "},
                           {"/dev/sdc", "8:32 CHARLIE "},
                           {"/dev/sdaa", "errno " + std::to_string(ENXIO)},
                           // The map still names sda, which no device is called any more.
                           {"/dev/mapper/mpatha", "253:0 -"},
                       });
    host.addDevice(labelledDisk("sda", "ECHO", 4));
    expectProbes(host, {{"/dev/sda", "8:0 ECHO    "}, {"/dev/mapper/mpatha", "253:0 ECHO    "}});
}

// A name the kernel gave again: the node is the listed device's, and commands reach the first
// device of that name, as the walks over the devices have it.
TEST_F(SimHostNodes, ReusedNamesKeepTheFirstDevicesAnswers)
{
    host.findDevice("sdb")->state = DeviceState::Removed;
    host.addDevice(labelledDisk("sdb", "FOXTROT", 5));
    expectProbes(host, {{"/dev/sdb", "8:16 -"}, {"/dev/sda", "8:0 ALPHA   "}});
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
        {"/dev/mapper/.", kNoEntry},
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
        {"/sys/class/scsi_device/2:0:0:2", kNoEntry},
    };
    for (const Case& c : stats) {
        EXPECT_EQ(c.expected, statOf(host, c.path)) << c.path;
    }
}

}  // namespace

TEST(SimHostPartitions, LongDiskNamesAreListedWithoutOverflow)
{
    SimHost host;
    host.addDevice(disk("sdabcdefghij", 0, 0, 0, 0));
    host.addDevice(disk("sdb", 0, 0, 1, 0));
    std::string text;
    ASSERT_TRUE(host.fileText("/proc/partitions", text));
    EXPECT_NE(text.find(" sdabcdefghij\n"), std::string::npos) << text;
    EXPECT_NE(text.find("   8       16 "), std::string::npos) << text;
}
