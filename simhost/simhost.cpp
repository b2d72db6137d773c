// SPDX-License-Identifier: Apache-2.0
// The simulated host: building it, its record of events, identity calls and shared helpers.
#include "simhost.h"

#include <errno.h>
#include <string.h>

#include <array>
#include <atomic>
#include <cstdio>

#include "simhost_state.h"

namespace simhost {

std::string normalizePath(const std::string& path)
{
    std::string result;
    for (char c : path) {
        if (c == '/' && !result.empty() && result.back() == '/') {
            continue;
        }
        result += c;
    }
    while (result.size() > 1 && result.back() == '/') {
        result.pop_back();
    }
    return result;
}

bool parseHex(std::string_view text, Bytes& bytes)
{
    // Each character's value: a digit's, kBlank for the blanks between bytes, kBad otherwise.
    enum : int8_t { kBlank = -1, kBad = -2 };
    static const auto values = [] {
        std::array<int8_t, 256> table;
        table.fill(kBad);
        for (int c = 0; c < 10; ++c) {
            table['0' + c] = static_cast<int8_t>(c);
        }
        for (int c = 0; c < 6; ++c) {
            table['a' + c] = table['A' + c] = static_cast<int8_t>(10 + c);
        }
        table[' '] = table['\t'] = table['\n'] = table['\r'] = kBlank;
        return table;
    }();
    // At most one byte for every two characters, written in place and then cut to what came.
    bytes.assign(text.size() / 2, 0);
    uint8_t* out = bytes.data();
    int high = -1;
    for (char c : text) {
        const int value = values[static_cast<unsigned char>(c)];
        if (value == kBlank) {
            continue;
        }
        if (value == kBad) {
            bytes.clear();
            return false;
        }
        if (high < 0) {
            high = value;
        } else {
            *out++ = static_cast<uint8_t>(high * 16 + value);
            high = -1;
        }
    }
    bytes.resize(static_cast<size_t>(out - bytes.data()));
    return high < 0;
}

std::string formatHex(const Bytes& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i) {
            text += ' ';
        }
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

namespace {

// A stream over an owned string. Reading streams start at 0; control streams collect writes.
struct StreamCookie {
    std::string text;
    size_t position = 0;
    bool writing = false;
    std::function<void(const std::string&)> onClose;
};

ssize_t cookieRead(void* cookie, char* buffer, size_t size)
{
    StreamCookie* stream = static_cast<StreamCookie*>(cookie);
    if (stream->writing) {
        errno = EBADF;
        return -1;
    }
    size_t left =
        stream->position < stream->text.size() ? stream->text.size() - stream->position : 0;
    size_t count = size < left ? size : left;
    memcpy(buffer, stream->text.data() + stream->position, count);
    stream->position += count;
    return static_cast<ssize_t>(count);
}

ssize_t cookieWrite(void* cookie, const char* buffer, size_t size)
{
    StreamCookie* stream = static_cast<StreamCookie*>(cookie);
    if (!stream->writing) {
        errno = EBADF;
        return -1;
    }
    stream->text.append(buffer, size);
    return static_cast<ssize_t>(size);
}

int cookieSeek(void* cookie, off64_t* offset, int whence)
{
    StreamCookie* stream = static_cast<StreamCookie*>(cookie);
    long long base = whence == SEEK_SET   ? 0
                     : whence == SEEK_CUR ? static_cast<long long>(stream->position)
                                          : static_cast<long long>(stream->text.size());
    long long target = base + *offset;
    if (target < 0) {
        errno = EINVAL;
        return -1;
    }
    stream->position = static_cast<size_t>(target);
    *offset = target;
    return 0;
}

// Streams handed out and not closed yet, by every simulated host of the process.
std::atomic<long> g_openStreams{0};

int cookieClose(void* cookie)
{
    --g_openStreams;
    StreamCookie* stream = static_cast<StreamCookie*>(cookie);
    if (stream->writing && stream->onClose) {
        stream->onClose(stream->text);
    }
    delete stream;
    return 0;
}

}  // namespace

FILE* openTextStream(const std::string& text)
{
    StreamCookie* cookie = new StreamCookie;
    cookie->text = text;
    cookie_io_functions_t functions = {cookieRead, cookieWrite, cookieSeek, cookieClose};
    FILE* file = fopencookie(cookie, "r", functions);
    if (!file) {
        delete cookie;
    } else {
        ++g_openStreams;
    }
    return file;
}

FILE* openControlStream(std::function<void(const std::string&)> onClose, bool append)
{
    StreamCookie* cookie = new StreamCookie;
    cookie->writing = true;
    cookie->onClose = std::move(onClose);
    cookie_io_functions_t functions = {cookieRead, cookieWrite, nullptr, cookieClose};
    FILE* file = fopencookie(cookie, append ? "a" : "w", functions);
    if (!file) {
        delete cookie;
    } else {
        ++g_openStreams;
    }
    return file;
}

// --- the host's state --------------------------------------------------------------------------

SimDevice* SimHost::State::find(const std::string& name)
{
    if (const SimDevice* indexed = indexedDisk(name)) {
        return const_cast<SimDevice*>(indexed);
    }
    for (SimDevice& device : devices) {
        if (device.name == name) {
            return &device;
        }
    }
    return nullptr;
}

const SimDevice* SimHost::State::find(const std::string& name) const
{
    return const_cast<State*>(this)->find(name);
}

bool SimHost::State::listed(const SimDevice& device)
{
    return device.state == DeviceState::Running || device.state == DeviceState::Unresponsive ||
           device.state == DeviceState::Gone || device.state == DeviceState::Denied;
}

// --- building ----------------------------------------------------------------------------------

SimHost::SimHost() : m_state(new State) {}

SimHost::~SimHost()
{
    m_state->closeDirectories();
}

void SimHost::setHostname(const std::string& name)
{
    m_state->hostname = name;
    m_state->hostnameFails = false;
}

void SimHost::setHostnameFails()
{
    m_state->hostnameFails = true;
}

void SimHost::setKernelRelease(const std::string& release)
{
    m_state->release = release;
}

void SimHost::setProcScsi(bool present)
{
    m_state->procScsi = present;
}

SimDevice& SimHost::addDevice(const SimDevice& device)
{
    m_state->devices.push_back(device);
    return m_state->devices.back();
}

SimDevice* SimHost::findDevice(const std::string& name)
{
    return m_state->find(name);
}

void SimHost::addAdapter(const SimAdapter& adapter)
{
    m_state->adapters.push_back(adapter);
}

void SimHost::addMultipathMap(const std::string& name)
{
    addMultipathMap(name, "");
}

void SimHost::addPowerPathDevice(const std::string& name)
{
    addPowerPathDevice(name, "");
}

void SimHost::addMultipathMap(const std::string& name, const std::string& device)
{
    m_state->maps.push_back(SimPseudoDevice{name, device});
    m_state->deviceMapper = true;
}

void SimHost::addPowerPathDevice(const std::string& name, const std::string& device)
{
    m_state->powerpath.push_back(SimPseudoDevice{name, device});
}

void SimHost::setDeviceMapper(bool present)
{
    m_state->deviceMapper = present;
}

void SimHost::addFile(const std::string& path, const std::string& content)
{
    m_state->files[normalizePath(path)] = content;
}

void SimHost::addExecutable(const std::string& path)
{
    m_state->executables.insert(normalizePath(path));
}

void SimHost::scriptCommand(const std::string& commandLine, const SimCommandScript& script)
{
    m_state->commands[commandLine] = script;
}

void SimHost::setKernelFile(const std::string& path, const std::string& text)
{
    m_state->kernelFiles[normalizePath(path)] = text;
}

void SimHost::setNextDescriptor(int fd)
{
    m_state->nextFd = fd;
}

std::vector<SimDevice> SimHost::devices() const
{
    return std::vector<SimDevice>(m_state->devices.begin(), m_state->devices.end());
}

std::vector<SimAdapter> SimHost::adapters() const
{
    return m_state->adapters;
}

// --- the record --------------------------------------------------------------------------------

std::vector<std::string> SimHost::commandsRun() const
{
    std::vector<std::string> result;
    for (const SimEvent& event : m_state->events) {
        if (event.kind == SimEvent::Command || event.kind == SimEvent::System) {
            result.push_back(event.text);
        }
    }
    return result;
}

std::vector<SimEvent> SimHost::writesTo(const std::string& path) const
{
    std::vector<SimEvent> result;
    const std::string wanted = normalizePath(path);
    for (const SimEvent& event : m_state->events) {
        if (event.kind == SimEvent::Write && normalizePath(event.text) == wanted) {
            result.push_back(event);
        }
    }
    return result;
}

std::vector<unsigned int> SimHost::sleeps() const
{
    std::vector<unsigned int> result;
    for (const SimEvent& event : m_state->events) {
        if (event.kind == SimEvent::Sleep) {
            result.push_back(event.seconds);
        }
    }
    return result;
}

void SimHost::clearEvents()
{
    m_state->events.clear();
    m_state->cdbs.clear();
    m_state->openCalls = 0;
    m_state->nodeCalls.clear();
}

long SimHost::openStreams()
{
    return g_openStreams.load();
}

const std::vector<std::string>& SimHost::nodeCalls() const
{
    return m_state->nodeCalls;
}

int SimHost::openCalls() const
{
    return m_state->openCalls;
}

std::vector<Bytes> SimHost::cdbsSent(const std::string& node) const
{
    std::string path = node.empty() || node[0] == '/' ? node : "/dev/" + node;
    auto found = m_state->cdbs.find(normalizePath(path));
    return found == m_state->cdbs.end() ? std::vector<Bytes>() : found->second;
}

// --- identity and time -------------------------------------------------------------------------

int SimHost::uname(struct utsname* name)
{
    const auto guard = m_state->guard();
    if (!name) {
        errno = EFAULT;
        return -1;
    }
    memset(name, 0, sizeof *name);
    snprintf(name->sysname, sizeof name->sysname, "%s", "Linux");
    snprintf(name->nodename, sizeof name->nodename, "%s",
             m_state->hostnameFails ? "(none)" : m_state->hostname.c_str());
    snprintf(name->release, sizeof name->release, "%s", m_state->release.c_str());
    snprintf(name->version, sizeof name->version, "%s", "#1 SMP");
    snprintf(name->machine, sizeof name->machine, "%s", "x86_64");
    return 0;
}

int SimHost::gethostname(char* name, size_t length)
{
    const auto guard = m_state->guard();
    // A host without a name fails like a call given a bad buffer.
    if (m_state->hostnameFails || !name) {
        errno = EFAULT;
        return -1;
    }
    const std::string& host = m_state->hostname;
    if (host.size() + 1 > length) {
        // glibc copies what fits, without a terminator, and reports the truncation.
        memcpy(name, host.data(), length);
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(name, host.c_str(), host.size() + 1);
    return 0;
}

unsigned int SimHost::sleep(unsigned int seconds)
{
    const auto guard = m_state->guard();
    SimEvent event{SimEvent::Sleep, "", "", seconds};
    m_state->events.push_back(event);
    return 0;
}

SimHostInstall::SimHostInstall(SimHost& host) : m_previous(kzfi_pdk_4_4::fiInstallSystem(&host)) {}

SimHostInstall::~SimHostInstall()
{
    kzfi_pdk_4_4::fiInstallSystem(m_previous);
}

}  // namespace simhost
