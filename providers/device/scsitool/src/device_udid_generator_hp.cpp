// The HP array generators: MSA, EVA, XP and 3PAR.
#include "device_udid_generator.h"

CHpMsaUdidGenerator::CHpMsaUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

bool CHpMsaUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    return CUdidGenerator::claimDevice(device);
}

std::string CHpMsaUdidGenerator::getUniqueDeviceID(CScsiDeviceData*)
{
    throw error(MSG_INVALID_SCSI_DEVICE_DATA);
}

CHpEvaUdidGenerator::CHpEvaUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

bool CHpEvaUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    return CUdidGenerator::claimDevice(device);
}

std::string CHpEvaUdidGenerator::getUniqueDeviceID(CScsiDeviceData*)
{
    throw error(MSG_INVALID_SCSI_DEVICE_DATA);
}

CHpXpUdidGenerator::CHpXpUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

bool CHpXpUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    return CUdidGenerator::claimDevice(device);
}

std::string CHpXpUdidGenerator::getUniqueDeviceID(CScsiDeviceData*)
{
    throw error(MSG_INVALID_SCSI_DEVICE_DATA);
}

CHp3parUdidGenerator::CHp3parUdidGenerator(std::string vendorId, std::string productId)
    : CUdidGenerator(std::move(vendorId), std::move(productId))
{
}

bool CHp3parUdidGenerator::claimDevice(CScsiDeviceData* device)
{
    return CUdidGenerator::claimDevice(device);
}

std::string CHp3parUdidGenerator::getUniqueDeviceID(CScsiDeviceData*)
{
    throw error(MSG_INVALID_SCSI_DEVICE_DATA);
}
