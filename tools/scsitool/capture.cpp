// SPDX-License-Identifier: Apache-2.0
// `scsitool capture`: this host's SCSI view written as a snapshot that the simulated host
// replays. Everything is read through the system interface, so a capture made while a snapshot
// is replayed reproduces that snapshot.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>

#include "capture_parts.h"
#include "commands.h"
#include "compare.h"
#include "device_udid_factory.h"
#include "digest.h"
#include "errors.h"
#include "fi_system.h"
#include "map_view.h"
#include "output_file.h"
#include "progress.h"
#include "simhost.h"
#include "stringtool.h"

namespace scsitool_cli {

namespace capture {

using kzfi_pdk_4_4::fiSystem;

bool readText(const std::string& path, std::string& text)
{
    FILE* file = fiSystem().fopen(path.c_str(), "r");
    if (file == nullptr) {
        return false;
    }
    text.clear();
    char buffer[4096];
    size_t count;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
        text.append(buffer, count);
    }
    std::fclose(file);
    return true;
}

std::string firstLine(const std::string& text)
{
    std::string line = text.substr(0, text.find('\n'));
    while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back()))) {
        line.pop_back();
    }
    return line;
}

std::vector<std::string> listDirectory(const std::string& path)
{
    std::vector<std::string> names;
    void* dir = fiSystem().opendir(path.c_str());
    if (dir == nullptr) {
        return names;
    }
    while (struct dirent* entry = fiSystem().readdir(dir)) {
        std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    fiSystem().closedir(dir);
    return names;
}

bool isNumber(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace capture

namespace {

using namespace capture;

// Executables whose presence changes what the library does.
const char* const kExecutables[] = {"/sbin/iscsiadm", "/sbin/powermt", "/bin/rescan-scsi-bus.sh",
                                    "/sbin/multipath", "/sbin/pidof"};
const char* const kInitiatorFile = "/etc/iscsi/initiatorname.iscsi";
const char* const kMachineIdFile = "/etc/machine-id";

void captureHost(Session& session, simhost::SimHost& snapshot)
{
    std::string name;
    if (kzfi_pdk_4_4::fiHostName(name)) {
        snapshot.setHostname(name);
    } else {
        snapshot.setHostnameFails();
    }
    struct utsname uts;
    if (fiSystem().uname(&uts) == 0) {
        snapshot.setKernelRelease(uts.release);
    }
    struct stat st;
    snapshot.setProcScsi(fiSystem().stat("/proc/scsi/scsi", &st) == 0);

    Identities identities = captureDisks(session, snapshot);
    capturePseudoDevices(session, snapshot, identities);
    captureAdapters(snapshot);
    // The files are kept so that a capture of the replayed snapshot records them again.
    for (const char* path : {kInitiatorFile, kMachineIdFile}) {
        std::string text;
        if (readText(path, text)) {
            snapshot.addFile(path, text);
        }
    }
    for (const char* path : kExecutables) {
        if (fiSystem().access(path, X_OK) == 0) {
            snapshot.addExecutable(path);
        }
    }
}

}  // namespace

namespace {

// "2026-11-22T21:50:00Z": now, or SOURCE_DATE_EPOCH when set, for captures that compare equal.
std::string captureTime()
{
    time_t now = std::time(nullptr);
    if (const char* epoch = std::getenv("SOURCE_DATE_EPOCH")) {
        now = static_cast<time_t>(std::strtoll(epoch, nullptr, 10));
    }
    struct tm utc;
    gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

void replaceAll(std::string& text, const std::string& from, const std::string& to)
{
    if (from.empty()) {
        return;
    }
    for (size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

// A pseudonym of `value`: hexadecimal digits of a digest of the kind of name, the machine id and
// the value. The same host anonymises the same way every time, so its captures still diff; two
// hosts get different ones even when they share a name ("localhost"). The machine id, which never
// leaves the host, keeps a pseudonym from being guessed back from a list of likely names.
std::string pseudonym(const char* kind, const std::string& machineId, const std::string& value,
                      size_t digits)
{
    return sha256Hex(std::string(kind) + "\n" + machineId + "\n" + value).substr(0, digits);
}

// The names that identify the customer's host, each with its pseudonym: the host name (also
// upper-case, as host-local UDIDs hold it), the machine id, the iSCSI initiator name and the FC
// port names (their 16 hexadecimal digits, in either case). Longer names are replaced first, so
// that a name inside another (the host name in the initiator name) takes the other's pseudonym.
std::vector<std::pair<std::string, std::string>> standIns(const simhost::SimHost& snapshot,
                                                          const std::string& machineId)
{
    std::vector<std::pair<std::string, std::string>> names;
    std::string name;
    if (kzfi_pdk_4_4::fiHostName(name) && !name.empty()) {
        const std::string host =
            "host-" + pseudonym("host", machineId, name, 16) + ".example.invalid";
        names.emplace_back(name, host);
        names.emplace_back(CStringTool::tostrupper(name), CStringTool::tostrupper(host));
    }
    if (!machineId.empty()) {
        names.emplace_back(machineId, pseudonym("machine-id", machineId, machineId, 32));
    }
    std::string initiator;
    if (snapshot.fileText(kInitiatorFile, initiator)) {
        size_t at = initiator.find("InitiatorName=");
        if (at != std::string::npos) {
            const std::string iqn = firstLine(initiator.substr(at + 14));
            names.emplace_back(
                iqn, "iqn.2000-01.invalid.example:" + pseudonym("iqn", machineId, iqn, 16));
        }
    }
    for (const simhost::SimAdapter& adapter : snapshot.adapters()) {
        std::string digits = adapter.portName;
        if (digits.compare(0, 2, "0x") == 0) {
            digits = digits.substr(2);
        }
        if (digits.size() == 16) {
            std::string lower = digits, upper = digits;
            std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
            std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
            // NAA 2 port names, as most adapters have.
            const std::string standIn = "2" + pseudonym("port", machineId, lower, 15);
            names.emplace_back(lower, standIn);
            names.emplace_back(upper, CStringTool::tostrupper(standIn));
        }
    }
    std::stable_sort(names.begin(), names.end(),
                     [](const auto& a, const auto& b) { return a.first.size() > b.first.size(); });
    return names;
}

}  // namespace

std::string runCapture(Session& session, const std::string& file, bool anonymise)
{
    std::string text;
    {
        ProgressLine progress("capturing the host");
        simhost::SimHost snapshot;
        captureHost(session, snapshot);
        // The map as this host gives it, for verify.
        const std::string machineId = machineIdOfInstalledHost();
        const std::string time = captureTime();
        nlohmann::ordered_json origin;
        origin["scsitool_version"] = SCSITOOL_VERSION;
        origin["time"] = time;
        origin["anonymised"] = anonymise;
        origin["machine_id"] = machineId;
        // The capture's own id: a digest of the host, the time and what was captured, so that a
        // capture is known again whatever its file is called, and two captures differ unless they
        // hold the same host at the same second in the same state.
        origin["capture_id"] =
            sha256Hex(machineId + "\n" + time + "\n" + snapshot.toJson()).substr(0, 32);
        origin["map"] = nlohmann::ordered_json::parse(
            formatMapRowsJson(readMap(session, false, false, false, false)));
        snapshot.setCapture(origin.dump());
        text = snapshot.toJson();
        if (anonymise) {
            for (const auto& name : standIns(snapshot, machineId)) {
                replaceAll(text, name.first, name.second);
            }
        }
    }
    if (!text.empty() && text.back() != '\n') {
        text += '\n';
    }
    if (file == "-") {
        return text;
    }
    writeFileInPlace(file, text, "cannot write the snapshot");
    return "";
}

}  // namespace scsitool_cli
