// SPDX-License-Identifier: Apache-2.0
// The HP array generators: MSA, EVA, XP and 3PAR.
#include <string>

#include "device_udid_generator.h"
#include "scsi_page_codes.h"
#include "stringtool.h"

// --- MSA -------------------------------------------------------------------------------------

CHpMsaUdidGenerator::CHpMsaUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// INQUIRY bytes 96 to 109, "##", page 0x83 bytes 36 to 67, both as text.
std::string CHpMsaUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CHpMsaUdidGenerator::getUniqueDeviceID");
    CachedBytes inquiry = findPageData(device, scsi_page::kStandardInquiry);
    if (!inquiry || inquiry.length < 120) {
        throw error(MSG_INVALID_SCSI_DEVICE_DATA);
    }
    std::string body = textField(inquiry, 96, 14) + udid_separator;

    // A page 0x83 too short for its text field fails like a missing one.
    CachedBytes page83 = findPageData(device, scsi_page::kDeviceIdentification);
    if (!page83 || page83.length < 68) {
        throw error(MSG_INVALID_SCSI_DEVICE_DATA);
    }
    return body + textField(page83, 36, 32);
}

// --- EVA -------------------------------------------------------------------------------------

CHpEvaUdidGenerator::CHpEvaUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// The array's WWN from INQUIRY bytes 130 to 137 and the LUN's WWN from page 0x83 bytes 8 to 23,
// both as upper-case hex in groups of two bytes joined by "-".
std::string CHpEvaUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CHpEvaUdidGenerator::getUniqueDeviceID");
    // Data of 137 bytes passes: its missing byte 137 reads as zero.
    CachedBytes inquiry = findPageData(device, scsi_page::kStandardInquiry);
    if (!inquiry || inquiry.length <= 136) {
        throw anonymousError(MSG_INVALID_SCSI_ENCLOSURE_DATA);
    }
    std::string body = hexField(inquiry, 130, 8, true, "-", 2) + udid_separator;

    // A page 0x83 too short for its header and name fails like a missing one; one of 23 bytes
    // passes, its missing byte 23 reading as zero.
    CachedBytes page83 = findPageData(device, scsi_page::kDeviceIdentification);
    if (!page83 || page83.length <= 22) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    if (page83[2] * 256 + page83[3] <= 19) {
        throw error(MSG_INVALID_SCSI_DEVICE_DATA);
    }
    return body + hexField(page83, 8, 16, true, "-", 2);
}

// --- XP --------------------------------------------------------------------------------------

CHpXpUdidGenerator::CHpXpUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// Two decimal numbers from the hex texts in INQUIRY bytes 39 to 43 (only behind "50 ") and 44
// to 47.
std::string CHpXpUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CHpXpUdidGenerator::getUniqueDeviceID");
    CachedBytes inquiry = findPageData(device, scsi_page::kStandardInquiry);
    if (!inquiry || inquiry.length <= 55) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    // The work field is INQUIRY bytes 36 to 55.
    std::string serial;
    if (inquiry[36] == '5' && inquiry[37] == '0' && inquiry[38] == ' ') {
        serial = textField(inquiry, 39, 5);
    }
    return decimalOf(serial, 16) + udid_separator + decimalOf(textField(inquiry, 44, 4), 16);
}

// --- 3PAR ------------------------------------------------------------------------------------

CHp3parUdidGenerator::CHp3parUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// The serial of page 0x80 bytes 4 to 11 (blanks trimmed), "##", page 0x83 bytes 8 to 15 as
// upper-case hex.
std::string CHp3parUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CHp3parUdidGenerator::getUniqueDeviceID");
    CachedBytes page80 = findPageData(device, scsi_page::kUnitSerial);
    if (!page80 || page80.length <= 11) {
        throw anonymousError(MSG_INVALID_SCSI_ENCLOSURE_DATA);
    }
    std::string body = CStringTool::trim(textField(page80, 4, 8)) + udid_separator;

    // A page 0x83 too short for the name fails like a missing one.
    CachedBytes page83 = findPageData(device, scsi_page::kDeviceIdentification);
    if (!page83 || page83.length <= 15) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    return body + hexField(page83, 8, 8, true);
}
