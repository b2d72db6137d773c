// SPDX-License-Identifier: Apache-2.0
// The generator base class, the generator table and the default generator.
#include "device_udid_generator.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fi_system.h"
#include "stringtool.h"
#include "trace_call.h"

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

std::vector<CUdidGenerator*> createUdidGeneratorTable()
{
    // clang-format off
    return {
        //   generator                                      vendorId   productId
        /*  1 */ new CHpMsaUdidGenerator(                   "HP",      "MSA"),
        /*  2 */ new CHpEvaUdidGenerator(                   "HP",      "HSV"),
        /*  3 */ new CHpXpUdidGenerator(                    "HP",      "XP"),
        /*  4 */ new CIbmUdidGenerator(                     "IBM",     "TOTALSTORAGE"),
        /*  5 */ new CIbmDsUdidGenerator(                   "IBM",     "DISKSYSTEM"),
        /*  6 */ new CEmcClariionUdidGenerator(             "DGC",     ""),
        /*  7 */ new CEmcSymmetrixUdidGenerator(            "EMC",     "SYMMETRIX"),
        /*  8 */ new CHitachiUdidGenerator(                 "HITACHI", "HDS"),
        /*  9 */ new CLsiUdidGenerator(                     "ENGENIO", "UNIVERSAL"),
        /* 10 */ new CNetAppUdidGenerator(                  "NETAPP",  "LUN"),
        /* 11 */ new CHp3parUdidGenerator(                  "HP",      "3PAR"),
        /* 12 */ new CFujitsuEternusUdidGenerator(          "FUJITSU", "ETERNUS"),
        /* 13 */ new CDefaultUdidGenerator(                 "",        ""),  // claims all: last
    };
    // clang-format on
}

namespace {

enum EMatch { kExact, kPrefix, kContains };

// How a row of the generator table claims a device: the vendor and the product id (trailing
// blanks stripped) each against its list, compared as `vendorMatch` / `productMatch` say, and
// upper-cased first when case is ignored.
struct SClaimRule {
    const char* vendorId;  // the claim strings of the generator's row
    const char* productId;
    const char* vendors[3];
    EMatch vendorMatch;
    const char* products[13];
    EMatch productMatch;
    bool ignoreCase;
    // The HP and LSI tests strip both ids before they test either; the others strip the product
    // only once the vendor has matched.
    bool stripBothFirst;
};

// One row per generator that claims by pattern, found by its claim strings. The IBM rows are
// no pattern: their vendor prefix and the model lists they share stay in their own claimDevice.
// clang-format off
const SClaimRule kClaimRules[] = {
    // claim strings         vendors           match      products                match      no case  both
    {"HP", "MSA",            {"COMPAQ", "HP"}, kContains, {"MSA"},                kContains, false,   true},
    {"HP", "HSV",            {"COMPAQ", "HP"}, kExact,    {"HSV"},                kPrefix,   false,   true},
    {"HP", "XP",             {"HP"},           kExact,    {"OPEN-V", "OPEN-0V"},  kPrefix,   false,   true},
    {"DGC", "",              {"DGC"},          kExact,    {"RAID", "DISK", "VNX",
                                                           "CX"},                 kContains, false,   false},
    {"EMC", "SYMMETRIX",     {"EMC"},          kExact,    {"SYMMETRIX"},          kExact,    false,   false},
    {"HITACHI", "HDS",       {"HITACHI"},      kExact,    {"9200", "9500V", "DF600F",
                                                           "DF600F-V", "OPEN-V",
                                                           "OPEN-0V", "9900", "9910",
                                                           "9980V", "9970V", "9960",
                                                           "USP"},                kPrefix,   false,   false},
    {"ENGENIO", "UNIVERSAL", {"LSI"},          kExact,    {"INF", "UNIVERSAL",
                                                           "MPP_VIRTUAL_DISK"},   kPrefix,   true,    true},
    {"NETAPP", "LUN",        {"NETAPP"},       kExact,    {"LUN"},                kExact,    false,   false},
    {"HP", "3PAR",           {"3PARdata"},     kExact,    {"VV"},                 kExact,    false,   true},
    {"FUJITSU", "ETERNUS",   {"FUJITSU"},      kExact,    {"ETERNUS"},            kPrefix,   false,   false},
};
// clang-format on

const SClaimRule* claimRuleOf(const std::string& vendorId, const std::string& productId)
{
    for (const SClaimRule& rule : kClaimRules) {
        if (vendorId == rule.vendorId && productId == rule.productId) {
            return &rule;
        }
    }
    return nullptr;
}

}  // namespace

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

bool CUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    const SClaimRule* rule = claimRuleOf(m_vendorId, m_productId);
    if (rule == nullptr) {
        return stripVendorId(device) == m_vendorId && stripProductId(device) == m_productId;
    }
    auto matches = [rule](std::string id, const char* const* list, EMatch how) {
        id = rule->ignoreCase ? CStringTool::tostrupper(id) : id;
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
    if (rule->stripBothFirst) {
        stripProductId(device);
    }
    return matches(vendor, rule->vendors, rule->vendorMatch) &&
           matches(stripProductId(device), rule->products, rule->productMatch);
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
    std::string text;
    char digits[3];
    for (unsigned int i = 0; i < count; ++i) {
        if (i != 0 && i % group == 0) {
            text += separator;
        }
        snprintf(digits, sizeof(digits), upperCase ? "%02X" : "%02x", page[offset + i]);
        text += digits;
    }
    if (CUdidReadRecorder::listening()) {
        noteField(CUdidReadRecorder::kHex, first, text);
    }
    return text;
}

std::string CUdidGenerator::decimalOf(const std::string& text, int base)
{
    char number[64];
    snprintf(number, sizeof(number), "%d", int(strtol(text.c_str(), nullptr, base)));
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

bool CDefaultUdidGenerator::claimDevice(CScsiDeviceData* /*device*/)
{
    return true;
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
    if (std::find(pages.begin(), pages.end(), 0x00u) != pages.end() &&
        !stripVendorId(device).empty()) {
        for (unsigned int code : {0x83u, 0x80u}) {
            CachedBytes page = findPageData(device, code);
            if (page && page.length != 0) {
                return pageBody(page.data, page.length);
            }
        }
    }

    // Host-local id: keeps the device apart on this host only.
    char host[512] = {};
    std::string body = device->m_deviceName + "@";
    if (fiSystem().gethostname(host, sizeof(host)) == 0) {
        host[sizeof(host) - 1] = '\0';  // a system may truncate a long name without a terminator
        body += host;
    } else {
        body += "UNKNOWN";
    }
    return body;
}
