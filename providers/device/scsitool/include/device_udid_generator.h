// SPDX-License-Identifier: Apache-2.0
// The unique device id generators: the base class and its exception, one generator per array
// family, the default generator that serves every other disk, and the ordered table of them.
//
// A UDID reads "UDID##" + vendor + "##" + product + "##" + body. The first generator of the
// table whose claimDevice accepts a device supplies the prefix (getUniqueDeviceIDPrefix) and the
// body (getUniqueDeviceID). Generators read the device record; only the NetApp generator sends a
// command of its own.
#ifndef SCSITOOL_DEVICE_UDID_GENERATOR_H
#define SCSITOOL_DEVICE_UDID_GENERATOR_H

#include <string>
#include <vector>

#include "device_scsi_data.h"
#include "fi_trace.h"
#include "scsitool_export.h"
#include "udid_read_recorder.h"

// The one exception that generators throw, by value, for bad or missing SCSI data.
class SCSITOOL_EXPORT CUdidGeneratorException {
public:
    CUdidGeneratorException(const std::string& messageId, const std::string& vendorId,
                            const std::string& productId)
        : m_messageId(messageId), m_vendorId(vendorId), m_productId(productId)
    {
    }

    std::string m_messageId;
    std::string m_vendorId;
    std::string m_productId;
};

class SCSITOOL_EXPORT CUdidGenerator : public virtual kzfi_pdk_4_4::CFiTraceable {
public:
    // "UDID##" and "##": the start of every UDID and the separator between its fields.
    static const char* const udid_prefix;
    static const char* const udid_separator;

    // Message ids of CUdidGeneratorException.
    static const char* const MSG_INVALID_SCSI_DEVICE_DATA;     // a page or data is missing
    static const char* const MSG_INVALID_SCSI_PAGE_SIZE;       // a page is too short
    static const char* const MSG_INVALID_SCSI_PAGE_DATA;       // a page fails validation
    static const char* const MSG_INVALID_SCSI_ENCLOSURE_DATA;  // the array identity is unusable

    // A cached page as the command buffer held it: the device's bytes up to the cached length,
    // zero behind them (the buffer was zero-filled before the command). A length test may admit
    // a page a byte shorter than a field it reads; that byte is then zero, and memory behind the
    // cached copy is never touched.
    struct CachedBytes {
        const unsigned char* data = nullptr;
        unsigned int length = 0;

        explicit operator bool() const { return data != nullptr; }
        unsigned char operator[](unsigned int i) const
        {
            // An explanation of the UDID listens to every byte read; an enumeration does not.
            if (CUdidReadRecorder::listening()) {
                noteRead(i);
            }
            return i < length ? data[i] : 0;
        }

    private:
        void noteRead(unsigned int i) const;
    };

    CUdidGenerator(std::string vendorId, std::string productId);
    ~CUdidGenerator() override;

    // "vendor:product" of the claim strings.
    virtual std::string getGeneratorName();
    // Strips trailing blanks from the record's vendor id and (when the vendor matched) product
    // id in place, and claims by the array family row that carries this generator's claim
    // strings; a generator whose claim strings have no row claims nothing.
    virtual bool claimDevice(CScsiDeviceData* device);
    // "UDID##<vendor>##<product>##" from the claim strings, upper case.
    virtual std::string getUniqueDeviceIDPrefix(CScsiDeviceData* device);
    // The body behind the prefix; throws CUdidGeneratorException on bad data.
    virtual std::string getUniqueDeviceID(CScsiDeviceData* device) = 0;

    std::string m_vendorId;
    std::string m_productId;

protected:
    // A CUdidGeneratorException carrying the claim strings, or two empty strings.
    CUdidGeneratorException error(const char* messageId) const;
    static CUdidGeneratorException anonymousError(const char* messageId);

    // The record's vendor / product id with its trailing blanks stripped, stored back.
    static const std::string& stripVendorId(CScsiDeviceData* device);
    static const std::string& stripProductId(CScsiDeviceData* device);

    // Cached page `code` (0: standard INQUIRY); no data (length 0) when the page is absent or
    // holds none.
    static CachedBytes findPageData(const CScsiDeviceData* device, unsigned int code);

    // Bytes [offset, offset + count) as text, ending early at a zero byte.
    static std::string textField(const CachedBytes& page, unsigned int offset, unsigned int count);
    // Bytes [offset, offset + count) as two hexadecimal digits each; `separator` goes between
    // groups of `group` bytes.
    static std::string hexField(const CachedBytes& page, unsigned int offset, unsigned int count,
                                bool upperCase, const char* separator = "", unsigned int group = 1);
    // strtol of `text` in `base` (blanks skipped, stops at the first non-digit, 0 without
    // digits), formatted with "%d".
    static std::string decimalOf(const std::string& text, int base);
    // Whether `text` begins with / contains one of the strings of a null-terminated list.
    static bool beginsWithOneOf(const std::string& text, const char* const* list);
    static bool containsOneOf(const std::string& text, const char* const* list);
};

// The generators in the order their claim tests run; the first that claims a device wins and
// the default generator stays last. The caller owns the objects (the factory keeps them for the
// life of the process).
std::vector<CUdidGenerator*> createUdidGeneratorTable();

// --- HP --------------------------------------------------------------------------------------

class SCSITOOL_EXPORT CHpMsaUdidGenerator : public CUdidGenerator {
public:
    CHpMsaUdidGenerator(std::string vendorId, std::string productId);
    std::string getUniqueDeviceID(CScsiDeviceData* device) override;
};

class SCSITOOL_EXPORT CHpEvaUdidGenerator : public CUdidGenerator {
public:
    CHpEvaUdidGenerator(std::string vendorId, std::string productId);
    std::string getUniqueDeviceID(CScsiDeviceData* device) override;
};

class SCSITOOL_EXPORT CHpXpUdidGenerator : public CUdidGenerator {
public:
    CHpXpUdidGenerator(std::string vendorId, std::string productId);
    std::string getUniqueDeviceID(CScsiDeviceData* device) override;
};

class SCSITOOL_EXPORT CHp3parUdidGenerator : public CUdidGenerator {
public:
    CHp3parUdidGenerator(std::string vendorId, std::string productId);
    std::string getUniqueDeviceID(CScsiDeviceData* device) override;
};

// --- IBM -------------------------------------------------------------------------------------

class SCSITOOL_EXPORT CIbmUdidGenerator : public CUdidGenerator {
public:
    CIbmUdidGenerator(std::string vendorId, std::string productId);
    bool claimDevice(CScsiDeviceData* device) override;
    std::string getUniqueDeviceID(CScsiDeviceData* device) override;
    virtual bool isESS(std::string product);
    virtual bool isFASTT(std::string product);
};

class SCSITOOL_EXPORT CIbmDsUdidGenerator : public CUdidGenerator {
public:
    CIbmDsUdidGenerator(std::string vendorId, std::string productId);
    bool claimDevice(CScsiDeviceData* device) override;
    std::string getUniqueDeviceID(CScsiDeviceData* device) override;
    virtual bool isESS(std::string product);
    virtual bool isFASTT(std::string product);
};

// --- EMC -------------------------------------------------------------------------------------

class SCSITOOL_EXPORT CEmcClariionUdidGenerator : public CUdidGenerator {
public:
    CEmcClariionUdidGenerator(std::string vendorId, std::string productId);
    std::string getUniqueDeviceIDPrefix(CScsiDeviceData* device) override;
    std::string getUniqueDeviceID(CScsiDeviceData* device) override;
    // Appends the array serial held at `serialOffset` of `*page` to `enclosureId`; true (and a
    // "##" behind it) when the whole id is letters and digits.
    virtual bool checkForArraySerialNo(const unsigned char** page, unsigned int pageLength,
                                       int lengthIndex, int serialOffset, std::string& enclosureId);
};

class SCSITOOL_EXPORT CEmcSymmetrixUdidGenerator : public CUdidGenerator {
public:
    CEmcSymmetrixUdidGenerator(std::string vendorId, std::string productId);
    std::string getUniqueDeviceID(CScsiDeviceData* device) override;
};

// --- Hitachi, LSI/Engenio, NetApp, Fujitsu
// ----------------------------------------------------------------------------

class SCSITOOL_EXPORT CHitachiUdidGenerator : public CUdidGenerator {
public:
    CHitachiUdidGenerator(std::string vendorId, std::string productId);
    std::string getUniqueDeviceID(CScsiDeviceData* device) override;
};

class SCSITOOL_EXPORT CLsiUdidGenerator : public CUdidGenerator {
public:
    CLsiUdidGenerator(std::string vendorId, std::string productId);
    std::string getUniqueDeviceID(CScsiDeviceData* device) override;
};

class SCSITOOL_EXPORT CNetAppUdidGenerator : public CUdidGenerator {
public:
    CNetAppUdidGenerator(std::string vendorId, std::string productId);
    std::string getUniqueDeviceID(CScsiDeviceData* device) override;
    // The filer's enclosure id from the vendor identity command, or "" when it can't be had.
    virtual std::string getEnclosureID(CScsiDeviceData* device);
};

class SCSITOOL_EXPORT CFujitsuEternusUdidGenerator : public CUdidGenerator {
public:
    CFujitsuEternusUdidGenerator(std::string vendorId, std::string productId);
    std::string getUniqueDeviceID(CScsiDeviceData* device) override;
};

// --- Every other disk ------------------------------------------------------------------------

class SCSITOOL_EXPORT CDefaultUdidGenerator : public CUdidGenerator {
public:
    CDefaultUdidGenerator(std::string vendorId, std::string productId);
    bool claimDevice(CScsiDeviceData* device) override;
    std::string getUniqueDeviceIDPrefix(CScsiDeviceData* device) override;
    std::string getUniqueDeviceID(CScsiDeviceData* device) override;
};

#endif
