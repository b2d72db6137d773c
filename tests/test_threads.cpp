// SPDX-License-Identifier: Apache-2.0
// Two factories of one process enumerating and rescanning on two threads over one simulated
// host: each gets the whole map, the rescans take turns on the host's lock, and (under the
// ThreadSanitizer preset) nothing races.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "device_udid_factory.h"
#include "fi_trace.h"
#include "simhost.h"

namespace {

using Map = std::map<std::string, SDeviceInfo>;

// One thread's work: a factory of its own with a log of its own, enumerating `rounds` times,
// with a bus rescan every other round. Each map as "name claim UDID" lines.
void enumerate(int rounds, std::vector<std::string>& maps)
{
    CUDIDFactory factory;
    kzfi_pdk_4_4::CFiTraceLogPtr log(new kzfi_pdk_4_4::CFiTraceLog);
    log->setLevel(6);
    log->setSink(std::unique_ptr<kzfi_pdk_4_4::CFiTraceSink>(new kzfi_pdk_4_4::CFiMemoryTraceSink));
    factory.registerTraceLog(log);
    for (int round = 0; round < rounds; ++round) {
        std::string text;
        for (const auto& entry : factory.enumerateDeviceMap(round % 2 == 1, true, false)) {
            text += entry.first + " " + std::to_string(entry.second.dmpClaimLevel) + " " +
                    entry.second.Uid + "\n";
        }
        maps.push_back(text);
    }
}

}  // namespace

TEST(Threads, TwoFactoriesEnumerateAndRescanAtOnce)
{
    std::string error;
    std::unique_ptr<simhost::SimHost> host =
        simhost::SimHost::fromFile(SCSITOOL_SOURCE_DIR "/examples/hosts/datacenter.json", error);
    ASSERT_TRUE(host) << error;
    simhost::SimHostInstall install(*host);
    // The maps with and without a bus rescan once a first rescan has brought the host to rest.
    std::vector<std::string> alone;
    enumerate(3, alone);
    const std::string expected[2] = {alone.at(2), alone.at(1)};
    ASSERT_NE(expected[0], "");
    ASSERT_NE(expected[1], "");

    const int rounds = 4;
    std::vector<std::string> first, second;
    std::thread a(enumerate, rounds, std::ref(first));
    std::thread b(enumerate, rounds, std::ref(second));
    a.join();
    b.join();
    ASSERT_EQ(first.size(), size_t(rounds));
    ASSERT_EQ(second.size(), size_t(rounds));
    for (int round = 0; round < rounds; ++round) {
        EXPECT_EQ(first[round], expected[round % 2]) << "first thread, round " << round;
        EXPECT_EQ(second[round], expected[round % 2]) << "second thread, round " << round;
    }
    EXPECT_EQ(host->semaphoreValues(1001), std::vector<int>{0}) << "a rescan kept the lock";
}
