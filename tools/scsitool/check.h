// SPDX-License-Identifier: Apache-2.0
// `scsitool check`: this host captured into a state directory and compared with the capture
// before it, for a scheduler to run.
#ifndef SCSITOOL_CLI_CHECK_H
#define SCSITOOL_CLI_CHECK_H

#include <string>

#include "session.h"

namespace scsitool_cli {

struct CheckOptions {
    std::string stateDir;
    int keep = 30;         // the captures kept, the new one included
    bool journal = false;  // each line behind its journal priority ("<3>remapped …")
};

// Sets `differ` as `diff` does.
std::string runCheck(Session& session, const CheckOptions& options, bool& differ);

// Each line of `diff`'s output behind the priority prefix the journal reads from a service's
// output: "<3>" for remapped and identity-changed, "<4>" for unavailable, "<6>" for what was
// compared, "<5>" for the rest.
std::string withJournalPriorities(const std::string& text);

}  // namespace scsitool_cli

#endif
