// The generators of the remaining arrays: Hitachi, LSI/Engenio, NetApp and Fujitsu Eternus.
#include "device_udid_generator.h"

CHitachiUdidGenerator::CHitachiUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

bool CHitachiUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    return CUdidGenerator::claimDevice(device);
}

std::string CHitachiUdidGenerator::getUniqueDeviceID(CScsiDeviceData*)
{
    throw error(MSG_INVALID_SCSI_DEVICE_DATA);
}

CLsiUdidGenerator::CLsiUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

bool CLsiUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    return CUdidGenerator::claimDevice(device);
}

std::string CLsiUdidGenerator::getUniqueDeviceID(CScsiDeviceData*)
{
    throw error(MSG_INVALID_SCSI_DEVICE_DATA);
}

CNetAppUdidGenerator::CNetAppUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

std::string CNetAppUdidGenerator::getEnclosureID(CScsiDeviceData*)
{
    return "";
}

std::string CNetAppUdidGenerator::getUniqueDeviceID(CScsiDeviceData*)
{
    throw error(MSG_INVALID_SCSI_DEVICE_DATA);
}

CFujitsuEternusUdidGenerator::CFujitsuEternusUdidGenerator(std::string vendorId,
                                                           std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

bool CFujitsuEternusUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    return CUdidGenerator::claimDevice(device);
}

std::string CFujitsuEternusUdidGenerator::getUniqueDeviceID(CScsiDeviceData*)
{
    throw error(MSG_INVALID_SCSI_DEVICE_DATA);
}
