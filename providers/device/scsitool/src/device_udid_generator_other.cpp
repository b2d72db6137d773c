// SPDX-License-Identifier: Apache-2.0
// The generators of the remaining arrays: Hitachi, LSI/Engenio, NetApp and Fujitsu Eternus.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "device_udid_generator.h"
#include "kernel_files.h"
#include "stringtool.h"
#include "trace_call.h"

// --- Hitachi ---------------------------------------------------------------------------------

CHitachiUdidGenerator::CHitachiUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// Two decimal numbers from the hex or decimal texts of INQUIRY bytes 36 to 47: the array serial
// and the LUN.
std::string CHitachiUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CHitachiUdidGenerator::getUniqueDeviceID");
    // Data of 56 bytes passes: the work field's last byte (56) is then the buffer's zero, and the
    // numbers end before it anyway.
    CachedBytes inquiry = findPageData(device, 0);
    if (!inquiry || inquiry.length <= 55) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    // The work field is INQUIRY bytes 36 to 56.
    std::string serial;
    if (inquiry[36] == 'D' && inquiry[37] == '6') {
        serial = decimalOf(textField(inquiry, 40, 4), 16);
    } else if (inquiry[36] == '7') {
        serial = decimalOf(textField(inquiry, 36, 8), 10);
    } else if (inquiry[36] == '5' && inquiry[37] == '0' && inquiry[38] == ' ') {
        serial = decimalOf(textField(inquiry, 39, 5), 16);
    } else {
        serial = decimalOf(textField(inquiry, 40, 4), 16);
    }
    return serial + udid_separator + decimalOf(textField(inquiry, 44, 4), 16);
}

// --- LSI / Engenio ---------------------------------------------------------------------------

CLsiUdidGenerator::CLsiUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// The array id of page 0xC8 bytes 90 to 105 in lower-case hex, "##", and the LUN name of page
// 0x83 bytes 8 to 23 in upper-case hex.
std::string CLsiUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CLsiUdidGenerator::getUniqueDeviceID");
    CachedBytes pageC8 = findPageData(device, 0xC8);
    if (!pageC8 || pageC8.length <= 105) {
        throw anonymousError(MSG_INVALID_SCSI_ENCLOSURE_DATA);
    }
    std::string body = hexField(pageC8, 90, 16, false) + udid_separator;

    // A page of 23 bytes passes: its missing byte 23 reads as zero.
    CachedBytes page83 = findPageData(device, 0x83);
    if (!page83 || page83.length <= 22) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    if (page83[2] * 256 + page83[3] <= 19) {
        throw error(MSG_INVALID_SCSI_DEVICE_DATA);
    }
    return body + hexField(page83, 8, 16, true);
}

// --- NetApp ----------------------------------------------------------------------------------

CNetAppUdidGenerator::CNetAppUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// The filer answers the vendor identity command with records from byte 8 on; the one of type
// 0x22 holds the enclosure id as text from its byte 28.
std::string CNetAppUdidGenerator::getEnclosureID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CNetAppUdidGenerator::getEnclosureID");
    enum { kLastRecordStart = 256, kTextOffset = 28, kTextLimit = 23 };
    std::vector<unsigned char> response;
    int rc = 0;
    if (!sendNetAppIdentityCommand(device->m_deviceName, response, rc)) {
        traceTo(m_traceLog, 2, "getEnclosureID: cannot open %s", device->m_deviceName.c_str());
        return "";
    }
    // Only the call's own failure counts. A transport error leaves the zeroed buffer, whose walk
    // ends at once on a zero length, so the host and driver status add nothing.
    if (rc < 0) {
        traceTo(m_traceLog, 2, "getEnclosureID: identity command failed on %s",
                device->m_deviceName.c_str());
        return "";
    }

    // Record lengths are two signed bytes; a zero or negative one ends the walk. Every record
    // start is at most byte 256, so the text read from it stays inside the buffer.
    const CachedBytes answer{response.data(), static_cast<unsigned int>(response.size())};
    int start = 8;
    while (start <= kLastRecordStart) {
        const unsigned char* record = response.data() + start;
        if (record[0] == 0x22) {
            return textField(answer, unsigned(start) + kTextOffset, kTextLimit);
        }
        int length = int(int8_t(record[2])) * 256 + int(int8_t(record[3]));
        if (length <= 0) {
            break;
        }
        start += length;
    }
    return "";
}

// "<enclosure id>##" and the 12 bytes of page 0x83 from byte 21 in lower-case hex.
std::string CNetAppUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CNetAppUdidGenerator::getUniqueDeviceID");
    std::string enclosureId = getEnclosureID(device);
    if (enclosureId.empty()) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    std::string body = enclosureId + udid_separator;

    const std::vector<unsigned int>& pages = device->m_supportedPages;
    if (std::find(pages.begin(), pages.end(), 0x83u) == pages.end()) {
        // This one site names the missing page in place of the product.
        throw CUdidGeneratorException(MSG_INVALID_SCSI_PAGE_DATA, m_vendorId, "0x83");
    }
    CachedBytes page83 = findPageData(device, 0x83);
    if (!page83 || page83.length < 33) {
        throw error(MSG_INVALID_SCSI_DEVICE_DATA);
    }
    return body + hexField(page83, 21, 12, false);
}

// --- Fujitsu Eternus -------------------------------------------------------------------------

CFujitsuEternusUdidGenerator::CFujitsuEternusUdidGenerator(std::string vendorId,
                                                           std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// The array serial of INQUIRY bytes 36 to 43 (blanks trimmed), "##", and the LUN name of page
// 0x83 bytes 8 to 23 in upper-case hex.
std::string CFujitsuEternusUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CFujitsuEternusUdidGenerator::getUniqueDeviceID");
    CachedBytes inquiry = findPageData(device, 0);
    if (!inquiry || inquiry.length < 44) {
        throw anonymousError(MSG_INVALID_SCSI_ENCLOSURE_DATA);
    }
    std::string body = CStringTool::trim(textField(inquiry, 36, 8)) + udid_separator;

    CachedBytes page83 = findPageData(device, 0x83);
    if (!page83 || page83.length < 24) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    return body + hexField(page83, 8, 16, true);
}
