// SPDX-License-Identifier: Apache-2.0
// The multipath claim library's claim manager; the library uses its constructor, destructor and
// registerTraceLog.
#ifndef KZFI_DMP_CLAIM_MANAGER_H
#define KZFI_DMP_CLAIM_MANAGER_H

#include "fi_export.h"
#include "fi_trace.h"

class KZFI_PDK_EXPORT CDmpClaimManager : public virtual kzfi_pdk_4_4::CFiTraceable {
public:
    CDmpClaimManager();
    ~CDmpClaimManager() override;
    void registerTraceLog(const kzfi_pdk_4_4::CFiTraceLogPtr& log) override;
};

#endif
