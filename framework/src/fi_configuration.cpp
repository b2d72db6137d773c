#include "fi_configuration.h"

#include <ace/Configuration_Import_Export.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
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
    // A file that cannot be read fails the import whatever the heap; building the heap first
    // would cost more than the whole query of a device that is opened without a configuration.
    FILE* readable = std::fopen(path.c_str(), "r");
    if (readable == nullptr) {
        m_heap.reset();
        m_sectionOpen = false;
        return -1;
    }
    std::fclose(readable);
    m_heap.reset(new ACE_Configuration_Heap());
    m_sectionOpen = false;
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
    u_int number = 0;
    if (m_heap->get_integer_value(m_section, key, number) == 0) {
        value = number;
        return 0;
    }
    // The INI reader keeps values as text: a whole decimal number is accepted.
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
