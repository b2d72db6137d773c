// SPDX-License-Identifier: Apache-2.0
// Files the command writes: whole or not at all, and never in place of a device or a pipe.
#ifndef SCSITOOL_CLI_OUTPUT_FILE_H
#define SCSITOOL_CLI_OUTPUT_FILE_H

#include <cstdio>
#include <string>

namespace scsitool_cli {

// A file written through a stream. A regular file or a new path is written into a temporary
// file beside it and renamed over it by commit() once it is all on disk, so that a failed write
// leaves the previous file as it was; dropped without a commit, the temporary file is removed
// and the path is not touched. A symbolic link is followed and its target replaced that way.
// Anything else (a character device, a FIFO, a socket, /dev/stdout, /dev/fd/N) is opened and
// written where it is, never replaced. Failures throw CommandError (exit 2) "PATH: WHAT: REASON".
class StagedFile {
public:
    // `keepOnSignal`: when the command is stopped by a signal, what was written so far is put
    // in place (the trace); otherwise the temporary file is removed.
    StagedFile(const std::string& path, const std::string& what, bool keepOnSignal = false);
    ~StagedFile();
    StagedFile(const StagedFile&) = delete;
    StagedFile& operator=(const StagedFile&) = delete;

    FILE* stream() const { return m_stream; }
    // For a writer that does not look at each write's result: keeps the reason of the first
    // failed write, which a later flush no longer knows. Call it after each write.
    void noteWrite();
    // `error`: an errno the writer met already; the file is then dropped with that reason.
    void commit(int error = 0);

private:
    [[noreturn]] void fail(int error);
    void openInPlace(int fd);
    void release();

    std::string m_path;
    std::string m_what;
    std::string m_temporary;  // "" when written in place
    std::string m_target;     // the path renamed over: `m_path`, or the end of its links
    FILE* m_stream = nullptr;
    int m_error = 0;
    int m_slot = -1;  // its entry in the table the signal handler reads
};

// Writes `text` to `path` through a StagedFile.
void writeFileInPlace(const std::string& path, const std::string& text, const std::string& what);

// SIGINT, SIGTERM and SIGHUP stop the command: the staged files kept on a signal are put in
// place with what they hold, the others are removed, and the command exits 128 + the signal.
void installSignalHandlers();

}  // namespace scsitool_cli

#endif
