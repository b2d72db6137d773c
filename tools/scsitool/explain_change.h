// SPDX-License-Identifier: Apache-2.0
// `diff`'s words on a changed identity: each side's device queried again on its own host, with
// the read recorder on, and the two explanations compared.
#ifndef SCSITOOL_CLI_EXPLAIN_CHANGE_H
#define SCSITOOL_CLI_EXPLAIN_CHANGE_H

#include <string>

#include "compare.h"
#include "session.h"

namespace scsitool_cli {

// Explains remapped and identity-changed findings between the captures `before` and `after`
// ("-": this host now); other findings get no lines.
FindingExplainer identityChangeExplainer(Session& session, const std::string& before,
                                         const std::string& after);

}  // namespace scsitool_cli

#endif
