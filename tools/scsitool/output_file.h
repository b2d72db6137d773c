// Files the command writes: whole or not at all.
#ifndef SCSITOOL_CLI_OUTPUT_FILE_H
#define SCSITOOL_CLI_OUTPUT_FILE_H

#include <string>

namespace scsitool_cli {

// Writes `text` to a temporary file beside `path` and renames it over `path` once it is all on
// disk, so that a failed write leaves the previous file as it was. Throws CommandError (exit 2)
// "PATH: WHAT: REASON" on any failure, the temporary file removed.
void writeFileInPlace(const std::string& path, const std::string& text, const std::string& what);

}  // namespace scsitool_cli

#endif
