// The EMC array generators: Clariion/VNX and Symmetrix.
#include "device_udid_generator.h"

CEmcClariionUdidGenerator::CEmcClariionUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

bool CEmcClariionUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    return CUdidGenerator::claimDevice(device);
}

std::string CEmcClariionUdidGenerator::getUniqueDeviceIDPrefix(CScsiDeviceData* device)
{
    return CUdidGenerator::getUniqueDeviceIDPrefix(device);
}

bool CEmcClariionUdidGenerator::checkForArraySerialNo(const unsigned char**, unsigned int, int, int,
                                                      std::string&)
{
    return false;
}

std::string CEmcClariionUdidGenerator::getUniqueDeviceID(CScsiDeviceData*)
{
    throw error(MSG_INVALID_SCSI_DEVICE_DATA);
}

CEmcSymmetrixUdidGenerator::CEmcSymmetrixUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

std::string CEmcSymmetrixUdidGenerator::getUniqueDeviceID(CScsiDeviceData*)
{
    throw error(MSG_INVALID_SCSI_DEVICE_DATA);
}
