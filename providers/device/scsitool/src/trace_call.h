// SPDX-License-Identifier: Apache-2.0
// The library's one way to write a trace line: to the given log when there is one, formatted only
// when the log would keep the line, never throwing into its caller.
#ifndef SCSITOOL_TRACE_CALL_H
#define SCSITOOL_TRACE_CALL_H

#include <cstdarg>
#include <cstdio>
#include <string>

#include "fi_trace.h"

__attribute__((format(printf, 3, 4))) inline void traceTo(const kzfi_pdk_4_4::CFiTraceLogPtr& log,
                                                          int level, const char* format, ...)
{
    if (!log || !log->isEnabled(level)) {
        return;
    }
    try {
        va_list args;
        va_start(args, format);
        va_list again;
        va_copy(again, args);
        int needed = std::vsnprintf(nullptr, 0, format, args);
        va_end(args);
        std::string text(needed > 0 ? static_cast<size_t>(needed) + 1 : 1, '\0');
        if (needed > 0) {
            std::vsnprintf(&text[0], text.size(), format, again);
        }
        va_end(again);
        if (needed < 0) {
            return;
        }
        text.resize(static_cast<size_t>(needed));
        log->trace(level, "%s", text.c_str());
    } catch (...) {
    }
}

#endif
