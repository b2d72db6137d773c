#include "fi_system.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace kzfi_pdk_4_4 {

namespace {

std::atomic<CFiSystem*> g_installed{nullptr};

long long nowMillis()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void splitLines(const std::string& text, std::vector<std::string>& output)
{
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            output.push_back(text.substr(start));
            break;
        }
        output.push_back(text.substr(start, end - start));
        start = end + 1;
    }
}

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
    return ::fopen(path, mode);
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
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) {
        sysErrno = errno;
        return FI_EXEC_NOT_STARTED;
    }
    pid_t pid = ::fork();
    if (pid < 0) {
        sysErrno = errno;
        ::close(fds[0]);
        ::close(fds[1]);
        return FI_EXEC_NOT_STARTED;
    }
    if (pid == 0) {
        // The child leads its own process group so that a limit kills everything it started.
        ::setpgid(0, 0);
        int devnull = ::open("/dev/null", O_RDONLY);
        if (devnull >= 0) {
            ::dup2(devnull, 0);
        }
        ::dup2(fds[1], 1);
        ::dup2(fds[1], 2);
        ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::setpgid(pid, pid);
    ::close(fds[1]);

    std::string text;
    bool timedOut = false;
    const long long deadline = nowMillis() + static_cast<long long>(limitSeconds) * 1000;
    char buffer[4096];
    for (;;) {
        long long left = deadline - nowMillis();
        if (left <= 0) {
            timedOut = true;
            break;
        }
        struct pollfd pfd = {fds[0], POLLIN, 0};
        int ready = ::poll(&pfd, 1, left > 1000 ? 1000 : static_cast<int>(left));
        if (ready < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        if (ready == 0) {
            continue;
        }
        ssize_t got = ::read(fds[0], buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            break;  // every writer has closed the pipe
        }
        text.append(buffer, static_cast<size_t>(got));
    }
    if (timedOut) {
        ::kill(-pid, SIGKILL);
    }
    ::close(fds[0]);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    splitLines(text, output);
    if (timedOut) {
        sysErrno = ETIMEDOUT;
        return FI_EXEC_TIMED_OUT;
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
