// SPDX-License-Identifier: Apache-2.0
#include "sim_disks.h"

#include <cstdlib>
#include <memory>

#include "page_builders.h"

using namespace kzfi_pdk_4_4;

simhost::SimDevice simDisk(const std::string& name, int host, int channel, int id, int lun,
                           simhost::DeviceState state)
{
    simhost::SimDevice device;
    device.name = name;
    device.host = host;
    device.channel = channel;
    device.id = id;
    device.lun = lun;
    device.inquiry = inquiryPage("ACME", "Disk", 36);
    device.state = state;
    return device;
}

simhost::SimAdapter simAdapter(int host, const std::string& driver, bool fcHost,
                               const std::string& procText)
{
    simhost::SimAdapter adapter;
    adapter.host = host;
    adapter.driver = driver;
    adapter.fcHost = fcHost;
    adapter.procText = procText;
    return adapter;
}
