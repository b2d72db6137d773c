// SPDX-License-Identifier: Apache-2.0
#include "fi_trace.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>

namespace kzfi_pdk_4_4 {

const char FI_PLUGIN_NAME[] = "devicefi";

CFiRefCount::~CFiRefCount() = default;

void CFiRefCount::addRef()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_count;
}

long CFiRefCount::releaseRef()
{
    long left;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        left = --m_count;
    }
    if (left == 0) {
        delete this;
    }
    return left;
}

long CFiRefCount::refCount() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_count;
}

CFiTraceSink::~CFiTraceSink() = default;

CFiStreamTraceSink::CFiStreamTraceSink(FILE* stream, bool owned) : m_stream(stream), m_owned(owned)
{
}

CFiStreamTraceSink::~CFiStreamTraceSink()
{
    if (m_owned && m_stream != nullptr) {
        std::fclose(m_stream);
    }
}

void CFiStreamTraceSink::write(int level, const std::string& message)
{
    if (m_stream == nullptr) {
        return;
    }
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm parts;
    localtime_r(&tv.tv_sec, &parts);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &parts);
    // A message that ends in its own newline keeps it; every other line gets one.
    size_t length = message.size();
    while (length > 0 && message[length - 1] == '\n') {
        --length;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    std::fprintf(m_stream, "%s.%03ld pid %ld tid %ld L%d %.*s\n", stamp,
                 static_cast<long>(tv.tv_usec / 1000), static_cast<long>(getpid()),
                 static_cast<long>(syscall(SYS_gettid)), level, static_cast<int>(length),
                 message.c_str());
    std::fflush(m_stream);
}

void CFiMemoryTraceSink::write(int level, const std::string& message)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.emplace_back(level, message);
}

std::vector<std::pair<int, std::string>> CFiMemoryTraceSink::lines() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

std::vector<std::string> CFiMemoryTraceSink::messages(int level) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> out;
    for (const auto& line : m_lines) {
        if (line.first == level) {
            out.push_back(line.second);
        }
    }
    return out;
}

void CFiMemoryTraceSink::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}

CFiTraceLog::CFiTraceLog() : m_level(0) {}

CFiTraceLog::~CFiTraceLog() = default;

bool CFiTraceLog::isEnabled(int level) const
{
    if (level > m_level) {
        return false;
    }
    std::lock_guard<std::mutex> lock(m_sinkMutex);
    return m_sink != nullptr;
}

void CFiTraceLog::setLevel(int level)
{
    m_level = level;
}

void CFiTraceLog::setSink(std::unique_ptr<CFiTraceSink> sink)
{
    std::lock_guard<std::mutex> lock(m_sinkMutex);
    m_sink = std::shared_ptr<CFiTraceSink>(std::move(sink));
}

void CFiTraceLog::trace(int level, const char* format, ...)
{
    if (level > m_level || format == nullptr) {
        return;
    }
    std::shared_ptr<CFiTraceSink> sink;
    {
        std::lock_guard<std::mutex> lock(m_sinkMutex);
        sink = m_sink;
    }
    if (!sink) {
        return;
    }
    try {
        char small[512];
        va_list args;
        va_start(args, format);
        int needed = std::vsnprintf(small, sizeof small, format, args);
        va_end(args);
        if (needed < 0) {
            return;
        }
        std::string text;
        if (static_cast<size_t>(needed) < sizeof small) {
            text.assign(small, static_cast<size_t>(needed));
        } else {
            text.resize(static_cast<size_t>(needed) + 1);
            va_start(args, format);
            std::vsnprintf(&text[0], text.size(), format, args);
            va_end(args);
            text.resize(static_cast<size_t>(needed));
        }
        sink->write(level, text);
    } catch (...) {
        // A trace line that cannot be written is dropped; the caller goes on.
    }
}

CFiTraceLogPtr fiPluginTraceLog()
{
    return CFiContextSingleton<CFiTraceLog, FI_PLUGIN_NAME>::instance(false);
}

namespace {

// Runs when the kit is unloaded (dlclose) or the process exits, after the static destructors and
// exit handlers of the plug-ins above it, which may still trace: the singleton's reference to the
// trace log is dropped, and the log with its sink goes once no one else holds it.
__attribute__((destructor)) void releasePluginTraceLog()
{
    CFiContextSingleton<CFiTraceLog, FI_PLUGIN_NAME>::instance(true);
}

}  // namespace

CFiTraceable::~CFiTraceable() = default;

void CFiTraceable::registerTraceLog(const CFiTraceLogPtr& log)
{
    if (&log == &m_traceLog) {
        return;
    }
    m_traceLog = log;
}

const char* const CFiTraceLogFunction::kUnknownFile = "unknown";

CFiTraceLogFunction::CFiTraceLogFunction(const CFiTraceLogPtr& log, const char* function, int line,
                                         const char* file)
    : m_log(log), m_function(function), m_line(line), m_file(nullptr)
{
    if (file != nullptr) {
        const char* slash = std::strrchr(file, '/');
        m_file = slash != nullptr ? slash + 1 : kUnknownFile;
    }
    if (m_log && m_function != nullptr && m_file != nullptr) {
        m_log->trace(6, "Entering Function %s [%d, %s]", m_function, m_line, m_file);
    }
}

CFiTraceLogFunction::~CFiTraceLogFunction()
{
    if (m_log && m_function != nullptr && m_file != nullptr) {
        if (m_line != 0) {
            m_log->trace(6, "Exiting Function %s [%d, %s]", m_function, m_line, m_file);
        } else {
            m_log->trace(6, "Exiting Function %s", m_function);
        }
    }
}

}  // namespace kzfi_pdk_4_4
