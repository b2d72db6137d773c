// SPDX-License-Identifier: Apache-2.0
// Why a UDID is what it is: which bytes of which page made each part of its body, where its
// prefix came from, and why the generators that claimed the device before the one that made it
// gave up. Built from what the library's read recorder saw while the UDID was computed.
#ifndef SCSITOOL_CLI_EXPLAIN_H
#define SCSITOOL_CLI_EXPLAIN_H

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "device_scsi_data.h"
#include "device_udid_factory.h"
#include "session.h"
#include "udid_read_recorder.h"

namespace scsitool_cli {

// One stretch of the UDID's body, [start, start + length).
struct BodySegment {
    enum Source { kFixed, kPage, kDeviceName, kHostName };
    size_t start = 0;
    size_t length = 0;
    std::string text;  // as the UDID holds it
    Source source = kFixed;
    int page = -1;           // for kPage: 0 INQUIRY, a VPD code, or kIdentityAnswer
    std::string encoding;    // "text", "hex", "decimal"
    unsigned int first = 0;  // the bytes read for it, first to last
    unsigned int last = 0;
    unsigned int pageLength = 0;  // bytes received of that page
    unsigned int zeroBehind = 0;  // bytes of [first, last] past pageLength, read as zero
    bool endsAtZero = false;      // a text that ended early at a zero byte it read
    std::string note;             // how the bytes became the text, beyond the encoding
};

// One generator that claimed the device and threw.
struct FailureExplanation {
    std::string generator;
    std::string exception;  // message id ":" vendor ":" product
    std::string messageId;
    std::string reason;  // the test that failed, in words
    std::string next;    // what came next, in words
};

struct UdidExplanation {
    bool recorded = false;  // false: a UDID from the override map, or none
    std::string generator;
    std::string prefix;
    std::string prefixSource;
    std::vector<BodySegment> body;
    std::vector<BodySegment> unused;  // fields the generator read and left out of the body
    std::vector<FailureExplanation> failures;
};

// The page code the NetApp filer's vendor identity answer is shown under.
const int kIdentityAnswer = 0x100;

// "INQUIRY", "page 0x83", "the NetApp identity answer".
std::string pageName(int code);

// The explanation of `udid`, which the factory made for `record` (its pages cached) while
// `recorder` listened.
UdidExplanation explainUdid(const CUdidReadRecorder& recorder, const CScsiDeviceData& record,
                            const SUdidOrigin& origin, const std::string& udid);

// The warnings without the factory's "skipping device" lines of generators whose failure the
// explanation gives in words, when a UDID was made all the same.
std::vector<std::string> withoutExplainedWarnings(const std::vector<std::string>& warnings,
                                                  const UdidExplanation& explanation);

// "body[0..13]  <- INQUIRY bytes 88..101 as text "CK200083300123"" and the like, one a line.
std::string describeSegment(const BodySegment& segment);
// The prefix and body lines, indented by two.
std::string formatProvenance(const UdidExplanation& explanation);
nlohmann::ordered_json provenanceJson(const UdidExplanation& explanation);

// One device queried the way discovery queries it, its UDID computed with the recorder on.
struct ExaminedDevice {
    std::unique_ptr<CScsiDeviceData> record;
    int status = -1;  // UpdateDevice's; the rest is empty unless it is SCSI_STATUS_OK
    SUdidOrigin origin;
    std::string udid;
    UdidExplanation explanation;
};
ExaminedDevice examineDevice(Session& session, const std::string& node);

// What differs between two identities of one volume or one name, in words, one a line: the
// generator, the designators of page 0x83 added, removed or changed, and each part of the body
// whose bytes differ.
std::vector<std::string> explainIdentityChange(const ExaminedDevice& before,
                                               const ExaminedDevice& after);

}  // namespace scsitool_cli

#endif
