// SPDX-License-Identifier: Apache-2.0
// The Linux SCSI query layer: INQUIRY through SCSI_IOCTL_SEND_COMMAND, the SCSI address through
// SCSI_IOCTL_GET_IDLUN, removal through /proc/scsi/scsi, and the host's iSCSI initiator name.
#ifndef SCSITOOL_SCSITOOL_H
#define SCSITOOL_SCSITOOL_H

#include <string>

#include "scsitool_export.h"
#include "scsitoolbase.h"

class SCSITOOL_EXPORT CScsiTool : public CScsiToolBase {
public:
    CScsiTool();
    ~CScsiTool() override;

    // Runs "scsi remove-single-device" for the record's address; 6 without a known adapter.
    int RemoveDevice(CScsiDeviceData* device) override;
    // The capacity is not queried on Linux: returns 0, the record is left as it is.
    int GetScsiDeviceCapacity(CScsiDeviceHandle& handle, CScsiDeviceData& device) override;
    void GetTargetLunPortInfo(CScsiDeviceHandle& handle, CScsiDeviceData& device) override;
    int GetModePageInfo(CScsiDeviceHandle& handle, CScsiDeviceData& device,
                        const unsigned int& pageCode, unsigned int& length, unsigned int pageType,
                        ScsiPagePtr& page) override;

    // 0 when /etc/iscsi/initiatorname.iscsi was read (iqn set when it names the initiator),
    // 6 without /sbin/iscsiadm, 26 when the file cannot be opened.
    int GetHostIQN(std::string& iqn);

    // Layout of the SCSI_IOCTL_SEND_COMMAND buffer.
    static const unsigned int kCommandBufferSize = 512;
    static const unsigned int kAnswerOffset = 8;
    static const unsigned int kOutputLength = 480;
    static const unsigned char kAllocationLength = 0xFC;
};

#endif
