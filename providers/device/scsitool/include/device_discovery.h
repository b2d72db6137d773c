// SPDX-License-Identifier: Apache-2.0
// Linux device discovery: the kernel's device tables read into device records, SCSI bus and HBA
// rescans on 2.4 and 2.6 kernels, removal of dead devices and flushing of stale multipath maps.
#ifndef SCSITOOL_DEVICE_DISCOVERY_H
#define SCSITOOL_DEVICE_DISCOVERY_H

#include <map>
#include <string>
#include <vector>

#include "device_discovery_base.h"
#include "scsitool_export.h"

class SCSITOOL_EXPORT CLinuxDeviceDiscovery : public CDeviceDiscoveryBase {
public:
    CLinuxDeviceDiscovery();
    ~CLinuxDeviceDiscovery() override;

    // Drops records whose query failed (adapter -1) and deletes them: the caller must not free
    // its own copies of the pointers it gave. Then removes kernel disks that have no record
    // (LUN 0 only with `removeLun0`) and scans the buses once more.
    void removeDeadDevices(std::vector<CScsiDeviceData*>& devices, bool removeLun0) override;
    // Asks multipath to flush unused maps when its daemon runs; the daemon check's result.
    int FlushMultipathStaleDevices() override;
    // Multipath pseudo-devices first (claim level 16), then whole sd disks (claim level 2);
    // devices that do not open are left out.
    std::vector<CScsiDeviceData*> enumerateDevices() override;
    // The record of `deviceName` (claim level 0) if it opens.
    std::vector<CScsiDeviceData*> validateEnumerateDevices(std::string deviceName) override;
    // QLogic rescans, then the mid-layer scan of the running kernel family.
    int rescanScsiBus(bool busScanFlag) override;

    // Enumeration.
    // Addresses of "/proc/scsi/scsi"; with `disksOnly` those typed Direct-Access or Unknown.
    std::vector<SLinuxScsiDevice> getDeviceList(bool disksOnly);
    // The number of "Host:" lines of "/proc/scsi/scsi".
    int getDeviceCount();
    // Host number to the target ids of its disk-like devices (RAID included).
    void getTargetIds(std::map<int, std::vector<int>>& targets);
    bool containsDevice(int host, int channel, int id, int lun,
                        const std::vector<SLinuxScsiDevice>& devices);
    // Whether a block-device name is a whole sd disk; throws int 6 on an internal failure.
    bool IsValidDeviceName(const std::string& name);
    // "/dev/" paths of the whole sd disks of "/proc/partitions"; throws int 6 on failure.
    std::vector<std::string> enumerateNativeDevicePaths();

    // Bus rescanning.
    int GetHostAdapterList(std::map<std::string, std::vector<int>>& adapters);
    int RescanQlogicHBAs(std::map<std::string, std::vector<int>>& adapters);
    int RescanScsiMidLayer2_4(std::map<std::string, std::vector<int>>& adapters);
    int RescanScsiMidLayer2_6();
    int GetHostAdapterList2_6(std::vector<std::string>& hosts);
    int scanForAdapterMaximums(std::map<int, int>& maxLun, std::map<int, int>& maxId,
                               std::map<int, int>& maxChannel);
    // Probes every plausible address with "scsi add-single-device"; the final device count.
    int scanForNewDevices(std::map<int, int>& maxLun, std::map<int, int>& maxId,
                          std::map<int, int>& maxChannel);

    // Removal of one address from the SCSI mid-layer.
    void RemoveDevice(int host, int channel, int id, int lun);

private:
    // When the "/proc/scsi" entry `directory` names `driver`, lists its hosts into `adapters`
    // under `driver`.
    void listDriverHosts(const char* driver, const std::string& directory,
                         std::map<std::string, std::vector<int>>& adapters);
    // Probes the ids and LUNs of one channel; gives the channel up as the 2.4 scan does.
    void probeChannel(int host, int channel, int lunLimit, int maxId, int maxChannel,
                      const std::vector<SLinuxScsiDevice>& existing);
    // Writes "scsi add-single-device" for one address; false when the file did not open.
    bool addSingleDevice(int host, int channel, int id, int lun);
    // A record of `deviceName` opened once to check it can be, or nullptr when it cannot.
    CScsiDeviceData* makeOpenedRecord(const std::string& deviceName, const std::string& hostName,
                                      int claimLevel, bool setClaimLevel);
    // The opened records of `deviceNames`, appended to `result` in order.
    void addOpenedRecords(const std::vector<std::string>& deviceNames, const std::string& hostName,
                          int claimLevel, bool setClaimLevel,
                          std::vector<CScsiDeviceData*>& result);
};

#endif
