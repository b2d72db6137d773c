// The framework kit: trace log and tracer, reference counts, message ids, the command pipe and the
// configuration reader behind the tuning settings.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "fi_configuration.h"
#include "fi_error.h"
#include "fi_execpipe.h"
#include "fi_stringtool.h"
#include "fi_trace.h"
#include "temp_dir.h"
#include "trace_capture.h"

using namespace kzfi_pdk_4_4;

TEST(MessageId, SubtractsTheBaseOnlyWhenTheCodeIsAbove)
{
    struct Case {
        const char* prefix;
        int code;
        int base;
        const char* expected;
    } cases[] = {
        {"scsi", 1007, 1000, "MSG_ERROR_SCSI_0007"},
        {"scsi", 7, 1000, "MSG_ERROR_SCSI_0007"},
        {"scsi", 1000, 1000, "MSG_ERROR_SCSI_1000"},
        {"Dmp", 123456, 0, "MSG_ERROR_DMP_123456"},
        {"x", -5, 0, "MSG_ERROR_X_-005"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(CFiError(c.code).getMessageId(c.prefix, c.base), c.expected) << c.code;
    }
}

namespace {
struct Traced : CFiTraceable {
    void run(int line, const char* file = "/src/a/device_discovery.cpp")
    {
        CFiTraceLogFunction scope(m_traceLog, "rescan", line, file);
        if (m_traceLog)
            m_traceLog->trace(3, "INFO: inside %d", 42);
    }
};
}  // namespace

TEST(FunctionTracer, WritesEntryAndExitLinesWithTheFileBaseName)
{
    TraceCapture capture;
    Traced traced;
    traced.registerTraceLog(capture.log());
    traced.run(17);
    traced.run(0);
    traced.run(3, "plain.cpp");  // no slash: the fallback text
    std::vector<std::pair<int, std::string>> expected = {
        {6, "Entering Function rescan [17, device_discovery.cpp]"},
        {3, "INFO: inside 42"},
        {6, "Exiting Function rescan [17, device_discovery.cpp]"},
        {6, "Entering Function rescan [0, device_discovery.cpp]"},
        {3, "INFO: inside 42"},
        {6, "Exiting Function rescan"},
        {6, std::string("Entering Function rescan [3, ") + CFiTraceLogFunction::kUnknownFile + "]"},
        {3, "INFO: inside 42"},
        {6, std::string("Exiting Function rescan [3, ") + CFiTraceLogFunction::kUnknownFile + "]"},
    };
    EXPECT_EQ(capture.lines(), expected);
}

TEST(TraceLog, FiltersByLevelAndWritesNothingWithoutALog)
{
    TraceCapture capture(3);
    capture.log()->trace(4, "hidden %s", "x");
    capture.log()->trace(3, "shown %s", "y");
    capture.log()->trace(1, "%s", std::string(2000, 'z').c_str());
    ASSERT_EQ(capture.all().size(), 2u);
    EXPECT_EQ(capture.all()[0], "shown y");
    EXPECT_EQ(capture.all()[1].size(), 2000u);

    Traced silent;  // no log registered: every site skips its message
    silent.run(5);
    EXPECT_FALSE(silent.getTraceLog());
}

TEST(TraceLog, StreamSinkWritesPidLevelAndMessage)
{
    TempDir dir;
    {
        CFiTraceLogPtr log(new CFiTraceLog());
        log->setLevel(6);
        log->setSink(std::unique_ptr<CFiTraceSink>(
            new CFiStreamTraceSink(fopen(dir.file("trace").c_str(), "w"), true)));
        log->trace(2, "WARNING: one\n");
    }
    const std::string line = readFile(dir.file("trace"));
    EXPECT_NE(line.find(" pid " + std::to_string(getpid()) + " tid "), std::string::npos) << line;
    EXPECT_EQ(line.substr(line.size() - 17), " L2 WARNING: one\n");
}

TEST(SmartPtr, CountsReferencesAcrossCopiesAndThreads)
{
    CFiTraceLog* raw = new CFiTraceLog();
    CFiTraceLogPtr first(raw);
    EXPECT_EQ(raw->refCount(), 1);
    {
        CFiTraceLogPtr copy(first);
        CFiTraceLogPtr assigned;
        assigned = copy;
        assigned = assigned;  // self-assignment keeps the count
        EXPECT_EQ(raw->refCount(), 3);
    }
    EXPECT_EQ(raw->refCount(), 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&first] {
            for (int i = 0; i < 5000; ++i) {
                CFiTraceLogPtr local(first);
                CFiTraceable holder;
                holder.registerTraceLog(local);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(raw->refCount(), 1);
}

TEST(Singleton, OneLogPerPluginUntilDestroyed)
{
    CFiTraceLogPtr a = (CFiContextSingleton<CFiTraceLog, FI_PLUGIN_NAME>::instance(false));
    CFiTraceLogPtr b = fiPluginTraceLog();
    EXPECT_TRUE(a);
    EXPECT_EQ(a.get(), b.get());
    EXPECT_FALSE((CFiContextSingleton<CFiTraceLog, FI_PLUGIN_NAME>::instance(true)));
    EXPECT_NE(fiPluginTraceLog().get(), nullptr);
}

TEST(ExecPipe, CapturesLinesAndStatus)
{
    struct Case {
        const char* command;
        int result;
        std::vector<std::string> lines;
    } cases[] = {
        {"printf 'a\\nb\\n'; echo err >&2; exit 3", 3, {"a", "b", "err"}},
        {"printf 'no newline'", 0, {"no newline"}},
        {"true", 0, {}},
        {"/nonexistent/tool -x", 127, {"sh: 1: /nonexistent/tool: not found"}},
        {"kill -9 $$", 256 + 9, {}},
    };
    for (const Case& c : cases) {
        CFiExecPipePosix pipe(1);
        std::vector<std::string> lines = {"stale"};
        EXPECT_EQ(pipe.Exec(c.command, lines, "", 600, "", "", ""), c.result) << c.command;
        EXPECT_EQ(lines, c.lines) << c.command;
    }
}

TEST(ExecPipe, KillsTheWholeGroupAtTheLimit)
{
    CFiExecPipePosix pipe(1);
    std::vector<std::string> lines;
    // The background sleeper holds the pipe open too: only killing the group ends it.
    auto start = std::chrono::steady_clock::now();
    int result = pipe.Exec("echo started; sleep 30 & sleep 30", lines, "", 1, "", "", "");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(result, FI_EXEC_TIMED_OUT);
    EXPECT_EQ(pipe.getLastError().getErrno(), ETIMEDOUT);
    EXPECT_EQ(lines, std::vector<std::string>{"started"});
    // No zombie is left behind: the child was reaped.
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(ExecPipe, ReportsACommandThatCannotStart)
{
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    struct rlimit tight = saved;
    tight.rlim_cur = 3;  // no descriptor left for the pipe
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    CFiExecPipePosix pipe(1);
    std::vector<std::string> lines;
    int result = pipe.Exec("true", lines, "", 600, "", "", "");
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(result, FI_EXEC_NOT_STARTED);
    EXPECT_EQ(pipe.getLastError().getErrno(), EMFILE);
}

TEST(FiStringTool, TokenizeTrimCompare)
{
    EXPECT_EQ(CFiStringTool::tokenize("InitiatorName=iqn.x=y", "="),
              (std::vector<std::string>{"InitiatorName", "iqn.x", "y"}));
    EXPECT_EQ(CFiStringTool::tokenize("==a", "="), std::vector<std::string>{"a"});
    EXPECT_TRUE(CFiStringTool::tokenize("", "=").empty());
    EXPECT_EQ(CFiStringTool::trim(" \tx y;\r\n", "; \n\t\r"), "x y");
    EXPECT_EQ(CFiStringTool::trim(" \n ", " \n"), "");
    EXPECT_TRUE(CFiStringTool::CompareNoCase("initiatorname", "InitiatorName"));
    EXPECT_FALSE(CFiStringTool::CompareNoCase("InitiatorName1", "InitiatorName"));
}

TEST(TuningSettings, ConfigurationLocation)
{
    ACE_CString first;
    ACE_CString second;
    unsetenv(CFiConfigurationPathTool::kEnvironmentVariable);
    CFiConfigurationPathTool::getConfigFileInfo(ACE_CString("devicefi"), first, second);
    EXPECT_STREQ(first.c_str(), "/etc/devicefi");
    EXPECT_STREQ(second.c_str(), "devicefi.ini");
    setenv(CFiConfigurationPathTool::kEnvironmentVariable, "/opt/x/my.conf", 1);
    CFiConfigurationPathTool::getConfigFileInfo(ACE_CString("devicefi"), first, second);
    unsetenv(CFiConfigurationPathTool::kEnvironmentVariable);
    EXPECT_STREQ(first.c_str(), "/opt/x");
    EXPECT_STREQ(second.c_str(), "my.conf");
}
