// SPDX-License-Identifier: Apache-2.0
// The tuning settings of the device provider, imported from its configuration file.
#include "device_scsi_data.h"
#include "fi_configuration.h"

int CScsiConfiguration::importTuningSettings(CScsiTuningParams& params)
{
    using namespace kzfi_pdk_4_4;
    try {
        CFiConfiguration configuration;
        ACE_Configuration_Section_Key key;
        ACE_CString first;
        ACE_CString second;
        CFiConfigurationPathTool::getConfigFileInfo(ACE_CString("devicefi"), first, second);
        configuration.importConfig(first.c_str(), second.c_str());
        if (configuration.openSection("TUNING_PARAMS", key, 1) != 0) {
            return 0;
        }
        configuration.getIntegerValue("OPEN_DEVICE_RETRY_DELAY_IN_SEC",
                                      params.m_openDeviceRetryDelay);
        configuration.getIntegerValue("OPEN_DEVICE_RETRY_ATTEMPTS",
                                      params.m_openDeviceRetryAttempts);
    } catch (...) {
        // A configuration that cannot be read leaves the caller's values in place.
    }
    return 0;
}
