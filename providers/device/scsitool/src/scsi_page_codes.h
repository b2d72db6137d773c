// SPDX-License-Identifier: Apache-2.0
// The INQUIRY pages the library asks for and reads, by name. Standard INQUIRY data is cached
// under code 0 beside the vital product data pages, so 0 names both it and the list of
// supported pages that the EVPD form of code 0 returns.
#ifndef SCSITOOL_SCSI_PAGE_CODES_H
#define SCSITOOL_SCSI_PAGE_CODES_H

namespace scsi_page {

enum : unsigned int {
    kStandardInquiry = 0x00,  // cached standard INQUIRY data; with EVPD, the supported pages
    kSupportedPages = 0x00,
    kUnitSerial = 0x80,            // unit serial number
    kDeviceIdentification = 0x83,  // designators of the logical unit
    kVendorC0 = 0xC0,              // Clariion unit information (array serial, LUN number)
    kVendorC8 = 0xC8,              // array enclosure identity (LSI/Engenio, IBM ESS)
    kVendorD0 = 0xD0,              // IBM midrange array identity
    kVendor10 = 0x10,              // vendor pages fetched with the fixed list, read by no generator
    kVendor11 = 0x11,
};

}  // namespace scsi_page

#endif
