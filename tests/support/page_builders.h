// SPDX-License-Identifier: Apache-2.0
// Builders of SCSI pages and device records for tests: zero-filled pages with fields written at
// offsets, so a test states only the bytes it cares about.
#ifndef TESTS_PAGE_BUILDERS_H
#define TESTS_PAGE_BUILDERS_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "device_scsi_data.h"

typedef std::vector<uint8_t> Bytes;

// "60 06 01 60", "60:06:01:60" or "60060160" as bytes (blanks, colons and dashes skipped).
Bytes hexBytes(const std::string& digits);

class PageBuilder {
public:
    explicit PageBuilder(size_t length = 0);
    PageBuilder& text(size_t offset, const std::string& text);  // grows the page as needed
    PageBuilder& hex(size_t offset, const std::string& digits);
    PageBuilder& byte(size_t offset, uint8_t value);
    PageBuilder& resize(size_t length);
    operator Bytes() const { return m_bytes; }
    const Bytes& bytes() const { return m_bytes; }

private:
    Bytes m_bytes;
};

// Standard INQUIRY data of `length` bytes: vendor (8 characters, blank-padded) at 8, product
// (16) at 16, revision "0001" at 32.
PageBuilder inquiryPage(const std::string& vendor, const std::string& product, size_t length);
// VPD page 0x83 with one NAA designator (binary) whose identifier starts at byte 8; its page
// length bytes count the descriptor. `length` pads or cuts the page.
PageBuilder naaPage83(const std::string& designatorHex, size_t length = 0);
// VPD page 0x80 holding `serial` from byte 4, its length in byte 3.
PageBuilder serialPage80(const std::string& serial);

// A record named `name` with the given ids, pages (key 0: standard INQUIRY) and supported-page
// list. An empty page stands for a cache entry without data that claims 512 bytes.
std::unique_ptr<CScsiDeviceData> makeDevice(const std::string& vendor, const std::string& product,
                                            const std::map<unsigned int, Bytes>& pages = {},
                                            const std::vector<unsigned int>& supported = {},
                                            const std::string& name = "/dev/sdc");

#endif
