// SPDX-License-Identifier: Apache-2.0
#include "output.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "page_decode.h"
#include "stringtool.h"

namespace scsitool_cli {

using ordered_json = nlohmann::ordered_json;

namespace {

std::string padRight(const std::string& text, size_t width)
{
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

std::string pageKey(unsigned int code)
{
    char key[16];
    std::snprintf(key, sizeof key, "%02x", code);
    return key;
}

// The default generator's claim strings are both empty: its name is ":".
std::string generatorLabel(const std::string& name)
{
    if (name.empty()) {
        return "-";
    }
    return name == ":" ? ": (the default generator)" : name;
}

}  // namespace

std::string hexString(const ByteString& bytes)
{
    return CStringTool::binary2str(bytes.data(), int(bytes.size()));
}

std::string hexDump(const ByteString& bytes)
{
    std::string text;
    for (size_t offset = 0; offset < bytes.size(); offset += 16) {
        char field[24];
        std::snprintf(field, sizeof field, "%04zx ", offset);
        std::string line = field;
        std::string printable;
        for (size_t i = offset; i < offset + 16; ++i) {
            if (i % 16 == 8) {
                line += ' ';
            }
            if (i < bytes.size()) {
                std::snprintf(field, sizeof field, " %02x", bytes[i]);
                line += field;
                printable += (bytes[i] >= 0x20 && bytes[i] < 0x7f) ? char(bytes[i]) : '.';
            } else {
                line += "   ";
            }
        }
        text += "  " + line + "  |" + printable + "|\n";
    }
    return text;
}

std::string formatDeviceTable(const DeviceReport& report)
{
    std::string pages;
    for (unsigned int code : report.supportedPages) {
        pages += (pages.empty() ? "" : " ") + pageKey(code);
    }
    char address[64];
    std::snprintf(address, sizeof address, "%d:%d:%d:%d", report.host, report.channel, report.id,
                  report.lun);
    std::vector<std::pair<std::string, std::string>> fields = {
        {"device", report.device},
        {"vendor", report.vendor},
        {"product", report.product},
        {"firmware", report.firmware},
        {"address", std::string(address) + " (host:channel:id:lun)"},
        {"pages", pages.empty() ? "-" : pages},
        {"generator", generatorLabel(report.generator)},
    };
    // Generators that claimed the device before the one that made the UDID, and what they threw.
    for (size_t i = 0; i < report.failedGenerators.size(); ++i) {
        const auto& failed = report.failedGenerators[i];
        fields.push_back({i == 0 ? "failed" : "", failed.first + " (" + failed.second + ")"});
        if (i < report.explanation.failures.size()) {
            fields.push_back({"", "  " + report.explanation.failures[i].reason});
            fields.push_back({"", "  next: " + report.explanation.failures[i].next});
        }
    }
    fields.push_back({"udid", report.udid.empty() ? "-" : report.udid});
    std::string text;
    for (const auto& field : fields) {
        text += padRight(field.first, 11) + field.second + "\n";
    }
    if (report.warnings.empty()) {
        text += padRight("warnings", 11) + "-\n";
    }
    for (size_t i = 0; i < report.warnings.size(); ++i) {
        text += padRight(i == 0 ? "warnings" : "", 11) + report.warnings[i] + "\n";
    }
    if (report.explanation.recorded) {
        text += "\nprovenance of the UDID\n" + formatProvenance(report.explanation);
    }
    if (!report.supportedPages.empty()) {
        text += "\n" + formatPageList(report.supportedPages);
    }
    for (const auto& page : report.pages) {
        text += "\n" + formatDecodedPage(page.first, page.second);
    }
    return text;
}

std::string formatDeviceJson(const DeviceReport& report)
{
    ordered_json object;
    object["device"] = report.device;
    object["vendor"] = report.vendor;
    object["product"] = report.product;
    object["firmware"] = report.firmware;
    object["address"] = {report.host, report.channel, report.id, report.lun};
    object["supported_pages"] = report.supportedPages;
    auto inquiry = report.pages.find(0);
    object["inquiry"] = inquiry == report.pages.end() ? "" : hexString(inquiry->second);
    ordered_json vpd = ordered_json::object();
    for (const auto& page : report.pages) {
        if (page.first != 0) {
            vpd[pageKey(page.first)] = hexString(page.second);
        }
    }
    object["vpd"] = vpd;
    object["generator"] = report.generator;
    ordered_json failed = ordered_json::array();
    for (size_t i = 0; i < report.failedGenerators.size(); ++i) {
        ordered_json entry = {{"generator", report.failedGenerators[i].first},
                              {"exception", report.failedGenerators[i].second}};
        if (i < report.explanation.failures.size()) {
            entry["message_id"] = report.explanation.failures[i].messageId;
            entry["reason"] = report.explanation.failures[i].reason;
            entry["next"] = report.explanation.failures[i].next;
        }
        failed.push_back(entry);
    }
    object["failed_generators"] = failed;
    object["udid"] = report.udid;
    object["provenance"] = provenanceJson(report.explanation);
    ordered_json decoded = ordered_json::object();
    for (const auto& page : report.pages) {
        decoded[page.first == 0 ? "inquiry" : pageKey(page.first)] =
            decodedPageJson(page.first, page.second);
    }
    object["decoded"] = decoded;
    object["warnings"] = report.warnings;
    return jsonString(object);
}

std::string formatInitiatorsTable(const InitiatorReport& report)
{
    std::string text = "iSCSI initiator  ";
    if (report.hasIqn) {
        text += report.iqn + "\n";
    } else if (report.iqnStatus == 6) {
        text += "- (the iSCSI initiator tools are not installed)\n";
    } else if (report.iqnStatus == 26) {
        text += "- (/etc/iscsi/initiatorname.iscsi cannot be read)\n";
    } else {
        text += "- (no InitiatorName line)\n";
    }
    if (report.portNames.empty()) {
        text += "FC port names    -\n";
    }
    for (size_t i = 0; i < report.portNames.size(); ++i) {
        text += padRight(i == 0 ? "FC port names" : "", 17) + report.portNames[i] + "\n";
    }
    text += "\nFC hosts in /sys/class/fc_host (the command's own reading):\n";
    if (report.fcHosts.empty()) {
        text += "  -\n";
    }
    for (const FcHost& host : report.fcHosts) {
        text += "  " + padRight("host" + std::to_string(host.host), 8) +
                padRight(host.driver.empty() ? "-" : host.driver, 10) +
                padRight(host.portState.empty() ? "-" : host.portState, 10) +
                (host.portName.empty() ? "-" : host.portName) + "\n";
    }
    return text;
}

std::string formatInitiatorsJson(const InitiatorReport& report)
{
    ordered_json object;
    object["iscsi_initiator"] = report.hasIqn ? ordered_json(report.iqn) : ordered_json(nullptr);
    object["fc_port_names"] = report.portNames;
    ordered_json hosts = ordered_json::array();
    for (const FcHost& host : report.fcHosts) {
        ordered_json entry;
        entry["host"] = host.host;
        entry["driver"] = host.driver;
        entry["port_state"] = host.portState;
        entry["port_name"] = host.portName;
        hosts.push_back(entry);
    }
    object["fc_hosts"] = hosts;
    return jsonString(object);
}

std::string jsonString(const nlohmann::ordered_json& value)
{
    return value.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace scsitool_cli
