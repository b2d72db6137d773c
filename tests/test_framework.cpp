// SPDX-License-Identifier: Apache-2.0
// The framework kit: trace log and tracer, reference counts, message ids, the command pipe and the
// configuration reader behind the tuning settings.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <thread>

#include "fi_configuration.h"
#include "fi_error.h"
#include "fi_execpipe.h"
#include "fi_stringtool.h"
#include "fi_system.h"
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
    EXPECT_TRUE(capture.log()->isEnabled(3));
    EXPECT_FALSE(capture.log()->isEnabled(4));
    capture.log()->trace(4, "hidden %s", "x");
    capture.log()->trace(3, "shown %s", "y");
    capture.log()->trace(1, "%s", std::string(2000, 'z').c_str());
    capture.log()->trace(2, "%s", "");  // an empty message is still a line
    const std::string fills(512, 'f');  // one more than the first buffer holds with its end
    capture.log()->trace(2, "%s", fills.c_str());
    ASSERT_EQ(capture.all().size(), 4u);
    EXPECT_EQ(capture.all()[0], "shown y");
    EXPECT_EQ(capture.all()[1].size(), 2000u);
    EXPECT_EQ(capture.all()[2], "");
    EXPECT_EQ(capture.all()[3], fills);

    Traced silent;  // no log registered: every site skips its message
    silent.run(5);
    EXPECT_FALSE(silent.getTraceLog());
}

// A fresh log keeps level 0 only, and a log without a sink keeps nothing at any level.
TEST(TraceLog, DefaultLevelZeroAndNoSinkNoLine)
{
    CFiTraceLogPtr fresh(new CFiTraceLog());
    auto* sink = new CFiMemoryTraceSink();
    fresh->setSink(std::unique_ptr<CFiTraceSink>(sink));
    EXPECT_TRUE(fresh->isEnabled(0));
    EXPECT_FALSE(fresh->isEnabled(1));
    fresh->trace(1, "hidden");
    fresh->trace(0, "kept");
    EXPECT_EQ(sink->lines(), (std::vector<std::pair<int, std::string>>{{0, "kept"}}));

    CFiTraceLogPtr sinkless(new CFiTraceLog());
    sinkless->setLevel(6);
    EXPECT_FALSE(sinkless->isEnabled(0));
    sinkless->trace(1, "nowhere");  // nothing to write to, and nothing breaks
}

namespace {
size_t openDescriptors()
{
    size_t count = 0;
    if (DIR* listing = opendir("/proc/self/fd")) {
        while (readdir(listing) != nullptr)
            ++count;
        closedir(listing);
    }
    return count;
}
}  // namespace

TEST(TraceLog, StreamSinkWritesPidLevelAndMessage)
{
    TempDir dir;
    const size_t descriptors = openDescriptors();
    {
        CFiTraceLogPtr log(new CFiTraceLog());
        log->setLevel(6);
        log->setSink(std::unique_ptr<CFiTraceSink>(
            new CFiStreamTraceSink(fopen(dir.file("trace").c_str(), "w"), true)));
        log->trace(2, "WARNING: one\n");
    }
    EXPECT_EQ(openDescriptors(), descriptors) << "the sink did not close the stream it owns";
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

namespace {
// A sink that tells a pipe every line it receives and, with "released", that its log is gone.
struct ReportingSink : CFiTraceSink {
    explicit ReportingSink(int fd) : m_fd(fd) {}
    ~ReportingSink() override { say("released\n"); }
    void write(int, const std::string& message) override { say(message + "\n"); }
    void say(const std::string& text)
    {
        EXPECT_EQ(::write(m_fd, text.data(), text.size()), ssize_t(text.size()));
    }
    int m_fd;
};

struct ReleaseFlagSink : CFiTraceSink {
    explicit ReleaseFlagSink(bool& released) : m_released(released) {}
    ~ReleaseFlagSink() override { m_released = true; }
    void write(int, const std::string&) override {}
    bool& m_released;
};

std::string readAll(int fd)
{
    std::string text;
    char buffer[256];
    ssize_t got;
    while ((got = read(fd, buffer, sizeof buffer)) > 0)
        text.append(buffer, size_t(got));
    return text;
}
}  // namespace

TEST(SmartPtr, TakingThePointerItHoldsKeepsTheObject)
{
    for (int others : {0, 1}) {
        bool released = false;
        CFiTraceLogPtr held(new CFiTraceLog());
        held->setSink(std::unique_ptr<CFiTraceSink>(new ReleaseFlagSink(released)));
        CFiTraceLogPtr other;
        if (others != 0)
            other = held;
        held.acquire(held.get());
        ASSERT_FALSE(released) << others;
        EXPECT_EQ(held->refCount(), 1 + others);
        other.release();
        held.release();
        EXPECT_TRUE(released) << others;
    }
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

TEST(Singleton, ReleasedWhenTheKitIsUnloadedAfterTracingAtExit)
{
    // The process exits as at unload: an exit handler still traces through the plug-in's log,
    // then the kit drops the singleton's reference and the log with its sink goes.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(fds[0]);
        {
            CFiTraceLogPtr log = fiPluginTraceLog();
            log->setLevel(2);
            log->setSink(std::unique_ptr<CFiTraceSink>(new ReportingSink(fds[1])));
        }
        atexit([] { fiPluginTraceLog()->trace(2, "WARNING: traced at exit"); });
        exit(0);
    }
    close(fds[1]);
    const std::string report = readAll(fds[0]);
    close(fds[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(report, "WARNING: traced at exit\nreleased\n");
}

// A host process that forks on another thread hands none of the kit's files to the child; the
// device node keeps exactly the flags its caller gives.
TEST(Descriptors, FilesAreCloseOnExecAndDeviceNodesKeepTheirFlags)
{
    TempDir dir;
    const std::string path = dir.file("control");
    std::ofstream(path) << "0\n";
    CFiLinuxSystem system;
    for (const char* mode : {"r", "a", "w", "r+"}) {
        FILE* file = system.fopen(path.c_str(), mode);
        ASSERT_NE(file, nullptr) << mode;
        EXPECT_EQ(fcntl(fileno(file), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << mode;
        EXPECT_EQ(fcntl(fileno(file), F_GETFL) & O_ACCMODE, mode[0] == 'r' && mode[1] == '\0'
                                                                ? O_RDONLY
                                                            : mode[1] == '+' ? O_RDWR
                                                                             : O_WRONLY)
            << mode;
        fclose(file);
    }
    const int fd = system.open("/dev/null", O_RDWR | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
    system.close(fd);
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
        {"printf 'x\\n\\ny\\n'", 0, {"x", "", "y"}},
        {"true", 0, {}},
        {"/nonexistent/tool -x", 127, {"sh: 1: /nonexistent/tool: not found"}},
        {"kill -9 $$", 256 + 9, {}},
        // Whole lines of each stream stay apart: a partial line waits for the rest of its own
        // stream, and what is left at the end comes standard output first.
        {"printf c; echo err >&2", 0, {"err", "c"}},
        {"printf c; printf err >&2", 0, {"c", "err"}},
        // The stream still open is read on its own once the other has ended, past what a pipe
        // holds.
        {"exec 2>&-; head -c 200000 /dev/zero | tr '\\0' x; echo", 0, {std::string(200000, 'x')}},
        {"exec >&-; head -c 200000 /dev/zero | tr '\\0' y >&2", 0, {std::string(200000, 'y')}},
    };
    for (const Case& c : cases) {
        CFiExecPipePosix pipe(1);
        std::vector<std::string> lines = {"stale"};
        errno = EINTR;  // what an earlier call left in errno says nothing about this run
        EXPECT_EQ(pipe.Exec(c.command, lines, "", 600, "", "", ""), c.result) << c.command;
        EXPECT_EQ(lines, c.lines) << c.command;
    }
}

namespace {
// Whether process `pid` has gone (or is only a zombie left for its new parent to reap).
bool gone(pid_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    size_t paren = text.rfind(')');
    return !stat || paren == std::string::npos || text.compare(paren, 4, ") Z ") == 0;
}
}  // namespace

TEST(ExecPipe, KeepsTheLimitForTheWholeRunAndReturnsWhenTheCommandExits)
{
    using std::chrono::milliseconds;
    struct Case {
        const char* command;
        int result;
        std::vector<std::string> lines;
        long atLeastMs;
        long atMostMs;
    } cases[] = {
        // Nothing holds the pipe any more, yet the command goes on: the limit still ends it.
        {"exec >/dev/null 2>&1; sleep 3", FI_EXEC_TIMED_OUT, {}, 1000, 1500},
        // The background sleeper holds the pipe open too: only killing the group ends it.
        {"sleep 30 & echo $!; sleep 30", FI_EXEC_TIMED_OUT, {"*"}, 1000, 1500},
        // The command is done although a child it left behind still holds an output stream.
        {"echo done; sleep 2 &", 0, {"done"}, 0, 500},
        {"echo failed >&2; sleep 2 >&2 & exit 4", 4, {"failed"}, 0, 500},
    };
    const size_t descriptors = openDescriptors();
    for (const Case& c : cases) {
        CFiExecPipePosix pipe(1);
        std::vector<std::string> lines;
        auto start = std::chrono::steady_clock::now();
        int result = pipe.Exec(c.command, lines, "", 1, "", "", "");
        const long took =
            long(std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start)
                     .count());
        EXPECT_GE(took, c.atLeastMs) << c.command;
        EXPECT_LE(took, c.atMostMs) << c.command;
        EXPECT_EQ(result, c.result) << c.command;
        EXPECT_EQ(pipe.getLastError().getErrno(), c.result == FI_EXEC_TIMED_OUT ? ETIMEDOUT : 0)
            << c.command;
        if (c.lines == std::vector<std::string>{"*"}) {
            // The shell told the background sleeper's pid: it was killed with the group.
            ASSERT_EQ(lines.size(), 1u) << c.command;
            const pid_t sleeper = pid_t(std::stol(lines[0]));
            auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
            while (!gone(sleeper) && std::chrono::steady_clock::now() < until)
                std::this_thread::sleep_for(milliseconds(10));
            EXPECT_TRUE(gone(sleeper)) << c.command;
        } else {
            EXPECT_EQ(lines, c.lines) << c.command;
        }
        // No zombie is left behind: the command was reaped; nor is a pipe left open.
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << c.command;
        EXPECT_EQ(openDescriptors(), descriptors) << c.command;
    }
}

namespace {
// Sets SIGCHLD to be ignored, as a host process may, for the life of the object.
struct IgnoredChildSignal {
    IgnoredChildSignal()
    {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGCHLD, &ignore, &m_saved);
    }
    ~IgnoredChildSignal() { sigaction(SIGCHLD, &m_saved, nullptr); }
    struct sigaction m_saved = {};
};
}  // namespace

TEST(ExecPipe, ReportsAStatusItCannotLearnAsAFailure)
{
    // With SIGCHLD ignored the kernel reaps the command itself and its status is lost.
    struct Case {
        const char* command;
        unsigned long limit;
        int result;
        int sysErrno;
        const char* text;
        std::vector<std::string> lines;
    } cases[] = {
        {"echo 'ls: cannot access'; exit 2",
         600,
         FI_EXEC_NOT_STARTED,
         ECHILD,
         "exit status unknown",
         {"ls: cannot access"}},
        {"true", 600, FI_EXEC_NOT_STARTED, ECHILD, "exit status unknown", {}},
        {"echo slow; sleep 3", 1, FI_EXEC_TIMED_OUT, ETIMEDOUT, "timed out", {"slow"}},
    };
    IgnoredChildSignal ignored;
    for (const Case& c : cases) {
        CFiExecPipePosix pipe(1);
        std::vector<std::string> lines;
        EXPECT_EQ(pipe.Exec(c.command, lines, "", c.limit, "", "", ""), c.result) << c.command;
        EXPECT_EQ(pipe.getLastError().getErrno(), c.sysErrno) << c.command;
        EXPECT_EQ(pipe.getLastError().getText(), c.text) << c.command;
        EXPECT_EQ(lines, c.lines) << c.command;
    }
}

// A command that closed both its streams and goes on running is waited for, not polled in a
// loop: the caller's thread sleeps through most of the command's second.
TEST(ExecPipe, WaitsWithoutSpinningForACommandWithoutStreams)
{
    auto threadCpu = []() {
        struct timespec now;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return now.tv_sec * 1000.0 + now.tv_nsec / 1e6;
    };
    CFiExecPipePosix pipe(1);
    std::vector<std::string> lines;
    const double before = threadCpu();
    EXPECT_EQ(pipe.Exec("exec >&- 2>&-; sleep 1", lines, "", 600, "", "", ""), 0);
    const double usedMs = threadCpu() - before;
    EXPECT_LT(usedMs, 300.0) << "the wait spun";
}

// A daemon often runs with its standard input closed: the pipe then gets descriptor 0, which is
// read like any other and closed once the command is done, never leaked, also when a child the
// command left behind still holds the pipe.
TEST(ExecPipe, APipeOnDescriptorZeroIsReadAndClosed)
{
    const int saved = dup(0);
    ASSERT_GE(saved, 0);
    close(0);
    CFiExecPipePosix pipe(1);
    std::vector<std::string> lines;
    const int result = pipe.Exec("echo out; printf err >&2; sleep 2 &", lines, "", 600, "", "", "");
    errno = 0;
    const bool zeroOpen = fcntl(0, F_GETFD) != -1;
    const int zeroErrno = errno;
    dup2(saved, 0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(lines, (std::vector<std::string>{"out", "err"}));
    EXPECT_FALSE(zeroOpen) << "descriptor 0 left open";
    EXPECT_EQ(zeroErrno, EBADF);

    // More than a pipe holds goes through descriptor 0 while the command runs.
    close(0);
    lines.clear();
    const int whole =
        pipe.Exec("head -c 200000 /dev/zero | tr '\\0' x; echo", lines, "", 20, "", "", "");
    dup2(saved, 0);
    close(saved);
    EXPECT_EQ(whole, 0);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], std::string(200000, 'x'));
}

namespace {
// Makes every later call of `calls` in this process fail with `error` (a seccomp filter; x86-64
// call numbers, which is what the suite runs on).
bool failSystemCalls(std::initializer_list<long> calls, int error)
{
    std::vector<sock_filter> program = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr))};
    for (long call : calls) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(call), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<__u32>(error)));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    struct sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

// The `count` lowest descriptor numbers that are free now.
std::vector<int> freeDescriptors(size_t count)
{
    std::vector<int> free;
    while (free.size() < count)
        free.push_back(open("/dev/null", O_RDONLY));
    for (int fd : free)
        close(fd);
    return free;
}
}  // namespace

// Whatever step fails, the command is reported as not started (or, when the shell cannot be run,
// with the shell's 127) and no descriptor or child is left behind. Each case runs in a process of
// its own: a descriptor limit or a filter on system calls cannot be taken back.
TEST(ExecPipe, ReportsACommandThatCannotStart)
{
    enum Obstacle { kNoPipe, kNoSecondPipe, kNoFork, kNoShell };
    struct Case {
        Obstacle obstacle;
        int result;
        int sysErrno;
    } cases[] = {
        {kNoPipe, FI_EXEC_NOT_STARTED, EMFILE},
        {kNoSecondPipe, FI_EXEC_NOT_STARTED, EMFILE},
        {kNoFork, FI_EXEC_NOT_STARTED, EAGAIN},
        {kNoShell, 127, 0},
    };
    // Valgrind cannot carry on in a process whose execve failed: the shell case is left out there.
    const char* preload = getenv("LD_PRELOAD");
    const bool underValgrind = preload != nullptr && strstr(preload, "vgpreload") != nullptr;
    for (const Case& c : cases) {
        if (c.obstacle == kNoShell && underValgrind)
            continue;
        int report[2];
        ASSERT_EQ(pipe(report), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            close(report[0]);
            // One run with descriptors to spare first: the sanitizers' first check of each
            // object's type opens a pipe of their own, and would fail under the limit.
            CFiExecPipePosix pipe(1);
            std::vector<std::string> lines;
            pipe.Exec("true", lines, "", 600, "", "", "");
            const long before = long(openDescriptors());
            struct rlimit saved;
            getrlimit(RLIMIT_NOFILE, &saved);
            struct rlimit tight = saved;
            const std::vector<int> free = freeDescriptors(3);
            bool ready = true;
            if (c.obstacle == kNoPipe || c.obstacle == kNoSecondPipe) {
                tight.rlim_cur = rlim_t(free[c.obstacle == kNoPipe ? 1 : 2]);
                ready = setrlimit(RLIMIT_NOFILE, &tight) == 0;
            } else if (c.obstacle == kNoFork) {
                ready = failSystemCalls({SYS_clone, SYS_clone3, SYS_fork, SYS_vfork}, EAGAIN);
            } else {
                ready = failSystemCalls({SYS_execve, SYS_execveat}, EACCES);
            }
            long answer[4] = {ready ? 1 : 0};
            answer[1] = pipe.Exec("echo unseen", lines, "", 600, "", "", "");
            answer[2] = pipe.getLastError().getErrno();
            setrlimit(RLIMIT_NOFILE, &saved);
            answer[3] = long(openDescriptors()) - before + long(lines.size()) * 1000 +
                        (waitpid(-1, nullptr, WNOHANG) == -1 ? 0 : 1000000);
            if (write(report[1], answer, sizeof answer) != sizeof answer)
                _exit(2);
            _exit(0);
        }
        close(report[1]);
        long answer[4] = {};
        const ssize_t got = read(report[0], answer, sizeof answer);
        close(report[0]);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(got, ssize_t(sizeof answer)) << c.obstacle;
        ASSERT_EQ(answer[0], 1) << "the obstacle could not be set up: " << c.obstacle;
        EXPECT_EQ(answer[1], c.result) << c.obstacle;
        EXPECT_EQ(answer[2], c.sysErrno) << c.obstacle;
        // Descriptors left open, lines (in thousands), a child not reaped (in millions).
        EXPECT_EQ(answer[3], 0) << c.obstacle;
    }
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
    EXPECT_FALSE(CFiStringTool::CompareNoCase("InitiatorNamf", "InitiatorName"));
}

TEST(TuningSettings, ConfigurationLocation)
{
    // Where the file is looked for: a path set by the process wins over the environment, which
    // wins over the plug-in's default; each source answers 0.
    struct Case {
        const char* set;          // setConfigFile's path, "" for none
        const char* environment;  // nullptr: unset
        const char* first;
        const char* second;
    } cases[] = {
        {"", nullptr, "/etc/devicefi", "devicefi.ini"},
        {"", "", "/etc/devicefi", "devicefi.ini"},
        {"", "/opt/x/my.conf", "/opt/x", "my.conf"},
        {"/srv/a/b.ini", "/opt/x/my.conf", "/srv/a", "b.ini"},
        {"/srv/a/b.ini", nullptr, "/srv/a", "b.ini"},
        {"b.ini", nullptr, ".", "b.ini"},  // a bare name lies in the working directory
        {"/b.ini", nullptr, "/", "b.ini"},
        {"", "/b.ini", "/", "b.ini"},
    };
    for (const Case& c : cases) {
        CFiConfigurationPathTool::setConfigFile(c.set);
        if (c.environment != nullptr)
            setenv(CFiConfigurationPathTool::kEnvironmentVariable, c.environment, 1);
        else
            unsetenv(CFiConfigurationPathTool::kEnvironmentVariable);
        ACE_CString first("stale");
        ACE_CString second("stale");
        EXPECT_EQ(
            CFiConfigurationPathTool::getConfigFileInfo(ACE_CString("devicefi"), first, second), 0)
            << c.set << " " << (c.environment ? c.environment : "(unset)");
        EXPECT_STREQ(first.c_str(), c.first) << c.set;
        EXPECT_STREQ(second.c_str(), c.second) << c.set;
    }
    CFiConfigurationPathTool::setConfigFile("");
    unsetenv(CFiConfigurationPathTool::kEnvironmentVariable);
}

// The configuration reader's contract, call by call: -1 until its state allows the call, 0 with
// the value once it does; a whole unsigned decimal number is the only integer it takes.
TEST(FiConfiguration, EachCallAnswersByItsState)
{
    TempDir dir;
    writeFile(dir.file("good.ini"),
              "[TUNING_PARAMS]\nA=7\nB=-1\nC=x\nD=4294967296\nE=4294967295\nF=\nG=12x\n");
    CFiConfiguration configuration;
    ACE_Configuration_Section_Key key;
    unsigned int value = 99;
    EXPECT_EQ(configuration.openSection("TUNING_PARAMS", key, 0), -1) << "nothing imported";
    EXPECT_EQ(configuration.getIntegerValue("A", value), -1) << "nothing imported";
    EXPECT_EQ(configuration.importConfig(dir.path().c_str(), nullptr), -1);
    EXPECT_EQ(configuration.importConfig(dir.path().c_str(), ""), -1);
    EXPECT_EQ(configuration.importConfig(dir.path().c_str(), "missing.ini"), -1);
    EXPECT_EQ(configuration.importConfig((dir.path() + "/").c_str(), "good.ini"), 0);
    EXPECT_EQ(configuration.importConfig(dir.path().c_str(), "good.ini"), 0);
    EXPECT_EQ(configuration.getIntegerValue("A", value), -1) << "no section open";
    EXPECT_EQ(configuration.openSection(nullptr, key, 0), -1);
    EXPECT_EQ(configuration.openSection("OTHER", key, 0), -1);
    ASSERT_EQ(configuration.openSection("TUNING_PARAMS", key, 0), 0);
    struct Case {
        const char* key;
        int answer;
        unsigned int value;  // what `value` holds afterwards, from 99
    } cases[] = {
        {"A", 0, 7},           {"B", -1, 99}, {"C", -1, 99}, {"D", -1, 99},
        {"E", 0, 4294967295u}, {"F", -1, 99}, {"G", -1, 99}, {"H", -1, 99},
    };
    for (const Case& c : cases) {
        value = 99;
        EXPECT_EQ(configuration.getIntegerValue(c.key, value), c.answer) << c.key;
        EXPECT_EQ(value, c.value) << c.key;
    }
    EXPECT_EQ(configuration.getIntegerValue(nullptr, value), -1);
    // The file is looked at before the INI reader gets it, and given back: no descriptor stays.
    const size_t descriptors = openDescriptors();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(configuration.importConfig(dir.path().c_str(), "good.ini"), 0);
    EXPECT_EQ(openDescriptors(), descriptors);
    // A failed import forgets the file before it.
    EXPECT_EQ(configuration.importConfig(dir.path().c_str(), "missing.ini"), -1);
    EXPECT_EQ(configuration.getIntegerValue("A", value), -1);
    EXPECT_EQ(configuration.openSection("TUNING_PARAMS", key, 0), -1);
}
