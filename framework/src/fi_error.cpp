// SPDX-License-Identifier: Apache-2.0
#include "fi_error.h"

#include <cctype>
#include <cstdio>

namespace kzfi_pdk_4_4 {

CFiError::CFiError(int code, std::string message) : m_code(code), m_message(std::move(message)) {}

CFiError::~CFiError() = default;

const char* CFiError::what() const noexcept
{
    return m_message.c_str();
}

std::string CFiError::getMessageId(const std::string& prefix, int base) const
{
    int code = m_code > base ? m_code - base : m_code;
    std::string upper(prefix);
    for (char& c : upper) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    char number[64];
    std::snprintf(number, sizeof number, "%04d", code);
    return "MSG_ERROR_" + upper + "_" + number;
}

CFiLastError::CFiLastError() : m_errno(0) {}

CFiLastError::~CFiLastError() = default;

void CFiLastError::set(int sysErrno, const std::string& text)
{
    m_errno = sysErrno;
    m_text = text;
}

void CFiLastError::clear()
{
    m_errno = 0;
    m_text.clear();
}

}  // namespace kzfi_pdk_4_4
