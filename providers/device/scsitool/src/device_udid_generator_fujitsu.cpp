// SPDX-License-Identifier: Apache-2.0
// The Fujitsu Eternus array generator: array serial of the INQUIRY text and the LUN name.
#include <string>

#include "device_udid_generator.h"
#include "scsi_page_codes.h"
#include "stringtool.h"

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
    CachedBytes inquiry = findPageData(device, scsi_page::kStandardInquiry);
    if (!inquiry || inquiry.length < 44) {
        throw anonymousError(MSG_INVALID_SCSI_ENCLOSURE_DATA);
    }
    std::string body = CStringTool::trim(textField(inquiry, 36, 8)) + udid_separator;

    CachedBytes page83 = findPageData(device, scsi_page::kDeviceIdentification);
    if (!page83 || page83.length < 24) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    return body + hexField(page83, 8, 16, true);
}
