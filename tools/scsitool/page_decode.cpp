// SPDX-License-Identifier: Apache-2.0
#include "page_decode.h"

#include <algorithm>
#include <cstdio>

#include "stringtool.h"

namespace scsitool_cli {

using ordered_json = nlohmann::ordered_json;

namespace {

std::string hexOf(const PageBytes& bytes, size_t first, size_t count)
{
    if (first >= bytes.size()) {
        return std::string();
    }
    return CStringTool::binary2str(bytes.data() + first,
                                   int(std::min(count, bytes.size() - first)));
}

// Bytes [first, first + count) that were received, non-printable ones as '.'.
std::string printable(const PageBytes& bytes, size_t first, size_t count)
{
    std::string text;
    for (size_t i = first; i < first + count && i < bytes.size(); ++i) {
        text += (bytes[i] >= 0x20 && bytes[i] < 0x7f) ? char(bytes[i]) : '.';
    }
    return text;
}

std::string quoted(const std::string& text)
{
    return "\"" + text + "\"";
}

std::string hexByte(unsigned int value)
{
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", value & 0xffu);
    return text;
}

// A field of `count` bytes from `first`, or what the page lacks of it.
std::string textOrMissing(const PageBytes& bytes, size_t first, size_t count)
{
    if (bytes.size() <= first) {
        return "- (not received)";
    }
    std::string text = quoted(printable(bytes, first, count));
    if (bytes.size() < first + count) {
        text += " (" + std::to_string(bytes.size() - first) + " of " + std::to_string(count) +
                " bytes received)";
    }
    return text;
}

std::string hexOrMissing(const PageBytes& bytes, size_t first, size_t count)
{
    if (bytes.size() < first + count) {
        return "- (bytes " + std::to_string(first) + ".." + std::to_string(first + count - 1) +
               " not received)";
    }
    return hexOf(bytes, first, count);
}

const char* peripheralTypeName(unsigned int type)
{
    switch (type) {
        case 0x00:
            return "disk";
        case 0x01:
            return "tape";
        case 0x03:
            return "processor";
        case 0x05:
            return "CD/DVD";
        case 0x07:
            return "optical memory";
        case 0x08:
            return "medium changer";
        case 0x0c:
            return "storage array controller";
        case 0x0d:
            return "enclosure services";
        case 0x0e:
            return "simplified direct-access";
        case 0x1f:
            return "unknown or no device type";
        default:
            return "other";
    }
}

const char* versionName(unsigned int version)
{
    switch (version) {
        case 0x00:
            return "no standard claimed";
        case 0x03:
            return "SPC";
        case 0x04:
            return "SPC-2";
        case 0x05:
            return "SPC-3";
        case 0x06:
            return "SPC-4";
        case 0x07:
            return "SPC-5";
        default:
            return "other";
    }
}

const char* designatorTypeName(unsigned int type)
{
    static const char* const kNames[] = {"vendor specific",
                                         "T10 vendor id",
                                         "EUI-64",
                                         "NAA",
                                         "relative port",
                                         "target port group",
                                         "logical unit group",
                                         "MD5 logical unit id",
                                         "SCSI name string",
                                         "protocol specific port",
                                         "UUID"};
    return type < sizeof kNames / sizeof kNames[0] ? kNames[type] : "reserved";
}

const char* associationName(unsigned int association)
{
    static const char* const kNames[] = {"logical unit", "target port", "target device",
                                         "reserved"};
    return kNames[association & 3];
}

const char* codeSetName(unsigned int codeSet)
{
    switch (codeSet) {
        case 1:
            return "binary";
        case 2:
            return "ASCII";
        case 3:
            return "UTF-8";
        default:
            return "reserved";
    }
}

// The designator's value written the way people name it.
std::string designatorValue(unsigned int type, unsigned int codeSet, const PageBytes& raw)
{
    const size_t n = raw.size();
    switch (type) {
        case 1:
            return "t10." + printable(raw, 0, n);
        case 2:
            return "eui." + hexOf(raw, 0, n);
        case 3:
            return "naa." + hexOf(raw, 0, n);
        case 4:
        case 5:
        case 6:
            if (n >= 4) {
                const char* what = type == 4 ? "port " : type == 5 ? "group " : "lu group ";
                return what + std::to_string(raw[2] * 256u + raw[3]);
            }
            return "0x" + hexOf(raw, 0, n);
        case 8: {
            // The name is null-terminated and padded to a multiple of four.
            size_t length = 0;
            while (length < n && raw[length] != 0) {
                ++length;
            }
            return printable(raw, 0, length);
        }
        default:
            return codeSet == 2 || codeSet == 3 ? quoted(printable(raw, 0, n))
                                                : "0x" + hexOf(raw, 0, n);
    }
}

}  // namespace

std::vector<Designator> parseDesignators(const PageBytes& page)
{
    std::vector<Designator> designators;
    if (page.size() < 4) {
        return designators;
    }
    size_t end = 4 + (page[2] * 256u + page[3]);
    end = end < page.size() ? end : page.size();
    for (size_t offset = 4; offset + 4 <= end;) {
        const size_t length = page[offset + 3];
        if (offset + 4 + length > end) {
            break;
        }
        Designator designator;
        designator.offset = unsigned(offset);
        designator.codeSet = page[offset] & 0x0f;
        designator.association = (page[offset + 1] >> 4) & 0x03;
        designator.type = page[offset + 1] & 0x0f;
        designator.associationName = associationName(designator.association);
        designator.typeName = designatorTypeName(designator.type);
        designator.codeSetName = codeSetName(designator.codeSet);
        designator.raw.assign(page.begin() + long(offset) + 4,
                              page.begin() + long(offset + 4 + length));
        designator.value = designatorValue(designator.type, designator.codeSet, designator.raw);
        designators.push_back(designator);
        offset += 4 + length;
    }
    return designators;
}

std::vector<DecodedField> decodePage(unsigned int code, const PageBytes& bytes)
{
    std::vector<DecodedField> fields;
    if (bytes.empty()) {
        return fields;
    }
    if (code == 0) {
        fields.push_back({"peripheral type", hexByte(bytes[0] & 0x1fu) + " (" +
                                                 peripheralTypeName(bytes[0] & 0x1fu) +
                                                 "), qualifier " + std::to_string(bytes[0] >> 5)});
        if (bytes.size() > 2) {
            fields.push_back({"version", hexByte(bytes[2]) + " (" + versionName(bytes[2]) + ")"});
        }
        if (bytes.size() > 4) {
            fields.push_back(
                {"additional length", std::to_string(bytes[4]) + " (" +
                                          std::to_string(bytes[4] + 5u) + " bytes announced, " +
                                          std::to_string(bytes.size()) + " received)"});
        }
        fields.push_back({"vendor", textOrMissing(bytes, 8, 8)});
        fields.push_back({"product", textOrMissing(bytes, 16, 16)});
        fields.push_back({"revision", textOrMissing(bytes, 32, 4)});
        return fields;
    }
    if (bytes.size() < 4) {
        fields.push_back(
            {"header", "- (" + std::to_string(bytes.size()) + " of 4 bytes received)"});
        return fields;
    }
    const size_t announced = bytes[2] * 256u + bytes[3];
    const size_t held = bytes.size() - 4 < announced ? bytes.size() - 4 : announced;
    switch (code) {
        case 0x80:
            fields.push_back({"serial", quoted(printable(bytes, 4, held))});
            break;
        case 0x83: {
            size_t next = 4;
            for (const Designator& d : parseDesignators(bytes)) {
                fields.push_back({"designator", d.value + "  (" + d.typeName + ", " +
                                                    d.associationName + ", " + d.codeSetName +
                                                    ", at byte " + std::to_string(d.offset) + ")"});
                next = d.offset + 4 + d.raw.size();
            }
            if (next < 4 + held) {
                fields.push_back({"designator", "- (bytes " + std::to_string(next) + ".." +
                                                    std::to_string(3 + held) +
                                                    " hold no whole designator)"});
            }
            break;
        }
        case 0xc0:
            // The array serial: its length at byte 49, at most 14 characters from byte 50.
            if (bytes.size() > 49) {
                fields.push_back({"serial length", std::to_string(bytes[49]) + " (byte 49)"});
            }
            fields.push_back({"array serial", textOrMissing(bytes, 50, 14)});
            break;
        case 0xc8:
            fields.push_back({"array id", hexOrMissing(bytes, 90, 16)});
            break;
        case 0xd0:
            fields.push_back({"array id", hexOrMissing(bytes, 8, 16)});
            break;
        default:
            break;
    }
    return fields;
}

std::string pageTitle(unsigned int code)
{
    switch (code) {
        case 0x00:
            return "standard INQUIRY";
        case 0x80:
            return "VPD page 0x80 unit serial number";
        case 0x83:
            return "VPD page 0x83 device identification";
        case 0xc0:
            return "VPD page 0xc0 EMC array (vendor)";
        case 0xc8:
            return "VPD page 0xc8 LSI or IBM FAStT array (vendor)";
        case 0xd0:
            return "VPD page 0xd0 IBM array (vendor)";
        default:
            break;
    }
    char title[48];
    std::snprintf(title, sizeof title, "VPD page 0x%02x", code);
    return title;
}

std::string formatPageList(const std::vector<unsigned int>& codes)
{
    std::string list;
    for (unsigned int code : codes) {
        list += (list.empty() ? "" : " ") + hexByte(code);
    }
    return "VPD page 0x00 supported pages, as the library keeps the list\n  pages             " +
           (list.empty() ? std::string("-") : list) + "\n";
}

std::string inhexDump(const PageBytes& bytes)
{
    std::string text;
    for (size_t offset = 0; offset < bytes.size(); offset += 16) {
        std::string line = " ";
        for (size_t i = offset; i < offset + 16; ++i) {
            line += i % 16 == 8 ? "  " : " ";
            if (i < bytes.size()) {
                char pair[4];
                std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
                line += pair;
            } else {
                line += "  ";
            }
        }
        char at[24];
        std::snprintf(at, sizeof at, "%04zx", offset);
        text += line + "  # " + at + " |" + printable(bytes, offset, 16) + "|\n";
    }
    return text;
}

std::string formatDecodedPage(unsigned int code, const PageBytes& bytes)
{
    std::string text = pageTitle(code) + ", " + std::to_string(bytes.size()) + " bytes\n";
    for (const DecodedField& field : decodePage(code, bytes)) {
        std::string name = field.name;
        name.resize(name.size() < 18 ? 18 : name.size(), ' ');
        text += "  " + name + field.value + "\n";
    }
    return text + inhexDump(bytes);
}

ordered_json decodedPageJson(unsigned int code, const PageBytes& bytes)
{
    ordered_json object = ordered_json::object();
    for (const DecodedField& field : decodePage(code, bytes)) {
        if (field.name == "designator") {
            continue;
        }
        // Keys in the JSON manner; a text field without the quotes people read it in.
        std::string key = field.name;
        std::replace(key.begin(), key.end(), ' ', '_');
        const std::string& value = field.value;
        const bool quotedText = value.size() >= 2 && value.front() == '"' && value.back() == '"';
        object[key] = quotedText ? value.substr(1, value.size() - 2) : value;
    }
    if (code == 0x83) {
        ordered_json list = ordered_json::array();
        for (const Designator& d : parseDesignators(bytes)) {
            list.push_back({{"offset", d.offset},
                            {"association", d.associationName},
                            {"type", d.typeName},
                            {"code_set", d.codeSetName},
                            {"value", d.value}});
        }
        object["designators"] = list;
    }
    return object;
}

}  // namespace scsitool_cli
