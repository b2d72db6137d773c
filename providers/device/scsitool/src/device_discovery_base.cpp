// SPDX-License-Identifier: Apache-2.0
#include "device_discovery_base.h"

#include <semaphore.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cstdlib>
#include <mutex>

#include "fi_system.h"
#include "trace_call.h"

using kzfi_pdk_4_4::CFiTraceLogPtr;

namespace {

// The host-wide rescan lock. Only the System V kind is ever selected; the POSIX semaphore is
// the single-process alternative.
struct SDeviceSemaphore {
    bool systemV;
    sem_t* posix;  // the process's one POSIX semaphore, used when systemV is clear
    int id;
    key_t key;
    kzfi_pdk_4_4::CFiSystem* system;  // the system the set belongs to
};

// The real host's set: made by the first rescan on the real host and removed at process exit.
// The process-exit handler lives in this library, which is therefore never unloaded (it is
// linked with -z nodelete).
SDeviceSemaphore g_realSemaphore;
sem_t g_posixSemaphore;
std::mutex g_realSemaphoreMutex;
bool g_realSemaphoreMade = false;

// The first process to exit removes the set for every process; the next rescan elsewhere
// recreates it only when that process makes its own first rescan.
void removeDeviceSemaphore()
{
    std::lock_guard<std::mutex> lock(g_realSemaphoreMutex);
    if (!g_realSemaphoreMade) {
        return;
    }
    if (g_realSemaphore.systemV) {
        g_realSemaphore.system->semctl(g_realSemaphore.id, 0, IPC_RMID);
    } else {
        sem_destroy(g_realSemaphore.posix);
    }
}

// The lock belongs to the system installed when a rescan runs. The real host's set is looked up
// once per process; a replayed host's set lives in that host and is looked up on every rescan,
// so a replay never stands in for the real host's lock, nor the real one for a replay's.
// A failed semget is not reported: the semop calls then fail too and those rescans run without
// cross-process exclusion.
SDeviceSemaphore deviceSemaphore()
{
    kzfi_pdk_4_4::CFiSystem& system = kzfi_pdk_4_4::fiSystem();
    SDeviceSemaphore semaphore{};
    semaphore.key = CDeviceDiscoveryBase::kRescanSemaphoreKey;
    semaphore.systemV = true;
    semaphore.posix = &g_posixSemaphore;
    semaphore.system = &system;
    if (&system != &kzfi_pdk_4_4::fiRealSystem()) {
        semaphore.id = system.semget(semaphore.key, 1, IPC_CREAT | 0666);
        return semaphore;
    }
    std::lock_guard<std::mutex> lock(g_realSemaphoreMutex);
    if (!g_realSemaphoreMade) {
        semaphore.id = system.semget(semaphore.key, 1, IPC_CREAT | 0666);
        g_realSemaphore = semaphore;
        g_realSemaphoreMade = true;
        std::atexit(removeDeviceSemaphore);
    }
    return g_realSemaphore;
}

// Waits until nobody holds the lock and takes it, in one atomic step. SEM_UNDO gives the lock
// back when the holder dies.
void lockDeviceSemaphore(SDeviceSemaphore& semaphore)
{
    if (!semaphore.systemV) {
        sem_wait(semaphore.posix);
        return;
    }
    // Wait for zero, then add one: {semaphore number, operation, flags}.
    struct sembuf operations[2] = {{0, 0, SEM_UNDO}, {0, 1, SEM_UNDO | IPC_NOWAIT}};
    semaphore.system->semop(semaphore.id, operations, 2);
}

void unlockDeviceSemaphore(SDeviceSemaphore& semaphore)
{
    if (!semaphore.systemV) {
        sem_post(semaphore.posix);
        return;
    }
    struct sembuf operation = {0, -1, SEM_UNDO | IPC_NOWAIT};
    semaphore.system->semop(semaphore.id, &operation, 1);
}

// Releases the lock on every way out of a rescan.
class CDeviceSemaphoreHold {
public:
    explicit CDeviceSemaphoreHold(const SDeviceSemaphore& semaphore) : m_semaphore(semaphore)
    {
        lockDeviceSemaphore(m_semaphore);
    }
    ~CDeviceSemaphoreHold() { unlockDeviceSemaphore(m_semaphore); }
    CDeviceSemaphoreHold(const CDeviceSemaphoreHold&) = delete;
    CDeviceSemaphoreHold& operator=(const CDeviceSemaphoreHold&) = delete;

private:
    SDeviceSemaphore m_semaphore;
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
    CDeviceSemaphoreHold hold(deviceSemaphore());

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
