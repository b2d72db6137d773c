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
// with a bus rescan every other round.
void enumerate(int rounds, std::vector<Map>& maps)
{
    CUDIDFactory factory;
    kzfi_pdk_4_4::CFiTraceLogPtr log(new kzfi_pdk_4_4::CFiTraceLog);
    log->setLevel(6);
    log->setSink(std::unique_ptr<kzfi_pdk_4_4::CFiTraceSink>(new kzfi_pdk_4_4::CFiMemoryTraceSink));
    factory.registerTraceLog(log);
    for (int round = 0; round < rounds; ++round) {
        maps.push_back(factory.enumerateDeviceMap(round % 2 == 1, true, false));
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
    // The map once a bus rescan has brought the host to rest; every later one is the same.
    Map alone;
    {
        std::vector<Map> maps;
        enumerate(2, maps);
        alone = maps.at(1);
    }
    ASSERT_FALSE(alone.empty());

    const int rounds = 4;
    std::vector<Map> first, second;
    std::thread a(enumerate, rounds, std::ref(first));
    std::thread b(enumerate, rounds, std::ref(second));
    a.join();
    b.join();
    ASSERT_EQ(first.size(), size_t(rounds));
    ASSERT_EQ(second.size(), size_t(rounds));
    for (int round = 0; round < rounds; ++round) {
        EXPECT_EQ(first[round], alone) << "first thread, round " << round;
        EXPECT_EQ(second[round], alone) << "second thread, round " << round;
    }
    EXPECT_EQ(host->semaphoreValues(1001), std::vector<int>{0}) << "a rescan kept the lock";
}
