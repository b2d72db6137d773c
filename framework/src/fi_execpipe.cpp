// SPDX-License-Identifier: Apache-2.0
#include "fi_execpipe.h"

#include <cerrno>

namespace kzfi_pdk_4_4 {

CFiExecPipeBase::CFiExecPipeBase() = default;

CFiExecPipeBase::~CFiExecPipeBase() = default;

int CFiExecPipeBase::Exec(std::string command, std::vector<std::string>& output, std::string,
                          unsigned long limit, std::string, std::string, std::string)
{
    output.clear();
    m_lastError.clear();
    int sysErrno = 0;
    int result = fiSystem().exec(command, output, limit, sysErrno);
    if (result == FI_EXEC_TIMED_OUT) {
        m_lastError.set(sysErrno, "timed out");
    } else if (result == FI_EXEC_NOT_STARTED) {
        m_lastError.set(sysErrno, sysErrno == ECHILD ? "exit status unknown" : "could not start");
    }
    return result;
}

CFiExecPipePosix::CFiExecPipePosix(int mode) : m_mode(mode) {}

CFiExecPipePosix::~CFiExecPipePosix() = default;

}  // namespace kzfi_pdk_4_4
