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
#include "device_udid_factory.h"
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

void captureHost(Session& session, simhost::SimHost& snapshot)
{
    char buffer[256] = {0};
    if (fiSystem().gethostname(buffer, sizeof buffer - 1) == 0) {
        snapshot.setHostname(buffer);
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
    std::string initiator;
    if (readText(kInitiatorFile, initiator)) {
        snapshot.addFile(kInitiatorFile, initiator);
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

// The names that identify the customer's host, each with its stand-in: the host name (also
// upper-case, as host-local UDIDs hold it), the iSCSI initiator name and the FC port names
// (their 16 hexadecimal digits, in either case).
std::vector<std::pair<std::string, std::string>> standIns(const simhost::SimHost& snapshot)
{
    std::vector<std::pair<std::string, std::string>> names;
    char name[256] = {0};
    if (fiSystem().gethostname(name, sizeof name - 1) == 0 && name[0] != '\0') {
        names.emplace_back(name, "host.example.invalid");
        names.emplace_back(CStringTool::tostrupper(name), "HOST.EXAMPLE.INVALID");
    }
    std::string initiator;
    if (snapshot.fileText(kInitiatorFile, initiator)) {
        size_t at = initiator.find("InitiatorName=");
        if (at != std::string::npos) {
            names.emplace_back(firstLine(initiator.substr(at + 14)),
                               "iqn.2000-01.invalid.example:initiator");
        }
    }
    int port = 0;
    for (const simhost::SimAdapter& adapter : snapshot.adapters()) {
        std::string digits = adapter.portName;
        if (digits.compare(0, 2, "0x") == 0) {
            digits = digits.substr(2);
        }
        if (digits.size() == 16) {
            char standIn[24];
            std::snprintf(standIn, sizeof standIn, "20000000000000%02x", ++port & 0xff);
            std::string lower = digits, upper = digits;
            std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
            std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
            names.emplace_back(lower, standIn);
            names.emplace_back(upper, CStringTool::tostrupper(standIn));
        }
    }
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
        // The library's map as this host gives it, for verify.
        nlohmann::ordered_json origin;
        origin["scsitool_version"] = SCSITOOL_VERSION;
        origin["time"] = captureTime();
        origin["anonymised"] = anonymise;
        origin["map"] = nlohmann::ordered_json::parse(
            formatMapRowsJson(readMap(session, false, false, false, false)));
        snapshot.setCapture(origin.dump());
        text = snapshot.toJson();
        if (anonymise) {
            for (const auto& name : standIns(snapshot)) {
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
