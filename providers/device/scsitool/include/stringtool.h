// SPDX-License-Identifier: Apache-2.0
// Static conversions, trimming and case mapping, and the directory lister.
#ifndef SCSITOOL_STRINGTOOL_H
#define SCSITOOL_STRINGTOOL_H

#include <string>
#include <vector>

#include "scsitool_export.h"

class SCSITOOL_EXPORT CStringTool {
public:
    static std::string bool2str(bool b);
    static std::string int2str(int v);
    static std::string uint2str(unsigned int v);
    static std::wstring int2wstr(int v);
    static std::wstring uint2wstr(unsigned int v);
    static unsigned int str2uint(const std::string& s);
    static int str2int(const std::string& s);
    static unsigned int hexstr2uint(const std::string& s);
    static std::string binary2str(const unsigned char* data, int length);
    static bool isalphaNumeric(const std::string& s);
    static std::string ltrim(const std::string& s, char c);
    static std::string rtrim(const std::string& s, char c);
    static std::string trim(const std::string& s);
    static std::string tostrupper(const std::string& s);
    static std::string tostrlower(const std::string& s);
    static std::wstring tostrupper(const std::wstring& s);
    static std::wstring tostrlower(const std::wstring& s);
    static std::wstring str2wstr(const std::string& s);
    static std::string wstr2str(const std::wstring& s);
    static std::wstring str2wstr(const std::wstring& s);
    static std::string wstr2str(const std::string& s);
};

// Full paths (directory + name, joined as given) of the entries of `directory` whose names
// contain `pattern`, in directory order. A directory that cannot be opened gives an empty list.
std::vector<std::string> readDir(std::string directory, std::string pattern);

#endif
