// SPDX-License-Identifier: Apache-2.0
// The LSI/Engenio array generator: array id of the enclosure page and the LUN name.
#include <string>

#include "device_udid_generator.h"
#include "scsi_page_codes.h"

CLsiUdidGenerator::CLsiUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// The array id of page 0xC8 bytes 90 to 105 in lower-case hex, "##", and the LUN name of page
// 0x83 bytes 8 to 23 in upper-case hex.
std::string CLsiUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CLsiUdidGenerator::getUniqueDeviceID");
    CachedBytes pageC8 = findPageData(device, scsi_page::kVendorC8);
    if (!pageC8 || pageC8.length <= 105) {
        throw anonymousError(MSG_INVALID_SCSI_ENCLOSURE_DATA);
    }
    std::string body = hexField(pageC8, 90, 16, false) + udid_separator;

    // A page of 23 bytes passes: its missing byte 23 reads as zero.
    CachedBytes page83 = findPageData(device, scsi_page::kDeviceIdentification);
    if (!page83 || page83.length <= 22) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    if (page83[2] * 256 + page83[3] <= 19) {
        throw error(MSG_INVALID_SCSI_DEVICE_DATA);
    }
    return body + hexField(page83, 8, 16, true);
}
