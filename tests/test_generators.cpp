// SPDX-License-Identifier: Apache-2.0
// The generator table end to end (which generator claims a device, the UDID it makes), and every
// failure of the array generators with its message id and the vendor and product it names.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <scsi/sg.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <set>

#include "device_udid_generator.h"
#include "page_builders.h"
#include "simhost.h"
#include "stringtool.h"
#include "trace_capture.h"
#include "udid_families.h"

using namespace kzfi_pdk_4_4;

namespace {

// A simulated host "testhost", installed for its life, whose /dev/sdc and /dev/sdq answer the
// filer identity command with `answer`.
struct FakeHost {
    explicit FakeHost(const Bytes& answer = Bytes(), bool nodes = true) : installed(host)
    {
        host.setHostname("testhost");
        host.setNextDescriptor(7);
        for (const char* name : {"sdc", "sdq"}) {
            simhost::SimDevice disk;
            disk.name = name;
            disk.id = name[2] - 'a';
            disk.inquiry = inquiryPage("NETAPP", "LUN", 36);
            disk.hasVendorCommand = true;
            disk.vendorCommand = answer;
            if (nodes) {
                host.addDevice(disk);
            }
        }
    }
    simhost::SimHost host;
    simhost::SimHostInstall installed;
};

// An identity answer whose first record, at byte 8, is of type 0x22 with `text` at its byte 28.
Bytes filerAnswer(const std::string& text)
{
    return PageBuilder(4096).byte(8, 0x22).text(36, text);
}

// One table for the whole run, as the factory keeps it.
const std::vector<CUdidGenerator*>& table()
{
    static auto* generators = new std::vector<CUdidGenerator*>(createUdidGeneratorTable());
    return *generators;
}

CUdidGenerator* claimerOf(CScsiDeviceData* device)
{
    return *std::find_if(table().begin(), table().end(),
                         [&](CUdidGenerator* g) { return g->claimDevice(device); });
}

// The body, or the exception as "message [vendor] [product]".
std::string bodyOf(CUdidGenerator* generator, CScsiDeviceData* device)
{
    try {
        return generator->getUniqueDeviceID(device);
    } catch (const CUdidGeneratorException& e) {
        return e.m_messageId + " [" + e.m_vendorId + "] [" + e.m_productId + "]";
    }
}

const std::string kWwn = "60060160 3ab11e00 4c8f5e59 72c3e011";
const std::string kWwnColons = "60:06:01:60:3a:b1:1e:00:4c:8f:5e:59:72:c3:e0:11";

}  // namespace

TEST(GeneratorTable, ClaimsByFirstMatchingRuleInTableOrder)
{
    std::vector<std::string> names;
    for (CUdidGenerator* generator : table())
        names.push_back(generator->getGeneratorName());
    EXPECT_EQ(names, (std::vector<std::string>{"HP:MSA", "HP:HSV", "HP:XP", "IBM:TOTALSTORAGE",
                                               "IBM:DISKSYSTEM", "DGC:", "EMC:SYMMETRIX",
                                               "HITACHI:HDS", "ENGENIO:UNIVERSAL", "NETAPP:LUN",
                                               "HP:3PAR", "FUJITSU:ETERNUS", ":"}));
    // clang-format off
    const char* cases[][3] = {
        {"COMPAQ", "MSA1000", "HP:MSA"}, {"HP", "P2000 G3 MSA FC", "HP:MSA"}, {"HP", "P2000", ":"},
        {"hp", "MSA1000", ":"}, {"HP      ", "HSV210  ", "HP:HSV"}, {"HPQ", "HSV210", ":"},
        {"HP", "OPEN-V-CM", "HP:XP"}, {"HP", "OPEN-3", ":"},
        {"IBMSTOR", "2107900", "IBM:TOTALSTORAGE"}, {"IBM", "1750500", "IBM:TOTALSTORAGE"},
        {"IBM", "3542", "IBM:TOTALSTORAGE"}, {"IBM", "1815 FAStT", "IBM:DISKSYSTEM"},
        {"ibm", "2107900", ":"}, {"DGC     ", "VRAID    ", "DGC:"}, {"DGC", "LUNZ", ":"},
        {"DGC", "cx4-240", ":"}, {"DGC", "CX4-240", "DGC:"}, {"EMC", "SYMMETRIX", "EMC:SYMMETRIX"},
        {"EMC", "SYMMETRIX1", ":"}, {"EMC", " SYMMETRIX", ":"}, {"HITACHI", "OPEN-V-CM", "HITACHI:HDS"},
        {"HITACHI", "DF600F", "HITACHI:HDS"}, {"HITACHI", "XDF600F", ":"},
        {"lsi", "universal xport", "ENGENIO:UNIVERSAL"}, {"LSI", "MPP_VIRTUAL_DISK", "ENGENIO:UNIVERSAL"},
        {"LSIX", "INF-01-00", ":"}, {"NETAPP", "LUN", "NETAPP:LUN"}, {"NETAPP", "LUN C-Mode", ":"},
        {"3PARdata", "VV", "HP:3PAR"}, {"3PARdata", "VV2", ":"},
        {"FUJITSU", "ETERNUS_DX80", "FUJITSU:ETERNUS"}, {"FUJITSU", "DX80 ETERNUS", ":"},
    };
    // clang-format on
    for (const auto& c : cases) {
        auto device = makeDevice(c[0], c[1]);
        EXPECT_EQ(claimerOf(device.get())->getGeneratorName(), c[2]) << c[0] << "/" << c[1];
    }
}

// Every family row is whole: its generator carries its claim strings, its rule tests a vendor
// and a product (only the last row, the default, takes any), its file exists, and its page list
// is exactly what its generator looks up over devices that reach each branch.
TEST(FamilyRows, EachRowIsWholeAndListsThePagesItsGeneratorLooksUp)
{
    using namespace udid_family;
    FakeHost system(filerAnswer("ENCLOSURE1"));
    const Bytes filled = PageBuilder(255).text(4, std::string(250, '7'));
    const std::map<unsigned int, Bytes> pages = {{0x00, filled}, {0x80, filled}, {0x83, filled},
                                                 {0xC0, filled}, {0xC8, filled}, {0xD0, filled}};
    const std::vector<unsigned int> supported = {0x00, 0x80, 0x83, 0xC0, 0xC8, 0xD0};
    const char* products[] = {"2107900", "2105", "3542", "1724", "1815", "OTHER"};

    ASSERT_EQ(familyCount(), table().size());
    for (size_t i = 0; i < familyCount(); ++i) {
        const SFamily& row = families()[i];
        const std::string name = std::string(row.vendorId) + ":" + row.productId;
        std::unique_ptr<CUdidGenerator> generator(row.create(row.vendorId, row.productId));
        EXPECT_EQ(generator->getGeneratorName(), name);
        EXPECT_EQ(table()[i]->getGeneratorName(), name);
        EXPECT_EQ(familyOf(row.vendorId, row.productId), &row) << name;

        const bool last = i + 1 == familyCount();
        const SClaimRule& rule = row.claim;
        EXPECT_EQ(rule.vendorMatch == kAny, last) << name << ": a row without a vendor rule";
        EXPECT_TRUE(rule.vendorMatch == kAny || rule.vendors[0] != nullptr) << name;
        EXPECT_EQ(rule.productMatch == kAny && rule.productTest == nullptr, last)
            << name << ": a row without a product rule";
        EXPECT_TRUE(rule.productMatch == kAny || rule.products[0] != nullptr) << name;
        EXPECT_TRUE(std::ifstream(std::string(SCSITOOL_SOURCE_DIR) +
                                  "/providers/device/scsitool/src/" + row.file)
                        .good())
            << name << ": " << row.file;

        std::set<unsigned int> listed;
        for (const unsigned int* page = row.pages; *page != kNoPage; ++page) {
            listed.insert(*page);
        }
        std::set<unsigned int> lookedUp;
        for (const char* product : products) {
            for (size_t drop = 0; drop <= supported.size(); ++drop) {
                // Each page missing in turn, so a body that stops at one reaches the next.
                std::map<unsigned int, Bytes> some = pages;
                if (drop < supported.size()) {
                    some.erase(supported[drop]);
                }
                auto device = makeDevice(last ? "ACME" : row.vendorId, product, some, supported);
                CUdidReadRecorder recorder;
                bodyOf(generator.get(), device.get());
                for (const auto& lookup : recorder.lookups) {
                    lookedUp.insert(lookup.code);
                }
            }
        }
        EXPECT_EQ(lookedUp, listed) << name;
    }
}

TEST(FamilyRows, AGeneratorWithoutARowClaimsNothing)
{
    CEmcSymmetrixUdidGenerator symmetrix("EMC", "SYMMETRIX2");
    CDefaultUdidGenerator stray("ACME", "");
    for (CUdidGenerator* generator : std::vector<CUdidGenerator*>{&symmetrix, &stray}) {
        for (const char* product : {"SYMMETRIX2", "SYMMETRIX", ""}) {
            auto device = makeDevice(generator->m_vendorId, product);
            EXPECT_FALSE(generator->claimDevice(device.get()))
                << generator->getGeneratorName() << " " << product;
        }
    }
}

TEST(GeneratorTable, ClaimTestsStripTrailingBlanksInPlace)
{
    CEmcSymmetrixUdidGenerator symmetrix("EMC", "SYMMETRIX");
    auto other = makeDevice("EMX   ", " SYMMETRIX  ");
    EXPECT_FALSE(symmetrix.claimDevice(other.get()));
    EXPECT_EQ(other->m_vendorId, "EMX");
    EXPECT_EQ(other->m_productId, " SYMMETRIX  ");  // untouched once the vendor fails

    // The HP and LSI tests strip both ids first, whatever the vendor; the others leave the
    // product as it is. Only LSI's test takes its ids in any case.
    for (size_t row = 0; row + 1 < udid_family::familyCount(); ++row) {
        const udid_family::SFamily& family = udid_family::families()[row];
        const std::string name = family.vendorId;
        const bool stripsBoth = name == "HP" || name == "ENGENIO";
        auto device = makeDevice("ACME  ", "Big Disk  ");
        EXPECT_FALSE(table()[row]->claimDevice(device.get()));
        EXPECT_EQ(device->m_vendorId + "/" + device->m_productId,
                  stripsBoth ? "ACME/Big Disk" : "ACME/Big Disk  ")
            << name;
        auto lower =
            makeDevice(CStringTool::tostrlower(family.claim.vendors[0]),
                       CStringTool::tostrlower(family.claim.products[0] ? family.claim.products[0]
                                                                        : "2107900"));
        EXPECT_EQ(table()[row]->claimDevice(lower.get()), name == "ENGENIO") << name;
    }

    auto hp = makeDevice("HP      ", "HSV210  ");
    EXPECT_EQ(claimerOf(hp.get())->getGeneratorName(), "HP:HSV");
    EXPECT_EQ(hp->m_vendorId + "/" + hp->m_productId, "HP/HSV210");
}

TEST(GeneratorTable, MakesEachArrayUdid)
{
    FakeHost system(filerAnswer("1234567890"));
    struct Case {
        const char* vendor;
        const char* product;
        std::map<unsigned int, Bytes> pages;
        std::string udid;
    };
    const Bytes c0 = PageBuilder(64).byte(49, 14).text(50, "CK200083300123");
    const Bytes wwn23 = naaPage83(kWwn, 23);
    // One row per body the example hosts do not show: each family's own UDID on the datacenter
    // host is pinned by its golden map.
    // clang-format off
    const Case cases[] = {
        {"EMC", "SYMMETRIX", {{0, PageBuilder(136).hex(124, "0001879014").text(38, "5A")}},
         "UDID##EMC##SYMMETRIX##000001879014##05A"},
        {"IBM", "2107900", {{0x83, naaPage83("6005076303ffc000 0000000000001a2b")}}, "UDID##IBM##TOTALSTORAGE##1a2b"},
        {"IBM", "2145", {{0x80, serialPage80("0200A4X")}, {0x83, naaPage83("6005076801800000 0000000000000cd1")}},
         "UDID##IBM##TOTALSTORAGE##IBM.2145-0200A4X##0cd1"},
        {"IBM", "3552", {{0xC8, PageBuilder(106).hex(90, "00a0b8000026d7ee 000000004a1b2c3d")}, {0x83, naaPage83(kWwn)}},
         "UDID##IBM##TOTALSTORAGE##IBM.3552-00a0b8000026d7ee000000004a1b2c3d##e011"},
        {"IBM", "1814 FAStT", {{0x80, serialPage80("SQ12345678")}, {0xD0, PageBuilder(24).hex(8, "00a0b8000026d7ee 000000004a1b2c3d")},
         {0x83, naaPage83(kWwn)}}, "UDID##IBM##DISKSYSTEM##IBM.1814-00a0b8000026d7ee000000004a1b2c3d##" + kWwnColons},
        {"IBM", "1815", {{0x80, serialPage80("S")}, {0xD0, PageBuilder(22)}, {0x83, naaPage83(kWwn)}},
         "UDID##IBM##DISKSYSTEM##IBM.1815-##" + kWwnColons},
        {"IBM", "1724-100", {{0, PageBuilder(96).text(36, "SQ4001234567AB")}, {0x83, naaPage83(kWwn)}},
         "UDID##IBM##DISKSYSTEM##IBM.1724-SQ4001234567AB##" + kWwnColons},
        {"HP", "MSA2012fc", {{0, PageBuilder(120).text(96, "P0PSV8A9VVV01N")}, {0x83, PageBuilder(68).text(36, "600C0FF000D8E0A6C2D0D84901000000")}},
         "UDID##HP##MSA##P0PSV8A9VVV01N##600C0FF000D8E0A6C2D0D84901000000"},
        {"HP", "OPEN-V", {{0, PageBuilder(64).text(36, "60 02749 4D2")}}, "UDID##HP##XP##0##1234"},
        {"HP", "OPEN-0V", {{0, PageBuilder(64).text(36, "50 02G4904X2")}}, "UDID##HP##XP##2##4"},
        {"HITACHI", "DF600F", {{0, PageBuilder(64).text(36, "D6000FA1001A")}}, "UDID##HITACHI##HDS##4001##26"},
        {"HITACHI", "USP", {{0, PageBuilder(64).text(36, "730123450010")}}, "UDID##HITACHI##HDS##73012345##16"},
        {"HITACHI", "9970V", {{0, PageBuilder(64).text(36, "  0 00FF0002")}}, "UDID##HITACHI##HDS##255##2"},
        {"HITACHI", "9960", {{0, PageBuilder(64).text(36, "50 1ABCD0012")}}, "UDID##HITACHI##HDS##109517##18"},
        {"LSI", "INF-01-00", {{0xC8, PageBuilder(106).hex(90, "600a0b80002649a4 0000000049b8e1c2")}, {0x83, naaPage83(kWwn)}},
         "UDID##ENGENIO##UNIVERSAL##600a0b80002649a40000000049b8e1c2##600601603AB11E004C8F5E5972C3E011"},
        {"NETAPP", "LUN", {{0x83, PageBuilder(33).hex(21, "4e6574417070204c554e2031")}},
         "UDID##NETAPP##LUN##1234567890##4e6574417070204c554e2031"},
        {"FUJITSU", "ETERNUS", {{0, PageBuilder(64).text(36, "43 1    ")}, {0x83, naaPage83(kWwn)}},
         "UDID##FUJITSU##ETERNUS##43 1##600601603AB11E004C8F5E5972C3E011"},
        // Lengths a test admits although the body reads a byte or more past them: those bytes
        // are the zeroes the command buffer held. The pages are cached at exactly these sizes,
        // so a read behind them shows under the sanitizers.
        {"EMC", "SYMMETRIX", {{0, PageBuilder(134).hex(124, "0001879014").text(132, "A")}}, "UDID##EMC##SYMMETRIX##000001879014##A"},
        {"EMC", "SYMMETRIX", {{0, PageBuilder(132).hex(124, "0001879014").text(38, "5A")}}, "UDID##EMC##SYMMETRIX##000001879014##05A"},
        {"EMC", "SYMMETRIX", {{0, PageBuilder(132).hex(124, "0001879014").text(132, "0A3")}}, "UDID##EMC##SYMMETRIX##000001879014##0A3"},
        {"DGC", "VRAID", {{0xC0, c0}, {0x83, wwn23}}, "UDID##DGC##CLARIION##CK200083300123##60:06:01:60:3a:b1:1e:00:4c:8f:5e:59:72:c3:e0:00"},
        {"IBM", "2107900", {{0, PageBuilder(43).text(36, "7512345")}, {0x83, wwn23}}, "UDID##IBM##TOTALSTORAGE##IBM.2107-7512345##e000"},
        {"IBM", "2105", {{0x80, PageBuilder(3)}, {0x83, naaPage83(kWwn)}}, "UDID##IBM##TOTALSTORAGE##IBM.2105-##e011"},
        {"IBM", "1814", {{0x80, serialPage80("S")}, {0xD0, PageBuilder(23).hex(8, "00a0b8000026d7ee 000000004a1b2c")}, {0x83, wwn23}},
         "UDID##IBM##DISKSYSTEM##IBM.1814-00a0b8000026d7ee000000004a1b2c00##60:06:01:60:3a:b1:1e:00:4c:8f:5e:59:72:c3:e0:00"},
        {"HP", "HSV210", {{0, PageBuilder(137).hex(130, "50001FE15005AB")}, {0x83, wwn23}},
         "UDID##HP##HSV##5000-1FE1-5005-AB00##6006-0160-3AB1-1E00-4C8F-5E59-72C3-E000"},
        {"HITACHI", "OPEN-V", {{0, PageBuilder(56).text(36, "50 004D20012")}}, "UDID##HITACHI##HDS##1234##18"},
        {"LSI", "INF-01-00", {{0xC8, PageBuilder(106).hex(90, "600a0b80002649a4 0000000049b8e1c2")}, {0x83, wwn23}},
         "UDID##ENGENIO##UNIVERSAL##600a0b80002649a40000000049b8e1c2##600601603AB11E004C8F5E5972C3E000"},
    };
    // clang-format on
    for (const Case& c : cases) {
        auto device = makeDevice(c.vendor, c.product, c.pages, {0x00, 0x80, 0x83});
        CUdidGenerator* generator = claimerOf(device.get());
        EXPECT_EQ(
            generator->getUniqueDeviceIDPrefix(device.get()) + bodyOf(generator, device.get()),
            c.udid);
    }
}

TEST(GeneratorFailures, EachSiteNamesItsMessageAndClaimStrings)
{
    enum Row {
        MSA,
        EVA,
        XP,
        IBM,
        IBM_DS,
        CLARIION,
        SYMMETRIX,
        HITACHI,
        LSI,
        NETAPP,
        PAR3,
        FUJITSU
    };
    const std::string DEVICE = "MSG_UDID_ERROR_INVALID_SCSI_DEVICE_DATA ";
    const std::string SIZE = "MSG_UDID_ERROR_INVALID_SCSI_PAGE_SIZE [] []";
    const std::string DATA = "MSG_UDID_ERROR_INVALID_SCSI_PAGE_DATA ";
    const std::string ENCLOSURE = "MSG_UDID_ERROR_INVALID_SCSI_ENCLOSURE_DATA [] []";
    const Bytes null = {};  // a cache entry without data
    auto p83 = [](size_t length, uint8_t pageLength) {
        return PageBuilder(length).byte(3, pageLength).resize(length);
    };
    const Bytes c0 = PageBuilder(64).byte(49, 14).text(50, "CK200083300123");
    struct Case {
        Row row;
        const char* product;  // the record's product id: the IBM bodies read it
        std::map<unsigned int, Bytes> pages;
        std::string failure;
    };
    // Each length test at its bound: the first length it refuses.
    // clang-format off
    const Case cases[] = {
        {MSA, "MSA", {}, DEVICE + "[HP] [MSA]"}, {MSA, "MSA", {{0, null}}, DEVICE + "[HP] [MSA]"},
        {MSA, "MSA", {{0, PageBuilder(119)}}, DEVICE + "[HP] [MSA]"},
        {MSA, "MSA", {{0, PageBuilder(120)}}, DEVICE + "[HP] [MSA]"},
        {MSA, "MSA", {{0, PageBuilder(120)}, {0x83, PageBuilder(67)}}, DEVICE + "[HP] [MSA]"},
        {EVA, "HSV", {{0, PageBuilder(136)}}, ENCLOSURE},
        {EVA, "HSV", {{0, PageBuilder(137)}}, DATA + "[HP] [HSV]"},
        {EVA, "HSV", {{0, PageBuilder(138)}, {0x83, null}}, DATA + "[HP] [HSV]"},
        {EVA, "HSV", {{0, PageBuilder(138)}, {0x83, p83(22, 20)}}, DATA + "[HP] [HSV]"},
        {EVA, "HSV", {{0, PageBuilder(138)}, {0x83, p83(24, 19)}}, DEVICE + "[HP] [HSV]"},
        {EVA, "HSV", {{0, PageBuilder(138)}, {0x83, p83(23, 19)}}, DEVICE + "[HP] [HSV]"},
        {XP, "OPEN-V", {{0, PageBuilder(55)}}, DATA + "[HP] [XP]"}, {XP, "OPEN-V", {{0, null}}, DATA + "[HP] [XP]"},
        {IBM, "2107900", {{0, PageBuilder(42)}}, SIZE}, {IBM, "2107900", {}, DATA + "[IBM] [TOTALSTORAGE]"},
        {IBM, "2107900", {{0x83, PageBuilder(22)}}, DATA + "[IBM] [TOTALSTORAGE]"},
        {IBM, "2105", {{0x80, null}}, DATA + "[IBM] [TOTALSTORAGE]"},
        {IBM, "2105", {{0x80, PageBuilder(10).byte(3, 11)}}, SIZE}, {IBM, "2105", {{0x80, PageBuilder(4).byte(3, 5)}}, SIZE},
        {IBM, "3552", {{0xC8, PageBuilder(105)}, {0x83, PageBuilder(23)}}, DATA + "[IBM] [TOTALSTORAGE]"}, {IBM, "9999", {}, ENCLOSURE},
        {IBM_DS, "1814", {}, DATA + "[IBM] [DISKSYSTEM]"}, {IBM_DS, "1814", {{0x80, PageBuilder(8).byte(3, 9)}}, SIZE},
        {IBM_DS, "1814", {{0x80, serialPage80("S")}, {0x83, PageBuilder(22)}}, DATA + "[IBM] [DISKSYSTEM]"},
        {IBM_DS, "1724", {{0x83, PageBuilder(22)}}, DATA + "[IBM] [DISKSYSTEM]"}, {IBM_DS, "3552", {}, ENCLOSURE},
        {CLARIION, "VRAID", {{0xC0, PageBuilder(63).byte(49, 14)}}, SIZE},
        {CLARIION, "VRAID", {{0xC0, PageBuilder(40)}}, SIZE},
        {CLARIION, "VRAID", {{0xC0, PageBuilder(64).text(50, "-")}, {0x80, PageBuilder(8).byte(3, 5)}}, SIZE},
        {CLARIION, "VRAID", {{0xC0, c0}}, DEVICE + "[DGC] []"},
        {CLARIION, "VRAID", {{0xC0, c0}, {0x83, PageBuilder(22)}}, DEVICE + "[DGC] []"},
        {SYMMETRIX, "SYMMETRIX", {{0, PageBuilder(131)}}, DATA + "[EMC] [SYMMETRIX]"},
        {HITACHI, "OPEN-V", {{0, PageBuilder(55)}}, DATA + "[HITACHI] [HDS]"},
        {LSI, "INF", {{0xC8, PageBuilder(105)}}, ENCLOSURE},
        {LSI, "INF", {{0xC8, PageBuilder(106)}}, DATA + "[ENGENIO] [UNIVERSAL]"},
        {LSI, "INF", {{0xC8, PageBuilder(106)}, {0x83, p83(22, 20)}}, DATA + "[ENGENIO] [UNIVERSAL]"},
        {LSI, "INF", {{0xC8, PageBuilder(106)}, {0x83, p83(24, 19)}}, DEVICE + "[ENGENIO] [UNIVERSAL]"},
        {LSI, "INF", {{0xC8, PageBuilder(106)}, {0x83, p83(23, 19)}}, DEVICE + "[ENGENIO] [UNIVERSAL]"},
        {NETAPP, "LUN", {{0x83, naaPage83(kWwn)}}, DATA + "[NETAPP] [LUN]"},  // the node can't be opened
        {PAR3, "VV", {{0x80, PageBuilder(11)}}, ENCLOSURE}, {PAR3, "VV", {{0x80, PageBuilder(12)}}, DATA + "[HP] [3PAR]"},
        {PAR3, "VV", {{0x80, PageBuilder(12)}, {0x83, PageBuilder(15)}}, DATA + "[HP] [3PAR]"},
        {FUJITSU, "ETERNUS", {{0, PageBuilder(43)}}, ENCLOSURE},
        {FUJITSU, "ETERNUS", {{0, PageBuilder(44)}, {0x83, PageBuilder(23)}}, DATA + "[FUJITSU] [ETERNUS]"},
    };
    // clang-format on
    FakeHost system(Bytes(), false);
    for (const Case& c : cases) {
        auto device = makeDevice("ANY", c.product, c.pages, {0x00, 0x83});
        EXPECT_EQ(bodyOf(table()[c.row], device.get()), c.failure) << "case " << &c - cases;
    }
}

TEST(DefaultGenerator, PrefixFromTheDeviceOwnIds)
{
    CDefaultUdidGenerator generator("", "");
    auto device = makeDevice("ACME    ", "Big Disk 2      ");
    EXPECT_TRUE(generator.claimDevice(device.get()));
    EXPECT_EQ(generator.getUniqueDeviceIDPrefix(device.get()), "UDID##ACME##BIG_DISK_2##");
    EXPECT_EQ(device->m_productId, "Big Disk 2");
    auto inner = makeDevice("A B ", "x y");
    EXPECT_EQ(generator.getUniqueDeviceIDPrefix(inner.get()), "UDID##A B##X_Y##");
}

TEST(DefaultGenerator, BodyFromIdentityPagesOrHostLocal)
{
    FakeHost system;
    const Bytes page64 = PageBuilder(64).byte(0, 0xAB).byte(39, 0x10).byte(63, 0xFF);
    // 81 digits once its last zero digit is stripped: over 80, so it is cut, and stripped again.
    const Bytes page41 = PageBuilder(41).byte(0, 0xAB).byte(40, 0x10);
    const std::string local = "/dev/sdc@testhost";
    struct Case {
        const char* vendor;
        std::vector<unsigned int> supported;
        std::map<unsigned int, Bytes> pages;
        std::string body;
    };
    // clang-format off
    const Case cases[] = {
        {"ACME", {0x00, 0x83}, {{0x83, hexBytes("00830004 60051000")}}, "0083000460051"},
        {"ACME", {0x00}, {{0x83, page64}, {0x80, serialPage80("X")}}, "ab" + std::string(76, '0') + "1"},
        {"ACME", {0x00}, {{0x83, page41}}, "ab"},
        {"ACME", {0x00}, {{0x80, serialPage80("AB")}}, "008000024142"},
        {"ACME", {0x00}, {{0x83, {}}, {0x80, serialPage80("AB")}}, "008000024142"},
        {"ACME", {0x80, 0x83}, {{0x83, page64}}, local}, {"    ", {0x00}, {{0x83, page64}}, local},
        {"ACME", {0x00}, {}, local},
    };
    // clang-format on
    CDefaultUdidGenerator generator("", "");
    for (const Case& c : cases) {
        auto device = makeDevice(c.vendor, "DISK", c.pages, c.supported);
        EXPECT_EQ(generator.getUniqueDeviceID(device.get()), c.body);
    }
    system.host.setHostnameFails();
    EXPECT_EQ(generator.getUniqueDeviceID(makeDevice("ACME", "DISK").get()), "/dev/sdc@UNKNOWN");
}

TEST(NetAppGenerator, SendsTheIdentityCommandAndWalksItsRecords)
{
    // clang-format off
    const std::pair<Bytes, std::string> cases[] = {
        {filerAnswer("1234567890"), "1234567890"},
        {PageBuilder(4096).hex(10, "0020").byte(40, 0x22).text(68, "FILER-A"), "FILER-A"},
        {PageBuilder(4096).hex(10, "0180").byte(136, 0x22).text(164, "LOW"), "LOW"},  // signed low byte
        {PageBuilder(4096).hex(10, "8010").byte(24, 0x22).text(52, "NO"), ""},        // negative length
        {PageBuilder(4096).byte(24, 0x22).text(52, "NO"), ""},                        // zero length
        {PageBuilder(4096).hex(10, "0078").hex(130, "0078").hex(250, "0008").byte(256, 0x22).text(284, "EDGE"), "EDGE"},
        {PageBuilder(4096).hex(10, "0100").byte(264, 0x22).text(292, "FAR"), ""},     // starts past 256
        {PageBuilder(4096).hex(10, "00f9").byte(257, 0x22).text(285, "NEXT"), ""},    // starts at 257
        {filerAnswer("ABCDEFGHIJKLMNOPQRSTUVWXYZ"), "ABCDEFGHIJKLMNOPQRSTUVW"},
    };
    // clang-format on
    CNetAppUdidGenerator generator("NETAPP", "LUN");
    auto device = makeDevice("NETAPP", "LUN", {}, {}, "/dev/sdq");
    const std::vector<std::string> calls = {"open /dev/sdq 0x800 = 7", "ioctl 7 SG_IO", "close 7"};
    for (const auto& c : cases) {
        FakeHost system(c.first);
        EXPECT_EQ(generator.getEnclosureID(device.get()), c.second);
        EXPECT_EQ(system.host.nodeCalls(), calls);
        EXPECT_EQ(system.host.cdbsSent("sdq"),
                  std::vector<Bytes>{hexBytes("C0 00 00 0A 98 0A 22 10 00 00")});
    }

    {
        // Each failure is a warning at level 2 that names the node.
        TraceCapture trace;
        generator.registerTraceLog(trace.log());
        {
            FakeHost failing(filerAnswer("1234567890"));
            failing.host.findDevice("sdq")->failingIoctls = {"SG_IO"};
            EXPECT_EQ(generator.getEnclosureID(device.get()), "");
            EXPECT_EQ(failing.host.nodeCalls(), calls);
        }
        {
            FakeHost missing(Bytes(), false);
            EXPECT_EQ(generator.getEnclosureID(device.get()), "");
            EXPECT_EQ(missing.host.nodeCalls(),
                      std::vector<std::string>{"open /dev/sdq 0x800 = -1"});
        }
        EXPECT_EQ(trace.at(2),
                  (std::vector<std::string>{"getEnclosureID: identity command failed on /dev/sdq",
                                            "getEnclosureID: cannot open /dev/sdq"}));
        generator.registerTraceLog(CFiTraceLogPtr());
    }
    {
        // Descriptor 0, where a daemon without standard input gets it, is a descriptor.
        FakeHost zero(filerAnswer("1234567890"));
        zero.host.setNextDescriptor(0);
        EXPECT_EQ(generator.getEnclosureID(device.get()), "1234567890");
        EXPECT_EQ(zero.host.nodeCalls(), (std::vector<std::string>{"open /dev/sdq 0x800 = 0",
                                                                   "ioctl 0 SG_IO", "close 0"}));
    }

    FakeHost system(filerAnswer("1234567890"));
    // The one failure that names the page in place of the product.
    auto unlisted = makeDevice("NETAPP", "LUN", {{0x83, PageBuilder(33)}}, {0x00, 0x80});
    EXPECT_EQ(bodyOf(&generator, unlisted.get()),
              "MSG_UDID_ERROR_INVALID_SCSI_PAGE_DATA [NETAPP] [0x83]");
    auto shortPage = makeDevice("NETAPP", "LUN", {{0x83, PageBuilder(32)}}, {0x83});
    EXPECT_EQ(bodyOf(&generator, shortPage.get()),
              "MSG_UDID_ERROR_INVALID_SCSI_DEVICE_DATA [NETAPP] [LUN]");
}

TEST(ClariionGenerator, ArraySerialSourcesAndTraces)
{
    TraceCapture trace(3);
    CEmcClariionUdidGenerator generator("DGC", "");
    generator.registerTraceLog(trace.log());
    struct Case {
        std::map<unsigned int, Bytes> pages;
        std::string body;
        std::vector<std::pair<int, std::string>> traces;
    };
    const std::string rejected = "Invalid EnclosureID=";
    // clang-format off
    Case cases[] = {
        {{{0xC0, PageBuilder(70).byte(49, 16).text(50, "CK2000833001234X")}}, "CK200083300123##",
         {{3, "clariion EnclosureID=CK200083300123##"}}},
        // The length byte bounds the check only; the copy takes what the page holds.
        {{{0xC0, PageBuilder(60).byte(49, 4).text(50, "ABCDEFGHIJ")}}, "ABCDEFGHIJ##", {{3, "clariion EnclosureID=ABCDEFGHIJ##"}}},
        {{{0xC0, PageBuilder(64).byte(49, 14).text(50, "CK-2000")}, {0x80, serialPage80("APM00")}}, "APM00##",
         {{2, rejected + "CK-2000"}, {3, "clariion EnclosureID=APM00##"}}},
        {{{0xC0, PageBuilder(64).byte(49, 14)}, {0x80, serialPage80("APM 1")}}, "APM 1",
         {{2, rejected}, {2, rejected + "APM 1"}, {2, "Invalid EnclosureID APM 1 found for Clariion"}}},
        // A page the device did not give counts as a rejected serial: the next source is tried.
        {{{0x80, serialPage80("APM00")}}, "APM00##", {{2, rejected}, {3, "clariion EnclosureID=APM00##"}}},
        {{}, "", {{2, rejected}, {2, rejected}, {2, "Invalid EnclosureID  found for Clariion"}}},
    };
    // clang-format on
    for (Case& c : cases) {
        trace.clear();
        c.pages[0x83] = naaPage83(kWwn);
        auto device = makeDevice("DGC", "VRAID", c.pages);
        EXPECT_EQ(generator.getUniqueDeviceID(device.get()), c.body + kWwnColons);
        c.traces.push_back(
            {3, "GetScsiModePage83 CEmcClariionUdidGenerator::getUniqueDeviceID : UDID=" + c.body +
                    kWwnColons + ":"});
        EXPECT_EQ(trace.lines(), c.traces) << c.body;
    }
}

// Every field's width and place: every byte of every page a hex digit that tells its offset, so a
// field read one byte early, late, short or long gives another UDID. The pages run to 600 bytes,
// beyond what any field reads (the 1724 serial stops at its 511th character); `at36` opens the
// INQUIRY work field where a body branches on it.
TEST(GeneratorTable, FieldsKeepTheirWidthsInPagesWithoutAZeroByte)
{
    FakeHost system(filerAnswer("1234567890"));
    PageBuilder filled(600);
    for (size_t i = 0; i < 600; ++i)
        filled.byte(i, static_cast<uint8_t>("0123456789ABCDEF"[i % 16]));
    // clang-format off
    const char* cases[][4] = {
        {"HP", "MSA1000", "", "UDID##HP##MSA##0123456789ABCD##456789ABCDEF0123456789ABCDEF0123"},
        {"HP", "HSV210", "", "UDID##HP##HSV##3233-3435-3637-3839##3839-4142-4344-4546-3031-3233-3435-3637"},
        {"HP", "OPEN-V", "", "UDID##HP##XP##0##52719"},
        {"HP", "OPEN-0V", "50 ", "UDID##HP##XP##493995##52719"},
        {"IBM", "2107900", "", "UDID##IBM##TOTALSTORAGE##IBM.2107-456789A##3637"},
        {"IBM", "2105", "", "UDID##IBM##TOTALSTORAGE##IBM.2105-456789A##3637"},
        {"IBM", "2145", "", "UDID##IBM##TOTALSTORAGE##IBM.2145-456789A##3637"},
        {"IBM", "3552", "", "UDID##IBM##TOTALSTORAGE##IBM.3552-41424344454630313233343536373839##3637"},
        {"IBM", "1814", "", "UDID##IBM##DISKSYSTEM##IBM.1814-38394142434445463031323334353637##38:39:41:42:43:44:45:46:30:31:32:33:34:35:36:37"},
        {"DGC", "VRAID", "", "UDID##DGC##CLARIION##23456789ABCDEF##38:39:41:42:43:44:45:46:30:31:32:33:34:35:36:37"},
        {"EMC", "SYMMETRIX", "", "UDID##EMC##SYMMETRIX##004344454630##4567"},
        {"HITACHI", "DF600F", "D6", "UDID##HITACHI##HDS##35243##52719"},
        {"HITACHI", "USP", "76", "UDID##HITACHI##HDS##766789##52719"},
        {"HITACHI", "9970V", "50 ", "UDID##HITACHI##HDS##493995##52719"},
        {"HITACHI", "9960", "", "UDID##HITACHI##HDS##35243##52719"},
        {"LSI", "INF-01-00", "", "UDID##ENGENIO##UNIVERSAL##41424344454630313233343536373839##38394142434445463031323334353637"},
        {"NETAPP", "LUN", "", "UDID##NETAPP##LUN##1234567890##353637383941424344454630"},
        {"3PARdata", "VV", "", "UDID##HP##3PAR##456789AB##3839414243444546"},
        {"FUJITSU", "ETERNUS", "", "UDID##FUJITSU##ETERNUS##456789AB##38394142434445463031323334353637"},
        {"ACME", "Big Disk", "", "UDID##ACME##BIG_DISK##30313233343536373839414243444546303132333435363738394142434445463031323334353637"},
    };
    // clang-format on
    for (const auto& c : cases) {
        std::map<unsigned int, Bytes> pages;
        for (unsigned int code : {0x00, 0x80, 0x83, 0xC0, 0xC8, 0xD0})
            pages[code] = filled;
        pages[0x00] = PageBuilder(filled).text(36, c[2]);
        auto device = makeDevice(c[0], c[1], pages, {0x00, 0x80, 0x83, 0xC0, 0xC8, 0xD0});
        CUdidGenerator* generator = claimerOf(device.get());
        EXPECT_EQ(
            generator->getUniqueDeviceIDPrefix(device.get()) + bodyOf(generator, device.get()),
            c[3])
            << c[0] << "/" << c[1];
    }
    // A Symmetrix without a device number at byte 132: "0" and the three characters from byte 38.
    auto symmetrix =
        makeDevice("EMC", "SYMMETRIX", {{0x00, PageBuilder(filled).byte(132, 0)}}, {0x00});
    EXPECT_EQ(bodyOf(claimerOf(symmetrix.get()), symmetrix.get()), "004344454630##0678");
    // The 1724 serial: the INQUIRY text from byte 36, cut at 511 characters.
    std::string serial;
    for (size_t i = 36; i < 36 + 511; ++i)
        serial += "0123456789ABCDEF"[i % 16];
    auto device = makeDevice("IBM", "1724-100", {{0x00, filled}, {0x83, filled}}, {0x00, 0x83});
    EXPECT_EQ(bodyOf(claimerOf(device.get()), device.get()),
              "IBM.1724-" + serial + "##38:39:41:42:43:44:45:46:30:31:32:33:34:35:36:37");
}

namespace {
// A midrange generator whose ESS test refuses every model, as a generator derived from it may:
// the FAStT branch is then the one a listed model reaches.
class FasttOnlyGenerator : public CIbmDsUdidGenerator {
public:
    FasttOnlyGenerator() : CIbmDsUdidGenerator("IBM", "DISKSYSTEM") {}
    bool isESS(std::string) override { return false; }
};
}  // namespace

TEST(IbmMidrangeGenerator, TheFasttBranchNeedsAWholePageC8)
{
    FakeHost system;
    const Bytes d0 = PageBuilder(24).hex(8, "00a0b8000026d7ee 000000004a1b2c3d");
    struct Case {
        const char* product;
        std::map<unsigned int, Bytes> pages;
        std::string body;
    } cases[] = {
        {"1815",
         {{0xC8, PageBuilder(106)}, {0xD0, d0}, {0x83, naaPage83(kWwn)}},
         "IBM.1815-00a0b8000026d7ee000000004a1b2c3d##" + kWwnColons},
        {"1742-900",
         {{0xC8, PageBuilder(106)}, {0x83, naaPage83(kWwn)}},
         "IBM.1742-##" + kWwnColons},
        {"1815",
         {{0xC8, PageBuilder(105)}, {0xD0, d0}, {0x83, naaPage83(kWwn)}},
         "MSG_UDID_ERROR_INVALID_SCSI_PAGE_DATA [IBM] [DISKSYSTEM]"},
        {"1815",
         {{0xD0, d0}, {0x83, naaPage83(kWwn)}},
         "MSG_UDID_ERROR_INVALID_SCSI_PAGE_DATA [IBM] [DISKSYSTEM]"},
        {"3552",
         {{0xC8, PageBuilder(106)}, {0x83, naaPage83(kWwn)}},
         "MSG_UDID_ERROR_INVALID_SCSI_ENCLOSURE_DATA [] []"},
    };
    FasttOnlyGenerator generator;
    for (const Case& c : cases) {
        auto device = makeDevice("IBM", c.product, c.pages, {0x00, 0x83, 0xC8, 0xD0});
        EXPECT_EQ(bodyOf(&generator, device.get()), c.body) << c.product;
    }
}

namespace {
// A host that keeps the header of each SG_IO request it is given.
class SgIoNotingHost : public simhost::SimHost {
public:
    std::vector<sg_io_hdr_t> headers;
    int ioctl(int fd, unsigned long request, void* arg) override
    {
        if (request == SG_IO && arg != nullptr)
            headers.push_back(*static_cast<sg_io_hdr_t*>(arg));
        return SimHost::ioctl(fd, request, arg);
    }
};
}  // namespace

// The identity command's request as the kernel reads it: a 10-byte CDB, 4096 bytes from the
// device, 64 bytes of sense, ten seconds, and every other field of the header zero.
TEST(NetAppGenerator, TheIdentityRequestHeader)
{
    SgIoNotingHost host;
    simhost::SimHostInstall install(host);
    simhost::SimDevice disk;
    disk.name = "sdq";
    disk.inquiry = inquiryPage("NETAPP", "LUN", 36);
    disk.hasVendorCommand = true;
    disk.vendorCommand = filerAnswer("1234567890");
    host.addDevice(disk);
    CNetAppUdidGenerator generator("NETAPP", "LUN");
    auto device = makeDevice("NETAPP", "LUN", {}, {}, "/dev/sdq");
    EXPECT_EQ(generator.getEnclosureID(device.get()), "1234567890");
    ASSERT_EQ(host.headers.size(), 1u);
    const sg_io_hdr_t& h = host.headers[0];
    EXPECT_EQ(h.interface_id, 'S');
    EXPECT_EQ(h.dxfer_direction, SG_DXFER_FROM_DEV);
    EXPECT_EQ(h.cmd_len, 10u);
    EXPECT_EQ(h.mx_sb_len, 64u);
    EXPECT_EQ(h.dxfer_len, 4096u);
    EXPECT_EQ(h.timeout, 10u);
    EXPECT_NE(h.dxferp, nullptr);
    EXPECT_NE(h.cmdp, nullptr);
    EXPECT_NE(h.sbp, nullptr);
    EXPECT_EQ(h.iovec_count, 0);
    EXPECT_EQ(h.flags, 0u);
    EXPECT_EQ(h.pack_id, 0);
    EXPECT_EQ(h.usr_ptr, nullptr);
}
