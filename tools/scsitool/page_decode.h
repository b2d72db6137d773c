// SPDX-License-Identifier: Apache-2.0
// The pages a device gave, decoded for people: the standard INQUIRY data, the page list (0x00),
// the unit serial (0x80), the designators of page 0x83 and the vendor pages the array bodies
// read (0xC0, 0xC8, 0xD0). Every field is read only from the bytes received.
#ifndef SCSITOOL_CLI_PAGE_DECODE_H
#define SCSITOOL_CLI_PAGE_DECODE_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace scsitool_cli {

typedef std::vector<uint8_t> PageBytes;

// One designator of page 0x83.
struct Designator {
    unsigned int offset = 0;  // of its header in the page
    unsigned int association = 0;
    unsigned int type = 0;
    unsigned int codeSet = 0;
    std::string associationName;  // "logical unit", "target port", "target device"
    std::string typeName;         // "NAA", "T10 vendor id", ...
    std::string codeSetName;      // "binary", "ASCII", "UTF-8"
    std::string value;            // "naa.6006…", "eui.…", "t10.ACME …", "port 1", …
    PageBytes raw;                // the designator's value bytes
};

// The designators the page holds whole, in page order; a designator cut short by the end of
// the page or of its announced length ends the list.
std::vector<Designator> parseDesignators(const PageBytes& page);

// One named field of a decoded page.
struct DecodedField {
    std::string name;
    std::string value;
};
std::vector<DecodedField> decodePage(unsigned int code, const PageBytes& bytes);

// "standard INQUIRY", "VPD page 0x83 device identification", "VPD page 0xc0 EMC array (vendor)".
std::string pageTitle(unsigned int code);

// Page 0x00 from the supported list the record keeps (its bytes are not cached).
std::string formatPageList(const std::vector<unsigned int>& codes);

// The bytes as lines of sixteen hexadecimal pairs that sg_inq --inhex and sg_vpd --inhex read
// back; the offset and the printable text follow a '#' on each line, which they skip.
std::string inhexDump(const PageBytes& bytes);

// A page's title and length, its fields and its hex.
std::string formatDecodedPage(unsigned int code, const PageBytes& bytes);
// The fields as an object, and the designators of page 0x83 as an array.
nlohmann::ordered_json decodedPageJson(unsigned int code, const PageBytes& bytes);

}  // namespace scsitool_cli

#endif
