// SPDX-License-Identifier: Apache-2.0
// What every subcommand runs in: the host (this one, or a snapshot replayed through the
// simulated host), the plug-in trace log and the configuration, and the one UDID factory.
#ifndef SCSITOOL_CLI_SESSION_H
#define SCSITOOL_CLI_SESSION_H

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "fi_trace.h"

class CUDIDFactory;
namespace simhost {
class SimHost;
class SimHostInstall;
}  // namespace simhost

namespace scsitool_cli {

struct GlobalOptions {
    std::string hostFile;    // --host: a snapshot to replay ("" for this host)
    std::string traceFile;   // --trace: "-" for stderr, "" for no trace
    int traceLevel = 3;      // --trace-level
    std::string configFile;  // --config
    std::string eventsFile;  // --events: what the simulated kernel saw ("" for none)
};

class CommandSink;
class StagedFile;

class Session {
public:
    // Checks the configuration, opens the trace, loads and installs the snapshot; throws
    // CommandError (exit 2) for any of them that cannot be used.
    explicit Session(const GlobalOptions& options);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Ends the session once the command is done: the trace and events files are put in place
    // whole (CommandError, exit 2, when one cannot be written); under "--events -" the events
    // go to standard error.
    void finish();

    // The plug-in trace log, registered on everything the command creates.
    const kzfi_pdk_4_4::CFiTraceLogPtr& log() const { return m_log; }
    // The factory, created on first use once the host is in place.
    CUDIDFactory& factory();
    // Whether the plug-in's trace is written somewhere (--trace).
    bool tracing() const { return m_tracing; }
    // This host's name through the system interface ("" when it cannot be had).
    static std::string hostName();

    // Keeps every warning and error line (levels 1 and 2) traced from now on.
    void startCapture();
    // The lines kept since startCapture, in order; keeping stops.
    std::vector<std::string> stopCapture();

private:
    kzfi_pdk_4_4::CFiTraceLogPtr m_log;
    CommandSink* m_sink;  // owned by the log
    std::unique_ptr<simhost::SimHost> m_host;
    std::unique_ptr<simhost::SimHostInstall> m_install;
    std::unique_ptr<StagedFile> m_traceFile;   // --trace FILE
    std::unique_ptr<StagedFile> m_eventsFile;  // --events FILE
    bool m_eventsToStderr = false;             // --events -
    bool m_tracing = false;                    // --trace
    bool m_finished = false;
};

}  // namespace scsitool_cli

#endif
