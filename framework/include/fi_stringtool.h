// SPDX-License-Identifier: Apache-2.0
#ifndef KZFI_PDK_FI_STRINGTOOL_H
#define KZFI_PDK_FI_STRINGTOOL_H

#include <string>
#include <vector>

#include "fi_export.h"

namespace kzfi_pdk_4_4 {

class KZFI_PDK_EXPORT CFiStringTool {
public:
    // Splits `text` at any of `separators`; empty pieces between separators are dropped.
    static std::vector<std::string> tokenize(const std::string& text,
                                             const std::string& separators);
    // `text` without the characters of `characters` at both ends.
    static std::string trim(const std::string& text, const std::string& characters);
    static bool CompareNoCase(const std::string& a, const std::string& b);
};

}  // namespace kzfi_pdk_4_4

#endif
