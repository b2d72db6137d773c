// SPDX-License-Identifier: Apache-2.0
// The page decoder of `show` over arbitrary bytes under every page code it names: whatever a
// device answers, it reads only the bytes received.
#include <cstddef>
#include <cstdint>

#include "page_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    // The first byte picks the page; the rest is the page as the device gave it.
    static const unsigned int kCodes[] = {0x00, 0x80, 0x83, 0xc0, 0xc8, 0xd0, 0x86};
    const unsigned int code = kCodes[data[0] % (sizeof kCodes / sizeof kCodes[0])];
    const scsitool_cli::PageBytes page(data + 1, data + size);
    scsitool_cli::formatDecodedPage(code, page);
    scsitool_cli::decodedPageJson(code, page)
        .dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
    scsitool_cli::parseDesignators(page);
    return 0;
}
