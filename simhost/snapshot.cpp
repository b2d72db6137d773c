// SPDX-License-Identifier: Apache-2.0
// Host snapshots: loading a host from its JSON description and writing one back.
#include <errno.h>
#include <fcntl.h>
#include <simdjson.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <set>
#include <string_view>

#include "simhost.h"
#include "simhost_state.h"

namespace simhost {

namespace {

using simdjson::dom::element;

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

// A snapshot is read as a document in which an object is a map: its members in key order, one
// per key, the last one written where a key is repeated. So the member a message names is the
// same whatever order a person wrote the members in.
typedef std::vector<std::pair<std::string_view, element>> Members;

Members membersOf(simdjson::dom::object object)
{
    Members members;
    members.reserve(object.size());
    for (simdjson::dom::key_value_pair member : object) {
        members.emplace_back(member.key, member.value);
    }
    const auto byKey = [](const Members::value_type& a, const Members::value_type& b) {
        return a.first < b.first;
    };
    if (members.size() > 32) {
        std::stable_sort(members.begin(), members.end(), byKey);
    } else {
        // The few members of a device or an adapter: an insertion sort, stable too, without the
        // buffer the library's stable sort takes.
        for (size_t i = 1; i < members.size(); ++i) {
            for (size_t j = i; j > 0 && byKey(members[j], members[j - 1]); --j) {
                std::swap(members[j], members[j - 1]);
            }
        }
    }
    // Of equal keys the last one stays.
    size_t kept = 0;
    for (size_t i = 0; i < members.size(); ++i) {
        if (i + 1 < members.size() && members[i + 1].first == members[i].first) {
            continue;
        }
        members[kept++] = members[i];
    }
    members.resize(kept);
    return members;
}

// The elements of an array the loader has seen to be one.
std::vector<element> elementsOf(element list)
{
    std::vector<element> elements;
    simdjson::dom::array array;
    if (list.get(array) == simdjson::SUCCESS) {
        for (element value : array) {
            elements.push_back(value);
        }
    }
    return elements;
}

bool isInteger(element value)
{
    return value.is_int64() || value.is_uint64();
}

// An integer as a signed 64-bit number: one beyond its range wraps to a negative one, which no
// range of the snapshot takes.
long long integerOf(element value)
{
    if (value.is_uint64()) {
        return static_cast<long long>(value.get_uint64().value_unsafe());
    }
    return value.get_int64().value_unsafe();
}

std::string stringOf(element value)
{
    return std::string(value.get_string().value_unsafe());
}

// A value as the loader's messages quote it ("unsupported format \"1\" (expected 1)"): the compact
// form of nlohmann's serializer, which orders an object's keys.
std::string quoted(element value)
{
    return nlohmann::json::parse(simdjson::minify(value)).dump();
}

// Reads the members of one JSON object, rejecting what it does not know.
class Fields {
public:
    Fields(element value, const std::string& path) : m_path(path)
    {
        simdjson::dom::object object;
        if (value.get(object) != simdjson::SUCCESS) {
            fail(path, "expected an object");
        }
        m_members = membersOf(object);
        m_known.assign(m_members.size(), false);
    }
    ~Fields() noexcept(false)
    {
        if (std::uncaught_exceptions()) {
            return;
        }
        for (size_t i = 0; i < m_members.size(); ++i) {
            if (!m_known[i]) {
                fail(at(std::string(m_members[i].first)), "unknown field");
            }
        }
    }
    std::string at(const std::string& key) const
    {
        return m_path.empty() ? key : m_path + "." + key;
    }
    const Members& members() const { return m_members; }
    // `key`'s value, or null; the member is not marked as read.
    const element* find(std::string_view key) const
    {
        const size_t index = indexOf(key);
        return index < m_members.size() ? &m_members[index].second : nullptr;
    }
    const element* get(const std::string& key, bool required)
    {
        const size_t index = indexOf(key);
        if (index == m_members.size()) {
            if (required) {
                fail(at(key), "missing");
            }
            return nullptr;
        }
        m_known[index] = true;
        return &m_members[index].second;
    }
    std::string string(const std::string& key, bool required, const std::string& fallback = "")
    {
        const element* value = get(key, required);
        if (!value) {
            return fallback;
        }
        if (!value->is_string()) {
            fail(at(key), "expected a string");
        }
        return stringOf(*value);
    }
    bool boolean(const std::string& key, bool required, bool fallback = false)
    {
        const element* value = get(key, required);
        if (!value) {
            return fallback;
        }
        if (!value->is_bool()) {
            fail(at(key), "expected true or false");
        }
        return value->get_bool().value_unsafe();
    }
    long long integer(const std::string& key, bool required, long long low, long long high,
                      long long fallback = 0)
    {
        const element* value = get(key, required);
        if (!value) {
            return fallback;
        }
        return integerValue(*value, at(key), low, high);
    }
    static bool inRange(element value, long long low, long long high)
    {
        return isInteger(value) && integerOf(value) >= low && integerOf(value) <= high;
    }
    [[noreturn]] static void outOfRange(const std::string& path, long long low, long long high)
    {
        fail(path,
             "expected an integer from " + std::to_string(low) + " to " + std::to_string(high));
    }
    static long long integerValue(element value, const std::string& path, long long low,
                                  long long high)
    {
        if (!inRange(value, low, high)) {
            outOfRange(path, low, high);
        }
        return integerOf(value);
    }
    // A person's words on what the object is for ("note": "the dead path the rescan removes"):
    // checked to be text and otherwise ignored, so a capture never writes one back.
    void note() { string("note", false); }
    std::vector<std::string> strings(const std::string& key)
    {
        std::vector<std::string> result;
        const element* value = get(key, false);
        if (!value) {
            return result;
        }
        if (!value->is_array()) {
            fail(at(key), "expected a list of strings");
        }
        const std::vector<element> items = elementsOf(*value);
        for (size_t i = 0; i < items.size(); ++i) {
            if (!items[i].is_string()) {
                fail(at(key) + "[" + std::to_string(i) + "]", "expected a string");
            }
            result.push_back(stringOf(items[i]));
        }
        return result;
    }

private:
    size_t indexOf(std::string_view key) const
    {
        const auto found = std::lower_bound(
            m_members.begin(), m_members.end(), key,
            [](const Members::value_type& member, std::string_view k) { return member.first < k; });
        return found != m_members.end() && found->first == key
                   ? static_cast<size_t>(found - m_members.begin())
                   : m_members.size();
    }

    std::string m_path;
    Members m_members;
    std::vector<bool> m_known;
};

Bytes hexField(Fields& fields, const std::string& key, bool required, bool& present)
{
    Bytes bytes;
    const element* value = fields.get(key, required);
    present = value != nullptr;
    if (!value) {
        return bytes;
    }
    if (!value->is_string()) {
        fail(fields.at(key), "expected a string of hexadecimal bytes");
    }
    if (!parseHex(value->get_string().value_unsafe(), bytes)) {
        fail(fields.at(key), "not hexadecimal");
    }
    return bytes;
}

std::vector<element> listField(const Fields& root, const std::string& key)
{
    const element* found = root.find(key);
    if (!found) {
        return std::vector<element>();
    }
    if (!found->is_array()) {
        fail(key, "expected a list");
    }
    return elementsOf(*found);
}

// The members of an object that maps names to values ("files", "commands"), in key order.
Members objectField(const element* value, const std::string& key, const std::string& expected)
{
    simdjson::dom::object object;
    if (value->get(object) != simdjson::SUCCESS) {
        fail(key, expected);
    }
    return membersOf(object);
}

std::string addressText(const SimDevice& device)
{
    return std::to_string(device.host) + ":" + std::to_string(device.channel) + ":" +
           std::to_string(device.id) + ":" + std::to_string(device.lun);
}

// Fields rejects unknown members from its destructor, so it must not outlive a return value:
// an exception thrown after the value is built would leave the value undestroyed.
void readDeviceFields(element value, const std::string& path, SimDevice& device)
{
    Fields fields(value, path);
    fields.note();
    device.name = fields.string("name", true);
    if (device.name.empty() || device.name.find('/') != std::string::npos) {
        fail(fields.at("name"), "expected a device name such as sdc");
    }
    const element* address = fields.get("address", true);
    simdjson::dom::array parts;
    if (address->get(parts) != simdjson::SUCCESS || parts.size() != 4) {
        fail(fields.at("address"), "expected [host, channel, id, lun]");
    }
    int* numbers[] = {&device.host, &device.channel, &device.id, &device.lun};
    size_t i = 0;
    for (element part : parts) {
        if (!Fields::inRange(part, 0, 65535)) {
            Fields::outOfRange(fields.at("address") + "[" + std::to_string(i) + "]", 0, 65535);
        }
        *numbers[i++] = static_cast<int>(integerOf(part));
    }
    bool present;
    device.inquiry = hexField(fields, "inquiry", true, present);
    if (const element* pages = fields.get("vpd", false)) {
        if (!pages->is_object()) {
            fail(fields.at("vpd"), "expected an object of pages");
        }
        Fields pageFields(*pages, fields.at("vpd"));
        for (const auto& page : pageFields.members()) {
            const std::string key(page.first);
            Bytes code;
            // Two digits make one byte; blanks, which the hex of a page may hold, make none.
            if (key.size() != 2 || !parseHex(key, code) || code.size() != 1) {
                fail(fields.at("vpd") + "." + key, "page code must be two hexadecimal digits");
            }
            device.vpd[code[0]] = hexField(pageFields, key, true, present);
        }
    }
    device.vendorCommand = hexField(fields, "vendor_command", false, device.hasVendorCommand);
    std::string state = fields.string("state", false, "running");
    bool known = false;
    for (size_t k = 0; k < sizeof kStateNames / sizeof kStateNames[0]; ++k) {
        if (state == kStateNames[k]) {
            device.state = static_cast<DeviceState>(k);
            known = true;
        }
    }
    if (!known) {
        fail(fields.at("state"),
             "unknown state \"" + state +
                 "\" (expected running, latent, unresponsive, gone or removed)");
    }
    device.partitions = fields.strings("partitions");
    for (size_t k = 0; k < device.partitions.size(); ++k) {
        const std::string& partition = device.partitions[k];
        if (partition.compare(0, device.name.size(), device.name) != 0 ||
            partition.size() == device.name.size() ||
            partition.find_first_not_of("0123456789", device.name.size()) != std::string::npos) {
            fail(fields.at("partitions") + "[" + std::to_string(k) + "]",
                 partition + " is not a partition of " + device.name);
        }
    }
    device.blocks = static_cast<unsigned long long>(
        fields.integer("blocks", false, 0, 1LL << 50, static_cast<long long>(device.blocks)));
    device.vanishAtOpen = static_cast<int>(fields.integer("vanish_at_open", false, 0, 1000000));
    device.vanishAtIoctl = static_cast<int>(fields.integer("vanish_at_ioctl", false, 0, 1000000));
    device.failingIoctls = fields.strings("failing_ioctls");
    for (size_t k = 0; k < device.failingIoctls.size(); ++k) {
        const std::string& kind = device.failingIoctls[k];
        if (kind != "SEND_COMMAND" && kind != "GET_IDLUN" && kind != "SG_IO") {
            fail(fields.at("failing_ioctls") + "[" + std::to_string(k) + "]",
                 "unknown ioctl \"" + kind + "\" (expected SEND_COMMAND, GET_IDLUN or SG_IO)");
        }
    }
}

std::vector<SimPseudoDevice> readPseudoDevices(const Fields& root, const std::string& key,
                                               const SimHost::State& state)
{
    std::vector<SimPseudoDevice> result;
    std::set<std::string> names;
    const std::vector<element> list = listField(root, key);
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
        result.push_back(std::move(pseudo));
    }
    return result;
}

// A map of absolute paths to text ("files", "kernel_files").
void readPathTexts(const element* value, const std::string& key, const std::string& expected,
                   std::map<std::string, std::string>& texts)
{
    for (const auto& member : objectField(value, key, expected)) {
        const std::string name(member.first);
        const std::string path = key + "[\"" + name + "\"]";
        if (name.empty() || name[0] != '/') {
            fail(path, "not an absolute path");
        }
        if (!member.second.is_string()) {
            fail(path, "expected a string");
        }
        texts[normalizePath(name)] = stringOf(member.second);
    }
}

// Reads the host into `state`; `capture` becomes the capture record when there is one.
void readHost(element root, SimHost::State& state, std::optional<simdjson::dom::object>& capture)
{
    Fields fields(root, "");
    fields.note();
    const element* format = fields.get("format", true);
    if (!isInteger(*format) || integerOf(*format) != 1) {
        fail("format", "unsupported format " + quoted(*format) + " (expected 1)");
    }
    const element* hostname = fields.get("hostname", true);
    if (hostname->is_null()) {
        state.hostnameFails = true;
    } else if (hostname->is_string()) {
        state.hostname = stringOf(*hostname);
    } else {
        fail("hostname", "expected a string or null");
    }
    state.release = fields.string("kernel_release", true);
    state.procScsi = fields.boolean("proc_scsi", true);

    fields.get("devices", true);
    const std::vector<element> devices = listField(fields, "devices");
    std::set<std::string> names;
    std::set<std::string> addresses;
    for (size_t i = 0; i < devices.size(); ++i) {
        const std::string path = "devices[" + std::to_string(i) + "]";
        SimDevice device;
        readDeviceFields(devices[i], path, device);
        if (!names.insert(device.name).second) {
            fail(path + ".name", "duplicate device name " + device.name);
        }
        const std::string address = addressText(device);
        if (!addresses.insert(address).second) {
            fail(path + ".address", "duplicate address " + address);
        }
        state.devices.push_back(std::move(device));
    }
    // Where a capture came from; the host model does not use it.
    if (const element* record = fields.get("capture", false)) {
        simdjson::dom::object object;
        if (record->get(object) != simdjson::SUCCESS) {
            fail("capture", "expected an object");
        }
        capture = object;
        // Its text is made when it is first asked for: a fleet that replays thousands of
        // captures asks only for two of its strings.
    }
    fields.get("multipath_maps", false);
    state.maps = readPseudoDevices(fields, "multipath_maps", state);
    fields.get("powerpath", false);
    state.powerpath = readPseudoDevices(fields, "powerpath", state);
    state.deviceMapper = fields.boolean("device_mapper", false, !state.maps.empty());

    const std::vector<element> adapters = listField(fields, "adapters");
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
        state.adapters.push_back(std::move(adapter));
    }

    if (const element* files = fields.get("files", false)) {
        readPathTexts(files, "files", "expected an object of path: content", state.files);
    }
    if (const element* texts = fields.get("kernel_files", false)) {
        readPathTexts(texts, "kernel_files", "expected an object of path: text", state.kernelFiles);
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
    if (const element* commands = fields.get("commands", false)) {
        for (const auto& command :
             objectField(commands, "commands", "expected an object of command line: answer")) {
            const std::string line(command.first);
            Fields answer(command.second, "commands[\"" + line + "\"]");
            answer.note();
            SimCommandScript script;
            script.exitCode = static_cast<int>(
                answer.integer("exit", false, 0, kzfi_pdk_4_4::FI_EXEC_NOT_STARTED));
            script.output = answer.strings("output");
            state.commands[line] = std::move(script);
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

// How deep `text`'s arrays and objects nest, strings aside.
size_t nestingOf(const std::string& text)
{
    size_t depth = 0;
    size_t deepest = 0;
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return deepest;
}

// How deep a text that only nlohmann's parser takes may nest.
const size_t kDeepestRewritten = 10000;

// `text` as the parser reads it: followed by blanks it may read past the end (a tool that checks
// every byte read finds them written).
simdjson::padded_string_view padded(std::string& text)
{
    const size_t size = text.size();
    text.append(simdjson::SIMDJSON_PADDING, ' ');
    text.resize(size);
    return simdjson::padded_string_view(text.data(), text.size(), text.capacity());
}

// `text` parsed as deep as it nests.
simdjson::error_code deepParse(std::string& text, simdjson::dom::parser& parser, element& root)
{
    const size_t depth = std::max<size_t>(nestingOf(text), simdjson::DEFAULT_MAX_DEPTH) + 1;
    simdjson::error_code code = parser.allocate(text.size(), depth);
    if (code == simdjson::SUCCESS) {
        code = parser.parse(padded(text)).get(root);
    }
    return code;
}

// The document the loader reads, parsed into `parser`. Snapshots were always read as nlohmann's
// parser reads them, which takes a few texts simdjson's parser does not (a byte-order mark, what
// follows a NUL byte, integers beyond 64 bits, nesting deeper than 1024): such a text is read as
// nlohmann's parser reads it and given to simdjson's as that parser writes it back, and a text
// neither parser takes is rejected with nlohmann's words, the words snapshots were always
// rejected with. `source` becomes the text the document was parsed from.
bool parseSnapshot(std::shared_ptr<std::string>& source, simdjson::dom::parser& parser,
                   element& root, std::string& error)
{
    std::string& text = *source;
    simdjson::error_code code = parser.parse(padded(text)).get(root);
    if (code == simdjson::DEPTH_ERROR) {
        code = deepParse(text, parser, root);
    }
    if (code == simdjson::SUCCESS) {
        return true;
    }
    nlohmann::json document;
    try {
        document = nlohmann::json::parse(text);
    } catch (const nlohmann::json::exception& parseError) {
        error = "not JSON: " + parserMessage(parseError);
        return false;
    }
    // The serializer recurses once per level of nesting.
    if (nestingOf(text) > kDeepestRewritten) {
        error = "not JSON: nested deeper than " + std::to_string(kDeepestRewritten) + " levels";
        return false;
    }
    source = std::make_shared<std::string>(document.dump());
    code = deepParse(*source, parser, root);
    if (code != simdjson::SUCCESS) {
        error = std::string("not JSON: ") + simdjson::error_message(code);
        return false;
    }
    return true;
}

// Parses and checks a snapshot into `state`; false with one message in `error` otherwise.
bool load(std::shared_ptr<std::string> source, const std::string& origin, SimHost::State& state,
          std::string& error)
{
    const std::string prefix = origin.empty() ? "" : origin + ": ";
    // One parser per thread, its buffers kept from one snapshot to the next; a parser that
    // grew for a deep document starts again at the usual depth.
    thread_local std::unique_ptr<simdjson::dom::parser> parser;
    if (!parser || parser->max_depth() > simdjson::DEFAULT_MAX_DEPTH) {
        parser.reset(new simdjson::dom::parser);
    }
    element root;
    std::optional<simdjson::dom::object> capture;
    if (!parseSnapshot(source, *parser, root, error)) {
        error = prefix + error;
        return false;
    }
    try {
        if (!root.is_object()) {
            fail("snapshot", "expected a JSON object");
        }
        readHost(root, state, capture);
    } catch (const SnapshotError& bad) {
        error = prefix + bad.message;
        return false;
    }
    if (!capture) {
        return true;
    }
    // The record's strings, read now (the document is the parser's until the next snapshot);
    // its text from the snapshot's, when asked for.
    std::map<std::string, std::string> strings;
    for (const auto& member : membersOf(*capture)) {
        if (member.second.is_string()) {
            strings.emplace(std::string(member.first), stringOf(member.second));
        }
    }
    std::shared_ptr<const std::string> text = std::move(source);
    state.captureText = [text]() {
        const nlohmann::json root = nlohmann::json::parse(*text, nullptr, false);
        const auto found = root.is_object() ? root.find("capture") : root.end();
        return found != root.end() ? found->dump() : std::string();
    };
    state.captureString = [strings](const std::string& key) {
        const auto found = strings.find(key);
        return found == strings.end() ? std::string() : found->second;
    };
    return true;
}

// `key`'s string in `object`; "" when it is not there or not a string.
std::string stringOf(const nlohmann::json& object, const std::string& key)
{
    if (!object.is_object()) {
        return std::string();
    }
    const auto value = object.find(key);
    return value != object.end() && value->is_string() ? value->get<std::string>() : std::string();
}

}  // namespace

std::unique_ptr<SimHost> SimHost::fromJson(const std::string& text, std::string& error)
{
    std::unique_ptr<SimHost> host(new SimHost);
    if (!simhost::load(std::make_shared<std::string>(text), "", *host->m_state, error)) {
        return nullptr;
    }
    return host;
}

std::unique_ptr<SimHost> SimHost::fromFile(const std::string& path, std::string& error)
{
    // Read with plain POSIX calls so that the reason of a failure is errno's.
    std::shared_ptr<std::string> text = std::make_shared<std::string>();
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ssize_t got = fd < 0 ? -1 : 0;
    struct stat status;
    if (fd >= 0 && ::fstat(fd, &status) == 0 && status.st_size > 0) {
        // Room for the parser's padding too, so that the text is parsed where it was read.
        text->reserve(static_cast<size_t>(status.st_size) + simdjson::SIMDJSON_PADDING);
    }
    char buffer[65536];
    while (fd >= 0 && (got = ::read(fd, buffer, sizeof buffer)) > 0) {
        text->append(buffer, static_cast<size_t>(got));
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
    if (!simhost::load(std::move(text), path, *host->m_state, error)) {
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
    return stringOf(nlohmann::json::parse(m_state->capture, nullptr, false), key);
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
