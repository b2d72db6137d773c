// SPDX-License-Identifier: Apache-2.0
// `scsitool verify CAPTURE`: the capture replayed gives the map recorded when it was taken.
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "commands.h"
#include "compare.h"
#include "device_udid_factory.h"
#include "errors.h"
#include "map_view.h"

namespace scsitool_cli {

namespace {

using json = nlohmann::ordered_json;

std::map<std::string, json> byDevice(const json& map)
{
    std::map<std::string, json> entries;
    for (const json& entry : map) {
        if (entry.is_object() && entry.contains("DeviceName") && entry["DeviceName"].is_string()) {
            entries[entry["DeviceName"].get<std::string>()] = entry;
        }
    }
    return entries;
}

}  // namespace

std::string runVerify(Session& session, const std::string& file, bool& same)
{
    // The session loaded the file as its host already: it is JSON.
    std::ifstream in(file, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    const json root = json::parse(text.str(), nullptr, false);
    if (!root.is_object() || !root.contains("capture") || !root["capture"].contains("map") ||
        !root["capture"]["map"].is_array()) {
        throw CommandError(kExitBadInput,
                           file + ": no recorded map: the snapshot was not written by capture");
    }
    // What is compared: the capture as it was recorded, and this build's replay of it.
    const std::string context =
        "recorded: " + describeSide(installedSide(file, root["capture"].dump())) + "\n" +
        "replayed: by scsitool " SCSITOOL_VERSION "\n";
    const json replayed =
        json::parse(formatMapRowsJson(readMap(session, false, false, false, false)));

    const std::map<std::string, json> recorded = byDevice(root["capture"]["map"]);
    const std::map<std::string, json> now = byDevice(replayed);
    std::set<std::string> names;
    for (const auto& entry : recorded) {
        names.insert(entry.first);
    }
    for (const auto& entry : now) {
        names.insert(entry.first);
    }
    std::string differences;
    for (const std::string& name : names) {
        auto before = recorded.find(name), after = now.find(name);
        if (after == now.end()) {
            differences += name + ": recorded, not in the replay\n";
        } else if (before == recorded.end()) {
            differences += name + ": in the replay, not recorded\n";
        } else {
            for (auto field = after->second.begin(); field != after->second.end(); ++field) {
                const json& old =
                    before->second.contains(field.key()) ? before->second[field.key()] : json();
                if (old != field.value()) {
                    differences += name + ": " + field.key() + " recorded " + old.dump() +
                                   ", replayed " + field.value().dump() + "\n";
                }
            }
        }
    }
    same = differences.empty();
    if (same) {
        return context + "the replay gives the recorded map: " + std::to_string(names.size()) +
               " devices\n";
    }
    return context + differences;
}

}  // namespace scsitool_cli
