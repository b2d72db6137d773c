// `scsitool capture`: this host's SCSI view written as a snapshot that the simulated host
// replays. Everything is read through the system interface, so a capture made while a snapshot
// is replayed reproduces that snapshot.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "capture_parts.h"
#include "commands.h"
#include "errors.h"
#include "fi_system.h"
#include "progress.h"
#include "simhost.h"

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

std::string runCapture(Session& session, const std::string& file)
{
    std::string text;
    {
        ProgressLine progress("capturing the host");
        simhost::SimHost snapshot;
        captureHost(session, snapshot);
        text = snapshot.toJson();
    }
    if (!text.empty() && text.back() != '\n') {
        text += '\n';
    }
    if (file == "-") {
        return text;
    }
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) {
        throw CommandError(kExitBadInput,
                           file + ": cannot write the snapshot: " + std::strerror(errno));
    }
    return "";
}

}  // namespace scsitool_cli
