// SPDX-License-Identifier: Apache-2.0
// The input layout shared by the device targets, and what every target needs around it.
//
// An input is a run of chunks: a tag byte, a code byte, a two-byte big-endian length and that
// many bytes (a last chunk that claims more than is left takes what is left). Tags:
//   'I' standard INQUIRY answer        'G' VPD page <code>           'S' supported page list
//   'V' vendor id                      'P' product id                'N' NetApp identity answer
//   'A' SCSI address: host, channel, id, lun bytes                   'X' device state <code>
// The layout keeps whole pages intact under mutation, so seeds made from real pages stay
// meaningful, and a dictionary of tags lets the fuzzer add new pages.
#ifndef FUZZ_FUZZ_INPUT_H
#define FUZZ_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "device_udid_factory.h"
#include "fi_trace.h"

namespace fuzzinput {

struct Chunk {
    uint8_t tag;
    uint8_t code;
    std::vector<uint8_t> data;
};

inline std::vector<Chunk> parseChunks(const uint8_t* data, size_t size)
{
    std::vector<Chunk> chunks;
    size_t at = 0;
    while (at + 4 <= size) {
        Chunk chunk;
        chunk.tag = data[at];
        chunk.code = data[at + 1];
        size_t length = size_t(data[at + 2]) << 8 | data[at + 3];
        at += 4;
        if (length > size - at) {
            length = size - at;
        }
        chunk.data.assign(data + at, data + at + length);
        at += length;
        chunks.push_back(chunk);
    }
    return chunks;
}

inline std::string text(const std::vector<uint8_t>& bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

// A sink that drops every message: the messages are still formatted, so a bad argument to a
// format shows up under the sanitizers, but nothing is written.
class DiscardSink : public kzfi_pdk_4_4::CFiTraceSink {
public:
    void write(int, const std::string& message) override { m_bytes += message.size(); }
    size_t m_bytes = 0;
};

// One trace log at the most detailed level for the life of the process.
inline const kzfi_pdk_4_4::CFiTraceLogPtr& discardLog()
{
    static kzfi_pdk_4_4::CFiTraceLogPtr* log = [] {
        auto* ptr = new kzfi_pdk_4_4::CFiTraceLogPtr(new kzfi_pdk_4_4::CFiTraceLog());
        (*ptr)->setLevel(6);
        (*ptr)->setSink(std::unique_ptr<kzfi_pdk_4_4::CFiTraceSink>(new DiscardSink()));
        return ptr;
    }();
    return *log;
}

// One factory for every input, kept for the process like the plug-in's own.
inline CUDIDFactory& sharedFactory()
{
    static CUDIDFactory* instance = [] {
        CUDIDFactory* f = new CUDIDFactory();
        f->registerTraceLog(discardLog());
        return f;
    }();
    return *instance;
}

}  // namespace fuzzinput

#endif
