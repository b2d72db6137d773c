// SPDX-License-Identifier: Apache-2.0
// The command pipe: runs a shell command line and returns its output one element per line.
#ifndef KZFI_PDK_FI_EXECPIPE_H
#define KZFI_PDK_FI_EXECPIPE_H

#include <string>
#include <vector>

#include "fi_error.h"
#include "fi_export.h"
#include "fi_system.h"
#include "fi_trace.h"

namespace kzfi_pdk_4_4 {

class KZFI_PDK_EXPORT CFiExecPipeBase : public virtual CFiTraceable {
public:
    CFiExecPipeBase();
    ~CFiExecPipeBase() override;

    // Runs `command` through /bin/sh -c. `output` is cleared, then receives standard output and
    // error, one element per line, each line whole (see CFiSystem::exec). `limit` is in seconds
    // and covers the whole run; a command still running then is killed with its whole process
    // group. Returns 0 on success, otherwise the exit status (1 to 255), 256 + signal number,
    // FI_EXEC_TIMED_OUT or FI_EXEC_NOT_STARTED (errno in getLastError(); ECHILD with the text
    // "exit status unknown" when the command ran but its status could not be learnt).
    // The four further strings are accepted for the framework's signature and not used.
    virtual int Exec(std::string command, std::vector<std::string>& output, std::string input,
                     unsigned long limit, std::string user, std::string directory,
                     std::string environment);

    const CFiLastError& getLastError() const { return m_lastError; }

protected:
    CFiLastError m_lastError;
};

class KZFI_PDK_EXPORT CFiExecPipePosix : public CFiExecPipeBase {
public:
    // `mode` 1 captures standard output and error together, the one mode the library uses.
    explicit CFiExecPipePosix(int mode);
    ~CFiExecPipePosix() override;

private:
    [[maybe_unused]] int m_mode;  // kept for the framework's signature; one mode exists
};

}  // namespace kzfi_pdk_4_4

#endif
