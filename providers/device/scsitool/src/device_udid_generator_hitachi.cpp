// SPDX-License-Identifier: Apache-2.0
// The Hitachi array generator: array serial and LUN from the INQUIRY text.
#include <string>

#include "device_udid_generator.h"
#include "scsi_page_codes.h"

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
    CachedBytes inquiry = findPageData(device, scsi_page::kStandardInquiry);
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
