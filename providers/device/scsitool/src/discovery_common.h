// SPDX-License-Identifier: Apache-2.0
// Helpers shared by the discovery sources: running a command through the command pipe, joining
// its output, and reading a kernel text file whole.
#ifndef SCSITOOL_DISCOVERY_COMMON_H
#define SCSITOOL_DISCOVERY_COMMON_H

#include <sys/utsname.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "device_scsi_data.h"
#include "fi_execpipe.h"
#include "fi_system.h"
#include "fi_trace.h"

namespace scsitool_discovery {

// The output lines of a command as one text, with nothing between them.
inline std::string joinLines(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines) {
        text += line;
    }
    return text;
}

// Runs `command` through a command pipe that logs to `log`; `lines` receives its output.
inline int runCommand(const kzfi_pdk_4_4::CFiTraceLogPtr& log, const std::string& command,
                      std::vector<std::string>& lines)
{
    kzfi_pdk_4_4::CFiExecPipePosix pipe(1);
    pipe.registerTraceLog(log);
    return pipe.Exec(command, lines, "", 600, "", "", "");
}

// Reads `file` line by line into a list, 254 characters at most per entry, and closes it. The
// first byte of the buffer is cleared before each read, so the read that meets the end of the
// file leaves one empty entry at the end.
inline std::vector<std::string> readLines(FILE* file)
{
    std::vector<std::string> lines;
    char buffer[255];
    while (!std::feof(file)) {
        buffer[0] = '\0';
        bool got = std::fgets(buffer, sizeof buffer, file) != nullptr;
        lines.push_back(buffer);
        if (!got && std::ferror(file)) {
            break;
        }
    }
    std::fclose(file);
    return lines;
}

// A SCSI address as four decimal numbers with `between` between them: "2 0 1 3", "2:0:1:3".
inline std::string scsiAddress(int host, int channel, int id, int lun, const char* between)
{
    return std::to_string(host) + between + std::to_string(channel) + between + std::to_string(id) +
           between + std::to_string(lun);
}

inline bool endsWithDigit(const std::string& text)
{
    return !text.empty() && text.back() >= '0' && text.back() <= '9';
}

// The release of the running kernel, e.g. "2.6.18-8.el5".
inline std::string kernelRelease()
{
    struct utsname name;
    std::memset(&name, 0, sizeof name);
    kzfi_pdk_4_4::fiSystem().uname(&name);
    return name.release;
}

// An address line of "/proc/scsi/scsi": it holds "Host:" and yields all four numbers.
inline bool parseAddressLine(const std::string& line, SLinuxScsiDevice& device)
{
    if (line.find("Host:") == std::string::npos) {
        return false;
    }
    return std::sscanf(line.c_str(), "Host: scsi%d Channel: %02d Id: %02d Lun: %02d", &device.host,
                       &device.channel, &device.id, &device.lun) == 4;
}

}  // namespace scsitool_discovery

#endif
