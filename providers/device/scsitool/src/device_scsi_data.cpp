// SPDX-License-Identifier: Apache-2.0
#include "device_scsi_data.h"

#include <cstring>

CScsiModePage::CScsiModePage() : m_length(0) {}

CScsiModePage::CScsiModePage(const unsigned char* data, unsigned int length) : m_length(0)
{
    set(data, length);
}

CScsiModePage::CScsiModePage(const CScsiModePage& other)
    : CScsiModePage(other.m_bytes.get(), other.m_length)
{
}

CScsiModePage& CScsiModePage::operator=(const CScsiModePage& other)
{
    if (this != &other) {
        set(other.m_bytes.get(), other.m_length);
    }
    return *this;
}

CScsiModePage::~CScsiModePage() = default;

void CScsiModePage::set(const unsigned char* data, unsigned int length)
{
    if (data == nullptr || length == 0) {
        m_bytes.reset();
        m_length = 0;
        return;
    }
    std::unique_ptr<unsigned char[]> copy(new unsigned char[length]);
    std::memcpy(copy.get(), data, length);
    m_bytes = std::move(copy);
    m_length = length;
}

CScsiDeviceData::CScsiDeviceData(const std::string& deviceName, const std::string& secondName,
                                 const std::string& hostName, int target, unsigned int bus, int lun,
                                 int port, const std::string& vendorId,
                                 const std::string& productId, const std::string& firmwareLevel,
                                 unsigned long capacity)
    : m_deviceName(deviceName),
      m_secondName(secondName),
      m_hostName(hostName),
      m_vendorId(vendorId),
      m_productId(productId),
      m_firmwareLevel(firmwareLevel),
      m_target(target),
      m_lun(lun),
      m_bus(bus),
      m_port(port),
      dmpClaimLevel(0),
      m_pagesValid(0),
      m_secondFlag(0),
      m_capacity(capacity),
      m_invalid(0)
{
}

CScsiDeviceData::~CScsiDeviceData() = default;

const CScsiModePage* CScsiDeviceData::findPage(unsigned int code) const
{
    auto it = m_pageCache.find(code);
    return it != m_pageCache.end() ? &it->second : nullptr;
}
