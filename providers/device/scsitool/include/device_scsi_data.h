// SPDX-License-Identifier: Apache-2.0
// The records that carry a disk through the library: the device record with its page cache,
// the device-map entry, one kernel SCSI address, and the tuning values for opening devices.
#ifndef SCSITOOL_DEVICE_SCSI_DATA_H
#define SCSITOOL_DEVICE_SCSI_DATA_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "scsitool_export.h"

// An owning holder of one array, released with delete[].
template <class T>
class AdapterAutoPtrArray {
public:
    explicit AdapterAutoPtrArray(T* p = nullptr) : m_ptr(p) {}
    ~AdapterAutoPtrArray() { delete[] m_ptr; }
    AdapterAutoPtrArray(const AdapterAutoPtrArray&) = delete;
    AdapterAutoPtrArray& operator=(const AdapterAutoPtrArray&) = delete;
    T* get() const { return m_ptr; }

    T* m_ptr;
};

// One cached page: a private copy of the bytes the device returned, and their number.
class SCSITOOL_EXPORT CScsiModePage {
public:
    CScsiModePage();
    CScsiModePage(const unsigned char* data, unsigned int length);
    CScsiModePage(const CScsiModePage& other);
    CScsiModePage& operator=(const CScsiModePage& other);
    ~CScsiModePage();

    // Replaces the bytes (the old array is released).
    void set(const unsigned char* data, unsigned int length);
    const unsigned char* getData() const { return m_bytes.get(); }
    unsigned int getLength() const { return m_length; }

    std::unique_ptr<unsigned char[]> m_bytes;
    unsigned int m_length;
};

class SCSITOOL_EXPORT CScsiDeviceData {
public:
    CScsiDeviceData(const std::string& deviceName, const std::string& secondName,
                    const std::string& hostName, int target, unsigned int bus, int lun, int port,
                    const std::string& vendorId, const std::string& productId,
                    const std::string& firmwareLevel, unsigned long capacity);
    virtual ~CScsiDeviceData();

    // The cached page under `code` (0: standard INQUIRY), or nullptr.
    const CScsiModePage* findPage(unsigned int code) const;

    std::string m_deviceName;
    std::string m_secondName;
    std::string m_hostName;
    std::string m_vendorId;
    std::string m_productId;
    std::string m_firmwareLevel;
    std::string m_userString1;  // kept for callers outside the library
    std::string m_userString2;
    int m_target;
    int m_lun;
    unsigned int m_bus;
    int m_port;
    std::map<unsigned int, CScsiModePage> m_pageCache;
    int dmpClaimLevel;
    int m_pagesValid;
    int m_secondFlag;
    unsigned long m_capacity;
    std::vector<unsigned int> m_supportedPages;
    std::string m_operatingSystem;
    int m_invalid;
};

struct SDeviceInfo {
    int dmpClaimLevel = 0;
    std::string DeviceName;
    std::string Uid;
    std::vector<std::string> NativePath;
};

inline bool operator==(const SDeviceInfo& a, const SDeviceInfo& b)
{
    return a.dmpClaimLevel == b.dmpClaimLevel && a.DeviceName == b.DeviceName && a.Uid == b.Uid &&
           a.NativePath == b.NativePath;
}

typedef std::map<std::string, SDeviceInfo> DeviceMap;

// One entry of the kernel's SCSI device list.
struct SLinuxScsiDevice {
    int host;
    int channel;
    int id;
    int lun;
};

struct CScsiTuningParams {
    unsigned int m_openDeviceRetryDelay;     // OPEN_DEVICE_RETRY_DELAY_IN_SEC
    unsigned int m_openDeviceRetryAttempts;  // OPEN_DEVICE_RETRY_ATTEMPTS
};

class CScsiConfiguration {
public:
    // Overwrites a field only when the "devicefi" configuration's TUNING_PARAMS section holds
    // its key. Always returns 0.
    static int importTuningSettings(CScsiTuningParams& params);
};

#endif
