// SPDX-License-Identifier: Apache-2.0
// The SCSI access layer against a small kernel model: device handle, INQUIRY and page cache,
// and the Linux commands.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "device_udid_factory.h"
#include "page_builders.h"
#include "scsitool.h"
#include "simhost.h"
#include "trace_capture.h"

namespace {

// The descriptors closed on `host`, in order.
std::vector<int> closed(const simhost::SimHost& host)
{
    std::vector<int> fds;
    for (const std::string& call : host.nodeCalls())
        if (call.compare(0, 6, "close ") == 0)
            fds.push_back(std::stoi(call.substr(6)));
    return fds;
}

// The last call on a device node whose text starts with `prefix`.
std::string lastCall(const simhost::SimHost& host, const std::string& prefix)
{
    std::string found;
    for (const std::string& call : host.nodeCalls())
        if (call.compare(0, prefix.size(), prefix) == 0)
            found = call;
    return found;
}

// A standard INQUIRY of `size` bytes of a direct-access disk "ACME Disk", revision "01  ".
Bytes inquiry(size_t size)
{
    return inquiryPage("ACME", "Disk", size).text(32, "01  ").resize(size);
}

CScsiDeviceData record(const std::string& name, int lun = 0, int port = -1)
{
    return CScsiDeviceData(name, "", "host", 0, 0, lun, port, "", "", "", 0);
}

struct ScsiAccess : ::testing::Test {
    simhost::SimHost host;
    simhost::SimHostInstall install{host};
    TraceCapture trace;
    CScsiTool tool;
    ScsiAccess() { tool.registerTraceLog(trace.log()); }
    // A disk (made afresh when known) listing pages 0x00, 0x80 and 0x83 (and answering 0xC0
    // unlisted).
    simhost::SimDevice& disk(const std::string& name = "sda")
    {
        simhost::SimDevice d;
        d.name = name;
        d.inquiry = inquiry(36);
        d.vpd[0x00] = hexBytes("00 00 00 03 00 80 83");
        d.vpd[0x80] = serialPage80("SN1");
        d.vpd[0x83] = naaPage83("60 05 0A 00 00 00 00 01");
        d.vpd[0xC0] = hexBytes("00 c0 00 01 01");
        simhost::SimDevice* known = host.findDevice(name);
        return known ? (*known = d) : host.addDevice(d);
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
        "[/dev/sdx], errno [2] throwing";
    CScsiDeviceData missing = record("/dev/sdx");
    CScsiDeviceHandle handle(trace.log());
    EXPECT_EQ(-1, handle.open(missing, true));
    EXPECT_EQ(-1, handle.getDescriptor());
    EXPECT_EQ(std::vector<std::string>{warning}, trace.at(2));
    EXPECT_TRUE(trace.at(1).empty());

    trace.clear();
    int thrown = 0;
    try {
        handle.open(missing, false);
    } catch (int e) {
        thrown = e;
    }
    EXPECT_EQ(6, thrown);
    EXPECT_EQ(std::vector<std::string>{warning}, trace.at(2));
    EXPECT_EQ(std::vector<std::string>{"ERROR: CScsiDeviceHandle::openDevice() caught "
                                       "unhandled exception."},
              trace.at(1));
}

TEST_F(ScsiAccess, SecondOpenReusesTheDescriptorAndTheDestructorClosesIt)
{
    disk("sda");
    disk("sdb");
    CScsiDeviceData a = record("/dev/sda");
    CScsiDeviceData b = record("/dev/sdb");
    for (const bool withLog : {false, true}) {
        host.clearEvents();
        int fd = -1;
        {
            std::unique_ptr<CScsiDeviceHandle> handle(
                withLog ? new CScsiDeviceHandle(a, trace.log()) : new CScsiDeviceHandle(a));
            fd = handle->getDescriptor();
            EXPECT_EQ(fd, handle->open(b, false)) << withLog;
            EXPECT_EQ("/dev/sda", handle->getDeviceName()) << withLog;
            EXPECT_EQ(1, host.openCalls()) << withLog;
            EXPECT_EQ("open /dev/sda 0x802 = " + std::to_string(fd), lastCall(host, "open"));
        }
        EXPECT_EQ(std::vector<int>{fd}, closed(host)) << withLog;
    }
    // A handle made with a log reports a device that does not open through it, and throws.
    CScsiDeviceData missing = record("/dev/sdx");
    trace.clear();
    EXPECT_THROW(CScsiDeviceHandle(missing, trace.log()), int);
    EXPECT_EQ(1u, trace.at(2).size());
    EXPECT_EQ(1u, trace.at(1).size());
}

TEST_F(ScsiAccess, DescriptorZeroIsClosedOnlyOnRequest)
{
    disk();
    CScsiDeviceData a = record("/dev/sda");
    host.setNextDescriptor(0);
    {
        CScsiDeviceHandle handle(a);
        EXPECT_EQ(0, handle.getDescriptor());
    }
    EXPECT_TRUE(closed(host).empty());
    host.setNextDescriptor(0);
    CScsiDeviceHandle handle(a);
    handle.closeDevice(-1);
    EXPECT_TRUE(closed(host).empty());
    handle.closeDevice(0);
    EXPECT_EQ(std::vector<int>{0}, closed(host));
    EXPECT_EQ(-1, handle.getDescriptor());
}

// ---- INQUIRY command

TEST_F(ScsiAccess, InquiryCommandAndAnswerLength)
{
    disk();
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
        CScsiDeviceData dev = record("/dev/sda", c.lun);
        unsigned int length = 99;
        ScsiPagePtr page;
        ASSERT_EQ(0, query(dev, c.code, c.type, length, page));
        EXPECT_EQ(c.length, length);
        EXPECT_EQ(" SEND_COMMAND 0 480", lastCall(host, "ioctl").substr(7));
        Bytes cdb = {0x12, c.cdb1, static_cast<unsigned char>(c.code), 0, 0xFC, 0};
        EXPECT_EQ(cdb, host.cdbsSent("/dev/sda").back());
    }
}

TEST_F(ScsiAccess, AnswerSizeIsWhatTheAnswerAnnounces)
{
    // The size comes from the answer's own length byte, up to 259 bytes of a VPD page and 260 of
    // the standard data, although at most 252 arrived: the rest is the zero-filled buffer.
    simhost::SimDevice& d = disk();
    d.vpd[0x80] = {0, 0x80, 0, 0xFF, 'A', 'B'};
    d.inquiry = inquiryPage("ACME", "Disk", 36).byte(4, 0xFF);
    CScsiDeviceData dev = record("/dev/sda");
    unsigned int length = 0;
    ScsiPagePtr page;
    ASSERT_EQ(0, query(dev, 0x80, 1, length, page));
    ASSERT_EQ(259u, length);
    EXPECT_EQ('B', page->get()[5]);
    EXPECT_EQ(0, page->get()[258]);  // never sent
    // A second answer into the same holder releases the first page (the leak check sees it).
    ASSERT_EQ(0, query(dev, 0, 0, length, page));
    EXPECT_EQ(260u, length);
    EXPECT_EQ(0, page->get()[259]);
}

TEST_F(ScsiAccess, SupportedListThatAnnouncesMoreThanItHolds)
{
    // Page 0x00 says 255 codes and lists three: the zeroes behind them count as codes too, and
    // the listed identity pages are read, so an array's own generator names the device.
    struct Case {
        const char* vendor;
        const char* product;
        std::map<int, Bytes> pages;
        std::string udid;
    };
    // clang-format off
    const Case cases[] = {
        {"3PARdata", "VV", {{0x80, serialPage80("1234567 ")}, {0x83, naaPage83("50002AC000010ABC")}},
         "UDID##HP##3PAR##1234567##50002AC000010ABC"},
        {"IBM", "3542", {{0xC8, PageBuilder(106).byte(1, 0xC8).byte(3, 102).hex(90, "00a0b8000026d7ee 000000004a1b2c3d")},
                         {0x83, naaPage83("600a0b800026d7ee 000000004a1b2c3d")}},
         "UDID##IBM##TOTALSTORAGE##IBM.3542-00A0B8000026D7EE000000004A1B2C3D##2C3D"},
    };
    // clang-format on
    CUDIDFactory factory;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.vendor);
        simhost::SimDevice& d = disk();
        d.inquiry = inquiryPage(c.vendor, c.product, 36);
        d.vpd = c.pages;
        d.vpd[0x00] = hexBytes("00 00 00 ff 00 80 83");
        if (c.pages.count(0xC8))
            d.vpd[0x00] = hexBytes("00 00 00 ff 00 83 c8");
        CScsiDeviceData dev = record("/dev/sda");
        ASSERT_EQ(0, tool.UpdateDevice(&dev));
        ASSERT_EQ(255u, dev.m_supportedPages.size());
        EXPECT_EQ(0u, dev.m_supportedPages[3]);
        EXPECT_EQ(c.udid, factory.getUniqueDeviceID(&dev));
    }
}

TEST_F(ScsiAccess, FailedInquiryReportsAndLeavesThePage)
{
    disk();
    CScsiDeviceData dev = record("/dev/sda");
    CScsiDeviceData missing = record("/dev/sdx");
    unsigned int length = 7;
    ScsiPagePtr page;
    EXPECT_EQ(6, query(dev, 0xC8, 1, length, page));
    EXPECT_EQ(0u, length);
    EXPECT_FALSE(page);
    EXPECT_TRUE(trace.has(1,
                          "libscsitool: ERROR: ioctl(SCSI_IOCTL_SEND_COMMAN) for device "
                          "/dev/sda "));
    EXPECT_EQ(6, query(missing, 0, 0, length, page));
    EXPECT_TRUE(trace.has(2, "GetModePageInfo: Exception Ocurred"));
}

// ---- SCSI address and removal

TEST_F(ScsiAccess, IdlunWordFillsTheAddress)
{
    simhost::SimDevice& d = disk();
    d.host = 3;
    d.channel = 2;
    d.lun = 1;
    d.id = 5;  // the word 0x03020105
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
    disk().state = simhost::DeviceState::Unresponsive;
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

    // A device that does not open ends the query before any ioctl.
    trace.clear();
    CScsiDeviceData missing = record("/dev/sdx");
    CScsiDeviceHandle other;
    EXPECT_THROW(tool.GetTargetLunPortInfo(other, missing), int);
    EXPECT_EQ(std::vector<std::string>{"libscsitool: ERROR: CScsiTool::UpdateTargetLunPortInfo() "
                                       "failed for device /dev/sdx."},
              trace.at(1));
}

TEST_F(ScsiAccess, RemoveDeviceWritesTheAddressToTheKernelList)
{
    CScsiDeviceData dev("/dev/sda", "", "host", 2, 0, 3, 1, "", "", "", 0);
    CScsiDeviceData unknown = record("/dev/sdb");
    EXPECT_EQ(0, tool.RemoveDevice(&dev));
    EXPECT_EQ(6, tool.RemoveDevice(&unknown));
    EXPECT_EQ(6, tool.RemoveDevice(nullptr));
    EXPECT_EQ(std::vector<std::string>{"/bin/echo \"scsi remove-single-device 1 0 2 3\" >  "
                                       "/proc/scsi/scsi"},
              host.commandsRun());
    EXPECT_EQ(std::vector<std::string>(2, "RemoveDevice: Unknown device or adapter"), trace.at(2));
}

// ---- filling a record

TEST_F(ScsiAccess, UpdateDeviceCachesTheListedPagesInFixedOrder)
{
    disk();
    CScsiDeviceData dev = record("/dev/sda");
    ASSERT_EQ(0, tool.UpdateDevice(&dev));
    std::vector<unsigned int> keys;
    for (const auto& entry : dev.m_pageCache)
        keys.push_back(entry.first);
    EXPECT_EQ((std::vector<unsigned int>{0x00, 0x80, 0x83}), keys);  // 0xC0 is not listed
    std::vector<int> codes;
    for (const Bytes& cdb : host.cdbsSent("/dev/sda"))
        codes.push_back(cdb[2]);
    EXPECT_EQ((std::vector<int>{0x00, 0x00, 0x83, 0x80}), codes);
    EXPECT_EQ(7u, dev.m_pageCache[0x80].getLength());
    EXPECT_EQ("Linux", dev.m_operatingSystem);
    EXPECT_EQ(1, host.openCalls());
    EXPECT_EQ(1u, closed(host).size());

    ASSERT_EQ(0, tool.UpdateDevice(&dev));
    EXPECT_EQ((std::vector<unsigned int>{0x00, 0x80, 0x83, 0x00, 0x80, 0x83}),
              dev.m_supportedPages);
}

TEST_F(ScsiAccess, UpdateDeviceRefusesWhatIsNotADisk)
{
    // clang-format off
    const std::string size = "WARNING: UpdateStdInquiryString invalid SCSI inq page size, device may have been removed.";
    const std::string call = "WARNING: CScsiToolBase::UpdateDevice() call to UpdateStdInquiryString for device /dev/sda";
    // clang-format on
    Bytes tape = inquiry(36);
    tape[0] = 0x01;
    struct Case {
        Bytes inquiry;
        simhost::DeviceState state;
        std::vector<std::string> warnings;
    };
    const std::string gone =
        "ERROR: CScsiDeviceHandle::openDevice() Invalid device handle [0xffffffff] for [/dev/sda], "
        "errno [6] throwing";
    // clang-format off
    const Case cases[] = {
        {tape, simhost::DeviceState::Running, {"WARNING: UpdateStdInquiryString SCSI check for disk device error, device may have been removed.", call}},
        // Answers shorter than a disk's, down to none at all: the length byte is never read from
        // beyond what came back.
        {inquiry(31), simhost::DeviceState::Running, {size, call}},
        {inquiry(4), simhost::DeviceState::Running, {size, call}},
        {inquiry(1), simhost::DeviceState::Running, {size, call}},
        {{}, simhost::DeviceState::Running, {size, call}},
        {inquiry(36), simhost::DeviceState::Gone, {gone, "GetModePageInfo: Exception Ocurred", size, call}},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.warnings[0] + " " + std::to_string(c.inquiry.size()));
        trace.clear();
        simhost::SimDevice& d = disk();
        d.inquiry = c.inquiry;
        d.state = c.state;
        CScsiDeviceData dev = record("/dev/sda");
        EXPECT_EQ(6, tool.UpdateDevice(&dev));
        EXPECT_EQ(c.warnings, trace.at(2));
    }
    EXPECT_EQ(6, tool.UpdateDevice(static_cast<CScsiDeviceData*>(nullptr)));
    EXPECT_TRUE(trace.has(2, "WARNING: CScsiToolBase::UpdateDevice() invalid SCSI device handle."));
}

TEST_F(ScsiAccess, InquiryStringsComeOnlyFromReceivedBytes)
{
    struct Case {
        size_t size;
        const char* firmware;
    } cases[] = {
        {36, "01  "},  // revision blanks are kept
        {34, "01"},    // a short INQUIRY gives a short firmware level
        {32, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size);
        disk().inquiry = inquiry(c.size);
        CScsiDeviceData dev = record("/dev/sda");
        ASSERT_EQ(0, tool.UpdateDevice(&dev));
        EXPECT_EQ("ACME", dev.m_vendorId);
        EXPECT_EQ("Disk", dev.m_productId);
        EXPECT_EQ(c.firmware, dev.m_firmwareLevel);
        EXPECT_EQ(c.size, dev.m_pageCache[0].getLength());
    }
}

}  // namespace

namespace {
// A tool whose INQUIRY for one page code and type throws, as an allocation failing inside it
// would, whose answers may state another length than they hold, and whose capacity query fails.
struct FaultyTool : CScsiTool {
    unsigned int throwCode;
    unsigned int throwType;
    int statedLength = -1;  // -1: each answer states its own
    FaultyTool(unsigned int code, unsigned int type) : throwCode(code), throwType(type) {}
    int GetModePageInfo(CScsiDeviceHandle& handle, CScsiDeviceData& device,
                        const unsigned int& pageCode, unsigned int& length, unsigned int pageType,
                        ScsiPagePtr& page) override
    {
        if (pageCode == throwCode && pageType == throwType)
            throw std::bad_alloc();
        const int result =
            CScsiTool::GetModePageInfo(handle, device, pageCode, length, pageType, page);
        if (statedLength >= 0)
            length = unsigned(statedLength);
        return result;
    }
    int GetScsiDeviceCapacity(CScsiDeviceHandle&, CScsiDeviceData&) override { return 6; }
};
}  // namespace

// An exception in any step of filling a record is reported at level 2: the supported-page list
// is then given up (the record's pages marked invalid) and the update goes on; a page or the
// standard data ends the update as failed. A capacity that cannot be learnt is 0.
TEST_F(ScsiAccess, UpdateDeviceThroughStepsThatThrow)
{
    struct Case {
        unsigned int code;
        unsigned int type;
        int result;
        std::vector<unsigned int> cached;
        unsigned long capacity;
        std::vector<std::string> warnings;
    } cases[] = {
        {0x00, 1, 0, {0x00}, 0, {"UpdateSupportedModePageList: Unknown bus type"}},
        {0x83, 0, 6, {0x00}, 0, {"UpdateDevice: Exception Occurred"}},
        {0x00, 0, 6, {}, 1234, {"UpdateDevice: Exception Occurred"}},
    };
    disk();
    for (const Case& c : cases) {
        FaultyTool faulty(c.code, c.type);
        TraceCapture capture;
        faulty.registerTraceLog(capture.log());
        CScsiDeviceData dev = record("/dev/sda");
        dev.m_pagesValid = 1;
        dev.m_capacity = 1234;
        EXPECT_EQ(c.result, faulty.UpdateDevice(&dev)) << c.code << "/" << c.type;
        std::vector<unsigned int> keys;
        for (const auto& entry : dev.m_pageCache)
            keys.push_back(entry.first);
        EXPECT_EQ(c.cached, keys) << c.code << "/" << c.type;
        EXPECT_EQ(c.warnings, capture.at(2)) << c.code << "/" << c.type;
        EXPECT_EQ(c.type == 1 ? 0 : 1, dev.m_pagesValid) << c.code << "/" << c.type;
        EXPECT_EQ(c.capacity, dev.m_capacity) << c.code << "/" << c.type;
    }
}

// An answer of no bytes is never cached, for the standard data as for a page; one byte is.
TEST_F(ScsiAccess, AnAnswerOfNoBytesIsNotCached)
{
    disk();
    for (unsigned int stated : {0u, 1u}) {
        FaultyTool lying(~0u, ~0u);
        lying.statedLength = int(stated);
        CScsiDeviceData dev = record("/dev/sda");
        CScsiDeviceHandle handle;
        lying.UpdateStdInquiryString(handle, dev);
        lying.UpdateModePageString(handle, 0x80, dev);
        for (unsigned int code : {0x00u, 0x80u}) {
            const CScsiModePage* cached = dev.findPage(code);
            ASSERT_EQ(cached != nullptr, stated != 0) << stated << " " << code;
            EXPECT_EQ(cached ? cached->getLength() : 0u, stated) << code;
        }
    }
}
