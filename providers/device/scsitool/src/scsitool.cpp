// SPDX-License-Identifier: Apache-2.0
#include "scsitool.h"

#include <endian.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "discovery_common.h"
#include "fi_scsi_ioctl.h"
#include "fi_stringtool.h"
#include "fi_system.h"
#include "scsi_page_codes.h"
#include "trace_call.h"

using kzfi_pdk_4_4::CFiStringTool;
using kzfi_pdk_4_4::fiSystem;

using scsitool_discovery::scsiAddress;

namespace {

const unsigned char kInquiry = 0x12;

// The largest answer a one-byte length can announce (255 + the 5-byte INQUIRY header) fits in the
// buffer behind the CDB.
static_assert(CScsiTool::kAnswerOffset + 255 + 5 <= CScsiTool::kCommandBufferSize,
              "an announced answer must lie inside the command buffer");

}  // namespace

CScsiTool::CScsiTool() {}

CScsiTool::~CScsiTool() {}

int CScsiTool::GetModePageInfo(CScsiDeviceHandle& handle, CScsiDeviceData& device,
                               const unsigned int& pageCode, unsigned int& length,
                               unsigned int pageType, ScsiPagePtr& page)
{
    traceTo(m_traceLog, 4, "libscsitool: DEBUG: Entering CScsiTool::GetModePageInfo()");
    // A non-zero page code always names a VPD page.
    unsigned char evpd = (pageType == 1 || pageCode != scsi_page::kStandardInquiry) ? 1 : 0;
    unsigned char buffer[kCommandBufferSize];
    std::memset(buffer, 0, sizeof(buffer));
    length = 0;
    try {
        int fd = handle.open(device, false);

        // No data goes in; up to kOutputLength bytes come back (the lengths are little-endian).
        // Every byte of the request not set here stays zero.
        const uint32_t outputLength = htole32(kOutputLength);
        std::memcpy(buffer + 4, &outputLength, sizeof outputLength);
        unsigned char* cdb = buffer + kAnswerOffset;
        cdb[0] = kInquiry;
        cdb[1] = static_cast<unsigned char>((static_cast<unsigned int>(device.m_lun) << 5) | evpd);
        cdb[2] = static_cast<unsigned char>(pageCode);
        cdb[4] = kAllocationLength;
        if (fiSystem().ioctl(fd, SCSI_IOCTL_SEND_COMMAND, buffer) != 0) {
            traceTo(m_traceLog, 1,
                    "libscsitool: ERROR: ioctl(SCSI_IOCTL_SEND_COMMAN) for device %s ",
                    device.m_deviceName.c_str());
            return SCSI_STATUS_FAILED;
        }

        const unsigned char* answer = buffer + kAnswerOffset;
        // The answer says its own size: a VPD page's length byte plus its 4-byte header, the
        // standard data's additional length plus its 5-byte header. Up to 260 bytes are copied
        // out of the 512-byte buffer, so what a device announces but did not send (more than the
        // 252 bytes of the allocation length, or a short transfer) is the buffer's zeroes.
        unsigned int size = evpd ? answer[3] + 4u : answer[4] + 5u;
        unsigned char* bytes = new unsigned char[size];
        std::memcpy(bytes, answer, size);
        // A fresh holder replaces the caller's; an older page in it is released, not leaked.
        page.reset(new AdapterAutoPtrArray<unsigned char>(bytes));
        length = size;
    } catch (...) {
        traceTo(m_traceLog, 2, "GetModePageInfo: Exception Ocurred");
        length = 0;
        return SCSI_STATUS_FAILED;
    }
    traceTo(m_traceLog, 4, "libscsitool: DEBUG: Exiting CScsiTool::GetModePageInfo()");
    return SCSI_STATUS_OK;
}

void CScsiTool::GetTargetLunPortInfo(CScsiDeviceHandle& handle, CScsiDeviceData& device)
{
    traceTo(m_traceLog, 4, "libscsitool: DEBUG: Entering CScsiTool::UpdateTargetLunPortInfo()");
    try {
        int fd = handle.open(device, false);
        // The device word, then the host-unique id, which is not used.
        unsigned int idlun[2] = {0, 0};
        if (fiSystem().ioctl(fd, SCSI_IOCTL_GET_IDLUN, idlun) == -1) {
            traceTo(m_traceLog, 1,
                    "libscsitool: ERROR: CScsiTool::UpdateTargetLunPortInfo() "
                    "SCSI_IOCTL_GET_IDLUN IOCTL failed for device %s.",
                    device.m_deviceName.c_str());
            throw static_cast<int>(SCSI_STATUS_FAILED);
        }
        unsigned int word = idlun[0];
        device.m_port = static_cast<int>(word >> 24);
        device.m_bus = (word >> 16) & 0xFF;
        traceTo(m_traceLog, 4, "libscsitool: DEBUG: setting Bus number = %d", device.m_bus);
        device.m_lun = static_cast<int>((word >> 8) & 0xFF);
        traceTo(m_traceLog, 4, "libscsitool: DEBUG: setting LUN = %d", device.m_lun);
        device.m_target = static_cast<int>(word & 0xFF);
        traceTo(m_traceLog, 4, "libscsitool: DEBUG: setting Target = %d", device.m_target);
        traceTo(m_traceLog, 4, "libscsitool: DEBUG: Exiting CScsiTool::UpdateTargetLunPortInfo()");
    } catch (...) {
        traceTo(m_traceLog, 1,
                "libscsitool: ERROR: CScsiTool::UpdateTargetLunPortInfo() failed "
                "for device %s.",
                device.m_deviceName.c_str());
        throw static_cast<int>(SCSI_STATUS_FAILED);
    }
}

int CScsiTool::GetScsiDeviceCapacity(CScsiDeviceHandle&, CScsiDeviceData&)
{
    traceTo(m_traceLog, 4, "libscsitool: DEBUG: Entering CScsiTool::GetScsiDeviceCapacity()");
    traceTo(m_traceLog, 4, "libscsitool: DEBUG: Exiting CScsiTool::GetScsiDeviceCapacity()");
    return SCSI_STATUS_OK;
}

int CScsiTool::RemoveDevice(CScsiDeviceData* device)
{
    if (device == nullptr || device->m_port == -1) {
        traceTo(m_traceLog, 2, "RemoveDevice: Unknown device or adapter");
        return SCSI_STATUS_FAILED;
    }
    const std::string command = "/bin/echo \"scsi remove-single-device " +
                                scsiAddress(device->m_port, static_cast<int>(device->m_bus),
                                            device->m_target, device->m_lun, " ") +
                                "\" >  /proc/scsi/scsi";
    fiSystem().system(command.c_str());  // the kernel's answer is not visible here
    return SCSI_STATUS_OK;
}

int CScsiTool::GetHostIQN(std::string& iqn)
{
    static const char* const kInitiatorFile = "/etc/iscsi/initiatorname.iscsi";
    static const char* const kBlanks = " \n\t\r";
    traceTo(m_traceLog, 4, "libscsitool: DEBUG: Entering CScsiTool::GetHostIQN()");
    if (fiSystem().access("/sbin/iscsiadm", F_OK) != 0) {
        traceTo(m_traceLog, 1,
                "libscsitool: ERROR: iscsi-initiator-utils package is not installed on the host");
        return SCSI_STATUS_FAILED;
    }
    FILE* file = fiSystem().fopen(kInitiatorFile, "r");
    if (file == nullptr) {
        traceTo(m_traceLog, 1, "Error: failed to open file [%s]", kInitiatorFile);
        return 26;
    }
    char line[1024];
    while (std::fgets(line, sizeof(line), file) != nullptr) {
        std::vector<std::string> tokens = CFiStringTool::tokenize(line, "=");
        if (tokens.empty() || !CFiStringTool::CompareNoCase(CFiStringTool::trim(tokens[0], kBlanks),
                                                            "InitiatorName")) {
            continue;
        }
        // The first InitiatorName line names the initiator, even when its value is empty.
        iqn = tokens.size() < 2 ? std::string() : CFiStringTool::trim(tokens[1], kBlanks);
        break;
    }
    std::fclose(file);
    return SCSI_STATUS_OK;
}
