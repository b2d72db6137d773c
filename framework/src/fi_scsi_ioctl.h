// SPDX-License-Identifier: Apache-2.0
// The SCSI ioctl requests that go through the system interface, as the kernel headers number
// them (SCSI_IOCTL_GET_IDLUN lives in <scsi/scsi.h>): the mid-layer's SCSI_IOCTL_SEND_COMMAND and
// SCSI_IOCTL_GET_IDLUN, and sg's SG_IO with its sg_io_hdr. Everything that sends or answers them
// takes them from here. The kernel headers define short macros (GOOD, BUSY, COPY, ABORT), so
// this header is the sources' own and no installed header includes it.
#ifndef KZFI_PDK_FI_SCSI_IOCTL_H
#define KZFI_PDK_FI_SCSI_IOCTL_H

#include <scsi/scsi.h>
#include <scsi/scsi_ioctl.h>
#include <scsi/sg.h>

#endif
