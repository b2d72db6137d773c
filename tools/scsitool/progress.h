// SPDX-License-Identifier: Apache-2.0
// A progress line on a terminal while a long enumeration runs.
#ifndef SCSITOOL_CLI_PROGRESS_H
#define SCSITOOL_CLI_PROGRESS_H

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace scsitool_cli {

// While alive, and only when stderr is a terminal: after one second writes "scsitool: <what>…"
// with the seconds elapsed on stderr, refreshes it, and erases it when destroyed. Nothing at all
// when the work ends within the second or stderr is a file or a pipe.
class ProgressLine {
public:
    explicit ProgressLine(const std::string& what);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    // What the line says from its next refresh on ("reading captures 12 of 400").
    void setWhat(const std::string& what);
    ProgressLine& operator=(const ProgressLine&) = delete;

private:
    void run();

    std::string m_what;
    std::mutex m_mutex;
    std::condition_variable m_done;
    bool m_finished = false;
    bool m_shown = false;
    std::thread m_thread;
};

}  // namespace scsitool_cli

#endif
