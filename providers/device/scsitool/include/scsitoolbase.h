// SPDX-License-Identifier: Apache-2.0
// The device handle that owns one disk's descriptor for one query, and the platform-independent
// sequence that fills a device record with INQUIRY data, SCSI address and cached pages.
#ifndef SCSITOOL_SCSITOOLBASE_H
#define SCSITOOL_SCSITOOLBASE_H

#include <memory>
#include <string>

#include "device_scsi_data.h"
#include "fi_trace.h"
#include "scsitool_export.h"

// Status codes of the SCSI layer.
enum : int {
    SCSI_STATUS_OK = 0,
    SCSI_STATUS_NOT_SUPPORTED = 4,
    SCSI_STATUS_FAILED = 6  // also the plain int thrown when a device cannot be opened
};

// One page as the SCSI layer hands it over: an owning holder of a new[] array.
typedef std::unique_ptr<AdapterAutoPtrArray<unsigned char>> ScsiPagePtr;

// Owns the descriptor of one device node while one query runs. A descriptor of -1 or 0 counts
// as closed: 0 is never handed out as a device descriptor and never closed by the destructor.
class SCSITOOL_EXPORT CScsiDeviceHandle : public virtual kzfi_pdk_4_4::CFiTraceable {
public:
    // A closed handle; `log` (may be empty) receives its messages.
    CScsiDeviceHandle();
    explicit CScsiDeviceHandle(const kzfi_pdk_4_4::CFiTraceLogPtr& log);
    // Opens `device` in the throwing mode: throws int 6 when it cannot be opened.
    explicit CScsiDeviceHandle(CScsiDeviceData& device);
    CScsiDeviceHandle(CScsiDeviceData& device, const kzfi_pdk_4_4::CFiTraceLogPtr& log);
    ~CScsiDeviceHandle() override;

    CScsiDeviceHandle(const CScsiDeviceHandle&) = delete;
    CScsiDeviceHandle& operator=(const CScsiDeviceHandle&) = delete;

    // The open descriptor at once when the handle is open; otherwise opens `device`. With
    // `noThrow` a failure returns -1, without it throws int 6.
    int open(CScsiDeviceData& device, bool noThrow);
    // One open(O_RDWR | O_NONBLOCK) of the record's device name; -1 or int 6 on failure.
    int openDevice(CScsiDeviceData& device, bool noThrow);
    // Closes any descriptor of 0 or more and marks the handle closed; a negative one is ignored.
    void closeDevice(int fd);

    int getDescriptor() const { return m_fd; }
    const std::string& getDeviceName() const { return m_deviceName; }
    bool isOpen() const { return m_fd != -1 && m_fd != 0; }

protected:
    std::string m_deviceName;
    int m_fd;
};

// The query sequence. The operations that talk to the kernel are supplied by a platform class.
class SCSITOOL_EXPORT CScsiToolBase : public virtual kzfi_pdk_4_4::CFiTraceable {
public:
    CScsiToolBase();
    virtual ~CScsiToolBase();

    // Appends the codes of VPD page 0x00 to the record's supported page list.
    virtual int UpdateSupportedModePageList(CScsiDeviceHandle& handle, CScsiDeviceData& device);
    // True only for a connected direct-access block device (the whole byte 0).
    virtual bool CheckForDiskDevice(unsigned char peripheral);
    // Fills the record: INQUIRY, address, page list, strings, capacity and the fixed pages.
    virtual int UpdateDevice(CScsiDeviceData* device);
    // 4 (not supported) here.
    virtual int RemoveDevice(CScsiDeviceData* device);
    virtual int UpdateStdInquiryString(CScsiDeviceHandle& handle, CScsiDeviceData& device);
    virtual void UpdateVendorId(CScsiDeviceData& device);
    virtual void UpdateProductId(CScsiDeviceData& device);
    virtual void UpdateFirmwareLevel(CScsiDeviceData& device);
    virtual void UpdateModePageString(CScsiDeviceHandle& handle, unsigned int pageCode,
                                      CScsiDeviceData& device);
    // 0 here.
    virtual int GetScsiDeviceCapacity(CScsiDeviceHandle& handle, CScsiDeviceData& device);
    // Fills target, LUN, bus and port, or throws int 6.
    virtual void GetTargetLunPortInfo(CScsiDeviceHandle& handle, CScsiDeviceData& device) = 0;
    // pageType 1: VPD page `pageCode`; otherwise the standard INQUIRY data for code 0 and the VPD
    // page for any other code. 0 with the page and its length, 6 on failure (length 0).
    virtual int GetModePageInfo(CScsiDeviceHandle& handle, CScsiDeviceData& device,
                                const unsigned int& pageCode, unsigned int& length,
                                unsigned int pageType, ScsiPagePtr& page) = 0;

    // The VPD pages UpdateDevice reads when the device lists them, in reading order.
    static const unsigned int kFixedPages[7];
};

#endif
