// SPDX-License-Identifier: Apache-2.0
// The IBM array generators: enterprise and virtualisation models (ESS, DS8000, DS6000, SVC,
// FAStT 3552/3542) and the midrange DS models.
#include <string>

#include "device_udid_generator.h"
#include "scsi_page_codes.h"
#include "stringtool.h"
#include "udid_families.h"

namespace {

const char* const kIbmEssModels[] = {"2105", "2107", "1750", "2145", nullptr};
const char* const kIbmFasttModels[] = {"3552", "3542", nullptr};
// The midrange models answer both tests alike: a product that is not one of them fails both.
const char* const kIbmDsModels[] = {"1722", "1724", "1742", "1815", "1814", nullptr};

// The ESS gate: page 0x80 must be there and hold the serial its length byte announces;
// `missing` or `tooShort` is thrown otherwise.
CUdidGenerator::CachedBytes essSerialPage(const CUdidGenerator::CachedBytes& page80,
                                          const CUdidGeneratorException& missing,
                                          const CUdidGeneratorException& tooShort)
{
    if (!page80) {
        throw missing;
    }
    if (page80[3] > page80.length) {
        throw tooShort;
    }
    return page80;
}

}  // namespace

// The product tests of the IBM family rows.
bool udid_family::ibmEnterpriseModel(CUdidGenerator& generator, const std::string& product)
{
    auto* ibm = dynamic_cast<CIbmUdidGenerator*>(&generator);
    return ibm != nullptr && (ibm->isESS(product) || ibm->isFASTT(product));
}

bool udid_family::ibmMidrangeModel(CUdidGenerator& generator, const std::string& product)
{
    auto* ibm = dynamic_cast<CIbmDsUdidGenerator*>(&generator);
    return ibm != nullptr && (ibm->isESS(product) || ibm->isFASTT(product));
}

// --- Enterprise models -----------------------------------------------------------------------

CIbmUdidGenerator::CIbmUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// By its family row: a vendor beginning with IBM (IBMSTOR passes too) and a product that
// ibmEnterpriseModel takes.
bool CIbmUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    return CUdidGenerator::claimDevice(device);
}

bool CIbmUdidGenerator::isESS(std::string product)
{
    return containsOneOf(product, kIbmEssModels);
}

bool CIbmUdidGenerator::isFASTT(std::string product)
{
    return containsOneOf(product, kIbmFasttModels);
}

// "IBM.<type>-<array serial>##" and the low two bytes of the LUN name in page 0x83.
std::string CIbmUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CIbmUdidGenerator::getUniqueDeviceID");
    std::string body;
    const std::string product = stripProductId(device);
    if (product.find("2107") != std::string::npos) {
        // Without INQUIRY data the id is the LUN part alone.
        CachedBytes inquiry = findPageData(device, scsi_page::kStandardInquiry);
        if (inquiry) {
            if (inquiry.length < 43) {
                throw anonymousError(MSG_INVALID_SCSI_PAGE_SIZE);
            }
            body += "IBM.2107-" + textField(inquiry, 36, 7) + udid_separator;
        }
    } else if (isESS(stripProductId(device))) {
        CachedBytes page80 = essSerialPage(findPageData(device, scsi_page::kUnitSerial),
                                           error(MSG_INVALID_SCSI_PAGE_DATA),
                                           anonymousError(MSG_INVALID_SCSI_PAGE_SIZE));
        body += "IBM." + product.substr(0, 4) + "-" + textField(page80, 4, 7) + udid_separator;
    } else if (isFASTT(stripProductId(device))) {
        CachedBytes pageC8 = findPageData(device, scsi_page::kVendorC8);
        if (!pageC8 || pageC8.length < 106) {
            throw error(MSG_INVALID_SCSI_PAGE_DATA);
        }
        body +=
            "IBM." + product.substr(0, 4) + "-" + hexField(pageC8, 90, 16, false) + udid_separator;
    } else {
        throw anonymousError(MSG_INVALID_SCSI_ENCLOSURE_DATA);
    }

    // A page of 23 bytes passes: its missing byte 23 reads as zero.
    CachedBytes page83 = findPageData(device, scsi_page::kDeviceIdentification);
    if (!page83 || page83.length <= 22) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    return body + hexField(page83, 22, 2, false);
}

// --- Midrange models -------------------------------------------------------------------------

CIbmDsUdidGenerator::CIbmDsUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// By its family row: a vendor beginning with IBM (IBMSTOR passes too) and a product that
// ibmMidrangeModel takes.
bool CIbmDsUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    return CUdidGenerator::claimDevice(device);
}

bool CIbmDsUdidGenerator::isESS(std::string product)
{
    return containsOneOf(product, kIbmDsModels);
}

bool CIbmDsUdidGenerator::isFASTT(std::string product)
{
    return containsOneOf(product, kIbmDsModels);
}

// "IBM.<type>-<array id>##" and the LUN name of page 0x83 as colon-separated bytes. The array id
// is the INQUIRY text from byte 36 for the 1724, else the 16 bytes of page 0xD0 when it has
// them.
std::string CIbmDsUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CIbmDsUdidGenerator::getUniqueDeviceID");
    std::string body;
    const std::string product = stripProductId(device);

    // Page 0xD0 bytes 8 to 23 as hex, or nothing when the page can't give them; a page of 23
    // bytes gives them, its missing byte 23 reading as zero.
    auto arrayId = [&]() -> std::string {
        CachedBytes pageD0 = findPageData(device, scsi_page::kVendorD0);
        return pageD0 && pageD0.length > 22 ? hexField(pageD0, 8, 16, false) : "";
    };

    if (product.find("1724") != std::string::npos) {
        // Without usable INQUIRY data the id is the LUN part alone. The text runs to its first
        // zero byte, at most 511 characters.
        CachedBytes inquiry = findPageData(device, scsi_page::kStandardInquiry);
        if (inquiry && inquiry.length >= 43) {
            body += "IBM.1724-" + textField(inquiry, 36, 511) + udid_separator;
        }
    } else if (isESS(stripProductId(device))) {
        // Page 0x80 only has to be there: its serial does not enter the id.
        essSerialPage(findPageData(device, scsi_page::kUnitSerial),
                      error(MSG_INVALID_SCSI_PAGE_DATA),
                      anonymousError(MSG_INVALID_SCSI_PAGE_SIZE));
        body += "IBM." + product.substr(0, 4) + "-" + arrayId() + udid_separator;
    } else if (isFASTT(stripProductId(device))) {
        // Page 0xC8 only has to be there: its contents do not enter the id.
        CachedBytes pageC8 = findPageData(device, scsi_page::kVendorC8);
        if (!pageC8 || pageC8.length < 106) {
            throw error(MSG_INVALID_SCSI_PAGE_DATA);
        }
        body += "IBM." + product.substr(0, 4) + "-" + arrayId() + udid_separator;
    } else {
        throw anonymousError(MSG_INVALID_SCSI_ENCLOSURE_DATA);
    }

    // A page of 23 bytes passes: its missing byte 23 reads as zero.
    CachedBytes page83 = findPageData(device, scsi_page::kDeviceIdentification);
    if (!page83 || page83.length <= 22) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    return body + hexField(page83, 8, 16, false, ":");
}
