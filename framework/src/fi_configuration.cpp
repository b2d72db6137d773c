// SPDX-License-Identifier: Apache-2.0
#include "fi_configuration.h"

#include <ace/Configuration_Import_Export.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace kzfi_pdk_4_4 {

namespace {

std::mutex g_pathMutex;
std::string& overridePath()
{
    static std::string* path = new std::string();  // lives until unload
    return *path;
}

void splitPath(const std::string& path, ACE_String_Base<char>& first, ACE_String_Base<char>& second)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        first = ".";
        second = path.c_str();
    } else {
        first = path.substr(0, slash == 0 ? 1 : slash).c_str();
        second = path.substr(slash + 1).c_str();
    }
}

// Whether the INI reader can be given `path` safely. It reads lines of up to 4095 characters
// and trims each from its end backwards; given an empty text to trim (a line that starts with a
// zero byte, or a name before '=' that is empty) it steps in front of its own line buffer. A file
// with a zero byte, a line without a name before its '=', or a line the reader would split is no
// configuration, and is refused here whole. The file is read where the INI reader reads it.
bool iniReaderCanTake(const std::string& path)
{
    enum { kLongestLine = 4094, kLargestFile = 1 << 20 };
    FILE* file = std::fopen(path.c_str(), "rbe");
    if (file == nullptr) {
        return false;
    }
    std::string text;
    char buffer[4096];
    size_t count;
    while (text.size() <= kLargestFile &&
           (count = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        text.append(buffer, count);
    }
    const bool readable = !std::ferror(file) && text.size() <= kLargestFile;
    std::fclose(file);
    if (!readable || text.find('\0') != std::string::npos) {
        return false;
    }
    for (size_t begin = 0; begin < text.size();) {
        size_t end = text.find('\n', begin);
        if (end == std::string::npos) {
            end = text.size();
        }
        if (end - begin > kLongestLine) {
            return false;
        }
        size_t first = text.find_first_not_of(" \t\v\f\r", begin);
        if (first < end && text[first] == '=') {
            return false;
        }
        begin = end + 1;
    }
    return true;
}

}  // namespace

CFiConfiguration::CFiConfiguration() : m_sectionOpen(false) {}

CFiConfiguration::~CFiConfiguration() = default;

int CFiConfiguration::importConfig(const char* directory, const char* file)
{
    if (file == nullptr || *file == '\0') {
        return -1;
    }
    std::string path;
    if (directory != nullptr && *directory != '\0') {
        path = directory;
        if (path.back() != '/') {
            path += '/';
        }
    }
    path += file;
    m_heap.reset();
    m_sectionOpen = false;
    if (!iniReaderCanTake(path)) {
        return -1;
    }
    m_heap.reset(new ACE_Configuration_Heap());
    if (m_heap->open() != 0) {
        m_heap.reset();
        return -1;
    }
    ACE_Ini_ImpExp importer(*m_heap);
    if (importer.import_config(path.c_str()) != 0) {
        m_heap.reset();
        return -1;
    }
    return 0;
}

int CFiConfiguration::openSection(const char* name, ACE_Configuration_Section_Key& key, int create)
{
    if (!m_heap || name == nullptr) {
        return -1;
    }
    if (m_heap->open_section(m_heap->root_section(), name, create, key) != 0) {
        return -1;
    }
    m_section = key;
    m_sectionOpen = true;
    return 0;
}

int CFiConfiguration::getIntegerValue(const char* key, unsigned int& value)
{
    if (!m_heap || !m_sectionOpen || key == nullptr) {
        return -1;
    }
    // The INI reader keeps every value as text: a whole decimal number is accepted.
    ACE_TString text;
    if (m_heap->get_string_value(m_section, key, text) != 0) {
        return -1;
    }
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    unsigned long parsed = std::strtoul(begin, &end, 10);
    if (end == begin || *end != '\0' || errno != 0 || parsed > 0xFFFFFFFFUL || *begin == '-') {
        return -1;
    }
    value = static_cast<unsigned int>(parsed);
    return 0;
}

const char* const CFiConfigurationPathTool::kEnvironmentVariable = "DEVICEFI_CONFIG";
const char* const CFiConfigurationPathTool::kDefaultDirectory = "/etc/devicefi";

int CFiConfigurationPathTool::getConfigFileInfo(const ACE_String_Base<char>& plugin,
                                                ACE_String_Base<char>& first,
                                                ACE_String_Base<char>& second)
{
    {
        std::lock_guard<std::mutex> lock(g_pathMutex);
        if (!overridePath().empty()) {
            splitPath(overridePath(), first, second);
            return 0;
        }
    }
    const char* fromEnvironment = std::getenv(kEnvironmentVariable);
    if (fromEnvironment != nullptr && *fromEnvironment != '\0') {
        splitPath(fromEnvironment, first, second);
        return 0;
    }
    first = kDefaultDirectory;
    second = (std::string(plugin.c_str()) + ".ini").c_str();
    return 0;
}

void CFiConfigurationPathTool::setConfigFile(const std::string& path)
{
    std::lock_guard<std::mutex> lock(g_pathMutex);
    overridePath() = path;
}

}  // namespace kzfi_pdk_4_4
