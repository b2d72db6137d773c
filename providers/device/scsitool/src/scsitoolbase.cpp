// SPDX-License-Identifier: Apache-2.0
#include "scsitoolbase.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fi_system.h"
#include "scsi_page_codes.h"
#include "stringtool.h"
#include "trace_call.h"

using kzfi_pdk_4_4::CFiTraceLogPtr;
using kzfi_pdk_4_4::fiSystem;

// ---------------------------------------------------------------------------------------------
// CScsiDeviceHandle

CScsiDeviceHandle::CScsiDeviceHandle() : m_fd(-1) {}

CScsiDeviceHandle::CScsiDeviceHandle(const CFiTraceLogPtr& log) : m_fd(-1)
{
    registerTraceLog(log);
}

CScsiDeviceHandle::CScsiDeviceHandle(CScsiDeviceData& device) : m_fd(-1)
{
    m_deviceName = device.m_deviceName;
    m_fd = openDevice(device, false);
}

CScsiDeviceHandle::CScsiDeviceHandle(CScsiDeviceData& device, const CFiTraceLogPtr& log) : m_fd(-1)
{
    registerTraceLog(log);
    m_deviceName = device.m_deviceName;
    m_fd = openDevice(device, false);
}

CScsiDeviceHandle::~CScsiDeviceHandle()
{
    // Descriptor 0 is never closed here: it was not opened by a handle.
    if (isOpen()) {
        closeDevice(m_fd);
    }
    m_traceLog.release();
}

int CScsiDeviceHandle::open(CScsiDeviceData& device, bool noThrow)
{
    if (isOpen()) {
        return m_fd;
    }
    m_deviceName = device.m_deviceName;
    m_fd = openDevice(device, noThrow);
    return m_fd;
}

int CScsiDeviceHandle::openDevice(CScsiDeviceData& device, bool noThrow)
{
    try {
        std::string path = device.m_deviceName;

        // The tuning values are read so that they are available; a device gets one open attempt.
        CScsiTuningParams params;
        params.m_openDeviceRetryDelay = 3;
        params.m_openDeviceRetryAttempts = 8;
        CScsiConfiguration::importTuningSettings(params);

        int fd = fiSystem().open(path.c_str(), O_RDWR | O_NONBLOCK);
        if (fd >= 0) {
            return fd;
        }
        int err = errno;
        traceTo(m_traceLog, 2,
                "ERROR: CScsiDeviceHandle::openDevice() Invalid device handle "
                "[0x%x] for [%s], errno [%d] throwing",
                static_cast<unsigned int>(fd), path.c_str(), err);
        if (noThrow) {
            return -1;
        }
        throw static_cast<int>(SCSI_STATUS_FAILED);
    } catch (...) {
        traceTo(m_traceLog, 1,
                "ERROR: CScsiDeviceHandle::openDevice() caught unhandled exception.");
        throw static_cast<int>(SCSI_STATUS_FAILED);
    }
}

void CScsiDeviceHandle::closeDevice(int fd)
{
    if (fd < 0) {
        return;
    }
    fiSystem().close(fd);  // a failed close still leaves the handle closed
    m_fd = -1;
}

// ---------------------------------------------------------------------------------------------
// CScsiToolBase

const unsigned int CScsiToolBase::kFixedPages[7] = {scsi_page::kDeviceIdentification,
                                                    scsi_page::kUnitSerial,
                                                    scsi_page::kVendorC0,
                                                    scsi_page::kVendorC8,
                                                    scsi_page::kVendor10,
                                                    scsi_page::kVendor11,
                                                    scsi_page::kVendorD0};

CScsiToolBase::CScsiToolBase() {}

CScsiToolBase::~CScsiToolBase() {}

namespace {

// Stores a private copy of `length` bytes of `page` under `code`, replacing an older entry.
void storePage(CScsiDeviceData& device, unsigned int code, const ScsiPagePtr& page,
               unsigned int length)
{
    device.m_pageCache[code].set(page->get(), length);
}

// The INQUIRY bytes [first, first + count) that the cached copy really holds, as text up to the
// first null byte. A short INQUIRY (32 to 35 bytes pass the size test) gives a short field
// instead of a read past the cached copy.
std::string inquiryField(const CScsiDeviceData& device, unsigned int first, unsigned int count)
{
    const CScsiModePage* inquiry = device.findPage(scsi_page::kStandardInquiry);
    if (inquiry == nullptr || inquiry->getData() == nullptr || inquiry->getLength() <= first) {
        return std::string();
    }
    unsigned int available = std::min(count, inquiry->getLength() - first);
    std::string field(reinterpret_cast<const char*>(inquiry->getData()) + first, available);
    return field.substr(0, field.find('\0'));
}

}  // namespace

int CScsiToolBase::UpdateStdInquiryString(CScsiDeviceHandle& handle, CScsiDeviceData& device)
{
    try {
        unsigned int length = 0;
        ScsiPagePtr page;
        GetModePageInfo(handle, device, scsi_page::kStandardInquiry, length, 0, page);
        bool havePage = page && page->get() != nullptr;
        if (havePage && length != 0) {
            storePage(device, scsi_page::kStandardInquiry, page, length);
        }
        if (havePage && length >= 32) {
            if (CheckForDiskDevice(page->get()[0])) {
                return SCSI_STATUS_OK;
            }
            traceTo(m_traceLog, 2,
                    "WARNING: UpdateStdInquiryString SCSI check for disk device "
                    "error, device may have been removed.");
            return SCSI_STATUS_FAILED;
        }
        traceTo(m_traceLog, 2,
                "WARNING: UpdateStdInquiryString invalid SCSI inq page size, device "
                "may have been removed.");
        return SCSI_STATUS_FAILED;
    } catch (...) {
        throw static_cast<int>(SCSI_STATUS_FAILED);
    }
}

bool CScsiToolBase::CheckForDiskDevice(unsigned char peripheral)
{
    return peripheral == 0;
}

int CScsiToolBase::UpdateSupportedModePageList(CScsiDeviceHandle& handle, CScsiDeviceData& device)
{
    try {
        unsigned int length = 0;
        ScsiPagePtr page;
        GetModePageInfo(handle, device, scsi_page::kSupportedPages, length, 1, page);
        if (page && page->get() != nullptr && length > 3) {
            const unsigned char* bytes = page->get();
            unsigned int count = bytes[3];
            if (count != 0 && length >= count + 4) {
                device.m_supportedPages.insert(device.m_supportedPages.end(), bytes + 4,
                                               bytes + 4 + count);
            }
        }
        return SCSI_STATUS_OK;
    } catch (...) {
        device.m_pagesValid = 0;
        traceTo(m_traceLog, 2, "UpdateSupportedModePageList: Unknown bus type");
        return SCSI_STATUS_FAILED;
    }
}

void CScsiToolBase::UpdateModePageString(CScsiDeviceHandle& handle, unsigned int pageCode,
                                         CScsiDeviceData& device)
{
    try {
        unsigned int length = 0;
        ScsiPagePtr page;
        GetModePageInfo(handle, device, pageCode, length, 0, page);
        if (length != 0 && page && page->get() != nullptr) {
            storePage(device, pageCode, page, length);
        }
    } catch (...) {
        throw static_cast<int>(SCSI_STATUS_FAILED);
    }
}

void CScsiToolBase::UpdateVendorId(CScsiDeviceData& device)
{
    device.m_vendorId = CStringTool::rtrim(inquiryField(device, 8, 8), ' ');
}

void CScsiToolBase::UpdateProductId(CScsiDeviceData& device)
{
    device.m_productId = CStringTool::rtrim(inquiryField(device, 16, 16), ' ');
}

void CScsiToolBase::UpdateFirmwareLevel(CScsiDeviceData& device)
{
    device.m_firmwareLevel = inquiryField(device, 32, 4);
}

int CScsiToolBase::RemoveDevice(CScsiDeviceData*)
{
    return SCSI_STATUS_NOT_SUPPORTED;
}

int CScsiToolBase::GetScsiDeviceCapacity(CScsiDeviceHandle&, CScsiDeviceData&)
{
    return SCSI_STATUS_OK;
}

int CScsiToolBase::UpdateDevice(CScsiDeviceData* device)
{
    CScsiDeviceHandle handle(m_traceLog);
    if (device == nullptr) {
        traceTo(m_traceLog, 2,
                "WARNING: CScsiToolBase::UpdateDevice() invalid SCSI device handle.");
        return SCSI_STATUS_FAILED;
    }
    device->m_operatingSystem = "Linux";
    try {
        if (UpdateStdInquiryString(handle, *device) != 0) {
            traceTo(m_traceLog, 2,
                    "WARNING: CScsiToolBase::UpdateDevice() call to "
                    "UpdateStdInquiryString for device %s",
                    device->m_deviceName.c_str());
            return SCSI_STATUS_FAILED;
        }
        GetTargetLunPortInfo(handle, *device);
        UpdateSupportedModePageList(handle, *device);
        UpdateVendorId(*device);
        UpdateProductId(*device);
        UpdateFirmwareLevel(*device);
        if (GetScsiDeviceCapacity(handle, *device) != 0) {
            device->m_capacity = 0;
        }
        for (unsigned int code : kFixedPages) {
            const std::vector<unsigned int>& listed = device->m_supportedPages;
            if (std::find(listed.begin(), listed.end(), code) == listed.end()) {
                continue;
            }
            traceTo(m_traceLog, 6, "CSciToolBase:UpdateModePageString for page[%d]...", code);
            UpdateModePageString(handle, code, *device);
            traceTo(m_traceLog, 6, "CSciToolBase:UpdateModePageString for page[%d] done", code);
        }
        return SCSI_STATUS_OK;
    } catch (...) {
        traceTo(m_traceLog, 2, "UpdateDevice: Exception Occurred");
        return SCSI_STATUS_FAILED;
    }
}
