// SPDX-License-Identifier: Apache-2.0
#include "generated_host.h"

#include <cstdio>

namespace bench {

namespace {

using simhost::Bytes;

// A page of `length` zero bytes, grown as fields are written into it.
class Page {
public:
    explicit Page(size_t length = 0) : m_bytes(length, 0) {}
    Page& text(size_t offset, const std::string& text)
    {
        grow(offset + text.size());
        for (size_t i = 0; i < text.size(); ++i) {
            m_bytes[offset + i] = static_cast<uint8_t>(text[i]);
        }
        return *this;
    }
    Page& hex(size_t offset, const std::string& digits)
    {
        Bytes parsed;
        int high = -1;
        for (char c : digits) {
            int value = c >= '0' && c <= '9'   ? c - '0'
                        : c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                               : -1;
            if (value < 0) {
                continue;
            }
            if (high < 0) {
                high = value;
            } else {
                parsed.push_back(static_cast<uint8_t>(high * 16 + value));
                high = -1;
            }
        }
        grow(offset + parsed.size());
        for (size_t i = 0; i < parsed.size(); ++i) {
            m_bytes[offset + i] = parsed[i];
        }
        return *this;
    }
    Page& byte(size_t offset, uint8_t value)
    {
        grow(offset + 1);
        m_bytes[offset] = value;
        return *this;
    }
    const Bytes& bytes() const { return m_bytes; }

private:
    void grow(size_t length)
    {
        if (m_bytes.size() < length) {
            m_bytes.resize(length, 0);
        }
    }
    Bytes m_bytes;
};

std::string padded(const std::string& text, size_t width)
{
    std::string result = text.substr(0, width);
    result.resize(width, ' ');
    return result;
}

// Standard INQUIRY of a connected direct-access SPC-3 device, `length` bytes long.
Page inquiry(const std::string& vendor, const std::string& product, size_t length)
{
    Page page(length);
    page.byte(2, 0x05).byte(3, 0x02).byte(4, static_cast<uint8_t>(length - 5)).byte(7, 0x32);
    page.text(8, padded(vendor, 8)).text(16, padded(product, 16)).text(32, "0001");
    return page;
}

// VPD page `code`: its header with the length of what follows byte 3.
Page vpd(uint8_t code, size_t length)
{
    Page page(length);
    page.byte(1, code).byte(3, static_cast<uint8_t>(length - 4));
    return page;
}

Page supported(const std::vector<uint8_t>& codes)
{
    Page page = vpd(0x00, 4 + codes.size());
    for (size_t i = 0; i < codes.size(); ++i) {
        page.byte(4 + i, codes[i]);
    }
    return page;
}

Page serial80(const std::string& serial)
{
    return vpd(0x80, 4 + serial.size()).text(4, serial);
}

// Page 0x83 with one binary NAA designator (16 bytes: NAA 6 registered extended).
Page naa83(const std::string& designatorHex)
{
    return vpd(0x83, 24).hex(4, "01 03 00 10").hex(8, designatorHex);
}

ArrayFamily family(const std::string& label, const Page& inquiryPage,
                   const std::vector<std::pair<uint8_t, Page>>& pages)
{
    ArrayFamily result;
    result.label = label;
    result.device.inquiry = inquiryPage.bytes();
    std::vector<uint8_t> codes(1, 0x00);
    for (const auto& page : pages) {
        codes.push_back(page.first);
        result.device.vpd[page.first] = page.second.bytes();
    }
    result.device.vpd[0x00] = supported(codes).bytes();
    return result;
}

std::vector<ArrayFamily> buildFamilies()
{
    const std::string wwn = "600601603ab11e004c8f5e5972c3e011";
    std::vector<ArrayFamily> families;
    families.push_back(family(
        "HP MSA", inquiry("HP", "MSA2012fc", 120).text(96, "P0PSV8A9VVV01N"),
        {{0x80, serial80("P0PSV8A9VVV01N")},
         {0x83,
          vpd(0x83, 68).hex(4, "02 01 00 40").text(36, "600C0FF000D8E0A6C2D0D84901000000")}}));
    families.push_back(family(
        "HP EVA", inquiry("HP", "HSV210", 140).hex(130, "50001FE15005ABCD"),
        {{0x80, serial80("P5512G39SWN0AB")}, {0x83, naa83("600508B400101234 0000A00001230000")}}));
    families.push_back(family(
        "HP XP", inquiry("HP", "OPEN-V", 64).text(36, "50 0274904D2"),
        {{0x80, serial80("50 0274904D2")}, {0x83, naa83("60060e8005027490 00000274900004d2")}}));
    families.push_back(family(
        "IBM DS8000", inquiry("IBM", "2107900", 96).text(36, "75123456"),
        {{0x80, serial80("75123451A2B")}, {0x83, naa83("6005076303ffc000 0000000000001a2b")}}));
    families.push_back(family("IBM DS/FAStT", inquiry("IBM", "1814      FAStT", 96),
                              {{0x80, serial80("SQ12345678")},
                               {0x83, naa83(wwn)},
                               {0xD0, vpd(0xD0, 24).hex(8, "00a0b8000026d7ee 000000004a1b2c3d")}}));
    families.push_back(family("EMC Clariion", inquiry("DGC", "RAID 5", 47).text(32, "0326"),
                              {{0x80, serial80("APM200083300123")},
                               {0x83, naa83(wwn)},
                               {0xC0, vpd(0xC0, 96).byte(49, 0x0e).text(50, "CK200083300123")}}));
    families.push_back(family(
        "EMC Symmetrix",
        inquiry("EMC", "SYMMETRIX", 140).text(32, "5874").hex(124, "0001879014").text(132, "05AF"),
        {{0x80, serial80("90014A3F000")}, {0x83, naa83("6000097000018790 1453303030413346")}}));
    families.push_back(
        family("Hitachi", inquiry("HITACHI", "OPEN-V", 64).text(36, "50 004D20012"),
               {{0x80, serial80("85011234")}, {0x83, naa83("60060e80104d2000 00004d2000000012")}}));
    families.push_back(
        family("LSI/Engenio", inquiry("LSI", "INF-01-00", 36),
               {{0x80, serial80("SP71001234")},
                {0x83, naa83("600a0b8000112233 000004d24a5b6c7d")},
                {0xC8, vpd(0xC8, 106).hex(90, "600a0b80002649a4 0000000049b8e1c2")}}));
    ArrayFamily netapp = family(
        "NetApp", inquiry("NETAPP", "LUN", 36).text(32, "7340"),
        {{0x80, serial80("P3OoG4WVLx4R")},
         {0x83, vpd(0x83, 40).hex(4, "02 01 00 20").text(8, "NETAPP   LUN P3OoG4WVLx4R       ")}});
    netapp.device.hasVendorCommand = true;
    netapp.device.vendorCommand = Page(47).hex(8, "22 00 00 40").text(36, "1234567890").bytes();
    families.push_back(netapp);
    families.push_back(family("HP 3PAR", inquiry("3PARdata", "VV", 36).text(32, "3122"),
                              {{0x80, serial80("1234567 ")}, {0x83, naa83("50002AC000010ABC")}}));
    families.push_back(family(
        "Fujitsu Eternus", inquiry("FUJITSU", "ETERNUS_DX80", 64).text(36, "4321ABCD"),
        {{0x80, serial80("4321ABCD0001")}, {0x83, naa83("600000E00D000000 0001234500010000")}}));
    families.push_back(family(
        "default (ATA)", inquiry("ATA", "ST3500418AS", 36).text(32, "CC38"),
        {{0x80, serial80("            9VMQ2ABC")},
         {0x83, vpd(0x83, 36).hex(4, "02 01 00 1c").text(8, "ATA     ST3500418AS 9VMQ2ABC")}}));
    return families;
}

// Gives LUN `index` its own identity: the last bytes of its serial and of its designator.
void stamp(simhost::SimDevice& device, size_t index)
{
    char digits[16];
    snprintf(digits, sizeof digits, "%06zu", index % 1000000);
    auto serial = device.vpd.find(0x80);
    if (serial != device.vpd.end() && serial->second.size() >= 10) {
        Bytes& page = serial->second;
        for (size_t i = 0; i < 6; ++i) {
            page[page.size() - 6 + i] = static_cast<uint8_t>(digits[i]);
        }
    }
    auto designator = device.vpd.find(0x83);
    if (designator != device.vpd.end() && designator->second.size() >= 12) {
        Bytes& page = designator->second;
        page[page.size() - 1] = static_cast<uint8_t>(index);
        page[page.size() - 2] = static_cast<uint8_t>(index >> 8);
    }
}

}  // namespace

const std::vector<ArrayFamily>& arrayFamilies()
{
    static const std::vector<ArrayFamily> families = buildFamilies();
    return families;
}

std::string diskName(size_t index)
{
    std::string letters;
    size_t n = index + 1;
    while (n > 0) {
        --n;
        letters.insert(letters.begin(), static_cast<char>('a' + n % 26));
        n /= 26;
    }
    return "sd" + letters;
}

std::unique_ptr<simhost::SimHost> makeHost(size_t luns)
{
    const size_t lunsPerTarget = 32;
    const size_t targetsPerAdapter = 16;
    const size_t lunsPerAdapter = lunsPerTarget * targetsPerAdapter;
    const std::vector<ArrayFamily>& families = arrayFamilies();

    std::unique_ptr<simhost::SimHost> host(new simhost::SimHost());
    host->setHostname("benchhost");
    for (size_t adapter = 0; adapter * lunsPerAdapter < luns; ++adapter) {
        simhost::SimAdapter hba;
        hba.host = static_cast<int>(3 + adapter);
        hba.driver = "qla2xxx";
        hba.fcHost = true;
        char port[32];
        snprintf(port, sizeof port, "0x21000024ff2c%04zx", adapter);
        hba.portName = port;
        host->addAdapter(hba);
    }
    for (size_t i = 0; i < luns; ++i) {
        simhost::SimDevice device = families[i % families.size()].device;
        device.name = diskName(i);
        device.host = static_cast<int>(3 + i / lunsPerAdapter);
        device.channel = 0;
        device.id = static_cast<int>(i % lunsPerAdapter / lunsPerTarget);
        device.lun = static_cast<int>(i % lunsPerTarget);
        device.blocks = 52428800;
        if (i % 8 == 0) {
            device.partitions.push_back(device.name + "1");
        }
        stamp(device, i);
        host->addDevice(device);
    }
    for (size_t k = 0; k < luns / 4; ++k) {
        host->addMultipathMap("mpath" + std::to_string(k), diskName(4 * k));
    }
    host->addExecutable("/sbin/multipath");
    host->addExecutable("/sbin/pidof");
    simhost::SimCommandScript multipathd;
    multipathd.output.push_back("1234");
    host->scriptCommand("/sbin/pidof -x multipathd", multipathd);
    host->scriptCommand("/sbin/multipath -F", simhost::SimCommandScript());
    return host;
}

}  // namespace bench
