// SPDX-License-Identifier: Apache-2.0
#include "session.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "device_udid_factory.h"
#include "errors.h"
#include "fi_configuration.h"
#include "fi_system.h"
#include "output_file.h"
#include "simhost.h"

using kzfi_pdk_4_4::CFiTraceLogPtr;

namespace scsitool_cli {

// Levels of the lines a capture keeps: errors and warnings.
static const int kCaptureLevel = 2;

// The one sink of the plug-in log: the trace file when one was asked for, and the lines a
// running capture keeps. The log's level is the higher of the two, so each side filters here.
class CommandSink : public kzfi_pdk_4_4::CFiTraceSink {
public:
    CommandSink(std::unique_ptr<kzfi_pdk_4_4::CFiStreamTraceSink> stream, int streamLevel,
                StagedFile* file)
        : m_stream(std::move(stream)), m_streamLevel(streamLevel), m_file(file)
    {
    }

    void write(int level, const std::string& message) override
    {
        if (m_stream && level <= m_streamLevel) {
            m_stream->write(level, message);
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_file != nullptr && level <= m_streamLevel) {
            m_file->noteWrite();
        }
        if (m_capturing && level <= kCaptureLevel) {
            m_captured.push_back(message);
        }
    }

    void start()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_captured.clear();
        m_capturing = true;
    }

    std::vector<std::string> stop()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_capturing = false;
        return std::move(m_captured);
    }

private:
    std::unique_ptr<kzfi_pdk_4_4::CFiStreamTraceSink> m_stream;
    int m_streamLevel;
    StagedFile* m_file;  // the trace file the stream writes, if any
    std::mutex m_mutex;
    bool m_capturing = false;
    std::vector<std::string> m_captured;
};

namespace {

// The configuration is the plug-in's own file on this machine, even when a snapshot is
// replayed: it is read before the simulated host is installed.
void useConfiguration(const std::string& path)
{
    if (::access(path.c_str(), F_OK) != 0) {
        throw CommandError(kExitBadInput, path + ": no such configuration file");
    }
    kzfi_pdk_4_4::CFiConfiguration configuration;
    if (configuration.importConfig("", path.c_str()) != 0) {
        throw CommandError(kExitBadInput, path + ": not a readable configuration file");
    }
    kzfi_pdk_4_4::CFiConfigurationPathTool::setConfigFile(path);
}

// The trace goes to stderr or, through a staged file, to FILE once the command is done.
std::unique_ptr<kzfi_pdk_4_4::CFiStreamTraceSink> openTrace(const std::string& path,
                                                            std::unique_ptr<StagedFile>& file)
{
    if (path.empty()) {
        return nullptr;
    }
    FILE* stream = stderr;
    if (path != "-") {
        file.reset(new StagedFile(path, "cannot write the trace", true));
        stream = file->stream();
    }
    return std::unique_ptr<kzfi_pdk_4_4::CFiStreamTraceSink>(
        new kzfi_pdk_4_4::CFiStreamTraceSink(stream, false));
}

}  // namespace

Session::Session(const GlobalOptions& options) : m_sink(nullptr)
{
    if (!options.configFile.empty()) {
        useConfiguration(options.configFile);
    }
    std::unique_ptr<kzfi_pdk_4_4::CFiStreamTraceSink> stream =
        openTrace(options.traceFile, m_traceFile);
    int streamLevel = stream ? options.traceLevel : 0;
    m_tracing = stream != nullptr;
    if (!options.hostFile.empty()) {
        std::string error;
        m_host = simhost::SimHost::fromFile(options.hostFile, error);
        if (!m_host) {
            // The loader's messages name the file already.
            if (error.find(options.hostFile) != std::string::npos) {
                throw CommandError(kExitBadInput, error);
            }
            throw CommandError(kExitBadInput, options.hostFile + ": " + error);
        }
        m_install.reset(new simhost::SimHostInstall(*m_host));
    }
    // "-": standard error, once the command is done, so that they never mix with its output.
    m_eventsToStderr = options.eventsFile == "-";
    if (!options.eventsFile.empty() && !m_eventsToStderr) {
        m_eventsFile.reset(new StagedFile(options.eventsFile, "cannot write the events"));
    }
    m_log = kzfi_pdk_4_4::fiPluginTraceLog();
    std::unique_ptr<CommandSink> sink(
        new CommandSink(std::move(stream), streamLevel, m_traceFile.get()));
    m_sink = sink.get();
    m_log->setSink(std::move(sink));
    m_log->setLevel(std::max(streamLevel, kCaptureLevel));
}

Session::~Session()
{
    // A command that failed still leaves its trace and events, as far as they can be written.
    if (!m_finished) {
        try {
            finish();
        } catch (const CommandError&) {
        }
    }
}

void Session::finish()
{
    m_finished = true;
    // The log outlives the session (it is the plug-in's singleton): it lets go of the trace now.
    if (m_log) {
        m_log->setSink(nullptr);
    }
    const std::string events = m_host ? m_host->eventLines() : std::string();
    std::unique_ptr<StagedFile> traceFile = std::move(m_traceFile);
    std::unique_ptr<StagedFile> eventsFile = std::move(m_eventsFile);
    if (traceFile) {
        traceFile->commit();
    }
    if (eventsFile) {
        const size_t written = std::fwrite(events.data(), 1, events.size(), eventsFile->stream());
        eventsFile->commit(written == events.size() ? 0 : errno);
    }
    if (m_eventsToStderr) {
        std::fwrite(events.data(), 1, events.size(), stderr);
    }
}

CUDIDFactory& Session::factory()
{
    // The factory keeps its generators for the life of the process; so does the command, so
    // that they stay reachable until exit.
    static CUDIDFactory* factory = nullptr;
    if (factory == nullptr) {
        factory = new CUDIDFactory();
        factory->registerTraceLog(m_log);
    }
    return *factory;
}

std::string Session::hostName()
{
    std::string name;
    return kzfi_pdk_4_4::fiHostName(name) ? name : "";
}

void Session::startCapture()
{
    m_sink->start();
}

std::vector<std::string> Session::stopCapture()
{
    return m_sink->stop();
}

}  // namespace scsitool_cli
