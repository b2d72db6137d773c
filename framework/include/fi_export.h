// SPDX-License-Identifier: Apache-2.0
// What the kit exports. Everything else in libfikit is built with hidden visibility, so a
// process that loads the kit sees its classes and nothing of its insides.
#ifndef KZFI_PDK_FI_EXPORT_H
#define KZFI_PDK_FI_EXPORT_H

#define KZFI_PDK_EXPORT __attribute__((visibility("default")))

#endif
