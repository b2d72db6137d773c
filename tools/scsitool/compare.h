// `diff` and `fleet`: device maps of captures (or of this host) compared by the library, printed
// here.
#ifndef SCSITOOL_CLI_COMPARE_H
#define SCSITOOL_CLI_COMPARE_H

#include <functional>
#include <string>
#include <vector>

#include "device_map_compare.h"
#include "session.h"

namespace scsitool_cli {

// The device map of one capture replayed on the simulated host ("-": this host now), as `map`
// computes it. Throws CommandError (exit 2) for a capture that cannot be used.
SHostMap loadHostMap(Session& session, const std::string& capture);

// Sets `differ` when the two maps disagree in any way.
std::string runDiff(Session& session, const std::string& before, const std::string& after,
                    bool json, bool& differ);
std::string runFleet(Session& session, const std::vector<std::string>& captures, bool json);

// What a finding's two identities differ in, one line each (explain_change.h); none by default.
typedef std::function<std::vector<std::string>(const CDeviceMapCompare::Finding&)> FindingExplainer;

std::string formatFindingsTable(const std::vector<CDeviceMapCompare::Finding>& findings,
                                const FindingExplainer& explain = FindingExplainer());
std::string formatFindingsJson(const std::vector<CDeviceMapCompare::Finding>& findings,
                               const FindingExplainer& explain = FindingExplainer());
std::string formatFleetTable(const CFleetView& fleet);
std::string formatFleetJson(const CFleetView& fleet);

}  // namespace scsitool_cli

#endif
