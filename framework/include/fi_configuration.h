// SPDX-License-Identifier: Apache-2.0
// The plug-in configuration reader (an INI file read into an ACE configuration heap) and the
// tool that says where a plug-in's configuration lies.
#ifndef KZFI_PDK_FI_CONFIGURATION_H
#define KZFI_PDK_FI_CONFIGURATION_H

#include <ace/Configuration.h>
#include <ace/SString.h>

#include <memory>
#include <string>

#include "fi_export.h"

namespace kzfi_pdk_4_4 {

class KZFI_PDK_EXPORT CFiConfiguration {
public:
    CFiConfiguration();
    ~CFiConfiguration();
    CFiConfiguration(const CFiConfiguration&) = delete;
    CFiConfiguration& operator=(const CFiConfiguration&) = delete;

    // Reads the INI file `file` in `directory` ("" for a `file` that is a whole path).
    // 0 on success, -1 when the file is missing or not a configuration.
    int importConfig(const char* directory, const char* file);
    // 0 when the section exists (or was created with `create` non-zero), -1 otherwise.
    int openSection(const char* name, ACE_Configuration_Section_Key& key, int create);
    // 0 and `value` set when the key of the last opened section holds a whole number;
    // otherwise -1 and `value` untouched.
    int getIntegerValue(const char* key, unsigned int& value);

private:
    std::unique_ptr<ACE_Configuration_Heap> m_heap;
    ACE_Configuration_Section_Key m_section;
    bool m_sectionOpen;
};

// Where the "devicefi" configuration lies: the file named by the environment variable
// DEVICEFI_CONFIG, else /etc/devicefi/devicefi.ini. A process (the scsitool command's
// --config) may set another file with setConfigFile.
class KZFI_PDK_EXPORT CFiConfigurationPathTool {
public:
    static const char* const kEnvironmentVariable;  // "DEVICEFI_CONFIG"
    static const char* const kDefaultDirectory;     // "/etc/devicefi"

    // `first` receives the directory, `second` the file name ("<plugin>.ini" by default).
    static int getConfigFileInfo(const ACE_String_Base<char>& plugin, ACE_String_Base<char>& first,
                                 ACE_String_Base<char>& second);
    // A whole path that wins over the environment; "" forgets it.
    static void setConfigFile(const std::string& path);
};

}  // namespace kzfi_pdk_4_4

#endif
