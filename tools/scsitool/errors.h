// SPDX-License-Identifier: Apache-2.0
// Exit codes of the command and the one error type that carries them to main.
#ifndef SCSITOOL_CLI_ERRORS_H
#define SCSITOOL_CLI_ERRORS_H

#include <stdexcept>
#include <string>

namespace scsitool_cli {

enum ExitCode : int {
    kExitSuccess = 0,
    kExitUsage = 1,     // a bad option or argument
    kExitBadInput = 2,  // a snapshot, configuration or output file that cannot be used
    kExitNotFound = 3,  // the device does not exist or does not answer
    kExitFailure = 4,   // the library failed unexpectedly
    kExitDiffers = 5    // the device maps compared differ
};

// Stops the command: main writes "scsitool: " + what() as one line on stderr and exits with
// exitCode(). Nothing has been written to stdout when it is thrown.
class CommandError : public std::runtime_error {
public:
    CommandError(int exitCode, const std::string& message)
        : std::runtime_error(message), m_exitCode(exitCode)
    {
    }
    int exitCode() const { return m_exitCode; }

private:
    int m_exitCode;
};

}  // namespace scsitool_cli

#endif
