// SPDX-License-Identifier: Apache-2.0
// The host-wide rescan lock, exercised for real by several processes. This program never
// rescans in its own process, so every child makes its own first rescan and looks the semaphore
// set up afresh.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "device_discovery.h"
#include "simhost.h"

namespace {

// Discovery that runs `whileEnumerating` inside the locked part of a rescan.
class HoldingDiscovery : public CLinuxDeviceDiscovery {
public:
    std::function<void()> whileEnumerating;
    std::vector<CScsiDeviceData*> enumerateDevices() override
    {
        whileEnumerating();
        return {};
    }
    int FlushMultipathStaleDevices() override { return 0; }
};

// A forked child dies with this program: a lock that is never given back must fail the test, not
// leave children blocked on the host-wide set after the test runner gave up on the program.
pid_t forkChild()
{
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0 && (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent))
        _exit(99);
    return pid;
}

// Runs `body` in a child process that ends with _exit, so no exit handler runs in it.
pid_t runChild(const std::function<void()>& body)
{
    pid_t pid = forkChild();
    if (pid == 0) {
        body();
        _exit(0);
    }
    return pid;
}

// The child's wait status once it ends, or -1 once `ms` passed (the child is then killed): a child
// blocked for good on the lock fails its test in seconds.
int reap(pid_t pid, int ms = 5000)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    int status = -1;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > end) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            return -1;
        }
        usleep(10 * 1000);
    }
    return status;
}

void say(int fd, const char* text)
{
    (void)!write(fd, text, std::strlen(text));
}

// What the children said, until `expected` bytes came or `ms` passed.
std::string hear(int fd, size_t expected, int ms)
{
    std::string text;
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (text.size() < expected) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        struct pollfd p = {fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0)
            break;
        char buffer[64];
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0)
            break;
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

// A child that rescans, saying `begin` once it holds the lock and `end` 300 ms later.
std::function<void()> rescanner(int fd, const char* begin, const char* end)
{
    return [=]() {
        HoldingDiscovery discovery;
        discovery.whileEnumerating = [=]() {
            say(fd, begin);
            usleep(300 * 1000);
            say(fd, end);
        };
        discovery.rescan(false, false, false);
    };
}

// One round: the second rescan starts while the first holds the lock. What was said, in order.
std::string concurrentRound()
{
    int fds[2];
    if (pipe(fds) != 0)
        return "no pipe";
    pid_t first = runChild(rescanner(fds[1], "A", "a"));
    std::string order = hear(fds[0], 1, 5000);
    pid_t second = order.empty() ? -1 : runChild(rescanner(fds[1], "B", "b"));
    if (second > 0) {
        order += hear(fds[0], 3, 5000);
        reap(second);
    }
    reap(first);
    close(fds[0]);
    close(fds[1]);
    return order;
}

}  // namespace

TEST(RescanLock, TwoProcessesRescanningAtOnceTakeTurns)
{
    // The set is host-wide and the first process to exit after a rescan removes it, so another
    // program on the host may remove it in the middle of a round; a round that was not
    // serialised is tried again, and two such rounds in a row are a fault.
    std::string order;
    for (int round = 0; round < 3 && order != "AaBb"; ++round) {
        order = concurrentRound();
        if (order.empty())
            break;  // the first rescan never took the lock: no round can do better
    }
    EXPECT_EQ(order, "AaBb") << "the second rescan began before the first released the lock";
}

TEST(RescanLock, AProcessKilledWhileHoldingTheLockDoesNotKeepIt)
{
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t holder = runChild([&]() {
        HoldingDiscovery discovery;
        discovery.whileEnumerating = [&]() {
            say(fds[1], "H");
            pause();
        };
        discovery.rescan(false, false, false);
    });
    ASSERT_EQ(hear(fds[0], 1, 10000), "H");
    kill(holder, SIGKILL);
    reap(holder);

    pid_t next = runChild([&]() {
        HoldingDiscovery discovery;
        discovery.whileEnumerating = [&]() { say(fds[1], "N"); };
        discovery.rescan(false, false, false);
    });
    std::string heard = hear(fds[0], 1, 10000);
    reap(next, heard.empty() ? 0 : 5000);
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(heard, "N") << "the lock of the killed process was not given back";
}

TEST(RescanLock, TheFirstProcessToExitAfterARescanRemovesTheSet)
{
    const int key = CDeviceDiscoveryBase::kRescanSemaphoreKey;
    pid_t child = forkChild();
    if (child == 0) {
        HoldingDiscovery discovery;
        discovery.whileEnumerating = []() {};
        discovery.rescan(false, false, false);
        std::exit(semget(key, 1, 0) >= 0 ? 0 : 3);  // the exit handlers run
    }
    const int status = reap(child);
    EXPECT_EQ(status, 0) << "the rescan made no set";
    EXPECT_EQ(semget(key, 1, 0), -1) << "the set outlived the process that made it";
}

// A process that replays a host first and then rescans the real one still takes the real lock:
// the replay's set lives in the replayed host, and the real rescan looks up its own.
TEST(RescanLock, ARealRescanAfterAReplayTakesTheRealLock)
{
    const int key = CDeviceDiscoveryBase::kRescanSemaphoreKey;
    pid_t child = forkChild();
    if (child == 0) {
        int replayed = 10;
        {
            simhost::SimHost host;
            simhost::SimHostInstall install(host);
            HoldingDiscovery discovery;
            discovery.whileEnumerating = [&]() {
                std::vector<int> values = host.semaphoreValues(key);
                replayed = values.size() == 1 ? values[0] : 11;
            };
            discovery.rescan(false, false, false);
        }
        int real = 20;
        HoldingDiscovery discovery;
        discovery.whileEnumerating = [&]() {
            const int id = semget(key, 1, 0);
            real = id < 0 ? 21 : semctl(id, 0, GETVAL);
        };
        discovery.rescan(false, false, false);
        // 1 and 1: each rescan held the lock of the host it ran on.
        std::exit(replayed * 10 + real);  // the exit handler removes the real set
    }
    const int status = reap(child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 11) << "tens: the replayed host's lock, units: the real one";
}
