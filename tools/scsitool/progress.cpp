// SPDX-License-Identifier: Apache-2.0
#include "progress.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace scsitool_cli {

ProgressLine::ProgressLine(const std::string& what) : m_what(what)
{
    if (::isatty(STDERR_FILENO) == 1) {
        m_thread = std::thread(&ProgressLine::run, this);
    }
}

ProgressLine::~ProgressLine()
{
    if (!m_thread.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_finished = true;
    }
    m_done.notify_all();
    m_thread.join();
    if (m_shown) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
    }
}

void ProgressLine::setWhat(const std::string& what)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_what = what;
}

void ProgressLine::run()
{
    using clock = std::chrono::steady_clock;
    const clock::time_point start = clock::now();
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_done.wait_for(lock, std::chrono::seconds(1), [this] { return m_finished; })) {
        return;
    }
    do {
        long seconds =
            std::chrono::duration_cast<std::chrono::seconds>(clock::now() - start).count();
        std::fprintf(stderr, "\r\033[Kscsitool: %s\xe2\x80\xa6 %lds", m_what.c_str(), seconds);
        std::fflush(stderr);
        m_shown = true;
    } while (!m_done.wait_for(lock, std::chrono::milliseconds(500), [this] { return m_finished; }));
}

}  // namespace scsitool_cli
