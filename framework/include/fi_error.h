// SPDX-License-Identifier: Apache-2.0
// The kit's exception type, its error registry and the last-error holder.
#ifndef KZFI_PDK_FI_ERROR_H
#define KZFI_PDK_FI_ERROR_H

#include <exception>
#include <string>

#include "fi_export.h"

namespace kzfi_pdk_4_4 {

class KZFI_PDK_EXPORT CFiError : public std::exception {
public:
    explicit CFiError(int code, std::string message = std::string());
    ~CFiError() override;

    const char* what() const noexcept override;
    int getCode() const { return m_code; }

    // "MSG_ERROR_" + upper-cased prefix + "_" + the code as "%04d", where the code is this
    // error's code less `base` when it is greater than `base`, and the code itself otherwise.
    std::string getMessageId(const std::string& prefix, int base) const;

private:
    int m_code;
    std::string m_message;
};

// The last system error of an operation: errno and a short text.
class KZFI_PDK_EXPORT CFiLastError {
public:
    CFiLastError();
    ~CFiLastError();
    void set(int sysErrno, const std::string& text);
    void clear();
    int getErrno() const { return m_errno; }
    const std::string& getText() const { return m_text; }

private:
    int m_errno;
    std::string m_text;
};

}  // namespace kzfi_pdk_4_4

#endif
