// SPDX-License-Identifier: Apache-2.0
// The generator base class, the array families and the generator table made of them, and the
// default generator.
#include "device_udid_generator.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fi_system.h"
#include "scsi_page_codes.h"
#include "stringtool.h"
#include "trace_call.h"
#include "udid_families.h"

using kzfi_pdk_4_4::fiSystem;

const char* const CUdidGenerator::udid_prefix = "UDID##";
const char* const CUdidGenerator::udid_separator = "##";

const char* const CUdidGenerator::MSG_INVALID_SCSI_DEVICE_DATA =
    "MSG_UDID_ERROR_INVALID_SCSI_DEVICE_DATA";
const char* const CUdidGenerator::MSG_INVALID_SCSI_PAGE_SIZE =
    "MSG_UDID_ERROR_INVALID_SCSI_PAGE_SIZE";
const char* const CUdidGenerator::MSG_INVALID_SCSI_PAGE_DATA =
    "MSG_UDID_ERROR_INVALID_SCSI_PAGE_DATA";
const char* const CUdidGenerator::MSG_INVALID_SCSI_ENCLOSURE_DATA =
    "MSG_UDID_ERROR_INVALID_SCSI_ENCLOSURE_DATA";

namespace udid_family {
namespace {

template <class Generator>
CUdidGenerator* make(std::string vendorId, std::string productId)
{
    return new Generator(std::move(vendorId), std::move(productId));
}

const unsigned int I = scsi_page::kStandardInquiry;
const unsigned int S = scsi_page::kUnitSerial;
const unsigned int D = scsi_page::kDeviceIdentification;
const unsigned int C0 = scsi_page::kVendorC0;
const unsigned int C8 = scsi_page::kVendorC8;
const unsigned int D0 = scsi_page::kVendorD0;
const unsigned int E = kNoPage;

// TEMPLATE: to add a family, write its generator class (device_udid_generator.h) in a file of
// its own named device_udid_generator_<family>.cpp, and add its row here above the default row:
// the claim strings (they name the generator and make the UDID's prefix), the generator, the
// claim rule (vendors and products, how each is compared, whether case counts, whether both ids
// are stripped before either is tested; a product test of its own when no list says it), the
// file, and the pages the body looks up. A row's place is its claim order: an earlier row that
// claims the same device wins. The unit tests check every row against its generator.
// clang-format off
const SFamily kFamilies[] = {
    // HP MSA, a COMPAQ or HP vendor text holding MSA: INQUIRY text and the text of page 0x83.
    {"HP", "MSA", make<CHpMsaUdidGenerator>,
     {{"COMPAQ", "HP"}, kContains, {"MSA"}, kContains, nullptr, false, true},
     "device_udid_generator_hp.cpp", {I, D, E}},
    // HP EVA (HSV controllers): the array's WWN from INQUIRY and the LUN's from page 0x83.
    {"HP", "HSV", make<CHpEvaUdidGenerator>,
     {{"COMPAQ", "HP"}, kExact, {"HSV"}, kPrefix, nullptr, false, true},
     "device_udid_generator_hp.cpp", {I, D, E}},
    // HP XP (OPEN-V volumes): two numbers of the INQUIRY text.
    {"HP", "XP", make<CHpXpUdidGenerator>,
     {{"HP"}, kExact, {"OPEN-V", "OPEN-0V"}, kPrefix, nullptr, false, true},
     "device_udid_generator_hp.cpp", {I, E}},
    // IBM enterprise and virtualisation (ESS, DS8000, DS6000, SVC, FAStT): the IBM test decides.
    {"IBM", "TOTALSTORAGE", make<CIbmUdidGenerator>,
     {{"IBM"}, kPrefix, {}, kAny, ibmEnterpriseModel, false, false},
     "device_udid_generator_ibm.cpp", {I, S, C8, D, E}},
    // IBM midrange DS models: the IBM test decides. Its isESS and isFASTT take the same models,
    // so the body's branch for a FAStT (page 0xC8) is never reached.
    {"IBM", "DISKSYSTEM", make<CIbmDsUdidGenerator>,
     {{"IBM"}, kPrefix, {}, kAny, ibmMidrangeModel, false, false},
     "device_udid_generator_ibm.cpp", {D0, I, S, D, E}},
    // EMC Clariion and VNX (vendor DGC): array serial of the unit page and the LUN name.
    {"DGC", "", make<CEmcClariionUdidGenerator>,
     {{"DGC"}, kExact, {"RAID", "DISK", "VNX", "CX"}, kContains, nullptr, false, false},
     "device_udid_generator_emc.cpp", {C0, S, D, E}},
    // EMC Symmetrix: array serial and device number of the INQUIRY data.
    {"EMC", "SYMMETRIX", make<CEmcSymmetrixUdidGenerator>,
     {{"EMC"}, kExact, {"SYMMETRIX"}, kExact, nullptr, false, false},
     "device_udid_generator_emc.cpp", {I, E}},
    // Hitachi arrays: array serial and LUN of the INQUIRY text.
    {"HITACHI", "HDS", make<CHitachiUdidGenerator>,
     {{"HITACHI"}, kExact, {"9200", "9500V", "DF600F", "DF600F-V", "OPEN-V", "OPEN-0V", "9900",
                            "9910", "9980V", "9970V", "9960", "USP"}, kPrefix, nullptr, false, false},
     "device_udid_generator_hitachi.cpp", {I, E}},
    // LSI / Engenio, whatever case the ids come in: array id of the enclosure page, LUN name.
    {"ENGENIO", "UNIVERSAL", make<CLsiUdidGenerator>,
     {{"LSI"}, kExact, {"INF", "UNIVERSAL", "MPP_VIRTUAL_DISK"}, kPrefix, nullptr, true, true},
     "device_udid_generator_lsi.cpp", {C8, D, E}},
    // NetApp filers: enclosure id from the filer's identity command and the LUN name.
    {"NETAPP", "LUN", make<CNetAppUdidGenerator>,
     {{"NETAPP"}, kExact, {"LUN"}, kExact, nullptr, false, false},
     "device_udid_generator_netapp.cpp", {D, E}},
    // HP 3PAR (vendor 3PARdata): the unit serial and the LUN name.
    {"HP", "3PAR", make<CHp3parUdidGenerator>,
     {{"3PARdata"}, kExact, {"VV"}, kExact, nullptr, false, true},
     "device_udid_generator_hp.cpp", {S, D, E}},
    // Fujitsu Eternus: array serial of the INQUIRY text and the LUN name.
    {"FUJITSU", "ETERNUS", make<CFujitsuEternusUdidGenerator>,
     {{"FUJITSU"}, kExact, {"ETERNUS"}, kPrefix, nullptr, false, false},
     "device_udid_generator_fujitsu.cpp", {I, D, E}},
    // Every other disk: a whole identification page, else a host-local id. Claims all: last.
    {"", "", make<CDefaultUdidGenerator>,
     {{}, kAny, {}, kAny, nullptr, false, true},
     "device_udid_generator.cpp", {D, S, E}},
};
// clang-format on

}  // namespace

const SFamily* families()
{
    return kFamilies;
}

size_t familyCount()
{
    return sizeof(kFamilies) / sizeof(kFamilies[0]);
}

const SFamily* familyOf(const std::string& vendorId, const std::string& productId)
{
    for (const SFamily& family : kFamilies) {
        if (vendorId == family.vendorId && productId == family.productId) {
            return &family;
        }
    }
    return nullptr;
}

}  // namespace udid_family

std::vector<CUdidGenerator*> createUdidGeneratorTable()
{
    std::vector<CUdidGenerator*> table;
    for (size_t i = 0; i < udid_family::familyCount(); ++i) {
        const udid_family::SFamily& family = udid_family::families()[i];
        table.push_back(family.create(family.vendorId, family.productId));
    }
    return table;
}

// --- CUdidGenerator --------------------------------------------------------------------------

CUdidGenerator::CUdidGenerator(std::string vendorId, std::string productId)
    : m_vendorId(std::move(vendorId)), m_productId(std::move(productId))
{
}

CUdidGenerator::~CUdidGenerator() = default;

std::string CUdidGenerator::getGeneratorName()
{
    return m_vendorId + ":" + m_productId;
}

// A generator claims only by its family's row: one whose claim strings have no row claims
// nothing, so a claim string edited on one side alone shows at once.
bool CUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    using namespace udid_family;
    const SFamily* family = familyOf(m_vendorId, m_productId);
    if (family == nullptr) {
        return false;
    }
    const SClaimRule& rule = family->claim;
    auto matches = [&rule](std::string id, const char* const* list, EMatch how) {
        if (how == kAny) {
            return true;
        }
        id = rule.ignoreCase ? CStringTool::tostrupper(id) : id;
        if (how != kExact) {
            return how == kPrefix ? beginsWithOneOf(id, list) : containsOneOf(id, list);
        }
        for (; *list != nullptr; ++list) {
            if (id == *list) {
                return true;
            }
        }
        return false;
    };
    const std::string& vendor = stripVendorId(device);
    if (rule.stripBothFirst) {
        stripProductId(device);
    }
    if (!matches(vendor, rule.vendors, rule.vendorMatch)) {
        return false;
    }
    const std::string& product = stripProductId(device);
    return rule.productTest != nullptr ? rule.productTest(*this, product)
                                       : matches(product, rule.products, rule.productMatch);
}

std::string CUdidGenerator::getUniqueDeviceIDPrefix(CScsiDeviceData* /*device*/)
{
    std::string prefix = udid_prefix;
    prefix += CStringTool::rtrim(m_vendorId, ' ') + udid_separator;
    prefix += CStringTool::rtrim(m_productId, ' ') + udid_separator;
    return CStringTool::tostrupper(prefix);
}

CUdidGeneratorException CUdidGenerator::error(const char* messageId) const
{
    return CUdidGeneratorException(messageId, m_vendorId, m_productId);
}

CUdidGeneratorException CUdidGenerator::anonymousError(const char* messageId)
{
    return CUdidGeneratorException(messageId, "", "");
}

const std::string& CUdidGenerator::stripVendorId(CScsiDeviceData* device)
{
    device->m_vendorId = CStringTool::rtrim(device->m_vendorId, ' ');
    return device->m_vendorId;
}

const std::string& CUdidGenerator::stripProductId(CScsiDeviceData* device)
{
    device->m_productId = CStringTool::rtrim(device->m_productId, ' ');
    return device->m_productId;
}

CUdidGenerator::CachedBytes CUdidGenerator::findPageData(const CScsiDeviceData* device,
                                                         unsigned int code)
{
    CachedBytes bytes;
    const CScsiModePage* page = device->findPage(code);
    if (page != nullptr && page->getData() != nullptr) {
        bytes.data = page->getData();
        bytes.length = page->getLength();
    }
    if (CUdidReadRecorder::listening()) {
        if (CUdidReadRecorder* recorder = CUdidReadRecorder::active()) {
            recorder->noteLookup(code, bytes.data, bytes.length);
        }
    }
    return bytes;
}

void CUdidGenerator::CachedBytes::noteRead(unsigned int i) const
{
    if (CUdidReadRecorder* recorder = CUdidReadRecorder::active()) {
        recorder->noteRead(data, length, i);
    }
}

namespace {

// The index of the next read, where a field that a recorder will see starts.
size_t fieldStart()
{
    CUdidReadRecorder* recorder = CUdidReadRecorder::active();
    return recorder != nullptr ? recorder->reads.size() : 0;
}

void noteField(CUdidReadRecorder::FieldKind kind, size_t first, const std::string& text)
{
    if (CUdidReadRecorder* recorder = CUdidReadRecorder::active()) {
        recorder->noteField(kind, first, text);
    }
}

}  // namespace

std::string CUdidGenerator::textField(const CachedBytes& page, unsigned int offset,
                                      unsigned int count)
{
    const size_t first = CUdidReadRecorder::listening() ? fieldStart() : 0;
    std::string text;
    for (unsigned int i = offset; i < offset + count && page[i] != 0; ++i) {
        text += char(page[i]);
    }
    if (CUdidReadRecorder::listening()) {
        noteField(CUdidReadRecorder::kText, first, text);
    }
    return text;
}

std::string CUdidGenerator::hexField(const CachedBytes& page, unsigned int offset,
                                     unsigned int count, bool upperCase, const char* separator,
                                     unsigned int group)
{
    const size_t first = CUdidReadRecorder::listening() ? fieldStart() : 0;
    const char* const digits = upperCase ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < count; ++i) {
        if (i != 0 && i % group == 0) {
            text += separator;
        }
        const unsigned char byte = page[offset + i];  // one read of each byte, as recorded
        text += digits[byte >> 4];
        text += digits[byte & 0x0F];
    }
    if (CUdidReadRecorder::listening()) {
        noteField(CUdidReadRecorder::kHex, first, text);
    }
    return text;
}

std::string CUdidGenerator::decimalOf(const std::string& text, int base)
{
    const std::string number = std::to_string(int(strtol(text.c_str(), nullptr, base)));
    if (CUdidReadRecorder::listening()) {
        if (CUdidReadRecorder* recorder = CUdidReadRecorder::active()) {
            recorder->noteDecimal(text, base, number);
        }
    }
    return number;
}

bool CUdidGenerator::beginsWithOneOf(const std::string& text, const char* const* list)
{
    for (; *list != nullptr; ++list) {
        if (text.compare(0, strlen(*list), *list) == 0) {
            return true;
        }
    }
    return false;
}

bool CUdidGenerator::containsOneOf(const std::string& text, const char* const* list)
{
    for (; *list != nullptr; ++list) {
        if (text.find(*list) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// --- CDefaultUdidGenerator -------------------------------------------------------------------

namespace {

// Hex text of a whole page, trailing '0' digits stripped; a text over 80 digits keeps its
// first 80 and is stripped once more. The stripping works on digits, so a last byte 0x10
// ends as "1": that is the form the id has always had.
std::string pageBody(const unsigned char* data, unsigned int length)
{
    std::string body = CStringTool::rtrim(CStringTool::binary2str(data, int(length)), '0');
    if (body.size() > 80) {
        body = CStringTool::rtrim(body.substr(0, 80), '0');
    }
    return body;
}

}  // namespace

CDefaultUdidGenerator::CDefaultUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// Claims every disk, by its row.
bool CDefaultUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    return CUdidGenerator::claimDevice(device);
}

std::string CDefaultUdidGenerator::getUniqueDeviceIDPrefix(CScsiDeviceData* device)
{
    std::string prefix = udid_prefix;
    prefix += stripVendorId(device) + udid_separator;
    std::string product = stripProductId(device);
    std::replace(product.begin(), product.end(), ' ', '_');
    prefix += product + udid_separator;
    return CStringTool::tostrupper(prefix);
}

std::string CDefaultUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    const std::vector<unsigned int>& pages = device->m_supportedPages;
    if (std::find(pages.begin(), pages.end(), unsigned(scsi_page::kSupportedPages)) !=
            pages.end() &&
        !stripVendorId(device).empty()) {
        for (unsigned int code :
             {unsigned(scsi_page::kDeviceIdentification), unsigned(scsi_page::kUnitSerial)}) {
            CachedBytes page = findPageData(device, code);
            if (page && page.length != 0) {
                return pageBody(page.data, page.length);
            }
        }
    }

    // Host-local id: keeps the device apart on this host only.
    std::string host;
    return device->m_deviceName + "@" + (kzfi_pdk_4_4::fiHostName(host, 512) ? host : "UNKNOWN");
}
