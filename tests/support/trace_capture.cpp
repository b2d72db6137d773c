// SPDX-License-Identifier: Apache-2.0
#include "trace_capture.h"

#include <memory>

using namespace kzfi_pdk_4_4;

TraceCapture::TraceCapture(int level) : m_log(new CFiTraceLog()), m_sink(new CFiMemoryTraceSink())
{
    m_log->setLevel(level);
    m_log->setSink(std::unique_ptr<CFiTraceSink>(m_sink));
}

TraceCapture::TraceCapture(const CFiTraceLogPtr& log) : m_log(log), m_sink(new CFiMemoryTraceSink())
{
    m_log->setLevel(6);
    m_log->setSink(std::unique_ptr<CFiTraceSink>(m_sink));
}

std::vector<std::pair<int, std::string>> TraceCapture::lines() const
{
    return m_sink->lines();
}

std::vector<std::string> TraceCapture::at(int level) const
{
    return m_sink->messages(level);
}

std::vector<std::string> TraceCapture::all() const
{
    std::vector<std::string> out;
    for (const auto& line : m_sink->lines())
        out.push_back(line.second);
    return out;
}

bool TraceCapture::has(int level, const std::string& message) const
{
    for (const auto& line : m_sink->lines()) {
        if (line.first == level && line.second == message)
            return true;
    }
    return false;
}

void TraceCapture::clear()
{
    m_sink->clear();
}
