// SPDX-License-Identifier: Apache-2.0
#include "explain_change.h"

#include <memory>

#include "errors.h"
#include "explain.h"
#include "pseudo_devices.h"
#include "simhost.h"

namespace scsitool_cli {

namespace {

// The native disk among a side's names: the identity is read from a path, not from the
// multipath or PowerPath device in front of it.
std::string nativeName(const CDeviceMapCompare::Side& side)
{
    for (const std::string& name : side.deviceNames) {
        if (!pseudo_device::isPseudo(name)) {
            return name;
        }
    }
    return side.deviceNames.empty() ? std::string() : side.deviceNames.front();
}

// One side's host: the capture, loaded once, or this host (no capture).
class SideHost {
public:
    explicit SideHost(const std::string& capture)
    {
        if (capture != "-") {
            std::string error;
            m_host = simhost::SimHost::fromFile(capture, error);
            if (!m_host) {
                throw CommandError(kExitBadInput, capture + ": " + error);
            }
        }
    }

    ExaminedDevice examine(Session& session, const std::string& node)
    {
        if (!m_host) {
            return examineDevice(session, node);
        }
        simhost::SimHostInstall install(*m_host);
        return examineDevice(session, node);
    }

private:
    std::unique_ptr<simhost::SimHost> m_host;
};

}  // namespace

FindingExplainer identityChangeExplainer(Session& session, const std::string& before,
                                         const std::string& after)
{
    std::shared_ptr<SideHost> first;
    std::shared_ptr<SideHost> second;
    return [&session, before, after, first,
            second](const CDeviceMapCompare::Finding& finding) mutable {
        if (finding.kind != CDeviceMapCompare::Remapped &&
            finding.kind != CDeviceMapCompare::IdentityChanged) {
            return std::vector<std::string>();
        }
        if (!first) {
            first = std::make_shared<SideHost>(before);
            second = std::make_shared<SideHost>(after);
        }
        const ExaminedDevice old = first->examine(session, nativeName(finding.before));
        const ExaminedDevice now = second->examine(session, nativeName(finding.after));
        return explainIdentityChange(old, now);
    };
}

}  // namespace scsitool_cli
