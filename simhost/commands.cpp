// SPDX-License-Identifier: Apache-2.0
// Commands: scripted answers, the few commands the model answers itself, and the shell's
// "not found".
#include <errno.h>
#include <stdio.h>

#include <regex>
#include <sstream>

#include "simhost.h"
#include "simhost_state.h"

namespace simhost {

namespace {

std::vector<std::string> words(const std::string& command)
{
    std::vector<std::string> result;
    std::stringstream stream(command);
    for (std::string word; stream >> word;) {
        result.push_back(word);
    }
    return result;
}

}  // namespace

// Runs `command` as /bin/sh would and returns its exit status. With `shell` set (system())
// the echo-into-a-control-file form the library uses is carried out as a write.
int SimHost::State::run(const std::string& command, std::vector<std::string>& output, bool shell)
{
    auto script = commands.find(command);
    if (script != commands.end()) {
        output.insert(output.end(), script->second.output.begin(), script->second.output.end());
        return script->second.exitCode;
    }
    if (shell) {
        static const std::regex echo(
            R"re(\s*(?:/bin/)?echo\s+(?:"([^"]*)"|(\S+))\s*(>>?)\s*(\S+)\s*)re");
        std::smatch match;
        if (std::regex_match(command, match, echo)) {
            const std::string text = (match[1].matched ? match[1].str() : match[2].str()) + "\n";
            const std::string target = match[4].str();
            SimNode node;
            const bool exists = lookup(normalizePath(target), node);
            if (!exists || node.kind != SimNode::File || !node.writable) {
                output.push_back("sh: 1: cannot create " + target + ": " +
                                 (exists ? "Permission denied" : "Directory nonexistent"));
                return 2;
            }
            actOnWrite(target, text, match[3].str() == ">>");
            return 0;
        }
    }
    std::vector<std::string> argv = words(command);
    if (argv.empty()) {
        return 0;
    }
    const std::string& program = argv[0];
    if (program == "/bin/ls" || program == "ls") {
        // ls answered from the model's own directories: entries without "." and "..", sorted,
        // one per line. Only the part of the tree under each path listed is built.
        int status = 0;
        std::vector<std::string> paths(argv.begin() + 1, argv.end());
        paths.erase(std::remove_if(paths.begin(), paths.end(),
                                   [](const std::string& p) { return p[0] == '-'; }),
                    paths.end());
        if (paths.empty()) {
            paths.push_back("/");
        }
        for (const std::string& path : paths) {
            const std::string normal = normalizePath(path);
            const SimTree files = tree(false, normal);
            auto found = files.find(normal);
            if (found == files.end()) {
                output.push_back(program + ": cannot access '" + path +
                                 "': No such file or directory");
                status = 2;
                continue;
            }
            if (found->second.kind != SimNode::Directory) {
                output.push_back(path);
                continue;
            }
            const std::string prefix = normal == "/" ? "/" : normal + "/";
            for (auto entry = files.lower_bound(prefix);
                 entry != files.end() && entry->first.compare(0, prefix.size(), prefix) == 0;
                 ++entry) {
                std::string name = entry->first.substr(prefix.size());
                if (!name.empty() && name.find('/') == std::string::npos) {
                    output.push_back(name);
                }
            }
        }
        return status;
    }
    if (executables.count(normalizePath(program))) {
        return 0;  // a program the host has, run without a script, prints nothing
    }
    output.push_back("sh: 1: " + program + ": not found");
    return 127;
}

int SimHost::exec(const std::string& command, std::vector<std::string>& output,
                  unsigned long limitSeconds, int& sysErrno)
{
    const auto guard = m_state->guard();
    (void)limitSeconds;
    const size_t at = m_state->events.size();
    m_state->events.push_back(SimEvent{SimEvent::Command, command, "", 0});
    const int result = m_state->run(command, output, false);
    m_state->events[at].status = result;
    // A script may answer as a command that ran out of time or could not be started.
    sysErrno = result == kzfi_pdk_4_4::FI_EXEC_TIMED_OUT     ? ETIMEDOUT
               : result == kzfi_pdk_4_4::FI_EXEC_NOT_STARTED ? EAGAIN
                                                             : 0;
    return result;
}

int SimHost::system(const char* command)
{
    const auto guard = m_state->guard();
    if (!command) {
        return 1;  // a shell is available
    }
    const size_t at = m_state->events.size();
    m_state->events.push_back(SimEvent{SimEvent::System, command, "", 0});
    std::vector<std::string> output;
    // system() returns a wait status: the exit code in the second byte, a signal in the first;
    // a command that could not run at all gives -1.
    const int result = m_state->run(command, output, true);
    m_state->events[at].status = result;
    return result < 256 ? result << 8 : result < 256 + 128 ? result - 256 : -1;
}

namespace {

std::string quoted(const std::string& text)
{
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c >= 0x7f) {
            char hex[5];
            snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

}  // namespace

std::string SimHost::eventLines() const
{
    std::string lines;
    for (const SimEvent& event : m_state->events) {
        switch (event.kind) {
            case SimEvent::Write:
                lines += "write " + event.text + " " + quoted(event.data) + "\n";
                break;
            case SimEvent::Command:
            case SimEvent::System:
                lines += (event.kind == SimEvent::Command ? "exec " : "system ") +
                         quoted(event.text) + " exit " + std::to_string(event.status) + "\n";
                break;
            case SimEvent::Sleep:
                lines += "sleep " + std::to_string(event.seconds) + "\n";
                break;
        }
    }
    return lines;
}

}  // namespace simhost
