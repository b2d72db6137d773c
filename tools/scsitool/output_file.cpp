// SPDX-License-Identifier: Apache-2.0
#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "errors.h"

namespace scsitool_cli {

namespace {

// What the signal handler knows of the staged files: plain memory it may read at any moment.
struct SignalSlot {
    volatile sig_atomic_t used;
    bool keep;
    char temporary[PATH_MAX];
    char target[PATH_MAX];
};

// The command stages at most a capture, a trace and an events file at a time.
SignalSlot g_slots[8];

int claimSlot(const std::string& temporary, const std::string& target, bool keep)
{
    if (temporary.size() >= PATH_MAX || target.size() >= PATH_MAX) {
        return -1;
    }
    for (int i = 0; i < static_cast<int>(sizeof g_slots / sizeof g_slots[0]); ++i) {
        if (!g_slots[i].used) {
            std::memcpy(g_slots[i].temporary, temporary.c_str(), temporary.size() + 1);
            std::memcpy(g_slots[i].target, target.c_str(), target.size() + 1);
            g_slots[i].keep = keep;
            g_slots[i].used = 1;
            return i;
        }
    }
    return -1;
}

extern "C" void stopOnSignal(int signal)
{
    for (SignalSlot& slot : g_slots) {
        if (slot.used) {
            if (slot.keep) {
                ::rename(slot.temporary, slot.target);
            } else {
                ::unlink(slot.temporary);
            }
        }
    }
    ::_exit(128 + signal);
}

// The descriptor a path names by itself ("/dev/stdout", "/dev/fd/3", "/proc/self/fd/3"), or -1.
int namedDescriptor(const std::string& path)
{
    if (path == "/dev/stdout") {
        return 1;
    }
    if (path == "/dev/stderr") {
        return 2;
    }
    for (const char* prefix : {"/dev/fd/", "/proc/self/fd/"}) {
        const size_t length = std::strlen(prefix);
        if (path.compare(0, length, prefix) == 0 && path.size() > length &&
            path.size() - length < 8 &&
            path.find_first_not_of("0123456789", length) == std::string::npos) {
            return std::atoi(path.c_str() + length);
        }
    }
    return -1;
}

// Where a write to `path` goes. Returns an open descriptor when the path is to be written in
// place (a device, a FIFO, a socket, a descriptor of this process), or -1 with `target` set to
// the regular or new file that is to be replaced (symbolic links followed). `error`: the errno
// of a path that leads nowhere usable.
int resolve(const std::string& path, std::string& target, int& error)
{
    std::string current = path;
    // As many links as the kernel itself follows before it gives up with ELOOP.
    for (int hop = 0; hop < 40; ++hop) {
        const int descriptor = namedDescriptor(current);
        if (descriptor >= 0) {
            const int fd = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 3);
            error = fd < 0 ? errno : 0;
            return fd;
        }
        struct stat status;
        if (::lstat(current.c_str(), &status) != 0) {
            if (errno == ENOENT) {
                target = current;  // a new file
                error = 0;
            } else {
                error = errno;
            }
            return -1;
        }
        if (S_ISREG(status.st_mode)) {
            target = current;
            error = 0;
            return -1;
        }
        if (!S_ISLNK(status.st_mode) ||
            (current.compare(0, 6, "/proc/") == 0 && current.find("/fd/") != std::string::npos)) {
            // Another process's descriptor links to no path the command could stage beside.
            const int fd = ::open(current.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
            error = fd < 0 ? errno : 0;
            return fd;
        }
        std::vector<char> link(PATH_MAX + 1);
        const ssize_t length = ::readlink(current.c_str(), link.data(), PATH_MAX);
        if (length < 0) {
            error = errno;
            return -1;
        }
        std::string next(link.data(), static_cast<size_t>(length));
        if (next.empty() || next[0] != '/') {
            const size_t slash = current.rfind('/');
            next = (slash == std::string::npos ? "" : current.substr(0, slash + 1)) + next;
        }
        current = next;
    }
    error = ELOOP;
    return -1;
}

}  // namespace

void installSignalHandlers()
{
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = stopOnSignal;
    sigfillset(&action.sa_mask);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        // A signal ignored from the start (nohup, a background job of a script) stays ignored.
        struct sigaction previous;
        if (::sigaction(signal, nullptr, &previous) == 0 && previous.sa_handler == SIG_IGN) {
            continue;
        }
        ::sigaction(signal, &action, nullptr);
    }
}

StagedFile::StagedFile(const std::string& path, const std::string& what, bool keepOnSignal)
    : m_path(path), m_what(what)
{
    int error = 0;
    const int inPlace = resolve(path, m_target, error);
    if (error != 0) {
        fail(error);
    }
    if (inPlace >= 0) {
        openInPlace(inPlace);
    } else {
        std::string pattern = m_target + ".XXXXXX";
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        const int fd = ::mkstemp(name.data());
        if (fd < 0) {
            fail(errno);
        }
        m_temporary = name.data();
        m_slot = claimSlot(m_temporary, m_target, keepOnSignal);
        // The mode a new file gets from the umask, as if it had been created directly.
        const mode_t mask = ::umask(0);
        ::umask(mask);
        ::fchmod(fd, 0666 & ~mask);
        m_stream = ::fdopen(fd, "w");
        if (m_stream == nullptr) {
            const int openError = errno;
            ::close(fd);
            fail(openError);
        }
    }
    if (keepOnSignal) {
        // Whole lines reach the file as they are written, so that a signal loses none.
        std::setvbuf(m_stream, nullptr, _IOLBF, 0);
    }
}

void StagedFile::openInPlace(int fd)
{
    m_stream = ::fdopen(fd, "w");
    if (m_stream == nullptr) {
        const int error = errno;
        ::close(fd);
        fail(error);
    }
}

StagedFile::~StagedFile()
{
    if (m_stream != nullptr) {
        std::fclose(m_stream);
    }
    if (!m_temporary.empty()) {
        ::unlink(m_temporary.c_str());
    }
    release();
}

void StagedFile::release()
{
    if (m_slot >= 0) {
        g_slots[m_slot].used = 0;
        m_slot = -1;
    }
}

void StagedFile::noteWrite()
{
    if (m_error == 0 && std::ferror(m_stream)) {
        m_error = errno != 0 ? errno : EIO;
    }
}

void StagedFile::commit(int error)
{
    if (error == 0) {
        error = m_error;
    }
    errno = 0;
    if (error == 0 && (std::fflush(m_stream) != 0 || std::ferror(m_stream))) {
        // A write that failed before left the stream's error mark but no errno.
        error = errno != 0 ? errno : EIO;
    }
    // A pipe or a device written in place has nothing to sync.
    if (error == 0 && !m_temporary.empty() && ::fsync(::fileno(m_stream)) != 0) {
        error = errno;
    }
    if (std::fclose(m_stream) != 0 && error == 0) {
        error = errno;
    }
    m_stream = nullptr;
    if (error == 0 && !m_temporary.empty() &&
        ::rename(m_temporary.c_str(), m_target.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        fail(error);
    }
    m_temporary.clear();
    release();
}

void StagedFile::fail(int error)
{
    if (m_stream != nullptr) {
        std::fclose(m_stream);
        m_stream = nullptr;
    }
    if (!m_temporary.empty()) {
        ::unlink(m_temporary.c_str());
        m_temporary.clear();
    }
    release();
    throw CommandError(kExitBadInput, m_path + ": " + m_what + ": " + std::strerror(error));
}

void writeFileInPlace(const std::string& path, const std::string& text, const std::string& what)
{
    StagedFile file(path, what);
    const size_t written = std::fwrite(text.data(), 1, text.size(), file.stream());
    file.commit(written == text.size() ? 0 : errno);
}

}  // namespace scsitool_cli
