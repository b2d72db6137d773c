#include "scsitool.h"

CScsiTool::CScsiTool() {}

CScsiTool::~CScsiTool() {}

int CScsiTool::RemoveDevice(CScsiDeviceData*)
{
    return SCSI_STATUS_FAILED;
}

int CScsiTool::GetScsiDeviceCapacity(CScsiDeviceHandle&, CScsiDeviceData&)
{
    return SCSI_STATUS_OK;
}

void CScsiTool::GetTargetLunPortInfo(CScsiDeviceHandle&, CScsiDeviceData&)
{
    throw static_cast<int>(SCSI_STATUS_FAILED);
}

int CScsiTool::GetModePageInfo(CScsiDeviceHandle&, CScsiDeviceData&, const unsigned int&,
                               unsigned int& length, unsigned int, ScsiPagePtr&)
{
    length = 0;
    return SCSI_STATUS_FAILED;
}

int CScsiTool::GetHostIQN(std::string&)
{
    return SCSI_STATUS_FAILED;
}
