// SPDX-License-Identifier: Apache-2.0
#include "WWPN_discovery.h"

#include <cstdio>
#include <cstring>

#include "fi_execpipe.h"
#include "fi_stringtool.h"
#include "fi_system.h"
#include "trace_call.h"

using kzfi_pdk_4_4::CFiExecPipePosix;
using kzfi_pdk_4_4::CFiStringTool;
using kzfi_pdk_4_4::CFiTraceLogPtr;
using kzfi_pdk_4_4::fiSystem;

namespace {

const char* const kBlanks = " \n\t\r";

// A stream from the system interface, closed when it goes out of scope.
class CFileCloser {
public:
    explicit CFileCloser(FILE* file) : m_file(file) {}
    ~CFileCloser()
    {
        if (m_file != nullptr) {
            std::fclose(m_file);
        }
    }
    CFileCloser(const CFileCloser&) = delete;
    CFileCloser& operator=(const CFileCloser&) = delete;
    FILE* get() const { return m_file; }

private:
    FILE* m_file;
};

// Appends every line of `file` (none when it did not open), trimmed of blanks and line ends.
void appendLines(FILE* file, std::vector<std::string>& result)
{
    char line[1024];
    while (file != nullptr && std::fgets(line, sizeof(line), file) != nullptr) {
        result.push_back(CFiStringTool::trim(line, kBlanks));
    }
}

// Runs "/bin/ls <directory>"; true with its lines when it succeeded.
bool listDirectory(const CFiTraceLogPtr& log, const std::string& directory,
                   std::vector<std::string>& names)
{
    std::string command = "/bin/ls " + directory;
    CFiExecPipePosix pipe(1);
    pipe.registerTraceLog(log);
    if (pipe.Exec(command, names, "", 600, "", "", "") == 0) {
        return true;
    }
    traceTo(log, 1, "Error: command %s failed.\n", command.c_str());
    return false;
}

FILE* openForReading(const CFiTraceLogPtr& log, const std::string& path)
{
    FILE* file = fiSystem().fopen(path.c_str(), "r");
    if (file == nullptr) {
        traceTo(log, 1, "Error: failed to open file %s", path.c_str());
    }
    return file;
}

// The values of the "-adapter-port" lines of a QLogic or Emulex driver file.
void appendAdapterPorts(FILE* file, std::vector<std::string>& result)
{
    char line[1024];
    while (std::fgets(line, sizeof(line), file) != nullptr) {
        if (std::strstr(line, "-adapter-port") == nullptr) {
            continue;
        }
        std::vector<std::string> tokens = CFiStringTool::tokenize(line, "=");
        if (tokens.size() >= 2) {
            result.push_back(CFiStringTool::trim(tokens[1], "; \n\t\r"));
        }
    }
}

// The port names of the first source that lists: a driver directory, fc_host, scsi_host.
void collectPortNames(const CFiTraceLogPtr& log, std::vector<std::string>& result)
{
    static const char* const kDriverDirs[] = {"/proc/scsi/qla2xxx/", "/proc/scsi/qla2300/",
                                              "/proc/scsi/lpfc/"};
    std::vector<std::string> names;
    const char* driverDir = nullptr;
    for (const char* dir : kDriverDirs) {
        if (listDirectory(log, dir, names)) {
            driverDir = dir;
            break;
        }
    }

    if (driverDir != nullptr) {
        // One file per host adapter; sysfs is not consulted once a driver directory listed,
        // even when its files name no port.
        for (const std::string& name : names) {
            std::string path = driverDir + CFiStringTool::trim(name, kBlanks);
            CFileCloser file(openForReading(log, path));
            if (file.get() != nullptr) {
                traceTo(log, 3, "Reading file %s", path.c_str());
                appendAdapterPorts(file.get(), result);
            }
        }
    } else if (listDirectory(log, "/sys/class/fc_host/", names)) {
        for (const std::string& name : names) {
            std::string host = CFiStringTool::trim(name, kBlanks);
            CFileCloser file(openForReading(log, "/sys/class/fc_host/" + host + "/port_name"));
            appendLines(file.get(), result);
        }
    } else if (listDirectory(log, "/sys/class/scsi_host/", names)) {
        for (const std::string& name : names) {
            std::string host = CFiStringTool::trim(name, kBlanks);
            std::string base = "/sys/class/scsi_host/" + host + "/device/";
            std::string newer = base + "fc_host/" + host + "/port_name";
            std::string older = base + "fc_host:" + host + "/port_name";
            CFileCloser newerFile(fiSystem().fopen(newer.c_str(), "r"));
            CFileCloser olderFile(fiSystem().fopen(older.c_str(), "r"));
            // Both layouts name the same port: when both open, the newer one is read.
            FILE* file = newerFile.get() != nullptr ? newerFile.get() : olderFile.get();
            if (file == nullptr) {
                traceTo(log, 1, "Error: failed to open file %s and %s", newer.c_str(),
                        older.c_str());
            }
            appendLines(file, result);
        }
    }
}

}  // namespace

WWPN::WWPN() {}

WWPN::~WWPN() {}

std::vector<std::string> WWPN::getWWPN()
{
    std::vector<std::string> result;
    traceTo(m_traceLog, 3, "Entering fuction %s", "getWWPN");
    try {
        collectPortNames(m_traceLog, result);
    } catch (...) {
        // What was collected before the failure is still answered.
    }
    traceTo(m_traceLog, 3, "Exiting fuction %s", "getWWPN");
    return result;
}
