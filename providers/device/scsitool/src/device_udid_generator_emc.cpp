// The EMC array generators: Clariion/VNX and Symmetrix.
#include <algorithm>
#include <string>

#include "device_udid_generator.h"
#include "stringtool.h"

// --- Clariion / VNX --------------------------------------------------------------------------

CEmcClariionUdidGenerator::CEmcClariionUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// Vendor DGC and a product naming a RAID group, a disk, a VNX or a CX, case-sensitive; other
// DGC products (LUNZ) are left to the generators behind this one.
bool CEmcClariionUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    static const char* const products[] = {"RAID", "DISK", "VNX", "CX", nullptr};
    if (stripVendorId(device) != m_vendorId) {
        return false;
    }
    return containsOneOf(stripProductId(device), products);
}

std::string CEmcClariionUdidGenerator::getUniqueDeviceIDPrefix(CScsiDeviceData* /*device*/)
{
    std::string prefix = udid_prefix;
    prefix += CStringTool::rtrim(m_vendorId, ' ') + udid_separator + "CLARIION" + udid_separator;
    return CStringTool::tostrupper(prefix);
}

bool CEmcClariionUdidGenerator::checkForArraySerialNo(const unsigned char** page,
                                                      unsigned int pageLength, int lengthIndex,
                                                      int serialOffset, std::string& enclosureId)
{
    if (page == nullptr) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    const unsigned char* data = *page;
    // A page the device did not give holds no serial: it is rejected like a bad one and the
    // next source is tried, so the LUN name of page 0x83 still makes an id.
    if (data != nullptr) {
        // The length byte bounds the serial; a page that does not even hold it is too short.
        if (unsigned(lengthIndex) >= pageLength ||
            unsigned(data[lengthIndex]) + unsigned(serialOffset) > pageLength) {
            throw anonymousError(MSG_INVALID_SCSI_PAGE_SIZE);
        }
        // Up to 14 characters whatever the length byte says, but never past the page.
        unsigned int available = pageLength - unsigned(serialOffset);
        enclosureId += textField(data, unsigned(serialOffset), available < 14 ? available : 14);
    }

    if (CStringTool::isalphaNumeric(enclosureId)) {
        enclosureId += udid_separator;
        if (m_traceLog) {
            m_traceLog->trace(3, "clariion EnclosureID=%s", enclosureId.c_str());
        }
        return true;
    }
    if (m_traceLog) {
        m_traceLog->trace(2, "Invalid EnclosureID=%s", enclosureId.c_str());
    }
    return false;
}

// "<array serial>##" from page 0xC0 or else 0x80, then the 16 bytes of the LUN name in page
// 0x83 as colon-separated lower-case hex.
std::string CEmcClariionUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CEmcClariionUdidGenerator::getUniqueDeviceID");
    std::string enclosureId;
    unsigned int length = 0;
    const unsigned char* pageC0 = findPageData(device, 0xC0, length);
    if (!checkForArraySerialNo(&pageC0, length, 49, 50, enclosureId)) {
        enclosureId.clear();
        const unsigned char* page80 = findPageData(device, 0x80, length);
        if (!checkForArraySerialNo(&page80, length, 3, 4, enclosureId) && m_traceLog) {
            // Carries on with the rejected text and no separator.
            m_traceLog->trace(2, "Invalid EnclosureID %s found for Clariion", enclosureId.c_str());
        }
    }

    // Byte 23 is read: a page of exactly 23 bytes is too short as well.
    const unsigned char* page83 = findPageData(device, 0x83, length);
    if (page83 == nullptr || length <= 23) {
        throw error(MSG_INVALID_SCSI_DEVICE_DATA);
    }
    std::string body = enclosureId + hexField(page83, 8, 16, false, ":") + ":";
    if (m_traceLog) {
        m_traceLog->trace(
            3, "GetScsiModePage83 CEmcClariionUdidGenerator::getUniqueDeviceID : UDID=%s",
            body.c_str());
    }
    body.pop_back();
    return body;
}

// --- Symmetrix -------------------------------------------------------------------------------

CEmcSymmetrixUdidGenerator::CEmcSymmetrixUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// "00", the array serial and device number of INQUIRY bytes 124 to 128 as hex, "##", and the
// four characters of bytes 132 to 135 (or "0" and bytes 38 to 40 when byte 132 is zero).
std::string CEmcSymmetrixUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CEmcSymmetrixUdidGenerator::getUniqueDeviceID");
    unsigned int length = 0;
    const unsigned char* inquiry = findPageData(device, 0, length);
    if (inquiry == nullptr || length < 132) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    std::string body = "00" + CStringTool::binary2str(inquiry + 124, 5) + udid_separator;

    // The field is read from bytes the data must hold: a buffer that ends before them is as
    // short as one under 132 bytes.
    if (length == 132) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    unsigned char field[4] = {'0', inquiry[38], inquiry[39], inquiry[40]};
    if (inquiry[132] != 0) {
        if (length < 136) {
            throw error(MSG_INVALID_SCSI_PAGE_DATA);
        }
        std::copy(inquiry + 132, inquiry + 136, field);
    }
    return body + textField(field, 0, 4);
}
