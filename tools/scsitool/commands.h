// SPDX-License-Identifier: Apache-2.0
// The subcommands. Each returns what it writes on stdout, or throws CommandError.
#ifndef SCSITOOL_CLI_COMMANDS_H
#define SCSITOOL_CLI_COMMANDS_H

#include <string>

#include "map_view.h"
#include "session.h"

namespace scsitool_cli {

struct MapOptions {
    bool json = false;
    bool rescanBuses = false;
    bool busScan = false;
    bool removeLun0 = false;
    bool volumes = false;
    MapTableOptions table;
};

std::string runMap(Session& session, const MapOptions& options);
std::string runUdid(Session& session, const std::string& device, bool rescanIfMissing);
std::string runShow(Session& session, const std::string& device, bool json);
std::string runInitiators(Session& session, bool json);
// Writes the snapshot to `file` ("-": returns it for stdout); `anonymise` puts stand-ins for
// the host name, the iSCSI initiator name and the FC port names.
std::string runCapture(Session& session, const std::string& file, bool anonymise);
// Replays the capture the session runs on and compares its map with the one recorded in
// `file`: the differences, one a line, or "" when they are the same.
std::string runVerify(Session& session, const std::string& file, bool& same);

// A bare kernel name ("sdc") names its node under /dev; a path is taken as it is.
std::string deviceNode(const std::string& name);

}  // namespace scsitool_cli

#endif
