// SPDX-License-Identifier: Apache-2.0
// A garbage configuration file: only the keys that are present and readable are imported.
#include <gtest/gtest.h>

#include <string>

#include "fi_configuration.h"
#include "scsitool.h"
#include "temp_dir.h"

// Only the keys that are present and readable are imported; anything else keeps the defaults.
TEST(Faults, GarbageConfigurationKeepsTheDefaults)
{
    TempDir dir;
    const std::string path = dir.file("devicefi.ini");
    const std::string attempts12 = "[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=12\n";
    // attempts12 and comment lines, `size` bytes in all.
    auto sized = [&](size_t size) {
        std::string text = attempts12 + std::string(size - attempts12.size(), ';');
        for (size_t end = attempts12.size() + 999; end < size; end += 1000)
            text[end] = '\n';
        text[size - 1] = '\n';
        return text;
    };
    struct Case {
        std::string text;
        unsigned int delay;
        unsigned int attempts;
    } cases[] = {
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=5\nOPEN_DEVICE_RETRY_DELAY_IN_SEC=1\n", 1, 5},
        {attempts12, 3, 12},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=7", 3, 7},  // no line end at the end
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_DELAY_IN_SEC=4294967295\n", 4294967295u, 8},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_DELAY_IN_SEC=4294967296\n", 3, 8},
        {"[OTHER]\nOPEN_DEVICE_RETRY_ATTEMPTS=12\n", 3, 8},
        {std::string("\x00\xff\x13[\n\x80\x81=\x00", 10), 3, 8},
        {"[TUNING_PARAMS\nOPEN_DEVICE_RETRY_ATTEMPTS=5\n", 3, 8},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=abc\nOPEN_DEVICE_RETRY_DELAY_IN_SEC=-1\n", 3,
         8},
        {"[TUNING_PARAMS]\nOPEN_DEVICE_RETRY_ATTEMPTS=99999999999\n", 3, 8},
        {"[TUNING_PARAMS]\n" + std::string(100000, '=') + "\n", 3, 8},
        {"=\n[[[]]]\n[]\n=x\n", 3, 8},
        {"\x01\x02 this is = not [ an ini\n]]]\n", 3, 8},
        {"", 3, 8},
        // A zero byte, a nameless value or a line over 4094 characters anywhere makes the whole
        // file no configuration.
        {attempts12 + std::string(1, '\0'), 3, 8},
        {attempts12 + " \t=5\n", 3, 8},
        {attempts12 + ";" + std::string(4094, 'x') + "\n", 3, 8},
        {attempts12 + ";" + std::string(4093, 'x') + "\n", 3, 12},
        {attempts12 + "OPEN_DEVICE_RETRY_DELAY_IN_SEC=\n", 3, 12},
        {";" + std::string(4094, 'x') + "\n" + attempts12, 3, 8},
        // Up to 1 MiB is a configuration.
        {sized(1 << 20), 3, 12},
        {sized((1 << 20) + 1), 3, 8},
    };
    for (const Case& c : cases) {
        writeFile(path, c.text);
        kzfi_pdk_4_4::CFiConfigurationPathTool::setConfigFile(path);
        CScsiTuningParams params{3, 8};
        EXPECT_EQ(CScsiConfiguration::importTuningSettings(params), 0);
        EXPECT_EQ(params.m_openDeviceRetryDelay, c.delay) << c.text.substr(0, 40);
        EXPECT_EQ(params.m_openDeviceRetryAttempts, c.attempts) << c.text.substr(0, 40);
    }
    for (const std::string& missing : {dir.path(), path + ".none"}) {
        kzfi_pdk_4_4::CFiConfigurationPathTool::setConfigFile(missing);
        CScsiTuningParams params{3, 8};
        EXPECT_EQ(CScsiConfiguration::importTuningSettings(params), 0);
        EXPECT_EQ(params.m_openDeviceRetryAttempts, 8u);
    }
    kzfi_pdk_4_4::CFiConfigurationPathTool::setConfigFile("");
}
