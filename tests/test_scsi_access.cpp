// The SCSI access layer against a small kernel model: device handle, INQUIRY and page cache,
// the Linux commands, and the host's initiator identities.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "WWPN_discovery.h"
#include "fi_system.h"
#include "scsitool.h"
#include "trace_capture.h"

namespace {

typedef std::vector<unsigned char> Bytes;

// Device nodes that decode the INQUIRY CDB and the IDLUN request the way the mid-layer does,
// files served from memory, and scripted commands.
class FakeHost : public kzfi_pdk_4_4::CFiSystem {
public:
    struct Device {
        Bytes inquiry;
        std::map<int, Bytes> vpd;  // a page absent here fails its command
        unsigned int idlun = 0;
        bool idlunFails = false;
    };

    FakeHost() : m_previous(kzfi_pdk_4_4::fiInstallSystem(this)) {}
    ~FakeHost() override { kzfi_pdk_4_4::fiInstallSystem(m_previous); }

    int open(const char* path, int flags) override
    {
        ++openCalls;
        lastFlags = flags;
        if (devices.count(path) == 0) {
            errno = ENOENT;
            return -1;
        }
        int fd = nextFd >= 0 ? nextFd++ : 0;
        fds[fd] = path;
        return fd;
    }
    int close(int fd) override
    {
        closed.push_back(fd);
        return 0;
    }
    int ioctl(int fd, unsigned long request, void* arg) override
    {
        Device& dev = devices.at(fds.at(fd));
        if (request == SCSITOOL_IOCTL_GET_IDLUN) {
            if (dev.idlunFails)
                return -1;
            static_cast<unsigned int*>(arg)[0] = dev.idlun;
            return 0;
        }
        unsigned char* buffer = static_cast<unsigned char*>(arg);
        sent.push_back(Bytes(buffer, buffer + 14));
        const unsigned char* cdb = buffer + 8;
        const Bytes* answer = &dev.inquiry;
        if (cdb[1] & 1) {
            auto page = dev.vpd.find(cdb[2]);
            if (page == dev.vpd.end())
                return 1;
            answer = &page->second;
        }
        size_t size = std::min<size_t>(answer->size(), cdb[4]);
        std::memcpy(buffer + 8, answer->data(), size);
        return 0;
    }
    FILE* fopen(const char* path, const char* mode) override
    {
        auto it = files.find(path);
        if (it == files.end())
            return nullptr;
        FILE* file = tmpfile();
        std::fputs(it->second.c_str(), file);
        std::rewind(file);
        (void)mode;
        return file;
    }
    int access(const char* path, int) override { return files.count(path) ? 0 : -1; }
    int system(const char* command) override
    {
        commands.push_back(command);
        return 0;
    }
    int exec(const std::string& command, std::vector<std::string>& output, unsigned long,
             int&) override
    {
        commands.push_back(command);
        auto it = listings.find(command);
        output = it == listings.end() ? std::vector<std::string>() : it->second;
        return it == listings.end() ? 2 : 0;
    }

    std::map<std::string, Device> devices;
    std::map<std::string, std::string> files;
    std::map<std::string, std::vector<std::string>> listings;  // commands that succeed
    std::vector<std::string> commands;
    std::vector<Bytes> sent;  // header and CDB of every INQUIRY, in order
    std::map<int, std::string> fds;
    std::vector<int> closed;
    int nextFd = 5;  // -1: hand out descriptor 0
    int openCalls = 0;
    int lastFlags = 0;

private:
    kzfi_pdk_4_4::CFiSystem* m_previous;
};

// A standard INQUIRY of `size` bytes of a direct-access disk.
Bytes inquiry(size_t size, const char* vendor = "ACME    ",
              const char* product = "Disk            ", const char* revision = "01  ")
{
    Bytes b(size, 0);
    b[4] = static_cast<unsigned char>(size - 5);
    std::string text = std::string(vendor) + product + revision;
    for (size_t i = 0; i < text.size() && 8 + i < size; ++i)
        b[8 + i] = text[i];
    return b;
}

Bytes vpd(unsigned char code, const Bytes& body)
{
    Bytes b(4 + body.size(), 0);
    b[1] = code;
    b[3] = static_cast<unsigned char>(body.size());
    for (size_t i = 0; i < body.size(); ++i)
        b[4 + i] = body[i];
    return b;
}

CScsiDeviceData record(const std::string& name, int lun = 0, int port = -1)
{
    return CScsiDeviceData(name, "", "host", 0, 0, lun, port, "", "", "", 0);
}

struct ScsiAccess : ::testing::Test {
    FakeHost host;
    TraceCapture trace;
    CScsiTool tool;
    ScsiAccess() { tool.registerTraceLog(trace.log()); }
    FakeHost::Device& disk(const std::string& name)
    {
        FakeHost::Device& d = host.devices[name];
        d.inquiry = inquiry(36);
        d.vpd[0x00] = vpd(0x00, {0x00, 0x80, 0x83});
        d.vpd[0x80] = vpd(0x80, {'S', 'N', '1'});
        d.vpd[0x83] = vpd(0x83, {1, 3, 0, 8, 0x60, 5, 0x0A, 0, 0, 0, 0, 1});
        return d;
    }
    // One INQUIRY through a fresh handle.
    int query(CScsiDeviceData& dev, unsigned int code, unsigned int type, unsigned int& length,
              ScsiPagePtr& page)
    {
        CScsiDeviceHandle handle;
        return tool.GetModePageInfo(handle, dev, code, length, type, page);
    }
};

// ---- device handle

TEST_F(ScsiAccess, FailedOpenReportsOnceWithoutThrowAndTwiceWhenThrowing)
{
    const std::string warning =
        "ERROR: CScsiDeviceHandle::openDevice() Invalid device handle [0xffffffff] for "
        "[/dev/gone], errno [2] throwing";
    CScsiDeviceData gone = record("/dev/gone");
    {
        CScsiDeviceHandle handle(trace.log());
        EXPECT_EQ(-1, handle.open(gone, true));
        EXPECT_EQ(-1, handle.getDescriptor());
        EXPECT_EQ(std::vector<std::string>{warning}, trace.at(2));
        EXPECT_TRUE(trace.at(1).empty());
    }
    trace.clear();
    CScsiDeviceHandle handle(trace.log());
    EXPECT_THROW(
        try { handle.open(gone, false); } catch (int e) {
            EXPECT_EQ(6, e);
            throw;
        },
        int);
    EXPECT_EQ(std::vector<std::string>{warning}, trace.at(2));
    EXPECT_EQ(std::vector<std::string>{"ERROR: CScsiDeviceHandle::openDevice() caught unhandled "
                                       "exception."},
              trace.at(1));
}

TEST_F(ScsiAccess, SecondOpenReusesTheDescriptorAndTheDestructorClosesIt)
{
    disk("/dev/sda");
    disk("/dev/sdb");
    CScsiDeviceData a = record("/dev/sda");
    CScsiDeviceData b = record("/dev/sdb");
    {
        CScsiDeviceHandle handle(a);
        EXPECT_EQ(5, handle.open(b, false));
        EXPECT_EQ("/dev/sda", handle.getDeviceName());
        EXPECT_EQ(1, host.openCalls);
        EXPECT_EQ(O_RDWR | O_NONBLOCK, host.lastFlags);
        EXPECT_EQ(0x802, host.lastFlags);
    }
    EXPECT_EQ(std::vector<int>{5}, host.closed);
}

TEST_F(ScsiAccess, DescriptorZeroIsClosedOnlyOnRequest)
{
    disk("/dev/sda");
    host.nextFd = -1;
    CScsiDeviceData a = record("/dev/sda");
    {
        CScsiDeviceHandle handle(a);
        EXPECT_EQ(0, handle.getDescriptor());
    }
    EXPECT_TRUE(host.closed.empty());
    CScsiDeviceHandle handle(a);
    handle.closeDevice(-1);
    EXPECT_TRUE(host.closed.empty());
    handle.closeDevice(0);
    EXPECT_EQ(std::vector<int>{0}, host.closed);
    EXPECT_EQ(-1, handle.getDescriptor());
}

// ---- INQUIRY command

TEST_F(ScsiAccess, InquiryCommandAndAnswerLength)
{
    struct Case {
        unsigned int type, code;
        int lun;
        unsigned char cdb1;
        unsigned int length;
    } cases[] = {
        {0, 0x00, 0, 0x00, 36},  // standard INQUIRY: byte 4 + 5
        {1, 0x00, 0, 0x01, 7},   // supported pages: byte 3 + 4
        {0, 0x83, 0, 0x01, 16},  // a non-zero page code forces EVPD
        {0, 0x00, 2, 0x40, 36}, {1, 0x80, 2, 0x41, 7},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.code);
        disk("/dev/sda");
        host.sent.clear();
        CScsiDeviceData dev = record("/dev/sda", c.lun);
        unsigned int length = 99;
        ScsiPagePtr page;
        ASSERT_EQ(0, query(dev, c.code, c.type, length, page));
        EXPECT_EQ(c.length, length);
        ASSERT_EQ(1u, host.sent.size());
        Bytes header = {
            0, 0,    0, 0, 0xE0, 0x01, 0, 0, 0x12, c.cdb1, static_cast<unsigned char>(c.code),
            0, 0xFC, 0};
        EXPECT_EQ(header, host.sent[0]);
    }
}

TEST_F(ScsiAccess, LengthByteThatClaimsTooMuchIsCutToTheAllocationLength)
{
    disk("/dev/sda").vpd[0x80] = {0, 0x80, 0, 0xFF, 'A', 'B'};
    CScsiDeviceData dev = record("/dev/sda");
    unsigned int length = 0;
    ScsiPagePtr page;
    ASSERT_EQ(0, query(dev, 0x80, 1, length, page));
    ASSERT_EQ(252u, length);
    EXPECT_EQ('B', page->get()[5]);
    EXPECT_EQ(0, page->get()[251]);  // never sent: the zeroed buffer
}

TEST_F(ScsiAccess, FailedInquiryReportsAndLeavesThePage)
{
    disk("/dev/sda");
    CScsiDeviceData dev = record("/dev/sda");
    CScsiDeviceData gone = record("/dev/gone");
    unsigned int length = 7;
    ScsiPagePtr page;
    EXPECT_EQ(6, query(dev, 0xC0, 1, length, page));
    EXPECT_EQ(0u, length);
    EXPECT_FALSE(page);
    EXPECT_TRUE(trace.has(1,
                          "libscsitool: ERROR: ioctl(SCSI_IOCTL_SEND_COMMAN) for device "
                          "/dev/sda "));
    EXPECT_EQ(6, query(gone, 0, 0, length, page));
    EXPECT_TRUE(trace.has(2, "GetModePageInfo: Exception Ocurred"));
}

// ---- SCSI address and removal

TEST_F(ScsiAccess, IdlunWordFillsTheAddress)
{
    disk("/dev/sda").idlun = 0x03020105;
    CScsiDeviceData dev = record("/dev/sda");
    CScsiDeviceHandle handle;
    tool.GetTargetLunPortInfo(handle, dev);
    EXPECT_EQ(3, dev.m_port);
    EXPECT_EQ(2u, dev.m_bus);
    EXPECT_EQ(1, dev.m_lun);
    EXPECT_EQ(5, dev.m_target);
    std::vector<std::string> expected = {
        "libscsitool: DEBUG: Entering CScsiTool::UpdateTargetLunPortInfo()",
        "libscsitool: DEBUG: setting Bus number = 2", "libscsitool: DEBUG: setting LUN = 1",
        "libscsitool: DEBUG: setting Target = 5",
        "libscsitool: DEBUG: Exiting CScsiTool::UpdateTargetLunPortInfo()"};
    EXPECT_EQ(expected, trace.at(4));
}

TEST_F(ScsiAccess, FailedIdlunThrowsAfterTwoErrors)
{
    disk("/dev/sda").idlunFails = true;
    CScsiDeviceData dev = record("/dev/sda", 4, 9);
    CScsiDeviceHandle handle;
    EXPECT_THROW(tool.GetTargetLunPortInfo(handle, dev), int);
    std::vector<std::string> expected = {
        "libscsitool: ERROR: CScsiTool::UpdateTargetLunPortInfo() SCSI_IOCTL_GET_IDLUN IOCTL "
        "failed for device /dev/sda.",
        "libscsitool: ERROR: CScsiTool::UpdateTargetLunPortInfo() failed for device /dev/sda."};
    EXPECT_EQ(expected, trace.at(1));
    EXPECT_EQ(9, dev.m_port);
    EXPECT_EQ(4, dev.m_lun);
}

TEST_F(ScsiAccess, RemoveDeviceWritesTheAddressToTheKernelList)
{
    CScsiDeviceData dev("/dev/sda", "", "host", 2, 0, 3, 1, "", "", "", 0);
    EXPECT_EQ(0, tool.RemoveDevice(&dev));
    EXPECT_EQ(std::vector<std::string>{"/bin/echo \"scsi remove-single-device 1 0 2 3\" >  "
                                       "/proc/scsi/scsi"},
              host.commands);
    CScsiDeviceData unknown = record("/dev/sdb");
    EXPECT_EQ(6, tool.RemoveDevice(&unknown));
    EXPECT_EQ(6, tool.RemoveDevice(nullptr));
    EXPECT_EQ(1u, host.commands.size());
    EXPECT_EQ(2u, trace.at(2).size());
    EXPECT_TRUE(trace.has(2, "RemoveDevice: Unknown device or adapter"));
}

// ---- filling a record

TEST_F(ScsiAccess, UpdateDeviceCachesTheListedPagesInFixedOrder)
{
    disk("/dev/sda").vpd[0xC0] = vpd(0xC0, {1});  // answered, but not listed: never read
    CScsiDeviceData dev = record("/dev/sda");
    ASSERT_EQ(0, tool.UpdateDevice(&dev));
    std::vector<unsigned int> keys;
    for (const auto& entry : dev.m_pageCache)
        keys.push_back(entry.first);
    EXPECT_EQ((std::vector<unsigned int>{0x00, 0x80, 0x83}), keys);
    std::vector<int> codes;
    for (const Bytes& s : host.sent)
        codes.push_back(s[10]);
    EXPECT_EQ((std::vector<int>{0x00, 0x00, 0x83, 0x80}), codes);
    EXPECT_EQ(7u, dev.m_pageCache[0x80].getLength());
    EXPECT_EQ("Linux", dev.m_operatingSystem);
    EXPECT_EQ(1, host.openCalls);
    EXPECT_EQ(std::vector<int>{5}, host.closed);

    ASSERT_EQ(0, tool.UpdateDevice(&dev));
    EXPECT_EQ((std::vector<unsigned int>{0x00, 0x80, 0x83, 0x00, 0x80, 0x83}),
              dev.m_supportedPages);
}

TEST_F(ScsiAccess, UpdateDeviceRefusesWhatIsNotADisk)
{
    const std::string size =
        "WARNING: UpdateStdInquiryString invalid SCSI inq page size, device "
        "may have been removed.";
    struct Case {
        const char* what;
        Bytes inquiry;
        std::string warning;
    } cases[] = {
        {"tape", inquiry(36),
         "WARNING: UpdateStdInquiryString SCSI check for disk device error, device may have "
         "been removed."},
        {"31 bytes", inquiry(31), size},
        {"vanished", Bytes(), size},
    };
    cases[0].inquiry[0] = 0x01;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        trace.clear();
        host.devices.clear();
        if (!c.inquiry.empty())
            disk("/dev/sda").inquiry = c.inquiry;
        CScsiDeviceData dev = record("/dev/sda");
        EXPECT_EQ(6, tool.UpdateDevice(&dev));
        std::vector<std::string> expected = {
            c.warning,
            "WARNING: CScsiToolBase::UpdateDevice() call to UpdateStdInquiryString for device "
            "/dev/sda"};
        std::vector<std::string> warnings = trace.at(2);
        if (c.inquiry.empty()) {  // the open failure is reported first
            ASSERT_EQ(4u, warnings.size());
            warnings.erase(warnings.begin(), warnings.begin() + 2);
        }
        EXPECT_EQ(expected, warnings);
    }
    CScsiDeviceData* none = nullptr;
    EXPECT_EQ(6, tool.UpdateDevice(none));
    EXPECT_TRUE(trace.has(2, "WARNING: CScsiToolBase::UpdateDevice() invalid SCSI device handle."));
}

TEST_F(ScsiAccess, InquiryStringsComeOnlyFromReceivedBytes)
{
    struct Case {
        size_t size;
        const char* vendor;
        const char* product;
        const char* firmware;
    } cases[] = {
        {36, "ACME", "Disk", "01  "},
        {34, "ACME", "Disk", "01"},  // a short INQUIRY gives a short firmware level
        {32, "ACME", "Disk", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size);
        disk("/dev/sda").inquiry = inquiry(c.size);
        CScsiDeviceData dev = record("/dev/sda");
        ASSERT_EQ(0, tool.UpdateDevice(&dev));
        EXPECT_EQ(c.vendor, dev.m_vendorId);
        EXPECT_EQ(c.product, dev.m_productId);
        EXPECT_EQ(c.firmware, dev.m_firmwareLevel);
        EXPECT_EQ(c.size, dev.m_pageCache[0].getLength());
    }
}

// ---- initiator identities

TEST_F(ScsiAccess, HostIqn)
{
    const std::string file = "/etc/iscsi/initiatorname.iscsi";
    struct Case {
        bool tools;
        const char* content;  // nullptr: no file
        int result;
        std::string iqn;
    } cases[] = {
        {true, "InitiatorName=iqn.x:host1\n", 0, "iqn.x:host1"},
        {true, "# comment\ninitiatorname = iqn.x   \n", 0, "iqn.x"},
        {true, "#InitiatorName=iqn.x\n", 0, "unchanged"},
        {true, "InitiatorName=\nInitiatorName=iqn.y\n", 0, "iqn.y"},  // an empty name is skipped
        {true, nullptr, 26, "unchanged"},
        {false, "InitiatorName=iqn.x\n", 6, "unchanged"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.result);
        host.files.clear();
        trace.clear();
        if (c.tools)
            host.files["/sbin/iscsiadm"] = "";
        if (c.content)
            host.files[file] = c.content;
        std::string iqn = "unchanged";
        EXPECT_EQ(c.result, tool.GetHostIQN(iqn));
        EXPECT_EQ(c.iqn, iqn);
    }
    EXPECT_TRUE(trace.has(
        1, "libscsitool: ERROR: iscsi-initiator-utils package is not installed on the host"));
    host.files.erase(file);
    host.files["/sbin/iscsiadm"] = "";
    std::string iqn;
    tool.GetHostIQN(iqn);
    EXPECT_TRUE(trace.has(1, "Error: failed to open file [/etc/iscsi/initiatorname.iscsi]"));
}

struct WwpnCase : ScsiAccess {
    WWPN wwpn;
    WwpnCase() { wwpn.registerTraceLog(trace.log()); }
};

TEST_F(WwpnCase, QlogicDriverFiles)
{
    host.listings["/bin/ls /proc/scsi/qla2xxx/"] = {"1", "2 ", "3"};
    host.files["/proc/scsi/qla2xxx/1"] =
        "QLogic PCI to Fibre Channel Host Adapter\nscsi-qla0-adapter-node=2000001b32000001;\n"
        "scsi-qla0-adapter-port=2100001b32000001;\n";
    host.files["/proc/scsi/qla2xxx/2"] = "scsi-qla1-adapter-port = 2100001b32000002 ;\n";
    EXPECT_EQ((std::vector<std::string>{"2100001b32000001", "2100001b32000002"}), wwpn.getWWPN());
    EXPECT_EQ(std::vector<std::string>{"/bin/ls /proc/scsi/qla2xxx/"}, host.commands);
    EXPECT_TRUE(trace.has(1, "Error: failed to open file /proc/scsi/qla2xxx/3"));
    EXPECT_TRUE(trace.has(3, "Reading file /proc/scsi/qla2xxx/1"));
}

TEST_F(WwpnCase, EmptyDriverDirectoryKeepsSysfsOut)
{
    host.listings["/bin/ls /proc/scsi/qla2xxx/"] = {};
    host.listings["/bin/ls /sys/class/fc_host/"] = {"host4"};
    host.files["/sys/class/fc_host/host4/port_name"] = "0x21000024ff2c3d4e\n";
    EXPECT_TRUE(wwpn.getWWPN().empty());
    EXPECT_EQ(std::vector<std::string>{"/bin/ls /proc/scsi/qla2xxx/"}, host.commands);
}

TEST_F(WwpnCase, SysfsOnlyHosts)
{
    host.listings["/bin/ls /sys/class/fc_host/"] = {"host4"};
    host.files["/sys/class/fc_host/host4/port_name"] = "0x21000024ff2c3d4e\n";
    EXPECT_EQ(std::vector<std::string>{"0x21000024ff2c3d4e"}, wwpn.getWWPN());
    std::vector<std::string> expected = {"/bin/ls /proc/scsi/qla2xxx/",
                                         "/bin/ls /proc/scsi/qla2300/", "/bin/ls /proc/scsi/lpfc/",
                                         "/bin/ls /sys/class/fc_host/"};
    EXPECT_EQ(expected, host.commands);
    EXPECT_EQ((std::vector<std::string>{"Error: command /bin/ls /proc/scsi/qla2xxx/ failed.\n",
                                        "Error: command /bin/ls /proc/scsi/qla2300/ failed.\n",
                                        "Error: command /bin/ls /proc/scsi/lpfc/ failed.\n"}),
              trace.at(1));

    // Without fc_host: both scsi_host layouts; the newer one wins when both are there.
    host.listings.clear();
    host.files.clear();
    trace.clear();
    const std::string s = "/sys/class/scsi_host/";
    host.listings["/bin/ls " + s] = {"host0", "host1", "host2"};
    host.files[s + "host0/device/fc_host/host0/port_name"] = "0x10\n";
    host.files[s + "host0/device/fc_host:host0/port_name"] = "0x11\n";
    host.files[s + "host1/device/fc_host:host1/port_name"] = "0x20\n";
    EXPECT_EQ((std::vector<std::string>{"0x10", "0x20"}), wwpn.getWWPN());
    EXPECT_TRUE(trace.has(1, "Error: failed to open file " + s +
                                 "host2/device/fc_host/host2/port_name and " + s +
                                 "host2/device/fc_host:host2/port_name"));
}

}  // namespace
