// SPDX-License-Identifier: Apache-2.0
// The NetApp filer identity command, sent by the NetApp generator and recorded by a capture.
#ifndef SCSITOOL_NETAPP_IDENTITY_H
#define SCSITOOL_NETAPP_IDENTITY_H

#include <string>
#include <vector>

// The NetApp filer identity command sent to `node` through SG_IO; `answer` receives the 4096
// bytes of the answer buffer and `result` the ioctl's result. False when the node does not open.
bool sendNetAppIdentityCommand(const std::string& node, std::vector<unsigned char>& answer,
                               int& result);

#endif
