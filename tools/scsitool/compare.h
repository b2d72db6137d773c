// SPDX-License-Identifier: Apache-2.0
// `diff`, `fleet` and `check`: device maps of captures (or of this host) compared by the library,
// printed here.
#ifndef SCSITOOL_CLI_COMPARE_H
#define SCSITOOL_CLI_COMPARE_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "device_map_compare.h"
#include "session.h"
#include "simhost.h"

namespace scsitool_cli {

// What one side of a comparison is: a capture file, or this host now ("-").
struct SideContext {
    std::string source;     // the file, or "-"
    bool live = false;      // this host, now
    std::string hostName;   // as the host (or the snapshot) names itself
    std::string kernel;     // its kernel release
    std::string time;       // when it was captured; "" for this host now or a hand-written one
    std::string version;    // the command that captured it (this one for "-"); "" when unknown
    std::string machineId;  // "" when not known
    std::string captureId;  // "" for this host now or a snapshot capture did not write
};

struct HostSide {
    SideContext context;
    SHostMap map;
};

// What the installed host (a capture replayed, or this host) is: its name and kernel release,
// and the fields of `record`, the capture's record of itself ("" for none).
SideContext installedSide(const std::string& source, const std::string& record);
// The installed host's machine id ("/etc/machine-id"), "" when it has none.
std::string machineIdOfInstalledHost();

// One side, its map computed as `map` computes it (a capture is replayed on the simulated host).
// For this host ("-"), every disk node that does not open is named on stderr, and without the
// rights to open any the comparison stops as `map` does (exit 3). Throws CommandError (exit 2)
// for a capture that cannot be used.
HostSide loadSide(Session& session, const std::string& capture);

// The capture as a simulated host; CommandError (exit 2) with the loader's message when it is not
// one.
std::unique_ptr<simhost::SimHost> loadCapture(const std::string& capture);
// "scsitool: warning: MESSAGE" on stderr.
void warn(const std::string& message);

// Sets `differ` when the two maps disagree in any way.
std::string runDiff(Session& session, const std::string& before, const std::string& after,
                    bool json, bool& differ);
// Sets `conflicts` when hosts know one volume under different UDIDs. Each capture's recorded map
// is read (a snapshot without one is replayed); `replay` replays every capture and warns where
// the replay differs from the record.
std::string runFleet(Session& session, const std::vector<std::string>& captures, bool json,
                     bool replay, bool& conflicts);

// "before: …" and "after: …", and a warning on stderr when the host names differ.
std::string formatContext(const SideContext& before, const SideContext& after);
// The one line that says what a side is ("this host, now: host …", "FILE: host …, captured …").
std::string describeSide(const SideContext& side);
// What a finding's two identities differ in, one line each (explain_change.h); none by default.
typedef std::function<std::vector<std::string>(const CDeviceMapCompare::Finding&)> FindingExplainer;

std::string formatFindingsTable(const std::vector<CDeviceMapCompare::Finding>& findings,
                                const FindingExplainer& explain = FindingExplainer());
std::string formatFindingsJson(const std::vector<CDeviceMapCompare::Finding>& findings,
                               const SideContext& before, const SideContext& after,
                               const FindingExplainer& explain = FindingExplainer());
// The fleet's text; with a writer, handed to it in pieces as it is made ("" is returned).
typedef std::function<void(const std::string&)> TextWriter;
std::string formatFleetTable(const CFleetView& fleet, const TextWriter& write = TextWriter());
std::string formatFleetJson(const CFleetView& fleet, const TextWriter& write = TextWriter());

}  // namespace scsitool_cli

#endif
