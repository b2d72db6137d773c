// SPDX-License-Identifier: Apache-2.0
// The world-wide port names of the host's fibre-channel ports.
#ifndef SCSITOOL_WWPN_DISCOVERY_H
#define SCSITOOL_WWPN_DISCOVERY_H

#include <string>
#include <vector>

#include "fi_trace.h"
#include "scsitool_export.h"

class SCSITOOL_EXPORT WWPN : public virtual kzfi_pdk_4_4::CFiTraceable {
public:
    WWPN();
    ~WWPN() override;

    // The port names found, in discovery order: the QLogic or Emulex /proc driver files when one
    // of their directories lists, otherwise /sys/class/fc_host, otherwise /sys/class/scsi_host.
    std::vector<std::string> getWWPN();
};

#endif
