// SPDX-License-Identifier: Apache-2.0
// The UDID factory: owns discovery, a multipath discovery manager and the generator table,
// computes the UDID of one device, and builds, validates, prints and serves the device map.
#ifndef SCSITOOL_DEVICE_UDID_FACTORY_H
#define SCSITOOL_DEVICE_UDID_FACTORY_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "device_discovery.h"
#include "device_scsi_data.h"
#include "device_udid_generator.h"
#include "dmp_discovery_manager.h"
#include "fi_trace.h"
#include "scsitool_export.h"

// How getUniqueDeviceID came to a UDID: the generator that made it and, in table order, the
// generators that claimed the device before it and threw.
struct SUdidOrigin {
    struct Failure {
        std::string generator;  // getGeneratorName()
        std::string exception;  // message id ":" vendor ":" product, as the warning shows it
    };
    bool fromOverride = false;  // the override map's entry, no generator asked
    std::string generator;      // "" when no generator made it
    std::vector<Failure> failures;
};

class SCSITOOL_EXPORT CUDIDFactory : public virtual kzfi_pdk_4_4::CFiTraceable {
public:
    // The same two separators the generators use.
    static const char* const udid_prefix;     // "UDID##"
    static const char* const udid_separator;  // "##"

    CUDIDFactory();
    ~CUDIDFactory() override;
    CUDIDFactory(const CUDIDFactory&) = delete;
    CUDIDFactory& operator=(const CUDIDFactory&) = delete;

    // Hands the log to the factory, discovery, its SCSI tool and manager, the factory's own
    // manager and every generator, in that order.
    void registerTraceLog(const kzfi_pdk_4_4::CFiTraceLogPtr& log) override;

    // The UDID of one queried device record, upper case. Never throws CUdidGeneratorException.
    std::string getUniqueDeviceID(CScsiDeviceData* device);
    // The same UDID, and in `origin` which generator made it and which failed before it.
    std::string getUniqueDeviceID(CScsiDeviceData* device, SUdidOrigin& origin);

    // Rebuilds m_deviceMap from a discovery rescan and returns a copy of it.
    std::map<std::string, SDeviceInfo> enumerateDeviceMap(bool rescanBuses, bool busScanFlag,
                                                          bool removeLun0);
    // Rebuilds m_deviceMap from queried records, which it then deletes: the second half of an
    // enumeration, after discovery's rescan. `rescanBuses` drops records marked invalid.
    std::map<std::string, SDeviceInfo> fillDeviceMap(std::vector<CScsiDeviceData*>& devices,
                                                     bool rescanBuses);
    // A fresh one-device map for `deviceName`; m_deviceMap is not touched.
    std::map<std::string, SDeviceInfo> validateDeviceMap(std::string deviceName);
    // Traces `map` at level 3.
    void printDeviceMap(const std::map<std::string, SDeviceInfo>& map);
    // The UDID of one device from the maps, enumerating or rescanning when needed; "" when the
    // device can't be found.
    std::string getCachedUniqueDeviceID(const char* deviceName, bool rescanIfMissing);
    // Shown every queried record of an enumeration, in discovery's order, before the map is
    // built from it (records a rescan marked invalid included); the record is gone after the
    // call. The map, the trace and the system calls are the same with or without an observer.
    void setRecordObserver(std::function<void(const CScsiDeviceData&)> observer);

    std::map<std::string, SDeviceInfo> m_overrideDeviceMap;
    std::map<std::string, SDeviceInfo> m_deviceMap;
    std::vector<CUdidGenerator*> m_generators;
    std::vector<void*> m_reserved;
    CLinuxDeviceDiscovery m_discovery;
    CDmpDiscoveryManager m_dmpManager;

private:
    // The UDID of `device` for a map entry: the exception and short-UDID warnings.
    std::string mapEntryUdid(CScsiDeviceData* device);
    void traceMissing(const char* deviceName);

    std::function<void(const CScsiDeviceData&)> m_recordObserver;
};

#endif
