// SPDX-License-Identifier: Apache-2.0
// The system interface: every operating-system call that the kit and the library make goes
// through the one CFiSystem installed for the process. The real Linux implementation is the
// default; tests, benchmarks and the command's replay mode install another.
#ifndef KZFI_PDK_FI_SYSTEM_H
#define KZFI_PDK_FI_SYSTEM_H

#include <dirent.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <cstdio>
#include <string>
#include <vector>

#include "fi_export.h"

namespace kzfi_pdk_4_4 {

// Result codes of CFiSystem::exec (and so of CFiExecPipeBase::Exec) beside the command's own exit
// status (1 to 255) and 256 + signal number for a command killed by a signal.
enum : int {
    FI_EXEC_TIMED_OUT = 1000,   // the limit passed; the whole process group was killed
    FI_EXEC_NOT_STARTED = 1001  // pipe or fork failed, or the exit status could not be learnt
                                // (SIGCHLD ignored: ECHILD); errno is kept in the last-error record
};

// The interface alone: a partial implementation cannot fall through to the real host.
class KZFI_PDK_EXPORT CFiSystem {
public:
    virtual ~CFiSystem();

    // Device nodes.
    virtual int open(const char* path, int flags) = 0;
    virtual int close(int fd) = 0;
    virtual int ioctl(int fd, unsigned long request, void* arg) = 0;

    // Kernel, control and configuration files, as stdio streams the caller closes with fclose.
    virtual FILE* fopen(const char* path, const char* mode) = 0;

    // Directories: an opaque handle, entries until nullptr (errno set on a read error).
    virtual void* opendir(const char* path) = 0;
    virtual struct dirent* readdir(void* dir) = 0;
    virtual int closedir(void* dir) = 0;

    virtual int stat(const char* path, struct stat* st) = 0;
    virtual int access(const char* path, int mode) = 0;
    virtual int uname(struct utsname* name) = 0;
    virtual int gethostname(char* name, size_t length) = 0;
    virtual unsigned int sleep(unsigned int seconds) = 0;
    virtual int system(const char* command) = 0;

    // The System V semaphore calls of the host-wide rescan lock.
    virtual int semget(key_t key, int count, int flags) = 0;
    virtual int semop(int id, struct sembuf* operations, size_t count) = 0;
    virtual int semctl(int id, int number, int command) = 0;

    // Runs `command` through /bin/sh -c with standard output and error captured one element per
    // line (without the newline). Lines of the two streams are kept whole and apart, in the order
    // they were completed; a last line without a newline ends its stream, standard output's first.
    // The limit covers reading and reaping, and at the limit the command's whole process group is
    // killed. A command that exits returns at once, even when a child it left running in the
    // background still holds its output; that child is left alone and loses what it writes later.
    // Returns 0 on success, the exit status, 256 + signal, FI_EXEC_TIMED_OUT or
    // FI_EXEC_NOT_STARTED; sysErrno receives errno for the last two.
    virtual int exec(const std::string& command, std::vector<std::string>& output,
                     unsigned long limitSeconds, int& sysErrno) = 0;
};

// The real Linux implementation.
class KZFI_PDK_EXPORT CFiLinuxSystem final : public CFiSystem {
public:
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
    int semget(key_t key, int count, int flags) override;
    int semop(int id, struct sembuf* operations, size_t count) override;
    int semctl(int id, int number, int command) override;
    int exec(const std::string& command, std::vector<std::string>& output,
             unsigned long limitSeconds, int& sysErrno) override;
};

// The installed implementation (the real one unless another was installed).
KZFI_PDK_EXPORT CFiSystem& fiSystem();

// Installs `system` for the process and returns the one it replaces; nullptr restores the real
// implementation. The caller keeps ownership.
KZFI_PDK_EXPORT CFiSystem* fiInstallSystem(CFiSystem* system);

// The real Linux implementation, kept for the life of the process.
KZFI_PDK_EXPORT CFiSystem& fiRealSystem();

// The host name through the installed system, the call given a buffer of `capacity` bytes: true
// and the name when the call succeeds; false and whatever it wrote when it fails (glibc copies
// what fits of a name too long for the buffer, a host without a name writes nothing).
inline bool fiHostName(std::string& name, size_t capacity = 255)
{
    std::vector<char> buffer(capacity + 1, '\0');
    const bool named = fiSystem().gethostname(buffer.data(), capacity) == 0;
    name = buffer.data();
    return named;
}

}  // namespace kzfi_pdk_4_4

#endif
