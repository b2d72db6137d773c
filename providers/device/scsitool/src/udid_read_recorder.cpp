// SPDX-License-Identifier: Apache-2.0
#include "udid_read_recorder.h"

std::atomic<CUdidReadRecorder*> CUdidReadRecorder::s_active(nullptr);

CUdidReadRecorder::CUdidReadRecorder() : m_owner(std::this_thread::get_id()), m_previous(s_active)
{
    s_active = this;
}

CUdidReadRecorder::~CUdidReadRecorder()
{
    s_active.store(m_previous, std::memory_order_release);
}

void CUdidReadRecorder::noteRead(const unsigned char* data, unsigned int length, unsigned int index)
{
    reads.push_back(
        {data, length, index, index < length ? data[index] : static_cast<unsigned char>(0)});
}

void CUdidReadRecorder::noteLookup(unsigned int code, const unsigned char* data,
                                   unsigned int length)
{
    lookups.push_back({currentGenerator(), code, data, length});
}

void CUdidReadRecorder::noteField(FieldKind kind, size_t firstRead, const std::string& text)
{
    fields.push_back({currentGenerator(), kind, firstRead, reads.size(), text, "", 0});
}

void CUdidReadRecorder::noteDecimal(const std::string& input, int base, const std::string& text)
{
    // The text converted is the latest field that reads as `input`; its reads are the number's.
    size_t first = reads.size();
    size_t end = reads.size();
    for (size_t i = fields.size(); !input.empty() && i-- > 0;) {
        if (fields[i].generator == currentGenerator() && fields[i].kind == kText &&
            fields[i].text == input) {
            first = fields[i].firstRead;
            end = fields[i].endRead;
            break;
        }
    }
    fields.push_back({currentGenerator(), kDecimal, first, end, text, input, base});
}

void CUdidReadRecorder::noteGenerator(const std::string& name)
{
    generators.push_back({name, reads.size()});
}
