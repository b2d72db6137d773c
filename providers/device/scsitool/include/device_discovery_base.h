// SPDX-License-Identifier: Apache-2.0
// The discovery interface that the device map drives: rescan and return every usable device,
// queried, under the host-wide rescan lock; or return one named device, queried.
#ifndef SCSITOOL_DEVICE_DISCOVERY_BASE_H
#define SCSITOOL_DEVICE_DISCOVERY_BASE_H

#include <string>
#include <vector>

#include "device_scsi_data.h"
#include "dmp_discovery_manager.h"
#include "fi_trace.h"
#include "scsitool.h"
#include "scsitool_export.h"

class SCSITOOL_EXPORT CDeviceDiscoveryBase : public virtual kzfi_pdk_4_4::CFiTraceable {
public:
    CDeviceDiscoveryBase();
    ~CDeviceDiscoveryBase() override;

    CDeviceDiscoveryBase(const CDeviceDiscoveryBase&) = delete;
    CDeviceDiscoveryBase& operator=(const CDeviceDiscoveryBase&) = delete;

    // Sets the log on this object, on the SCSI tool and on the multipath manager.
    void registerTraceLog(const kzfi_pdk_4_4::CFiTraceLogPtr& log) override;
    // Nothing here.
    virtual void removeDeadDevices(std::vector<CScsiDeviceData*>& devices, bool removeLun0);
    // Nothing here.
    virtual void removeDevice(const std::string& deviceName);
    // 0 here.
    virtual int FlushMultipathStaleDevices();
    // Under the host-wide lock: optionally rescans the buses and the multipath software, then
    // enumerates and queries every device. With `rescanBuses` dead devices are removed after,
    // otherwise stale multipath maps are flushed. The caller owns the returned records.
    virtual std::vector<CScsiDeviceData*> rescan(bool rescanBuses, bool busScanFlag,
                                                 bool removeLun0);
    // The records (zero or one) of `deviceName`, queried; no lock is taken.
    virtual std::vector<CScsiDeviceData*> validateDevice(std::string deviceName);

    virtual std::vector<CScsiDeviceData*> enumerateDevices() = 0;
    virtual std::vector<CScsiDeviceData*> validateEnumerateDevices(std::string deviceName) = 0;
    virtual int rescanScsiBus(bool busScanFlag) = 0;

    // The System V key of the host-wide rescan semaphore.
    static const int kRescanSemaphoreKey = 1001;

protected:
    CScsiTool m_scsiTool;
    CDmpDiscoveryManager m_dmpDiscoveryManager;
};

#endif
