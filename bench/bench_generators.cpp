// SPDX-License-Identifier: Apache-2.0
// The UDID work of one device record of each array family, filled from a typical page set by
// the real query path: the body alone (the claiming generator's getUniqueDeviceID) and the whole
// factory step (the claim walk down the table, prefix, body and upper-casing).
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "device_udid_factory.h"
#include "generated_host.h"
#include "scsitool.h"

namespace {

// One family's LUN on a host of its own, its queried record and the generator that claims it.
struct Subject {
    std::string label;
    std::unique_ptr<simhost::SimHost> host;
    std::unique_ptr<CScsiDeviceData> record;
    CUdidGenerator* generator = nullptr;
};

CUDIDFactory& factory()
{
    static CUDIDFactory* instance = new CUDIDFactory();  // kept for the process, as the framework
    return *instance;
}

std::vector<Subject>& subjects()
{
    static std::vector<Subject>* all = new std::vector<Subject>();
    return *all;
}

bool prepare(Subject& subject, const bench::ArrayFamily& family)
{
    subject.label = family.label;
    subject.host.reset(new simhost::SimHost());
    simhost::SimDevice device = family.device;
    device.name = "sda";
    device.host = 3;
    subject.host->addDevice(device);
    simhost::SimHostInstall install(*subject.host);
    subject.record.reset(
        new CScsiDeviceData("/dev/sda", "", "benchhost", 0, 0, 0, -1, "", "", "", 0));
    subject.record->m_pagesValid = 1;
    CScsiTool tool;
    if (tool.UpdateDevice(subject.record.get()) != 0) {
        return false;
    }
    for (CUdidGenerator* generator : factory().m_generators) {
        if (generator->claimDevice(subject.record.get())) {
            subject.generator = generator;
            break;
        }
    }
    // The page set must give the family's own UDID, not an exception.
    try {
        return subject.generator != nullptr &&
               !subject.generator->getUniqueDeviceID(subject.record.get()).empty();
    } catch (const CUdidGeneratorException&) {
        return false;
    }
}

void BM_GeneratorBody(benchmark::State& state, Subject* subject)
{
    simhost::SimHostInstall install(*subject->host);
    for (auto _ : state) {
        std::string body = subject->generator->getUniqueDeviceID(subject->record.get());
        benchmark::DoNotOptimize(body);
    }
}

void BM_FactoryUdid(benchmark::State& state, Subject* subject)
{
    simhost::SimHostInstall install(*subject->host);
    std::string udid;
    for (auto _ : state) {
        udid = factory().getUniqueDeviceID(subject->record.get());
        benchmark::DoNotOptimize(udid);
    }
    state.SetLabel(udid);
}

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<bench::ArrayFamily>& families = bench::arrayFamilies();
    subjects().resize(families.size());
    for (size_t i = 0; i < families.size(); ++i) {
        Subject& subject = subjects()[i];
        if (!prepare(subject, families[i])) {
            std::fprintf(stderr, "bench_generators: no generator takes the %s LUN\n",
                         families[i].label.c_str());
            return 1;
        }
        const std::string name = subject.generator->getGeneratorName() + " (" + subject.label + ")";
        benchmark::RegisterBenchmark(("BM_GeneratorBody/" + name).c_str(), BM_GeneratorBody,
                                     &subject);
        benchmark::RegisterBenchmark(("BM_FactoryUdid/" + name).c_str(), BM_FactoryUdid, &subject);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
