// SPDX-License-Identifier: Apache-2.0
#include "stringtool.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <cwctype>
#include <memory>

#include "fi_system.h"

std::string CStringTool::bool2str(bool b)
{
    return b ? "true" : "false";
}

std::string CStringTool::int2str(int v)
{
    return std::to_string(v);
}

std::string CStringTool::uint2str(unsigned int v)
{
    return std::to_string(v);
}

std::wstring CStringTool::int2wstr(int v)
{
    return str2wstr(int2str(v));
}

std::wstring CStringTool::uint2wstr(unsigned int v)
{
    return str2wstr(uint2str(v));
}

unsigned int CStringTool::str2uint(const std::string& s)
{
    return static_cast<unsigned int>(str2int(s));
}

int CStringTool::str2int(const std::string& s)
{
    if (s.empty()) {
        return 0;
    }
    int value = 0;
    if (std::sscanf(s.c_str(), "%d", &value) != 1) {
        return 0;
    }
    return value;
}

unsigned int CStringTool::hexstr2uint(const std::string& s)
{
    if (s.size() < 3) {
        return 0;
    }
    unsigned int value = 0;
    for (size_t i = 2; i < s.size(); ++i) {
        char c = s[i];
        unsigned int digit;
        if (c >= 'A' && c <= 'F') {
            digit = static_cast<unsigned int>(c - 'A' + 10);
        } else if (c >= 'a' && c <= 'f') {
            digit = static_cast<unsigned int>(c - 'a' + 10);
        } else if (c >= '0' && c <= '9') {
            digit = static_cast<unsigned int>(c - '0');
        } else {
            return 0;
        }
        value = value * 16 + digit;
    }
    return value;
}

std::string CStringTool::binary2str(const unsigned char* data, int length)
{
    if (length < 1 || data == nullptr) {
        return std::string();
    }
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.resize(static_cast<size_t>(length) * 2);
    for (int i = 0; i < length; ++i) {
        out[static_cast<size_t>(i) * 2] = digits[data[i] >> 4];
        out[static_cast<size_t>(i) * 2 + 1] = digits[data[i] & 0x0F];
    }
    return out;
}

bool CStringTool::isalphaNumeric(const std::string& s)
{
    if (s.empty()) {
        return false;
    }
    for (char c : s) {
        if (!std::isalnum(static_cast<unsigned char>(c))) {
            return false;
        }
    }
    return true;
}

std::string CStringTool::ltrim(const std::string& s, char c)
{
    size_t first = s.find_first_not_of(c);
    return first == std::string::npos ? std::string() : s.substr(first);
}

std::string CStringTool::rtrim(const std::string& s, char c)
{
    size_t last = s.find_last_not_of(c);
    return last == std::string::npos ? std::string() : s.substr(0, last + 1);
}

std::string CStringTool::trim(const std::string& s)
{
    return rtrim(ltrim(s, ' '), ' ');
}

std::string CStringTool::tostrupper(const std::string& s)
{
    std::string out(s);
    for (char& c : out) {
        if (std::isalpha(static_cast<unsigned char>(c))) {
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        }
    }
    return out;
}

std::string CStringTool::tostrlower(const std::string& s)
{
    std::string out(s);
    for (char& c : out) {
        if (std::isalpha(static_cast<unsigned char>(c))) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
    return out;
}

std::wstring CStringTool::tostrupper(const std::wstring& s)
{
    std::wstring out(s);
    for (wchar_t& c : out) {
        if (std::iswalpha(static_cast<wint_t>(c))) {
            c = static_cast<wchar_t>(std::towupper(static_cast<wint_t>(c)));
        }
    }
    return out;
}

std::wstring CStringTool::tostrlower(const std::wstring& s)
{
    std::wstring out(s);
    for (wchar_t& c : out) {
        if (std::iswalpha(static_cast<wint_t>(c))) {
            c = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c)));
        }
    }
    return out;
}

std::wstring CStringTool::str2wstr(const std::string& s)
{
    if (s.empty()) {
        return std::wstring();
    }
    size_t needed = std::mbstowcs(nullptr, s.c_str(), 0);
    if (needed == static_cast<size_t>(-1)) {
        return std::wstring();  // not a valid multibyte text in this locale
    }
    std::unique_ptr<wchar_t[]> buffer(new wchar_t[needed + 1]());
    std::mbstowcs(buffer.get(), s.c_str(), needed + 1);
    return std::wstring(buffer.get(), std::wcslen(buffer.get()));
}

std::string CStringTool::wstr2str(const std::wstring& s)
{
    if (s.empty()) {
        return std::string();
    }
    size_t size = s.size() * 2;
    std::unique_ptr<char[]> buffer(new char[size + 1]());
    size_t converted = std::wcstombs(buffer.get(), s.c_str(), size);
    if (converted == 0 || converted == static_cast<size_t>(-1)) {
        return std::string();
    }
    return std::string(buffer.get());
}

std::wstring CStringTool::str2wstr(const std::wstring& s)
{
    return s;
}

std::string CStringTool::wstr2str(const std::string& s)
{
    return s;
}

std::vector<std::string> readDir(std::string directory, std::string pattern)
{
    std::vector<std::string> entries;
    kzfi_pdk_4_4::CFiSystem& sys = kzfi_pdk_4_4::fiSystem();
    void* dir = sys.opendir(directory.c_str());
    if (dir == nullptr) {
        return entries;
    }
    for (;;) {
        errno = 0;
        struct dirent* entry = sys.readdir(dir);
        if (entry == nullptr) {
            if (errno != 0) {
                std::printf("error reading directory %s", directory.c_str());
            }
            break;
        }
        if (std::string(entry->d_name).find(pattern) != std::string::npos) {
            entries.push_back(directory + entry->d_name);
        }
    }
    sys.closedir(dir);
    return entries;
}
