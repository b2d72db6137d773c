#include "device_discovery_base.h"

#include <semaphore.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cstdlib>

#include "fi_system.h"
#include "trace_call.h"

using kzfi_pdk_4_4::CFiTraceLogPtr;

namespace {

// The host-wide rescan lock. Only the System V kind is ever selected; the POSIX semaphore is
// the single-process alternative.
struct SDeviceSemaphore {
    bool systemV;
    sem_t posix;
    int id;
    key_t key;
    kzfi_pdk_4_4::CFiSystem* system;  // the system that made the set

    // A set made by a system that is no longer installed (a replayed host) went with it; its id
    // means nothing to the system installed now.
    bool live() const { return systemV && &kzfi_pdk_4_4::fiSystem() == system; }
};

SDeviceSemaphore* g_deviceSemaphore = nullptr;

// The first process to exit removes the set for every process; the next rescan elsewhere
// recreates it only when that process makes its own first rescan.
void removeDeviceSemaphore()
{
    if (g_deviceSemaphore == nullptr) {
        return;
    }
    if (g_deviceSemaphore->systemV) {
        if (g_deviceSemaphore->live()) {
            g_deviceSemaphore->system->semctl(g_deviceSemaphore->id, 0, IPC_RMID);
        }
    } else {
        sem_destroy(&g_deviceSemaphore->posix);
    }
}

// A failed semget is not reported: the semop calls then fail too and rescans of this process
// run without cross-process exclusion.
SDeviceSemaphore* createDeviceSemaphore()
{
    static SDeviceSemaphore semaphore;
    semaphore.key = CDeviceDiscoveryBase::kRescanSemaphoreKey;
    semaphore.system = &kzfi_pdk_4_4::fiSystem();
    semaphore.id = semaphore.system->semget(semaphore.key, 1, IPC_CREAT | 0666);
    semaphore.systemV = true;
    g_deviceSemaphore = &semaphore;
    std::atexit(removeDeviceSemaphore);
    return &semaphore;
}

// Waits until nobody holds the lock and takes it, in one atomic step. SEM_UNDO gives the lock
// back when the holder dies.
void lockDeviceSemaphore(SDeviceSemaphore& semaphore)
{
    if (!semaphore.systemV) {
        sem_wait(&semaphore.posix);
        return;
    }
    struct sembuf operations[2];
    operations[0].sem_num = 0;
    operations[0].sem_op = 0;
    operations[0].sem_flg = SEM_UNDO;
    operations[1].sem_num = 0;
    operations[1].sem_op = 1;
    operations[1].sem_flg = SEM_UNDO | IPC_NOWAIT;
    if (semaphore.live()) {
        semaphore.system->semop(semaphore.id, operations, 2);
    }
}

void unlockDeviceSemaphore(SDeviceSemaphore& semaphore)
{
    if (!semaphore.systemV) {
        sem_post(&semaphore.posix);
        return;
    }
    struct sembuf operation;
    operation.sem_num = 0;
    operation.sem_op = -1;
    operation.sem_flg = SEM_UNDO | IPC_NOWAIT;
    if (semaphore.live()) {
        semaphore.system->semop(semaphore.id, &operation, 1);
    }
}

// Releases the lock on every way out of a rescan.
class CDeviceSemaphoreHold {
public:
    explicit CDeviceSemaphoreHold(SDeviceSemaphore& semaphore) : m_semaphore(semaphore)
    {
        lockDeviceSemaphore(m_semaphore);
    }
    ~CDeviceSemaphoreHold() { unlockDeviceSemaphore(m_semaphore); }
    CDeviceSemaphoreHold(const CDeviceSemaphoreHold&) = delete;
    CDeviceSemaphoreHold& operator=(const CDeviceSemaphoreHold&) = delete;

private:
    SDeviceSemaphore& m_semaphore;
};

}  // namespace

CDeviceDiscoveryBase::CDeviceDiscoveryBase() = default;

CDeviceDiscoveryBase::~CDeviceDiscoveryBase() = default;

void CDeviceDiscoveryBase::registerTraceLog(const CFiTraceLogPtr& log)
{
    CFiTraceable::registerTraceLog(log);
    m_scsiTool.registerTraceLog(log);
    m_dmpDiscoveryManager.registerTraceLog(log);
}

void CDeviceDiscoveryBase::removeDeadDevices(std::vector<CScsiDeviceData*>&, bool) {}

void CDeviceDiscoveryBase::removeDevice(const std::string&) {}

int CDeviceDiscoveryBase::FlushMultipathStaleDevices()
{
    return 0;
}

std::vector<CScsiDeviceData*> CDeviceDiscoveryBase::rescan(bool rescanBuses, bool busScanFlag,
                                                           bool removeLun0)
{
    FI_TRACE_FUNCTION("rescan");
    static SDeviceSemaphore* m_deviceSemaphore = createDeviceSemaphore();
    CDeviceSemaphoreHold hold(*m_deviceSemaphore);

    std::vector<CScsiDeviceData*> result;
    traceTo(m_traceLog, 3, "libscsitool: Info: CDeviceDiscoveryBase::rescan().");
    traceTo(m_traceLog, 3, "Acquring lock .");
    traceTo(m_traceLog, 3, "Got the lock .");
    try {
        if (rescanBuses) {
            rescanScsiBus(busScanFlag);
            m_dmpDiscoveryManager.rescan();
        }
        result = enumerateDevices();
        for (CScsiDeviceData* device : result) {
            traceTo(m_traceLog, 6,
                    "libscsitool: Info: CDeviceDiscoveryBase:: Getting data for disk %s.",
                    device->m_deviceName.c_str());
            if (m_scsiTool.UpdateDevice(device) != 0) {
                traceTo(m_traceLog, 3,
                        "libscsitool: Info: CDeviceDiscoveryBase::rescan FAILED - Remove disk %s.",
                        device->m_deviceName.c_str());
                removeDevice(device->m_deviceName);
            }
        }
        if (rescanBuses) {
            removeDeadDevices(result, removeLun0);
        } else if (FlushMultipathStaleDevices() != 0) {
            traceTo(m_traceLog, 1,
                    "ERROR: unable to invoke the command to flush multipath stale device paths");
        }
    } catch (...) {
        traceTo(m_traceLog, 1, "libscsitool: ERROR: CDeviceDiscoveryBase::rescan() failed.");
    }
    traceTo(m_traceLog, 3, "Releasing the lock .");
    traceTo(m_traceLog, 3, "libscsitool: DEBUG : CDeviceDiscoveryBase::rescan Exit.");
    return result;
}

std::vector<CScsiDeviceData*> CDeviceDiscoveryBase::validateDevice(std::string deviceName)
{
    FI_TRACE_FUNCTION("validateDevice");
    std::vector<CScsiDeviceData*> result;
    try {
        result = validateEnumerateDevices(deviceName);
        for (CScsiDeviceData* device : result) {
            if (m_scsiTool.UpdateDevice(device) != 0) {
                traceTo(m_traceLog, 3,
                        "libscsitool: Info: CDeviceDiscoveryBase:: validateDevice FAILED "
                        "- Remove disk %s.",
                        device->m_deviceName.c_str());
            }
        }
    } catch (...) {
        traceTo(m_traceLog, 1,
                "libscsitool: ERROR: CDeviceDiscoveryBase:: validateDevice() failed.");
    }
    return result;
}
