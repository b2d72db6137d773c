// SPDX-License-Identifier: Apache-2.0
#include "page_builders.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>

Bytes hexBytes(const std::string& digits)
{
    Bytes out;
    std::string pair;
    for (char c : digits) {
        if (!isxdigit(static_cast<unsigned char>(c)))
            continue;
        pair += c;
        if (pair.size() == 2) {
            out.push_back(uint8_t(strtoul(pair.c_str(), nullptr, 16)));
            pair.clear();
        }
    }
    return out;
}

PageBuilder::PageBuilder(size_t length) : m_bytes(length, 0) {}

PageBuilder& PageBuilder::text(size_t offset, const std::string& text)
{
    if (m_bytes.size() < offset + text.size())
        m_bytes.resize(offset + text.size(), 0);
    std::copy(text.begin(), text.end(), m_bytes.begin() + long(offset));
    return *this;
}

PageBuilder& PageBuilder::hex(size_t offset, const std::string& digits)
{
    Bytes b = hexBytes(digits);
    return text(offset, std::string(b.begin(), b.end()));
}

PageBuilder& PageBuilder::byte(size_t offset, uint8_t value)
{
    return text(offset, std::string(1, char(value)));
}

PageBuilder& PageBuilder::resize(size_t length)
{
    m_bytes.resize(length, 0);
    return *this;
}

PageBuilder inquiryPage(const std::string& vendor, const std::string& product, size_t length)
{
    PageBuilder page(length);
    page.byte(2, 0x05).byte(3, 0x02).byte(4, uint8_t(length > 5 ? length - 5 : 0));
    std::string v = (vendor + std::string(8, ' ')).substr(0, 8);
    std::string p = (product + std::string(16, ' ')).substr(0, 16);
    return page.text(8, v).text(16, p).text(32, "0001").resize(length);
}

PageBuilder naaPage83(const std::string& designatorHex, size_t length)
{
    Bytes id = hexBytes(designatorHex);
    PageBuilder page;
    page.byte(1, 0x83).byte(3, uint8_t(id.size() + 4));
    page.byte(4, 0x01).byte(5, 0x03).byte(7, uint8_t(id.size())).hex(8, designatorHex);
    return length != 0 ? page.resize(length) : page;
}

PageBuilder serialPage80(const std::string& serial)
{
    return PageBuilder().byte(1, 0x80).byte(3, uint8_t(serial.size())).text(4, serial);
}

std::unique_ptr<CScsiDeviceData> makeDevice(const std::string& vendor, const std::string& product,
                                            const std::map<unsigned int, Bytes>& pages,
                                            const std::vector<unsigned int>& supported,
                                            const std::string& name)
{
    std::unique_ptr<CScsiDeviceData> device(
        new CScsiDeviceData(name, "", "host", 0, 0, 0, -1, vendor, product, "0001", 0));
    for (const auto& page : pages) {
        CScsiModePage& cached = device->m_pageCache[page.first];
        cached.set(page.second.data(), unsigned(page.second.size()));
        if (page.second.empty())
            cached.m_length = 512;
    }
    device->m_supportedPages = supported;
    return device;
}
