// SPDX-License-Identifier: Apache-2.0
// How the command shows its answers: tables for people, JSON for programs.
#ifndef SCSITOOL_CLI_OUTPUT_H
#define SCSITOOL_CLI_OUTPUT_H

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "device_scsi_data.h"
#include "explain.h"

namespace scsitool_cli {

// A JSON document as the command prints it: indented by two, one line end behind it. Device
// strings go as the record holds them; bytes that are not text become U+FFFD instead of making
// the dump throw.
std::string jsonString(const nlohmann::ordered_json& value);

typedef std::vector<uint8_t> ByteString;

// One device as `show` found it.
struct DeviceReport {
    std::string device;
    std::string vendor;
    std::string product;
    std::string firmware;
    int host = 0;
    int channel = 0;
    int id = 0;
    int lun = 0;
    std::vector<unsigned int> supportedPages;
    std::map<unsigned int, ByteString> pages;  // 0: the standard INQUIRY data
    std::string generator;                     // the one that made the UDID; "" when none did
    // Generators that claimed the device before it and threw: name, then the exception.
    std::vector<std::pair<std::string, std::string>> failedGenerators;
    std::string udid;
    std::vector<std::string> warnings;
    UdidExplanation explanation;  // why the UDID is what it is
};

// An FC host as sysfs shows it: the command's own reading, beside the library's answer.
struct FcHost {
    int host = 0;
    std::string driver;     // "" when unknown
    std::string portState;  // "" when unknown
    std::string portName;   // colon form, "21:00:00:24:ff:2c:3d:4e"
};

struct InitiatorReport {
    bool hasIqn = false;
    std::string iqn;
    int iqnStatus = 0;  // GetHostIQN's result: 0, 6 (no iSCSI tools), 26 (no initiator file)
    std::vector<std::string> portNames;
    std::vector<FcHost> fcHosts;
};

std::string formatDeviceTable(const DeviceReport& report);
std::string formatDeviceJson(const DeviceReport& report);
std::string formatInitiatorsTable(const InitiatorReport& report);
std::string formatInitiatorsJson(const InitiatorReport& report);

// Lower-case hexadecimal digits, two per byte, nothing between them.
std::string hexString(const ByteString& bytes);
// Sixteen bytes a line: offset, the bytes in two groups of eight, and their printable text.
std::string hexDump(const ByteString& bytes);

}  // namespace scsitool_cli

#endif
