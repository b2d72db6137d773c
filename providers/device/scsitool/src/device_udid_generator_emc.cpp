// SPDX-License-Identifier: Apache-2.0
// The EMC array generators: Clariion/VNX and Symmetrix.
#include <algorithm>
#include <string>

#include "device_udid_generator.h"
#include "scsi_page_codes.h"
#include "stringtool.h"
#include "trace_call.h"

// --- Clariion / VNX --------------------------------------------------------------------------

CEmcClariionUdidGenerator::CEmcClariionUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
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
    // A page the device did not give holds no serial: it is rejected like a bad one and the
    // next source is tried, so the LUN name of page 0x83 still makes an id.
    if (*page != nullptr) {
        CachedBytes bytes{*page, pageLength};
        // The length byte only bounds this test; the copy takes up to 14 characters whatever it
        // says (bytes behind the cached copy read as zero and end the text).
        if (unsigned(bytes[unsigned(lengthIndex)]) + unsigned(serialOffset) > pageLength) {
            throw anonymousError(MSG_INVALID_SCSI_PAGE_SIZE);
        }
        enclosureId += textField(bytes, unsigned(serialOffset), 14);
    }

    if (CStringTool::isalphaNumeric(enclosureId)) {
        enclosureId += udid_separator;
        traceTo(m_traceLog, 3, "clariion EnclosureID=%s", enclosureId.c_str());
        return true;
    }
    traceTo(m_traceLog, 2, "Invalid EnclosureID=%s", enclosureId.c_str());
    return false;
}

// "<array serial>##" from page 0xC0 or else 0x80, then the 16 bytes of the LUN name in page
// 0x83 as colon-separated lower-case hex.
std::string CEmcClariionUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CEmcClariionUdidGenerator::getUniqueDeviceID");
    std::string enclosureId;
    CachedBytes pageC0 = findPageData(device, scsi_page::kVendorC0);
    if (!checkForArraySerialNo(&pageC0.data, pageC0.length, 49, 50, enclosureId)) {
        enclosureId.clear();
        CachedBytes page80 = findPageData(device, scsi_page::kUnitSerial);
        if (!checkForArraySerialNo(&page80.data, page80.length, 3, 4, enclosureId)) {
            // Carries on with the rejected text and no separator.
            traceTo(m_traceLog, 2, "Invalid EnclosureID %s found for Clariion",
                    enclosureId.c_str());
        }
    }

    // A page of 23 bytes passes: its missing byte 23 is the zero the command buffer held.
    CachedBytes page83 = findPageData(device, scsi_page::kDeviceIdentification);
    if (!page83 || page83.length <= 22) {
        throw error(MSG_INVALID_SCSI_DEVICE_DATA);
    }
    std::string body = enclosureId + hexField(page83, 8, 16, false, ":") + ":";
    traceTo(m_traceLog, 3,
            "GetScsiModePage83 CEmcClariionUdidGenerator::getUniqueDeviceID : UDID=%s",
            body.c_str());
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
    CachedBytes inquiry = findPageData(device, scsi_page::kStandardInquiry);
    if (!inquiry || inquiry.length < 132) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    std::string body = "00" + hexField(inquiry, 124, 5, false) + udid_separator;

    // Data of 132 to 135 bytes passes: the bytes it lacks read as zero.
    return body +
           (inquiry[132] != 0 ? textField(inquiry, 132, 4) : "0" + textField(inquiry, 38, 3));
}
