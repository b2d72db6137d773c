// SPDX-License-Identifier: Apache-2.0
// The NetApp filer: its vendor identity command, the one command a generator sends itself, and
// the generator that builds a UDID from the enclosure id the command returns. The command's
// capture links this file alone for the command, built with SCSITOOL_NETAPP_IDENTITY_ONLY.
#include <fcntl.h>

#include <cstring>
#include <string>
#include <vector>

#include "fi_scsi_ioctl.h"
#include "fi_system.h"
#include "netapp_identity.h"

using kzfi_pdk_4_4::fiSystem;

bool sendNetAppIdentityCommand(const std::string& node, std::vector<unsigned char>& answer,
                               int& result)
{
    int fd = fiSystem().open(node.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        return false;
    }
    unsigned char cdb[10] = {0xC0, 0x00, 0x00, 0x0A, 0x98, 0x0A, 0x22, 0x10, 0x00, 0x00};
    unsigned char sense[64] = {};
    answer.assign(4096, 0);
    sg_io_hdr_t request;
    std::memset(&request, 0, sizeof(request));
    request.interface_id = 'S';
    request.dxfer_direction = SG_DXFER_FROM_DEV;
    request.cmd_len = sizeof(cdb);
    request.mx_sb_len = sizeof(sense);
    request.dxfer_len = static_cast<unsigned int>(answer.size());
    request.dxferp = answer.data();
    request.cmdp = cdb;
    request.sbp = sense;
    request.timeout = 10;
    result = fiSystem().ioctl(fd, SG_IO, &request);
    fiSystem().close(fd);
    return true;
}

#ifndef SCSITOOL_NETAPP_IDENTITY_ONLY

#include <algorithm>
#include <cstdint>

#include "device_udid_generator.h"
#include "scsi_page_codes.h"
#include "trace_call.h"

CNetAppUdidGenerator::CNetAppUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

// The filer answers the vendor identity command with records from byte 8 on; the one of type
// 0x22 holds the enclosure id as text from its byte 28.
std::string CNetAppUdidGenerator::getEnclosureID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CNetAppUdidGenerator::getEnclosureID");
    enum { kLastRecordStart = 256, kTextOffset = 28, kTextLimit = 23 };
    std::vector<unsigned char> response;
    int rc = 0;
    if (!sendNetAppIdentityCommand(device->m_deviceName, response, rc)) {
        traceTo(m_traceLog, 2, "getEnclosureID: cannot open %s", device->m_deviceName.c_str());
        return "";
    }
    // Only the call's own failure counts. A transport error leaves the zeroed buffer, whose walk
    // ends at once on a zero length, so the host and driver status add nothing.
    if (rc < 0) {
        traceTo(m_traceLog, 2, "getEnclosureID: identity command failed on %s",
                device->m_deviceName.c_str());
        return "";
    }

    // Record lengths are two signed bytes; a zero or negative one ends the walk. Every record
    // start is at most byte 256, so the text read from it stays inside the buffer.
    const CachedBytes answer{response.data(), static_cast<unsigned int>(response.size())};
    int start = 8;
    while (start <= kLastRecordStart) {
        const unsigned char* record = response.data() + start;
        if (record[0] == 0x22) {
            return textField(answer, unsigned(start) + kTextOffset, kTextLimit);
        }
        int length = int(int8_t(record[2])) * 256 + int(int8_t(record[3]));
        if (length <= 0) {
            break;
        }
        start += length;
    }
    return "";
}

// "<enclosure id>##" and the 12 bytes of page 0x83 from byte 21 in lower-case hex.
std::string CNetAppUdidGenerator::getUniqueDeviceID(CScsiDeviceData* device)
{
    FI_TRACE_FUNCTION("CNetAppUdidGenerator::getUniqueDeviceID");
    std::string enclosureId = getEnclosureID(device);
    if (enclosureId.empty()) {
        throw error(MSG_INVALID_SCSI_PAGE_DATA);
    }
    std::string body = enclosureId + udid_separator;

    const std::vector<unsigned int>& pages = device->m_supportedPages;
    if (std::find(pages.begin(), pages.end(), unsigned(scsi_page::kDeviceIdentification)) ==
        pages.end()) {
        // This one site names the missing page in place of the product.
        throw CUdidGeneratorException(MSG_INVALID_SCSI_PAGE_DATA, m_vendorId, "0x83");
    }
    CachedBytes page83 = findPageData(device, scsi_page::kDeviceIdentification);
    if (!page83 || page83.length < 33) {
        throw error(MSG_INVALID_SCSI_DEVICE_DATA);
    }
    return body + hexField(page83, 21, 12, false);
}

#endif
