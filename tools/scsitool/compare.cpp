// SPDX-License-Identifier: Apache-2.0
#include "compare.h"

#include <sys/utsname.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "capture_parts.h"
#include "device_probe.h"
#include "device_udid_factory.h"
#include "digest.h"
#include "errors.h"
#include "explain_change.h"
#include "fi_system.h"
#include "output.h"
#include "progress.h"
#include "simhost.h"

namespace scsitool_cli {

using ordered_json = nlohmann::ordered_json;
typedef CDeviceMapCompare::Finding Finding;

namespace {

const CDeviceMapCompare::Kind kKinds[] = {
    CDeviceMapCompare::Remapped,    CDeviceMapCompare::IdentityChanged,
    CDeviceMapCompare::Unavailable, CDeviceMapCompare::Readdressed,
    CDeviceMapCompare::Moved,       CDeviceMapCompare::Added,
    CDeviceMapCompare::Removed};

std::string joined(const std::vector<std::string>& items)
{
    std::string text;
    for (const std::string& item : items) {
        text += (text.empty() ? "" : ", ") + item;
    }
    return text;
}

// "3:0:1:0" as [3, 0, 1, 0], as `map --json` writes an address; null for anything else.
ordered_json addressJson(const std::string& address)
{
    int parts[4];
    char tail = 0;
    if (address.empty() || address[0] == '/' ||
        std::sscanf(address.c_str(), "%d:%d:%d:%d%c", &parts[0], &parts[1], &parts[2], &parts[3],
                    &tail) != 4) {
        return nullptr;
    }
    return {parts[0], parts[1], parts[2], parts[3]};
}

ordered_json sideJson(const CDeviceMapCompare::Side& side)
{
    ordered_json object;
    object["device_names"] = side.deviceNames;
    ordered_json addresses = ordered_json::array();
    for (const std::string& address : side.addresses) {
        addresses.push_back(addressJson(address));
    }
    object["addresses"] = addresses;
    object["udid"] = side.udid;
    return object;
}

ordered_json orNull(const std::string& text)
{
    return text.empty() ? ordered_json(nullptr) : ordered_json(text);
}

ordered_json contextJson(const SideContext& side)
{
    ordered_json object;
    object["source"] = side.source;
    object["live"] = side.live;
    object["host"] = side.hostName;
    object["kernel"] = orNull(side.kernel);
    object["time"] = orNull(side.time);
    object["scsitool_version"] = orNull(side.version);
    object["machine_id"] = orNull(side.machineId);
    object["capture_id"] = orNull(side.captureId);
    return object;
}

std::string stringField(const ordered_json& object, const char* key)
{
    return object.is_object() && object.contains(key) && object[key].is_string()
               ? object[key].get<std::string>()
               : std::string();
}

// This host's nodes that did not open are named; without the rights to open any, nothing can
// be compared.
void reportUnopenedNodes(const SHostMap& map)
{
    std::vector<std::pair<std::string, int>> failures;
    bool queried = false;
    for (const SMapVolume& volume : map.entries) {
        if (volume.openError != 0) {
            failures.emplace_back(volume.deviceName, volume.openError);
        } else if (volume.state != "-") {
            queried = true;
        }
    }
    const int denied = reportUnopened(failures);
    if (!queried && !failures.empty()) {
        throwNoDeviceQueried(denied > 0);
    }
}

}  // namespace

std::unique_ptr<simhost::SimHost> loadCapture(const std::string& capture)
{
    std::string error;
    std::unique_ptr<simhost::SimHost> host = simhost::SimHost::fromFile(capture, error);
    if (!host) {
        // The loader's messages name the file already, except for its JSON errors.
        throw CommandError(kExitBadInput, error.find(capture) != std::string::npos
                                              ? error
                                              : capture + ": " + error);
    }
    return host;
}

SideContext installedSide(const std::string& source, const std::string& record)
{
    SideContext side;
    side.source = source;
    side.hostName = Session::hostName();
    struct utsname uts;
    if (kzfi_pdk_4_4::fiSystem().uname(&uts) == 0) {
        side.kernel = uts.release;
    }
    const ordered_json fields = ordered_json::parse(record, nullptr, false);
    side.time = stringField(fields, "time");
    side.version = stringField(fields, "scsitool_version");
    side.machineId = stringField(fields, "machine_id");
    side.captureId = stringField(fields, "capture_id");
    return side;
}

std::string machineIdOfInstalledHost()
{
    std::string text;
    return capture::readText("/etc/machine-id", text) ? capture::firstLine(text) : std::string();
}

HostSide loadSide(Session& session, const std::string& capture)
{
    HostSide side;
    if (capture == "-") {
        side.context = installedSide(capture, "");
        side.context.live = true;
        side.context.version = SCSITOOL_VERSION;
        side.context.machineId = machineIdOfInstalledHost();
        {
            ProgressLine progress("scanning devices");
            side.map = CDeviceMapCompare::describeHost(session.factory());
        }
        reportUnopenedNodes(side.map);
        return side;
    }
    std::unique_ptr<simhost::SimHost> host = loadCapture(capture);
    simhost::SimHostInstall install(*host);
    side.context = installedSide(capture, host->capture());
    side.map = CDeviceMapCompare::describeHost(session.factory());
    return side;
}

void warn(const std::string& message)
{
    std::fprintf(stderr, "scsitool: warning: %s\n", message.c_str());
}

std::string describeSide(const SideContext& side)
{
    std::string text = side.live ? std::string("this host, now") : side.source;
    text += ": host " + (side.hostName.empty() ? std::string("(no name)") : side.hostName);
    text += ", kernel " + (side.kernel.empty() ? std::string("unknown") : side.kernel);
    if (side.live) {
        return text + ", scsitool " + side.version;
    }
    if (side.time.empty() && side.version.empty()) {
        return text + ", not written by capture";
    }
    return text + ", captured " +
           (side.time.empty() ? std::string("at an unknown time") : side.time) + " by scsitool " +
           (side.version.empty() ? std::string("(unknown version)") : side.version);
}

std::string formatContext(const SideContext& before, const SideContext& after)
{
    return "before: " + describeSide(before) + "\n" + "after: " + describeSide(after) + "\n";
}

std::string runDiff(Session& session, const std::string& before, const std::string& after,
                    bool json, bool& differ)
{
    const HostSide first = loadSide(session, before);
    const HostSide second = loadSide(session, after);
    if (first.context.hostName != second.context.hostName) {
        warn("comparing two different hosts: " + first.context.hostName + " and " +
             second.context.hostName);
    }
    const std::vector<Finding> findings = CDeviceMapCompare::compare(first.map, second.map);
    differ = !findings.empty();
    const FindingExplainer explain = identityChangeExplainer(session, before, after);
    if (json) {
        return formatFindingsJson(findings, first.context, second.context, explain);
    }
    return formatContext(first.context, second.context) + formatFindingsTable(findings, explain);
}

std::string formatFindingsTable(const std::vector<Finding>& findings,
                                const FindingExplainer& explain)
{
    std::string text;
    for (const Finding& finding : findings) {
        const std::vector<std::string> why =
            explain ? explain(finding) : std::vector<std::string>();
        const std::string kind = CDeviceMapCompare::kindName(finding.kind);
        switch (finding.kind) {
            case CDeviceMapCompare::Remapped:
                text += kind + " " + finding.subject + ": " + finding.before.udid + " -> " +
                        finding.after.udid + "\n";
                break;
            case CDeviceMapCompare::IdentityChanged:
                text += kind + " " + finding.subject + ": " + finding.before.udid + " -> " +
                        finding.after.udid + " on " + joined(finding.after.deviceNames) + "\n";
                break;
            case CDeviceMapCompare::Unavailable:
                text += kind + " " + finding.subject + ": " + finding.before.udid + " -> " +
                        finding.state + "\n";
                break;
            case CDeviceMapCompare::Readdressed:
                text += kind + " " + finding.subject + ": " + joined(finding.before.addresses) +
                        " -> " + joined(finding.after.addresses) + " (" + finding.after.udid +
                        ")\n";
                break;
            case CDeviceMapCompare::Moved:
                text += kind + " " + finding.subject + ": " + joined(finding.before.deviceNames) +
                        " -> " + joined(finding.after.deviceNames) + "\n";
                break;
            case CDeviceMapCompare::Added:
                text += kind + " " + finding.subject + " on " + joined(finding.after.deviceNames) +
                        "\n";
                break;
            case CDeviceMapCompare::Removed:
                text += kind + " " + finding.subject + " on " + joined(finding.before.deviceNames) +
                        "\n";
                break;
        }
        for (const std::string& line : why) {
            text += "  " + line + "\n";
        }
    }
    return text;
}

std::string formatFindingsJson(const std::vector<Finding>& findings, const SideContext& before,
                               const SideContext& after, const FindingExplainer& explain)
{
    ordered_json object = ordered_json::object();
    object["sides"] = {{"before", contextJson(before)}, {"after", contextJson(after)}};
    for (CDeviceMapCompare::Kind kind : kKinds) {
        ordered_json entries = ordered_json::array();
        for (const Finding& finding : findings) {
            if (finding.kind == kind) {
                ordered_json entry;
                // A remap found at one SCSI address has that address as its subject.
                const ordered_json address = addressJson(finding.subject);
                entry["subject"] = address.is_null() ? ordered_json(finding.subject) : address;
                entry["before"] = sideJson(finding.before);
                entry["after"] = sideJson(finding.after);
                if (kind == CDeviceMapCompare::Unavailable) {
                    entry["state"] = finding.state;
                }
                if (explain && (kind == CDeviceMapCompare::Remapped ||
                                kind == CDeviceMapCompare::IdentityChanged)) {
                    entry["explanation"] = explain(finding);
                }
                entries.push_back(entry);
            }
        }
        std::string key = CDeviceMapCompare::kindName(kind);
        std::replace(key.begin(), key.end(), '-', '_');
        object[key] = entries;
    }
    return jsonString(object);
}

namespace {

// The text of a large output, handed to `write` in pieces of about a mebibyte when there is a
// writer: the whole text of a large fleet would double the command's memory.
class PiecewiseText {
public:
    explicit PiecewiseText(const TextWriter& write) : m_write(write) {}
    std::string& text()
    {
        if (m_write && m_text.size() > (1u << 20)) {
            m_write(m_text);
            m_text.clear();
        }
        return m_text;
    }
    std::string finish()
    {
        if (!m_write) {
            return std::move(m_text);
        }
        m_write(m_text);
        return std::string();
    }

private:
    const TextWriter& m_write;
    std::string m_text;
};

}  // namespace

std::string formatFleetTable(const CFleetView& fleet, const TextWriter& write)
{
    PiecewiseText out(write);
    fleet.visitShared([&](const CFleetView::SharedVolume& volume) {
        std::string& text = out.text();
        text += volume.udid + "\n";
        for (const CFleetView::Sighting& sighting : volume.sightings) {
            text += "  " + sighting.host + ": " + joined(sighting.deviceNames) + "\n";
        }
    });
    for (const CFleetView::Conflict& conflict : fleet.conflicts()) {
        std::string& text = out.text();
        text += "conflict " + conflict.volumeKey + ":";
        std::string separator = " ";
        for (const auto& entry : conflict.hostsByUdid) {
            text += separator + entry.first + " on " + joined(entry.second);
            separator = "; ";
        }
        text += "\n";
    }
    return out.finish();
}

namespace {

// One element of a top-level array, dumped on its own and indented to its place, appended to the
// text: the whole document of a large fleet would take many times the memory of its text.
void appendElement(std::string& text, bool& first, const ordered_json& element)
{
    text += first ? "\n    " : ",\n    ";
    first = false;
    std::string dump = jsonString(element);
    dump.pop_back();
    for (char c : dump) {
        text += c;
        if (c == '\n') {
            text += "    ";
        }
    }
}

// `value` as jsonString writes a string: as it stands when it is printable ASCII without a quote
// or a backslash, through the serializer otherwise (escapes, bytes that are not UTF-8).
void appendJsonString(std::string& text, const std::string& value)
{
    for (const char c : value) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x80 || c == '"' || c == '\\') {
            text +=
                ordered_json(value).dump(-1, ' ', false, ordered_json::error_handler_t::replace);
            return;
        }
    }
    text += '"';
    text += value;
    text += '"';
}

void closeArray(std::string& text, bool empty)
{
    text += empty ? "]" : "\n  ]";
}

}  // namespace

std::string formatFleetJson(const CFleetView& fleet, const TextWriter& write)
{
    PiecewiseText out(write);
    out.text() = "{\n  \"hosts\": " + std::to_string(fleet.hosts()) + ",\n  \"shared\": [";
    bool first = true;
    // The shared volumes are most of a fleet's output: written here as appendElement would
    // write them, without a document for each.
    fleet.visitShared([&](const CFleetView::SharedVolume& volume) {
        std::string& text = out.text();
        text += first ? "\n    {\n      \"udid\": " : ",\n    {\n      \"udid\": ";
        first = false;
        appendJsonString(text, volume.udid);
        text += ",\n      \"hosts\": [";
        for (size_t i = 0; i < volume.sightings.size(); ++i) {
            const CFleetView::Sighting& sighting = volume.sightings[i];
            text += i ? ",\n        {\n          \"host\": " : "\n        {\n          \"host\": ";
            appendJsonString(text, sighting.host);
            text += ",\n          \"machine_id\": ";
            if (sighting.machineId.empty()) {
                text += "null";
            } else {
                appendJsonString(text, sighting.machineId);
            }
            text += ",\n          \"device_names\": [";
            for (size_t n = 0; n < sighting.deviceNames.size(); ++n) {
                text += n ? ",\n            " : "\n            ";
                appendJsonString(text, sighting.deviceNames[n]);
            }
            text += sighting.deviceNames.empty() ? "]\n        }" : "\n          ]\n        }";
        }
        text += volume.sightings.empty() ? "]\n    }" : "\n      ]\n    }";
    });
    closeArray(out.text(), first);
    out.text() += ",\n  \"conflicts\": [";
    first = true;
    for (const CFleetView::Conflict& conflict : fleet.conflicts()) {
        ordered_json udids = ordered_json::array();
        for (const auto& entry : conflict.hostsByUdid) {
            udids.push_back({{"udid", entry.first}, {"hosts", entry.second}});
        }
        appendElement(out.text(), first, {{"volume", conflict.volumeKey}, {"udids", udids}});
    }
    closeArray(out.text(), first);
    out.text() += "\n}\n";
    return out.finish();
}

}  // namespace scsitool_cli
