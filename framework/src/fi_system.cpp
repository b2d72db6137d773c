// SPDX-License-Identifier: Apache-2.0
#include "fi_system.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace kzfi_pdk_4_4 {

namespace {

std::atomic<CFiSystem*> g_installed{nullptr};

using Clock = std::chrono::steady_clock;

// One output stream of a running command: the read end of its pipe and the part of a line that
// has not ended yet. Standard output and error have a pipe each so that a partial line of one is
// never continued by text of the other.
struct CommandStream {
    int fd = -1;
    std::string partial;
};

// Reads at most `budget` bytes of what `stream` holds now and moves every line they end to
// `output`. Closes the stream when every writer has closed it (or reading fails).
void readStream(CommandStream& stream, size_t budget, std::vector<std::string>& output)
{
    char buffer[BUFSIZ];
    while (stream.fd >= 0 && budget > 0) {
        ssize_t got = ::read(stream.fd, buffer, budget < sizeof buffer ? budget : sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0 && errno == EAGAIN) {
            return;
        }
        if (got <= 0) {
            ::close(stream.fd);
            stream.fd = -1;
            return;
        }
        budget -= static_cast<size_t>(got);
        stream.partial.append(buffer, static_cast<size_t>(got));
        size_t start = 0;
        for (size_t end; (end = stream.partial.find('\n', start)) != std::string::npos;
             start = end + 1) {
            output.push_back(stream.partial.substr(start, end - start));
        }
        stream.partial.erase(0, start);
    }
}

// Reads what the streams hold at this moment: all a finished command wrote, but never an endless
// supply from a child it left behind. A line the stream never ended is kept as it stands.
void readRemainder(CommandStream (&streams)[2], std::vector<std::string>& output)
{
    for (CommandStream& stream : streams) {
        int pending = 0;
        if (stream.fd >= 0 && ::ioctl(stream.fd, FIONREAD, &pending) == 0 && pending > 0) {
            readStream(stream, static_cast<size_t>(pending), output);
        }
        // The streams are not used again: closing and moving out is all that is left.
        if (stream.fd >= 0) {
            ::close(stream.fd);
        }
        if (!stream.partial.empty()) {
            output.push_back(std::move(stream.partial));
        }
    }
}

void sleepFor(std::chrono::milliseconds pause)
{
    ::poll(nullptr, 0, static_cast<int>(pause.count()));
}

// The longest wait between two questions to a running command whether it has finished.
constexpr std::chrono::milliseconds kLongestPause{50};

}  // namespace

CFiSystem::~CFiSystem() = default;

int CFiLinuxSystem::open(const char* path, int flags)
{
    return ::open(path, flags);
}

int CFiLinuxSystem::close(int fd)
{
    return ::close(fd);
}

int CFiLinuxSystem::ioctl(int fd, unsigned long request, void* arg)
{
    return ::ioctl(fd, request, arg);
}

FILE* CFiLinuxSystem::fopen(const char* path, const char* mode)
{
    // Kernel, control and identity files are opened close-on-exec: a host process that forks on
    // another thread while a file is open does not hand it to the child. Device nodes go through
    // open() and keep exactly the flags their caller gives.
    std::string closeOnExec = std::string(mode) + "e";
    return ::fopen(path, closeOnExec.c_str());
}

void* CFiLinuxSystem::opendir(const char* path)
{
    return ::opendir(path);
}

struct dirent* CFiLinuxSystem::readdir(void* dir)
{
    return ::readdir(static_cast<DIR*>(dir));
}

int CFiLinuxSystem::closedir(void* dir)
{
    return ::closedir(static_cast<DIR*>(dir));
}

int CFiLinuxSystem::stat(const char* path, struct stat* st)
{
    return ::stat(path, st);
}

int CFiLinuxSystem::access(const char* path, int mode)
{
    return ::access(path, mode);
}

int CFiLinuxSystem::uname(struct utsname* name)
{
    return ::uname(name);
}

int CFiLinuxSystem::gethostname(char* name, size_t length)
{
    return ::gethostname(name, length);
}

int CFiLinuxSystem::semget(key_t key, int count, int flags)
{
    return ::semget(key, count, flags);
}

int CFiLinuxSystem::semop(int id, struct sembuf* operations, size_t count)
{
    return ::semop(id, operations, count);
}

int CFiLinuxSystem::semctl(int id, int number, int command)
{
    return ::semctl(id, number, command);
}

unsigned int CFiLinuxSystem::sleep(unsigned int seconds)
{
    return ::sleep(seconds);
}

int CFiLinuxSystem::system(const char* command)
{
    return ::system(command);
}

int CFiLinuxSystem::exec(const std::string& command, std::vector<std::string>& output,
                         unsigned long limitSeconds, int& sysErrno)
{
    sysErrno = 0;
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(limitSeconds);
    int outFds[2];
    int errFds[2];
    if (::pipe2(outFds, O_CLOEXEC) != 0) {
        sysErrno = errno;
        return FI_EXEC_NOT_STARTED;
    }
    if (::pipe2(errFds, O_CLOEXEC) != 0) {
        sysErrno = errno;
        ::close(outFds[0]);
        ::close(outFds[1]);
        return FI_EXEC_NOT_STARTED;
    }
    pid_t pid = ::fork();
    if (pid < 0) {
        sysErrno = errno;
        for (int fd : {outFds[0], outFds[1], errFds[0], errFds[1]}) {
            ::close(fd);
        }
        return FI_EXEC_NOT_STARTED;
    }
    if (pid == 0) {
        // The child leads its own process group so that a limit kills everything it started.
        ::setpgid(0, 0);
        int devnull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (devnull >= 0) {
            ::dup2(devnull, 0);
        }
        ::dup2(outFds[1], 1);
        ::dup2(errFds[1], 2);
        ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::setpgid(pid, pid);
    ::close(outFds[1]);
    ::close(errFds[1]);
    CommandStream streams[2];
    streams[0].fd = outFds[0];
    streams[1].fd = errFds[0];
    for (const CommandStream& stream : streams) {
        ::fcntl(stream.fd, F_SETFL, ::fcntl(stream.fd, F_GETFL) | O_NONBLOCK);
    }

    // The command is asked whether it has finished between short waits on its streams: a child it
    // left behind may hold them open long after it exited, and it may go on long after closing
    // them. The waits grow to 50 ms and start again from 1 ms whenever a stream ends.
    int status = 0;
    int waitErrno = 0;
    bool timedOut = false;
    std::chrono::milliseconds pause{1};
    for (;;) {
        pid_t reaped = ::waitpid(pid, &status, WNOHANG);
        if (reaped == pid) {
            break;
        }
        if (reaped < 0 && errno != EINTR) {
            // ECHILD: SIGCHLD is ignored, so the kernel reaped the command and its status is lost.
            waitErrno = errno;
            break;
        }
        // Time is kept in the clock's own units: a deadline kept in whole milliseconds could end a
        // limit up to one early.
        const Clock::duration left = deadline - Clock::now();
        if (left <= Clock::duration::zero()) {
            timedOut = true;
            break;
        }
        const std::chrono::milliseconds wait =
            std::min(std::chrono::ceil<std::chrono::milliseconds>(left), pause);
        pause = std::min(pause * 2, kLongestPause);
        struct pollfd watched[2];
        CommandStream* owners[2];
        nfds_t count = 0;
        for (CommandStream& stream : streams) {
            if (stream.fd >= 0) {
                watched[count] = {stream.fd, POLLIN, 0};
                owners[count++] = &stream;
            }
        }
        if (count == 0) {
            sleepFor(wait);
            continue;
        }
        if (::poll(watched, count, static_cast<int>(wait.count())) <= 0) {
            continue;
        }
        for (nfds_t i = 0; i < count; ++i) {
            if (watched[i].revents != 0) {
                readStream(*owners[i], 65536, output);
                if (owners[i]->fd < 0) {
                    pause = std::chrono::milliseconds{1};
                }
            }
        }
    }
    if (timedOut) {
        ::kill(-pid, SIGKILL);
        // A process stuck in the kernel outlives SIGKILL; it is not waited for past a short grace.
        const Clock::time_point graceEnd = Clock::now() + std::chrono::milliseconds(200);
        while (::waitpid(pid, &status, WNOHANG) == 0 && Clock::now() < graceEnd) {
            sleepFor(std::chrono::milliseconds{1});
        }
    }
    readRemainder(streams, output);
    if (timedOut) {
        sysErrno = ETIMEDOUT;
        return FI_EXEC_TIMED_OUT;
    }
    if (waitErrno != 0) {
        sysErrno = waitErrno;
        return FI_EXEC_NOT_STARTED;
    }
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return 256 + WTERMSIG(status);
    }
    return FI_EXEC_NOT_STARTED;
}

CFiSystem& fiRealSystem()
{
    static CFiSystem* real = new CFiLinuxSystem();  // kept for the life of the process
    return *real;
}

CFiSystem& fiSystem()
{
    CFiSystem* installed = g_installed.load(std::memory_order_acquire);
    return installed != nullptr ? *installed : fiRealSystem();
}

CFiSystem* fiInstallSystem(CFiSystem* system)
{
    CFiSystem* previous = g_installed.exchange(system, std::memory_order_acq_rel);
    return previous != nullptr ? previous : &fiRealSystem();
}

}  // namespace kzfi_pdk_4_4
