// SPDX-License-Identifier: Apache-2.0
// The array families the UDID generators serve: one row each, in the order their claim tests
// run, holding the claim strings, how a device is claimed, the generator, the file it lives in
// and the pages its body reads. The generator table is made from these rows, and a generator
// claims by the row that carries its claim strings.
#ifndef SCSITOOL_UDID_FAMILIES_H
#define SCSITOOL_UDID_FAMILIES_H

#include <cstddef>
#include <string>

#include "device_udid_generator.h"

namespace udid_family {

// How one id is compared with the strings of a rule's list; kAny takes every id.
enum EMatch { kExact, kPrefix, kContains, kAny };

// A product test of a family's own, run once the vendor matched, in place of a product list.
using ProductTest = bool (*)(CUdidGenerator& generator, const std::string& product);

// How a row claims a device: the vendor and the product id (trailing blanks stripped) each
// against its list, compared as `vendorMatch` / `productMatch` say, upper-cased first when case
// is ignored.
struct SClaimRule {
    const char* vendors[3];
    EMatch vendorMatch;
    const char* products[13];
    EMatch productMatch;
    ProductTest productTest;  // when set, decides the product in place of `products`
    bool ignoreCase;
    // The HP and LSI tests strip both ids before they test either; the others strip the product
    // only once the vendor has matched.
    bool stripBothFirst;
};

// The end of a row's page list.
const unsigned int kNoPage = 0x100;

struct SFamily {
    const char* vendorId;  // the claim strings: the generator's name and its UDID prefix
    const char* productId;
    CUdidGenerator* (*create)(std::string vendorId, std::string productId);
    SClaimRule claim;
    const char* file;       // the family's source file, beside this one
    unsigned int pages[6];  // the cached pages its body looks up, kNoPage ends the list
};

// The rows in claim order; the default generator's row, which claims every disk, is last.
const SFamily* families();
size_t familyCount();

// The row that carries these claim strings, or nullptr.
const SFamily* familyOf(const std::string& vendorId, const std::string& productId);

// IBM's own product tests (device_udid_generator_ibm.cpp): a model that the generator's isESS
// or isFASTT takes; false for a generator of another class.
bool ibmEnterpriseModel(CUdidGenerator& generator, const std::string& product);
bool ibmMidrangeModel(CUdidGenerator& generator, const std::string& product);

}  // namespace udid_family

#endif
