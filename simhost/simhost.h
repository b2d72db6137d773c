// SPDX-License-Identifier: Apache-2.0
// The simulated host: a model of the Linux kernel's SCSI view behind the system interface.
// It decodes the CDBs it is sent, generates the kernel's files from its state, reacts to writes
// on control files, answers scripted commands and records everything it was asked to do.
#ifndef SIMHOST_SIMHOST_H
#define SIMHOST_SIMHOST_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fi_system.h"

namespace simhost {

typedef std::vector<uint8_t> Bytes;

enum class DeviceState {
    Running,       // answers every command it supports
    Latent,        // present but invisible until a scan finds its address
    Unresponsive,  // its node opens, every command fails
    Gone,          // still listed by the kernel, its node cannot be opened (ENXIO)
    Removed,       // forgotten by the kernel after a removal; no scan brings it back
    Denied         // listed and answering, but its node opens for root only (EACCES)
};

struct SimDevice {
    std::string name;  // kernel block name, e.g. "sdc"; its node is "/dev/sdc"
    int host = 0;
    int channel = 0;
    int id = 0;
    int lun = 0;
    Bytes inquiry;             // the standard INQUIRY answer as the device sends it
    std::map<int, Bytes> vpd;  // EVPD answers by page code; a page absent here fails
    bool hasVendorCommand = false;
    Bytes vendorCommand;  // the answer to the vendor identity command sent with SG_IO
    DeviceState state = DeviceState::Running;
    std::vector<std::string> partitions;   // partition names in /proc/partitions, e.g. "sdc1"
    unsigned long long blocks = 10485760;  // size in 1 KiB blocks, as /proc/partitions shows it
    // Faults: the device turns Gone at the n-th open of its node, or at the n-th ioctl on it
    // (0: never); the ioctls ("SEND_COMMAND", "GET_IDLUN", "SG_IO") that fail with EIO on it
    // while its node still opens.
    int vanishAtOpen = 0;
    int vanishAtIoctl = 0;
    std::vector<std::string> failingIoctls;
};

// A device-mapper multipath map (/dev/mapper/<name>) or a PowerPath pseudo-device
// (/dev/<name>): a node that answers like the device it fronts.
struct SimPseudoDevice {
    std::string name;
    std::string device;  // name of the SimDevice behind it; "" when it fronts none
};

// A host adapter: /sys/class/scsi_host/hostN, and the driver's /proc/scsi/<driver>/N file.
struct SimAdapter {
    int host = 0;
    std::string driver;                     // "qla2xxx", "qla2300", "lpfc", "mptspi", ...
    std::string procText;                   // contents of /proc/scsi/<driver>/<host> ("" when none)
    bool fcHost = false;                    // has /sys/class/fc_host/hostN
    std::string portName;                   // its port_name, e.g. "0x21000024ff2c3d4e"
    std::string portState = std::string();  // its port_state, e.g. "Online"; "" for no such file
};

struct SimCommandScript {
    // The exit status 0 to 255, or an exec result beyond it: 256 + signal, FI_EXEC_TIMED_OUT,
    // FI_EXEC_NOT_STARTED.
    int exitCode = 0;
    std::vector<std::string> output;
};

// One thing the library did to the host, in order.
struct SimEvent {
    enum Kind { Command, System, Write, Sleep } kind;
    std::string text;          // the command line, or the path written
    std::string data;          // the bytes written (Write)
    unsigned int seconds = 0;  // Sleep
    int status = 0;            // Command, System: the exec result, or the exit code system() saw
};

// The host's format on disk is described in docs/host-snapshot.md. Threads may call the system
// interface at once (each call holds the model's lock, and a wait on a semaphore set that
// another thread holds blocks until it lets go); building the host and reading what was
// recorded is for one thread, before and after. Streams from fopen must be closed before the host
// is destroyed (a write takes effect, and is recorded, at fclose).
class SimHost : public kzfi_pdk_4_4::CFiSystem {
public:
    // An empty host: hostname "simhost", kernel "2.6.18-8.el5", with /proc/scsi/scsi.
    SimHost();
    ~SimHost() override;

    // A host from a snapshot. On bad input returns nullptr and sets `error` to one message
    // naming the field path, e.g. "devices[3].vpd.83: not hexadecimal".
    static std::unique_ptr<SimHost> fromJson(const std::string& text, std::string& error);
    static std::unique_ptr<SimHost> fromFile(const std::string& path, std::string& error);
    // The snapshot of this host's current state (the format fromJson reads).
    std::string toJson() const;
    // Where a captured snapshot came from (a JSON object's text, "" for none); kept, not used.
    void setCapture(const std::string& json);
    std::string capture() const;
    // One string of that object: "" when it has no such key or the value is not a string.
    std::string captureString(const std::string& key) const;

    // Building a host (tests, benchmarks, the capture command).
    void setHostname(const std::string& name);
    void setHostnameFails();
    void setKernelRelease(const std::string& release);
    void setProcScsi(bool present);
    SimDevice& addDevice(const SimDevice& device);
    SimDevice* findDevice(const std::string& name);
    void addAdapter(const SimAdapter& adapter);
    void addMultipathMap(const std::string& name);     // a node under /dev/mapper/
    void addPowerPathDevice(const std::string& name);  // a node /dev/<name>
    // The same, fronting the named device (the pseudo-node answers like that device).
    void addMultipathMap(const std::string& name, const std::string& device);
    void addPowerPathDevice(const std::string& name, const std::string& device);
    // Whether /dev/mapper/ exists (it does as soon as a map is added).
    void setDeviceMapper(bool present);
    void addFile(const std::string& path, const std::string& content);
    void addExecutable(const std::string& path);
    void scriptCommand(const std::string& commandLine, const SimCommandScript& script);
    // A kernel file whose text wins over the one the model generates (it exists even where the
    // model would have none), e.g. "/proc/partitions" with a line the parser must survive.
    void setKernelFile(const std::string& path, const std::string& text);
    // The descriptor number the next successful open hands out (later ones count up from it).
    void setNextDescriptor(int fd);

    // Views of what the library did, in order.
    std::vector<std::string> commandsRun() const;  // exec and system() command lines
    std::vector<SimEvent> writesTo(const std::string& path) const;
    std::vector<unsigned int> sleeps() const;
    // The events one a line, in order: `write PATH "TEXT"`, `exec "COMMAND" exit N`,
    // `system "COMMAND" exit N`, `sleep N`; texts C-escaped.
    std::string eventLines() const;
    void clearEvents();     // also forgets the CDBs sent and the count of open() calls
    int openCalls() const;  // successful and failed open() calls on device nodes
    // The calls on device nodes, in order: "open /dev/sdc 0x802 = 3" (flags in hex, -1 when it
    // failed), "ioctl 3 SEND_COMMAND 0 96" (the buffer's input and output lengths),
    // "ioctl 3 GET_IDLUN", "ioctl 3 SG_IO", "close 3".
    const std::vector<std::string>& nodeCalls() const;
    // Kernel and control files opened through any simulated host and not closed yet.
    static long openStreams();
    // The CDBs sent through ioctl to a node, in order ("/dev/sdc" or "sdc").
    std::vector<Bytes> cdbsSent(const std::string& node) const;
    // Read access to the model, for tests and the capture command.
    std::vector<SimDevice> devices() const;
    std::vector<SimAdapter> adapters() const;
    // The values of the semaphore set of `key`; empty when there is none.
    std::vector<int> semaphoreValues(int key) const;
    // The text a read of `path` gives now; false when the file does not exist.
    bool fileText(const std::string& path, std::string& text) const;

    // The system interface.
    int open(const char* path, int flags) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    FILE* fopen(const char* path, const char* mode) override;
    void* opendir(const char* path) override;
    struct dirent* readdir(void* dir) override;
    int closedir(void* dir) override;
    int stat(const char* path, struct stat* st) override;
    int access(const char* path, int mode) override;
    int uname(struct utsname* name) override;
    int gethostname(char* name, size_t length) override;
    unsigned int sleep(unsigned int seconds) override;
    int system(const char* command) override;
    // The host's own semaphore sets: the real host's are never touched.
    int semget(key_t key, int count, int flags) override;
    int semop(int id, struct sembuf* operations, size_t count) override;
    int semctl(int id, int number, int command) override;
    int exec(const std::string& command, std::vector<std::string>& output,
             unsigned long limitSeconds, int& sysErrno) override;

    struct State;  // the model's state; defined and used only inside simhost/

private:
    int openNode(const char* path);
    std::unique_ptr<State> m_state;
};

// Installs a host for the life of the object and restores the previous system after.
class SimHostInstall {
public:
    explicit SimHostInstall(SimHost& host);
    ~SimHostInstall();
    SimHostInstall(const SimHostInstall&) = delete;
    SimHostInstall& operator=(const SimHostInstall&) = delete;

private:
    kzfi_pdk_4_4::CFiSystem* m_previous;
};

}  // namespace simhost

#endif
