#include "WWPN_discovery.h"

#include <cstdio>
#include <cstring>

#include "fi_execpipe.h"
#include "fi_stringtool.h"
#include "fi_system.h"

using kzfi_pdk_4_4::CFiExecPipePosix;
using kzfi_pdk_4_4::CFiStringTool;
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

// Appends every line of `file`, trimmed of blanks and line ends.
void appendLines(FILE* file, std::vector<std::string>& result)
{
    char line[1024];
    while (std::fgets(line, sizeof(line), file) != nullptr) {
        result.push_back(CFiStringTool::trim(line, kBlanks));
    }
}

}  // namespace

WWPN::WWPN() {}

WWPN::~WWPN() {}

std::vector<std::string> WWPN::getWWPN()
{
    std::vector<std::string> result;
    if (m_traceLog) {
        m_traceLog->trace(3, "Entering fuction %s", "getWWPN");
    }
    try {
        // Runs "/bin/ls <directory>"; true with its lines when it succeeded.
        auto list = [this](const std::string& directory, std::vector<std::string>& names) {
            std::string command = "/bin/ls " + directory;
            CFiExecPipePosix pipe(1);
            pipe.registerTraceLog(m_traceLog);
            if (pipe.Exec(command, names, "", 600, "", "", "") == 0) {
                return true;
            }
            if (m_traceLog) {
                m_traceLog->trace(1, "Error: command %s failed.\n", command.c_str());
            }
            return false;
        };
        auto open = [this](const std::string& path) {
            FILE* file = fiSystem().fopen(path.c_str(), "r");
            if (file == nullptr && m_traceLog) {
                m_traceLog->trace(1, "Error: failed to open file %s", path.c_str());
            }
            return file;
        };

        static const char* const kDriverDirs[] = {"/proc/scsi/qla2xxx/", "/proc/scsi/qla2300/",
                                                  "/proc/scsi/lpfc/"};
        std::vector<std::string> names;
        const char* driverDir = nullptr;
        for (const char* dir : kDriverDirs) {
            if (list(dir, names)) {
                driverDir = dir;
                break;
            }
        }

        if (driverDir != nullptr) {
            // One file per host adapter; sysfs is not consulted once a driver directory listed,
            // even when its files name no port.
            for (const std::string& name : names) {
                std::string path = driverDir + CFiStringTool::trim(name, kBlanks);
                CFileCloser file(open(path));
                if (file.get() == nullptr) {
                    continue;
                }
                if (m_traceLog) {
                    m_traceLog->trace(3, "Reading file %s", path.c_str());
                }
                char line[1024];
                while (std::fgets(line, sizeof(line), file.get()) != nullptr) {
                    if (std::strstr(line, "-adapter-port") == nullptr) {
                        continue;
                    }
                    std::vector<std::string> tokens = CFiStringTool::tokenize(line, "=");
                    if (tokens.size() >= 2) {
                        result.push_back(CFiStringTool::trim(tokens[1], "; \n\t\r"));
                    }
                }
            }
        } else if (list("/sys/class/fc_host/", names)) {
            for (const std::string& name : names) {
                std::string host = CFiStringTool::trim(name, kBlanks);
                CFileCloser file(open("/sys/class/fc_host/" + host + "/port_name"));
                if (file.get() != nullptr) {
                    appendLines(file.get(), result);
                }
            }
        } else if (list("/sys/class/scsi_host/", names)) {
            for (const std::string& name : names) {
                std::string host = CFiStringTool::trim(name, kBlanks);
                std::string base = "/sys/class/scsi_host/" + host + "/device/";
                std::string newer = base + "fc_host/" + host + "/port_name";
                std::string older = base + "fc_host:" + host + "/port_name";
                CFileCloser newerFile(fiSystem().fopen(newer.c_str(), "r"));
                CFileCloser olderFile(fiSystem().fopen(older.c_str(), "r"));
                // Both layouts name the same port: when both open, the newer one is read.
                if (newerFile.get() != nullptr) {
                    appendLines(newerFile.get(), result);
                } else if (olderFile.get() != nullptr) {
                    appendLines(olderFile.get(), result);
                } else if (m_traceLog) {
                    m_traceLog->trace(1, "Error: failed to open file %s and %s", newer.c_str(),
                                      older.c_str());
                }
            }
        }
    } catch (...) {
        // What was collected before the failure is still answered.
    }
    if (m_traceLog) {
        m_traceLog->trace(3, "Exiting fuction %s", "getWWPN");
    }
    return result;
}
