// SPDX-License-Identifier: Apache-2.0
#include "fi_stringtool.h"

#include <cctype>

namespace kzfi_pdk_4_4 {

std::vector<std::string> CFiStringTool::tokenize(const std::string& text,
                                                 const std::string& separators)
{
    std::vector<std::string> tokens;
    size_t start = text.find_first_not_of(separators);
    while (start != std::string::npos) {
        size_t end = text.find_first_of(separators, start);
        if (end == std::string::npos) {
            tokens.push_back(text.substr(start));
            break;
        }
        tokens.push_back(text.substr(start, end - start));
        start = text.find_first_not_of(separators, end);
    }
    return tokens;
}

std::string CFiStringTool::trim(const std::string& text, const std::string& characters)
{
    size_t first = text.find_first_not_of(characters);
    if (first == std::string::npos) {
        return std::string();
    }
    size_t last = text.find_last_not_of(characters);
    return text.substr(first, last - first + 1);
}

bool CFiStringTool::CompareNoCase(const std::string& a, const std::string& b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

}  // namespace kzfi_pdk_4_4
