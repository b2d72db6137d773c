// SPDX-License-Identifier: Apache-2.0
// SHA-256 of a text, for the ids a capture carries and the pseudonyms of an anonymised one: the
// same input always gives the same id, and two inputs never share one in practice.
#ifndef SCSITOOL_CLI_DIGEST_H
#define SCSITOOL_CLI_DIGEST_H

#include <string>

namespace scsitool_cli {

// The 64 lower-case hexadecimal digits of the SHA-256 of `text`.
std::string sha256Hex(const std::string& text);

}  // namespace scsitool_cli

#endif
