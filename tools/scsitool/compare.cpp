#include "compare.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "device_udid_factory.h"
#include "errors.h"
#include "explain_change.h"
#include "progress.h"
#include "simhost.h"

namespace scsitool_cli {

using ordered_json = nlohmann::ordered_json;
typedef CDeviceMapCompare::Finding Finding;

namespace {

const CDeviceMapCompare::Kind kKinds[] = {
    CDeviceMapCompare::Remapped, CDeviceMapCompare::IdentityChanged, CDeviceMapCompare::Moved,
    CDeviceMapCompare::Added, CDeviceMapCompare::Removed};

std::string joined(const std::vector<std::string>& items)
{
    std::string text;
    for (const std::string& item : items) {
        text += (text.empty() ? "" : ", ") + item;
    }
    return text;
}

ordered_json sideJson(const CDeviceMapCompare::Side& side)
{
    ordered_json object;
    object["device_names"] = side.deviceNames;
    object["addresses"] = side.addresses;
    object["udid"] = side.udid;
    return object;
}

std::string dumped(const ordered_json& value)
{
    return value.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

// The capture replayed on the simulated host; exit 2 with the loader's message when it is not one.
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

}  // namespace

SHostMap loadHostMap(Session& session, const std::string& capture)
{
    if (capture == "-") {
        ProgressLine progress("scanning devices");
        return CDeviceMapCompare::describeHost(session.factory());
    }
    std::unique_ptr<simhost::SimHost> host = loadCapture(capture);
    simhost::SimHostInstall install(*host);
    return CDeviceMapCompare::describeHost(session.factory());
}

namespace {

// A capture's native disks as fleet reads them: the disks the kernel lists, queried one by one.
SHostMap loadFleetHost(Session& session, const std::string& capture)
{
    std::unique_ptr<simhost::SimHost> host = loadCapture(capture);
    std::vector<std::string> disks;
    for (const simhost::SimDevice& device : host->devices()) {
        if (device.state != simhost::DeviceState::Latent &&
            device.state != simhost::DeviceState::Removed) {
            disks.push_back(device.name);
        }
    }
    simhost::SimHostInstall install(*host);
    return CDeviceMapCompare::describeDisks(session.factory(), disks);
}

}  // namespace

std::string runDiff(Session& session, const std::string& before, const std::string& after,
                    bool json, bool& differ)
{
    const SHostMap first = loadHostMap(session, before);
    const SHostMap second = loadHostMap(session, after);
    const std::vector<Finding> findings = CDeviceMapCompare::compare(first, second);
    differ = !findings.empty();
    const FindingExplainer explain = identityChangeExplainer(session, before, after);
    return json ? formatFindingsJson(findings, explain) : formatFindingsTable(findings, explain);
}

std::string runFleet(Session& session, const std::vector<std::string>& captures, bool json)
{
    if (captures.empty()) {
        throw CommandError(kExitBadInput, "fleet: no captures given");
    }
    CFleetView fleet;
    for (const std::string& capture : captures) {
        if (capture == "-") {
            throw CommandError(kExitBadInput, "fleet: takes capture files, not - (this host)");
        }
        SHostMap host = loadFleetHost(session, capture);
        if (host.hostName.empty()) {
            host.hostName = capture;  // a capture whose host had no name is known by its file
        }
        fleet.addHost(host);
    }
    return json ? formatFleetJson(fleet) : formatFleetTable(fleet);
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

std::string formatFindingsJson(const std::vector<Finding>& findings,
                               const FindingExplainer& explain)
{
    ordered_json object = ordered_json::object();
    for (CDeviceMapCompare::Kind kind : kKinds) {
        ordered_json entries = ordered_json::array();
        for (const Finding& finding : findings) {
            if (finding.kind == kind) {
                ordered_json entry;
                entry["subject"] = finding.subject;
                entry["before"] = sideJson(finding.before);
                entry["after"] = sideJson(finding.after);
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
    return dumped(object);
}

std::string formatFleetTable(const CFleetView& fleet)
{
    std::string text;
    fleet.visitShared([&](const CFleetView::SharedVolume& volume) {
        text += volume.udid + "\n";
        for (const CFleetView::Sighting& sighting : volume.sightings) {
            text += "  " + sighting.host + ": " + joined(sighting.deviceNames) + "\n";
        }
    });
    for (const CFleetView::Conflict& conflict : fleet.conflicts()) {
        text += "conflict " + conflict.volumeKey + ":";
        std::string separator = " ";
        for (const auto& entry : conflict.hostsByUdid) {
            text += separator + entry.first + " on " + joined(entry.second);
            separator = "; ";
        }
        text += "\n";
    }
    return text;
}

namespace {

// One element of a top-level array, dumped on its own and indented to its place, appended to the
// text: the whole document of a large fleet would take many times the memory of its text.
void appendElement(std::string& text, bool& first, const ordered_json& element)
{
    text += first ? "\n    " : ",\n    ";
    first = false;
    for (char c : element.dump(2, ' ', false, ordered_json::error_handler_t::replace)) {
        text += c;
        if (c == '\n') {
            text += "    ";
        }
    }
}

void closeArray(std::string& text, bool empty)
{
    text += empty ? "]" : "\n  ]";
}

}  // namespace

std::string formatFleetJson(const CFleetView& fleet)
{
    std::string text = "{\n  \"hosts\": " + std::to_string(fleet.hosts()) + ",\n  \"shared\": [";
    bool first = true;
    fleet.visitShared([&](const CFleetView::SharedVolume& volume) {
        ordered_json hosts = ordered_json::array();
        for (const CFleetView::Sighting& sighting : volume.sightings) {
            hosts.push_back({{"host", sighting.host}, {"device_names", sighting.deviceNames}});
        }
        appendElement(text, first, {{"udid", volume.udid}, {"hosts", hosts}});
    });
    closeArray(text, first);
    text += ",\n  \"conflicts\": [";
    first = true;
    for (const CFleetView::Conflict& conflict : fleet.conflicts()) {
        ordered_json udids = ordered_json::array();
        for (const auto& entry : conflict.hostsByUdid) {
            udids.push_back({{"udid", entry.first}, {"hosts", entry.second}});
        }
        appendElement(text, first, {{"volume", conflict.volumeKey}, {"udids", udids}});
    }
    closeArray(text, first);
    return text + "\n}\n";
}

}  // namespace scsitool_cli
