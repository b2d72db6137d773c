// SPDX-License-Identifier: Apache-2.0
// What libscsitool exports: its classes. Everything else in the library is built with hidden
// visibility, and the version script keeps the standard library's template instances inside.
#ifndef SCSITOOL_EXPORT_H
#define SCSITOOL_EXPORT_H

#define SCSITOOL_EXPORT __attribute__((visibility("default")))

#endif
