// SPDX-License-Identifier: Apache-2.0
// A program built against the installed tree: the public headers resolve and the factory links.
#include <device_udid_factory.h>

#include <cstdio>

int main()
{
    CUDIDFactory factory;
    std::printf("generators %zu, last %s\n", factory.m_generators.size(),
                factory.m_generators.back()->getGeneratorName().c_str());
    return factory.m_deviceMap.empty() ? 0 : 1;
}
