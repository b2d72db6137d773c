// SPDX-License-Identifier: Apache-2.0
#include "dmp_claim_manager.h"

CDmpClaimManager::CDmpClaimManager() = default;

CDmpClaimManager::~CDmpClaimManager() = default;

void CDmpClaimManager::registerTraceLog(const kzfi_pdk_4_4::CFiTraceLogPtr& log)
{
    kzfi_pdk_4_4::CFiTraceable::registerTraceLog(log);
}
