// SPDX-License-Identifier: Apache-2.0
// Files the command writes: whole or not at all.
#ifndef SCSITOOL_CLI_OUTPUT_FILE_H
#define SCSITOOL_CLI_OUTPUT_FILE_H

#include <cstdio>
#include <string>

namespace scsitool_cli {

// A file written through a stream into a temporary file beside its path and renamed over the
// path by commit() once it is all on disk, so that a failed write leaves the previous file as it
// was. Dropped without a commit, the temporary file is removed and the path is not touched.
// Failures throw CommandError (exit 2) "PATH: WHAT: REASON".
class StagedFile {
public:
    StagedFile(const std::string& path, const std::string& what);
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

    std::string m_path;
    std::string m_what;
    std::string m_temporary;
    FILE* m_stream = nullptr;
    int m_error = 0;
};

// Writes `text` to `path` through a StagedFile.
void writeFileInPlace(const std::string& path, const std::string& text, const std::string& what);

}  // namespace scsitool_cli

#endif
