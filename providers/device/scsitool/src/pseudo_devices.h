// SPDX-License-Identifier: Apache-2.0
// The pseudo-devices that front native disks, and where their nodes live: device-mapper maps
// (multipath among them) under /dev/mapper/ beside the mapper's control node, and PowerPath
// devices, /dev/emcpowera and on.
#ifndef SCSITOOL_PSEUDO_DEVICES_H
#define SCSITOOL_PSEUDO_DEVICES_H

#include <string>

namespace pseudo_device {

const char kMapperDirectory[] = "/dev/mapper/";
const char kMapperControlNode[] = "/dev/mapper/control";
const char kPowerPathName[] = "emcpower";  // how a PowerPath device's kernel name begins
const char kPowerPathNode[] = "/dev/emcpower";

enum EKind {
    kNative,         // any other node: a disk the kernel lists
    kMapper,         // a device-mapper map
    kMapperControl,  // the device mapper's control node, no device at all
    kPowerPath,
};

inline bool beginsWith(const std::string& text, const char* prefix)
{
    return text.compare(0, std::char_traits<char>::length(prefix), prefix) == 0;
}

inline EKind kindOf(const std::string& node)
{
    if (node == kMapperControlNode) {
        return kMapperControl;
    }
    if (beginsWith(node, kMapperDirectory)) {
        return kMapper;
    }
    return beginsWith(node, kPowerPathNode) ? kPowerPath : kNative;
}

// A node under /dev/mapper/ (the control node too) or a PowerPath device.
inline bool isPseudo(const std::string& node)
{
    return kindOf(node) != kNative;
}

}  // namespace pseudo_device

#endif
