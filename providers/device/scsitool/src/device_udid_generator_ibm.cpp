// The IBM array generators: enterprise (ESS, DS8000, SVC) and midrange (DS, FAStT).
#include "device_udid_generator.h"

CIbmUdidGenerator::CIbmUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

bool CIbmUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    return CUdidGenerator::claimDevice(device);
}

bool CIbmUdidGenerator::isESS(std::string)
{
    return false;
}

bool CIbmUdidGenerator::isFASTT(std::string)
{
    return false;
}

std::string CIbmUdidGenerator::getUniqueDeviceID(CScsiDeviceData*)
{
    throw error(MSG_INVALID_SCSI_DEVICE_DATA);
}

CIbmDsUdidGenerator::CIbmDsUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

bool CIbmDsUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    return CUdidGenerator::claimDevice(device);
}

bool CIbmDsUdidGenerator::isESS(std::string)
{
    return false;
}

bool CIbmDsUdidGenerator::isFASTT(std::string)
{
    return false;
}

std::string CIbmDsUdidGenerator::getUniqueDeviceID(CScsiDeviceData*)
{
    throw error(MSG_INVALID_SCSI_DEVICE_DATA);
}
