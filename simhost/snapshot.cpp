// SPDX-License-Identifier: Apache-2.0
// Host snapshots: loading a host from its JSON description and writing one back.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "simhost.h"
#include "simhost_state.h"

namespace simhost {

namespace {

using nlohmann::json;

// The one message that rejects a snapshot.
struct SnapshotError {
    std::string message;
};

[[noreturn]] void fail(const std::string& path, const std::string& what)
{
    throw SnapshotError{path + ": " + what};
}

const char* const kStateNames[] = {"running", "latent",  "unresponsive",
                                   "gone",    "removed", "denied"};

// Reads the members of one JSON object, rejecting what it does not know.
class Fields {
public:
    Fields(const json& value, const std::string& path) : m_value(value), m_path(path)
    {
        if (!value.is_object()) {
            fail(path, "expected an object");
        }
    }
    ~Fields() noexcept(false)
    {
        if (std::uncaught_exceptions()) {
            return;
        }
        for (auto it = m_value.begin(); it != m_value.end(); ++it) {
            if (!m_known.count(it.key())) {
                fail(at(it.key()), "unknown field");
            }
        }
    }
    std::string at(const std::string& key) const
    {
        return m_path.empty() ? key : m_path + "." + key;
    }
    const json* get(const std::string& key, bool required)
    {
        m_known.insert(key);
        auto found = m_value.find(key);
        if (found == m_value.end()) {
            if (required) {
                fail(at(key), "missing");
            }
            return nullptr;
        }
        return &*found;
    }
    std::string string(const std::string& key, bool required, const std::string& fallback = "")
    {
        const json* value = get(key, required);
        if (!value) {
            return fallback;
        }
        if (!value->is_string()) {
            fail(at(key), "expected a string");
        }
        return value->get<std::string>();
    }
    bool boolean(const std::string& key, bool required, bool fallback = false)
    {
        const json* value = get(key, required);
        if (!value) {
            return fallback;
        }
        if (!value->is_boolean()) {
            fail(at(key), "expected true or false");
        }
        return value->get<bool>();
    }
    long long integer(const std::string& key, bool required, long long low, long long high,
                      long long fallback = 0)
    {
        const json* value = get(key, required);
        if (!value) {
            return fallback;
        }
        return integerValue(*value, at(key), low, high);
    }
    static long long integerValue(const json& value, const std::string& path, long long low,
                                  long long high)
    {
        if (!value.is_number_integer() || value.get<long long>() < low ||
            value.get<long long>() > high) {
            fail(path,
                 "expected an integer from " + std::to_string(low) + " to " + std::to_string(high));
        }
        return value.get<long long>();
    }
    // A person's words on what the object is for ("note": "the dead path the rescan removes"):
    // checked to be text and otherwise ignored, so a capture never writes one back.
    void note() { string("note", false); }
    std::vector<std::string> strings(const std::string& key)
    {
        std::vector<std::string> result;
        const json* value = get(key, false);
        if (!value) {
            return result;
        }
        if (!value->is_array()) {
            fail(at(key), "expected a list of strings");
        }
        for (size_t i = 0; i < value->size(); ++i) {
            if (!(*value)[i].is_string()) {
                fail(at(key) + "[" + std::to_string(i) + "]", "expected a string");
            }
            result.push_back((*value)[i].get<std::string>());
        }
        return result;
    }

private:
    const json& m_value;
    std::string m_path;
    std::set<std::string> m_known;
};

Bytes hexField(Fields& fields, const std::string& key, bool required, bool& present)
{
    Bytes bytes;
    const json* value = fields.get(key, required);
    present = value != nullptr;
    if (!value) {
        return bytes;
    }
    if (!value->is_string()) {
        fail(fields.at(key), "expected a string of hexadecimal bytes");
    }
    if (!parseHex(value->get<std::string>(), bytes)) {
        fail(fields.at(key), "not hexadecimal");
    }
    return bytes;
}

const json& listField(const json& root, const std::string& key)
{
    static const json empty = json::array();
    auto found = root.find(key);
    if (found == root.end()) {
        return empty;
    }
    if (!found->is_array()) {
        fail(key, "expected a list");
    }
    return *found;
}

std::string addressText(const SimDevice& device)
{
    return std::to_string(device.host) + ":" + std::to_string(device.channel) + ":" +
           std::to_string(device.id) + ":" + std::to_string(device.lun);
}

// Fields rejects unknown members from its destructor, so it must not outlive a return value:
// an exception thrown after the value is built would leave the value undestroyed.
void readDeviceFields(const json& value, const std::string& path, SimDevice& device)
{
    Fields fields(value, path);
    fields.note();
    device.name = fields.string("name", true);
    if (device.name.empty() || device.name.find('/') != std::string::npos) {
        fail(fields.at("name"), "expected a device name such as sdc");
    }
    const json* address = fields.get("address", true);
    if (!address->is_array() || address->size() != 4) {
        fail(fields.at("address"), "expected [host, channel, id, lun]");
    }
    int* parts[] = {&device.host, &device.channel, &device.id, &device.lun};
    for (size_t i = 0; i < 4; ++i) {
        *parts[i] = static_cast<int>(Fields::integerValue(
            (*address)[i], fields.at("address") + "[" + std::to_string(i) + "]", 0, 65535));
    }
    bool present;
    device.inquiry = hexField(fields, "inquiry", true, present);
    if (const json* pages = fields.get("vpd", false)) {
        if (!pages->is_object()) {
            fail(fields.at("vpd"), "expected an object of pages");
        }
        Fields pageFields(*pages, fields.at("vpd"));
        for (auto it = pages->begin(); it != pages->end(); ++it) {
            Bytes code;
            if (it.key().size() != 2 || !parseHex(it.key(), code)) {
                fail(fields.at("vpd") + "." + it.key(), "page code must be two hexadecimal digits");
            }
            device.vpd[code[0]] = hexField(pageFields, it.key(), true, present);
        }
    }
    device.vendorCommand = hexField(fields, "vendor_command", false, device.hasVendorCommand);
    std::string state = fields.string("state", false, "running");
    bool known = false;
    for (size_t i = 0; i < sizeof kStateNames / sizeof kStateNames[0]; ++i) {
        if (state == kStateNames[i]) {
            device.state = static_cast<DeviceState>(i);
            known = true;
        }
    }
    if (!known) {
        fail(fields.at("state"),
             "unknown state \"" + state +
                 "\" (expected running, latent, unresponsive, gone or removed)");
    }
    device.partitions = fields.strings("partitions");
    for (size_t i = 0; i < device.partitions.size(); ++i) {
        const std::string& partition = device.partitions[i];
        if (partition.compare(0, device.name.size(), device.name) != 0 ||
            partition.size() == device.name.size() ||
            partition.find_first_not_of("0123456789", device.name.size()) != std::string::npos) {
            fail(fields.at("partitions") + "[" + std::to_string(i) + "]",
                 partition + " is not a partition of " + device.name);
        }
    }
    device.blocks = static_cast<unsigned long long>(
        fields.integer("blocks", false, 0, 1LL << 50, static_cast<long long>(device.blocks)));
    device.vanishAtOpen = static_cast<int>(fields.integer("vanish_at_open", false, 0, 1000000));
    device.vanishAtIoctl = static_cast<int>(fields.integer("vanish_at_ioctl", false, 0, 1000000));
    device.failingIoctls = fields.strings("failing_ioctls");
    for (size_t i = 0; i < device.failingIoctls.size(); ++i) {
        const std::string& kind = device.failingIoctls[i];
        if (kind != "SEND_COMMAND" && kind != "GET_IDLUN" && kind != "SG_IO") {
            fail(fields.at("failing_ioctls") + "[" + std::to_string(i) + "]",
                 "unknown ioctl \"" + kind + "\" (expected SEND_COMMAND, GET_IDLUN or SG_IO)");
        }
    }
}

SimDevice readDevice(const json& value, const std::string& path)
{
    SimDevice device;
    readDeviceFields(value, path, device);
    return device;
}

std::vector<SimPseudoDevice> readPseudoDevices(const json& root, const std::string& key,
                                               const SimHost::State& state)
{
    std::vector<SimPseudoDevice> result;
    std::set<std::string> names;
    const json& list = listField(root, key);
    for (size_t i = 0; i < list.size(); ++i) {
        const std::string path = key + "[" + std::to_string(i) + "]";
        Fields fields(list[i], path);
        fields.note();
        SimPseudoDevice pseudo;
        pseudo.name = fields.string("name", true);
        pseudo.device = fields.string("device", true);
        if (pseudo.name.empty() || pseudo.name.find('/') != std::string::npos) {
            fail(fields.at("name"), "expected a node name");
        }
        if (!names.insert(pseudo.name).second) {
            fail(fields.at("name"), "duplicate name " + pseudo.name);
        }
        if (key == "powerpath" && state.find(pseudo.name)) {
            fail(fields.at("name"), "node /dev/" + pseudo.name + " is a device's node");
        }
        // "" for a node that fronts no device (an LVM or crypt map answers no SCSI command).
        if (!pseudo.device.empty() && !state.find(pseudo.device)) {
            fail(fields.at("device"), "unknown device " + pseudo.device);
        }
        result.push_back(pseudo);
    }
    return result;
}

void readHost(const json& root, SimHost::State& state)
{
    Fields fields(root, "");
    fields.note();
    const json* format = fields.get("format", true);
    if (!format->is_number_integer() || format->get<long long>() != 1) {
        fail("format", "unsupported format " + format->dump() + " (expected 1)");
    }
    const json* hostname = fields.get("hostname", true);
    if (hostname->is_null()) {
        state.hostnameFails = true;
    } else if (hostname->is_string()) {
        state.hostname = hostname->get<std::string>();
    } else {
        fail("hostname", "expected a string or null");
    }
    state.release = fields.string("kernel_release", true);
    state.procScsi = fields.boolean("proc_scsi", true);

    fields.get("devices", true);
    const json& devices = listField(root, "devices");
    std::map<std::string, size_t> names;
    std::map<std::string, size_t> addresses;
    for (size_t i = 0; i < devices.size(); ++i) {
        const std::string path = "devices[" + std::to_string(i) + "]";
        SimDevice device = readDevice(devices[i], path);
        if (!names.emplace(device.name, i).second) {
            fail(path + ".name", "duplicate device name " + device.name);
        }
        if (!addresses.emplace(addressText(device), i).second) {
            fail(path + ".address", "duplicate address " + addressText(device));
        }
        state.devices.push_back(device);
    }
    // Where a capture came from; the host model does not use it.
    if (const json* capture = fields.get("capture", false)) {
        if (!capture->is_object()) {
            fail("capture", "expected an object");
        }
        // Its text is made when it is first asked for (load keeps the object): a fleet that
        // replays thousands of captures asks only for two of its strings.
    }
    fields.get("multipath_maps", false);
    state.maps = readPseudoDevices(root, "multipath_maps", state);
    fields.get("powerpath", false);
    state.powerpath = readPseudoDevices(root, "powerpath", state);
    state.deviceMapper = fields.boolean("device_mapper", false, !state.maps.empty());

    const json& adapters = listField(root, "adapters");
    fields.get("adapters", false);
    std::set<int> hosts;
    for (size_t i = 0; i < adapters.size(); ++i) {
        Fields adapterFields(adapters[i], "adapters[" + std::to_string(i) + "]");
        adapterFields.note();
        SimAdapter adapter;
        adapter.host = static_cast<int>(adapterFields.integer("host", true, 0, 65535));
        adapter.driver = adapterFields.string("driver", true);
        if (adapter.driver.empty() || adapter.driver.find('/') != std::string::npos) {
            fail(adapterFields.at("driver"), "expected a driver name such as qla2xxx");
        }
        adapter.procText = adapterFields.string("proc_text", false);
        adapter.fcHost = adapterFields.boolean("fc_host", false);
        adapter.portName = adapterFields.string("port_name", false);
        adapter.portState = adapterFields.string("port_state", false);
        if (!hosts.insert(adapter.host).second) {
            fail(adapterFields.at("host"), "duplicate host " + std::to_string(adapter.host));
        }
        state.adapters.push_back(adapter);
    }

    if (const json* files = fields.get("files", false)) {
        if (!files->is_object()) {
            fail("files", "expected an object of path: content");
        }
        for (auto it = files->begin(); it != files->end(); ++it) {
            const std::string path = "files[\"" + it.key() + "\"]";
            if (it.key().empty() || it.key()[0] != '/') {
                fail(path, "not an absolute path");
            }
            if (!it->is_string()) {
                fail(path, "expected a string");
            }
            state.files[normalizePath(it.key())] = it->get<std::string>();
        }
    }
    if (const json* texts = fields.get("kernel_files", false)) {
        if (!texts->is_object()) {
            fail("kernel_files", "expected an object of path: text");
        }
        for (auto it = texts->begin(); it != texts->end(); ++it) {
            const std::string path = "kernel_files[\"" + it.key() + "\"]";
            if (it.key().empty() || it.key()[0] != '/') {
                fail(path, "not an absolute path");
            }
            if (!it->is_string()) {
                fail(path, "expected a string");
            }
            state.kernelFiles[normalizePath(it.key())] = it->get<std::string>();
        }
    }
    std::vector<std::string> inert = fields.strings("inert_files");
    for (size_t i = 0; i < inert.size(); ++i) {
        if (inert[i].empty() || inert[i][0] != '/') {
            fail("inert_files[" + std::to_string(i) + "]", "not an absolute path");
        }
        state.inertFiles.insert(normalizePath(inert[i]));
    }
    state.nextFd = static_cast<int>(fields.integer("next_descriptor", false, 0, 1 << 20, 3));
    std::vector<std::string> executables = fields.strings("executables");
    for (size_t i = 0; i < executables.size(); ++i) {
        if (executables[i].empty() || executables[i][0] != '/') {
            fail("executables[" + std::to_string(i) + "]", "not an absolute path");
        }
        state.executables.insert(normalizePath(executables[i]));
    }
    if (const json* commands = fields.get("commands", false)) {
        if (!commands->is_object()) {
            fail("commands", "expected an object of command line: answer");
        }
        for (auto it = commands->begin(); it != commands->end(); ++it) {
            const std::string path = "commands[\"" + it.key() + "\"]";
            Fields answer(*it, path);
            answer.note();
            SimCommandScript script;
            script.exitCode = static_cast<int>(
                answer.integer("exit", false, 0, kzfi_pdk_4_4::FI_EXEC_NOT_STARTED));
            script.output = answer.strings("output");
            state.commands[it.key()] = script;
        }
    }
}

std::string parserMessage(const std::exception& error)
{
    // "[json.exception.parse_error.101] parse error at line 1, ..." without its tag.
    std::string text = error.what();
    size_t tag = text.find("] ");
    return tag == std::string::npos ? text : text.substr(tag + 2);
}

// Parses and checks a snapshot into `state`; false with one message in `error` otherwise.
// `key`'s string in `object`; "" when it is not there or not a string.
std::string stringOf(const json& object, const std::string& key)
{
    if (!object.is_object()) {
        return std::string();
    }
    const auto value = object.find(key);
    return value != object.end() && value->is_string() ? value->get<std::string>() : std::string();
}

bool load(const std::string& text, const std::string& origin, SimHost::State& state,
          std::string& error)
{
    const std::string prefix = origin.empty() ? "" : origin + ": ";
    json root;
    try {
        root = json::parse(text);
    } catch (const json::exception& parseError) {
        error = prefix + "not JSON: " + parserMessage(parseError);
        return false;
    }
    try {
        if (!root.is_object()) {
            fail("snapshot", "expected a JSON object");
        }
        readHost(root, state);
    } catch (const SnapshotError& bad) {
        error = prefix + bad.message;
        return false;
    }
    const auto capture = root.find("capture");
    if (capture != root.end()) {
        const std::shared_ptr<const json> object = std::make_shared<json>(std::move(*capture));
        state.captureText = [object]() { return object->dump(); };
        state.captureString = [object](const std::string& key) { return stringOf(*object, key); };
    }
    return true;
}

}  // namespace

std::unique_ptr<SimHost> SimHost::fromJson(const std::string& text, std::string& error)
{
    std::unique_ptr<SimHost> host(new SimHost);
    if (!simhost::load(text, "", *host->m_state, error)) {
        return nullptr;
    }
    return host;
}

std::unique_ptr<SimHost> SimHost::fromFile(const std::string& path, std::string& error)
{
    // Read with plain POSIX calls so that the reason of a failure is errno's.
    std::string text;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ssize_t got = fd < 0 ? -1 : 0;
    char buffer[65536];
    while (fd >= 0 && (got = ::read(fd, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<size_t>(got));
    }
    const int reason = errno;
    if (fd >= 0) {
        ::close(fd);
    }
    if (got < 0) {
        error = "cannot read " + path + ": " + strerror(reason);
        return nullptr;
    }
    std::unique_ptr<SimHost> host(new SimHost);
    if (!simhost::load(text, path, *host->m_state, error)) {
        return nullptr;
    }
    return host;
}

void SimHost::setCapture(const std::string& json)
{
    m_state->capture = json;
    m_state->captureText = nullptr;
    m_state->captureString = nullptr;
}

std::string SimHost::capture() const
{
    if (m_state->captureText) {
        m_state->capture = m_state->captureText();
        m_state->captureText = nullptr;
    }
    return m_state->capture;
}

std::string SimHost::captureString(const std::string& key) const
{
    if (m_state->captureString) {
        return m_state->captureString(key);
    }
    return stringOf(json::parse(m_state->capture, nullptr, false), key);
}

std::string SimHost::toJson() const
{
    using ordered = nlohmann::ordered_json;
    const State& state = *m_state;
    ordered root;
    root["format"] = 1;
    root["hostname"] = state.hostnameFails ? ordered(nullptr) : ordered(state.hostname);
    root["kernel_release"] = state.release;
    root["proc_scsi"] = state.procScsi;
    root["device_mapper"] = state.deviceMapper;
    ordered devices = ordered::array();
    for (const SimDevice& device : state.devices) {
        ordered entry;
        entry["name"] = device.name;
        entry["address"] = {device.host, device.channel, device.id, device.lun};
        entry["state"] = kStateNames[static_cast<int>(device.state)];
        entry["inquiry"] = formatHex(device.inquiry);
        ordered pages = ordered::object();
        for (const auto& page : device.vpd) {
            char code[3];
            snprintf(code, sizeof code, "%02x", page.first & 0xff);
            pages[code] = formatHex(page.second);
        }
        entry["vpd"] = pages;
        if (device.hasVendorCommand) {
            entry["vendor_command"] = formatHex(device.vendorCommand);
        }
        if (!device.partitions.empty()) {
            entry["partitions"] = device.partitions;
        }
        entry["blocks"] = device.blocks;
        if (device.vanishAtOpen) {
            entry["vanish_at_open"] = device.vanishAtOpen;
        }
        if (device.vanishAtIoctl) {
            entry["vanish_at_ioctl"] = device.vanishAtIoctl;
        }
        if (!device.failingIoctls.empty()) {
            entry["failing_ioctls"] = device.failingIoctls;
        }
        devices.push_back(entry);
    }
    root["devices"] = devices;
    auto pseudo = [](const std::vector<SimPseudoDevice>& list) {
        ordered result = ordered::array();
        for (const SimPseudoDevice& entry : list) {
            result.push_back(ordered{{"name", entry.name}, {"device", entry.device}});
        }
        return result;
    };
    root["multipath_maps"] = pseudo(state.maps);
    root["powerpath"] = pseudo(state.powerpath);
    ordered adapters = ordered::array();
    for (const SimAdapter& adapter : state.adapters) {
        ordered entry;
        entry["host"] = adapter.host;
        entry["driver"] = adapter.driver;
        entry["proc_text"] = adapter.procText;
        entry["fc_host"] = adapter.fcHost;
        entry["port_name"] = adapter.portName;
        if (!adapter.portState.empty()) {
            entry["port_state"] = adapter.portState;
        }
        adapters.push_back(entry);
    }
    root["adapters"] = adapters;
    root["files"] = ordered::object();
    for (const auto& file : state.files) {
        root["files"][file.first] = file.second;
    }
    if (!state.kernelFiles.empty()) {
        root["kernel_files"] = state.kernelFiles;
    }
    if (!state.inertFiles.empty()) {
        root["inert_files"] =
            std::vector<std::string>(state.inertFiles.begin(), state.inertFiles.end());
    }
    if (state.nextFd != 3) {
        root["next_descriptor"] = state.nextFd;
    }
    root["executables"] =
        ordered(std::vector<std::string>(state.executables.begin(), state.executables.end()));
    root["commands"] = ordered::object();
    for (const auto& command : state.commands) {
        root["commands"][command.first] =
            ordered{{"exit", command.second.exitCode}, {"output", command.second.output}};
    }
    const std::string record = capture();
    if (!record.empty()) {
        root["capture"] = ordered::parse(record);
    }
    // Addresses on one line: "address": [3, 0, 0, 1].
    static const std::regex address(R"re("address": \[\s*(\d+),\s*(\d+),\s*(\d+),\s*(\d+)\s*\])re");
    return std::regex_replace(root.dump(2), address, "\"address\": [$1, $2, $3, $4]") + "\n";
}

}  // namespace simhost
