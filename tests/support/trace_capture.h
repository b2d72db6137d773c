// SPDX-License-Identifier: Apache-2.0
// A trace log that keeps every line in memory, for tests that assert messages.
#ifndef TESTS_TRACE_CAPTURE_H
#define TESTS_TRACE_CAPTURE_H

#include <string>
#include <utility>
#include <vector>

#include "fi_trace.h"

class TraceCapture {
public:
    explicit TraceCapture(int level = 6);
    // Captures `log` (at level 6) instead of a fresh log of its own.
    explicit TraceCapture(const kzfi_pdk_4_4::CFiTraceLogPtr& log);
    const kzfi_pdk_4_4::CFiTraceLogPtr& log() const { return m_log; }
    // Every line as (level, message), in order.
    std::vector<std::pair<int, std::string>> lines() const;
    // The messages at exactly `level`, in order.
    std::vector<std::string> at(int level) const;
    // Every message at any level, in order.
    std::vector<std::string> all() const;
    // Whether some line at `level` equals `message` exactly.
    bool has(int level, const std::string& message) const;
    void clear();

private:
    kzfi_pdk_4_4::CFiTraceLogPtr m_log;
    kzfi_pdk_4_4::CFiMemoryTraceSink* m_sink;
};

#endif
