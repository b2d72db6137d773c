// SPDX-License-Identifier: Apache-2.0
#include "explain.h"

#include <algorithm>
#include <cstdio>

#include "page_decode.h"
#include "scsitool.h"
#include "stringtool.h"

namespace scsitool_cli {

using ordered_json = nlohmann::ordered_json;

namespace {

// What each array body needs of the pages it tests by length: the family's name in words and
// the fewest bytes of each page under which its body gives up.
struct SBodyNeeds {
    const char* generator;
    const char* family;
    struct {
        int code;
        unsigned int bytes;
    } pages[3];
};

// clang-format off
const SBodyNeeds kBodyNeeds[] = {
    {"HP:MSA",            "MSA",            {{0, 120}, {0x83, 68}, {-1, 0}}},
    {"HP:HSV",            "EVA",            {{0, 137}, {0x83, 23}, {-1, 0}}},
    {"HP:XP",             "XP",             {{0, 56}, {-1, 0}, {-1, 0}}},
    {"IBM:TOTALSTORAGE",  "IBM enterprise", {{0, 43}, {0xC8, 106}, {0x83, 23}}},
    {"IBM:DISKSYSTEM",    "IBM midrange",   {{0xC8, 106}, {0x83, 23}, {-1, 0}}},
    {"DGC:",              "Clariion",       {{0x83, 23}, {-1, 0}, {-1, 0}}},
    {"EMC:SYMMETRIX",     "Symmetrix",      {{0, 132}, {-1, 0}, {-1, 0}}},
    {"HITACHI:HDS",       "Hitachi",        {{0, 56}, {-1, 0}, {-1, 0}}},
    {"ENGENIO:UNIVERSAL", "LSI",            {{0xC8, 106}, {0x83, 23}, {-1, 0}}},
    {"NETAPP:LUN",        "NetApp",         {{0x83, 33}, {-1, 0}, {-1, 0}}},
    {"HP:3PAR",           "3PAR",           {{0x80, 12}, {0x83, 16}, {-1, 0}}},
    {"FUJITSU:ETERNUS",   "Eternus",        {{0, 44}, {0x83, 24}, {-1, 0}}},
};
// clang-format on

const SBodyNeeds* needsOf(const std::string& generator)
{
    for (const SBodyNeeds& needs : kBodyNeeds) {
        if (generator == needs.generator) {
            return &needs;
        }
    }
    return nullptr;
}

std::string familyOf(const std::string& generator)
{
    const SBodyNeeds* needs = needsOf(generator);
    return needs != nullptr ? needs->family : generator;
}

std::string generatorWords(const std::string& generator)
{
    return generator == ":" ? "the default generator" : generator;
}

// "INQUIRY data is 36 bytes", "page 0x83 is 20 bytes"
std::string sizeWords(int code, unsigned int length)
{
    return pageName(code) + (code == 0 ? " data is " : " is ") + std::to_string(length) +
           (length == 1 ? " byte" : " bytes");
}

// The recorder's view of one generator's attempt.
struct Attempt {
    size_t index;
    size_t firstRead;
    size_t endRead;
};

Attempt attemptOf(const CUdidReadRecorder& recorder, size_t index)
{
    Attempt attempt{index, recorder.generators[index].firstRead, recorder.reads.size()};
    if (index + 1 < recorder.generators.size()) {
        attempt.endRead = recorder.generators[index + 1].firstRead;
    }
    return attempt;
}

// The page a read array belongs to: one the generators looked up, one the record caches, or
// else the answer of the NetApp identity command (the one read that is no page).
int pageOf(const CUdidReadRecorder& recorder, const CScsiDeviceData& record,
           const unsigned char* data)
{
    for (const CUdidReadRecorder::Lookup& lookup : recorder.lookups) {
        if (lookup.data == data && data != nullptr) {
            return int(lookup.code);
        }
    }
    for (const auto& page : record.m_pageCache) {
        if (page.second.getData() == data && data != nullptr) {
            return int(page.first);
        }
    }
    return kIdentityAnswer;
}

std::string upper(const std::string& text)
{
    return CStringTool::tostrupper(text);
}

// The prefix of a UDID: through the separator behind the product.
size_t prefixLength(const std::string& udid)
{
    size_t at = 0;
    for (int separators = 0; separators < 3; ++separators) {
        at = udid.find("##", at);
        if (at == std::string::npos) {
            return 0;
        }
        at += 2;
    }
    return at;
}

BodySegment fixedSegment(const std::string& body, size_t start, size_t end)
{
    BodySegment segment;
    segment.start = start;
    segment.length = end - start;
    segment.text = body.substr(start, end - start);
    segment.source = BodySegment::kFixed;
    return segment;
}

BodySegment fieldSegment(const CUdidReadRecorder& recorder, const CScsiDeviceData& record,
                         const CUdidReadRecorder::Field& field, const std::string& body,
                         size_t start)
{
    BodySegment segment;
    segment.start = start;
    segment.length = field.text.size();
    segment.text = body.substr(start, field.text.size());
    segment.source = BodySegment::kPage;
    segment.encoding = field.kind == CUdidReadRecorder::kText  ? "text"
                       : field.kind == CUdidReadRecorder::kHex ? "hex"
                                                               : "decimal";
    if (field.endRead <= field.firstRead) {
        // A number made of no digits at all.
        segment.source = BodySegment::kFixed;
        segment.encoding.clear();
        segment.note = "the number of an empty text";
        return segment;
    }
    const CUdidReadRecorder::Read& first = recorder.reads[field.firstRead];
    const CUdidReadRecorder::Read& last = recorder.reads[field.endRead - 1];
    segment.page = pageOf(recorder, record, first.data);
    segment.first = first.index;
    segment.last = last.index;
    segment.pageLength = first.length;
    for (size_t i = field.firstRead; i < field.endRead; ++i) {
        if (recorder.reads[i].index >= recorder.reads[i].length) {
            ++segment.zeroBehind;
        }
    }
    segment.endsAtZero =
        field.kind != CUdidReadRecorder::kHex && last.value == 0 && last.index < last.length;
    if (field.kind == CUdidReadRecorder::kDecimal) {
        segment.note = std::string(field.base == 16 ? "the hexadecimal" : "the decimal") +
                       " text \"" + field.input + "\" as a decimal number";
    }
    return segment;
}

// The body of the default generator: a page as hex, or the host-local id.
void defaultBody(const CUdidReadRecorder& recorder, const CScsiDeviceData& record, size_t index,
                 const std::string& body, UdidExplanation& explanation)
{
    for (const CUdidReadRecorder::Lookup& lookup : recorder.lookups) {
        if (lookup.generator != index || lookup.data == nullptr || lookup.length == 0) {
            continue;
        }
        BodySegment segment;
        segment.length = body.size();
        segment.text = body;
        segment.source = BodySegment::kPage;
        segment.page = int(lookup.code);
        segment.encoding = "hex";
        segment.pageLength = lookup.length;
        // Every digit may be a dropped zero: the body is then empty and names the whole page.
        segment.last = body.empty() ? lookup.length - 1 : unsigned((body.size() - 1) / 2);
        segment.note = lookup.length * 2 > 80
                           ? "the whole page as hex, cut to 80 digits, trailing zero digits dropped"
                           : "the whole page as hex, trailing zero digits dropped";
        explanation.body.push_back(segment);
        return;
    }
    const std::string& name = record.m_deviceName;
    const size_t at = name.size();
    if (body.size() <= at || body[at] != '@') {
        explanation.body.push_back(fixedSegment(body, 0, body.size()));
        return;
    }
    BodySegment device = fixedSegment(body, 0, at);
    device.source = BodySegment::kDeviceName;
    // Why the id is only good on this host.
    const std::vector<unsigned int>& pages = record.m_supportedPages;
    if (std::find(pages.begin(), pages.end(), 0x00u) == pages.end()) {
        device.note = "a host-local id: the device lists no page 0x00";
    } else if (CStringTool::rtrim(record.m_vendorId, ' ').empty()) {
        device.note = "a host-local id: the INQUIRY vendor is blank";
    } else {
        device.note = "a host-local id: neither page 0x83 nor page 0x80 holds data";
    }
    explanation.body.push_back(device);
    explanation.body.push_back(fixedSegment(body, at, at + 1));
    BodySegment host = fixedSegment(body, at + 1, body.size());
    host.source = BodySegment::kHostName;
    explanation.body.push_back(host);
}

// The places a field's text may stand in the body: those that end at a separator or at the end
// of the body first (the fixed "00" in front of a Symmetrix serial that begins with zeros would
// otherwise swallow its first digits), then the others.
std::vector<size_t> placesOf(const std::string& body, const std::string& text)
{
    std::vector<size_t> aligned;
    std::vector<size_t> others;
    for (size_t at = body.find(text); at != std::string::npos; at = body.find(text, at + 1)) {
        const size_t end = at + text.size();
        (end == body.size() || body.compare(end, 2, "##") == 0 ? aligned : others).push_back(at);
    }
    aligned.insert(aligned.end(), others.begin(), others.end());
    return aligned;
}

// The fields of the generator that made the body, each placed where its text stands and no
// two on the same characters. Fields are placed in the order they were read, which is not
// always the order of the body (the two numbers of an XP body are made right to left); the
// characters no field accounts for are the generator's fixed text.
void arrayBody(const CUdidReadRecorder& recorder, const CScsiDeviceData& record, size_t index,
               const std::string& body, UdidExplanation& explanation)
{
    std::vector<BodySegment> placed;
    std::vector<bool> taken(body.size(), false);
    const std::vector<CUdidReadRecorder::Field>& fields = recorder.fields;
    for (size_t i = 0; i < fields.size(); ++i) {
        const CUdidReadRecorder::Field& field = fields[i];
        if (field.generator != index || field.text.empty()) {
            continue;
        }
        // A text that a later number converts is shown as that number.
        bool converted = false;
        for (size_t j = i + 1; j < fields.size() && field.kind == CUdidReadRecorder::kText; ++j) {
            converted = converted || (fields[j].kind == CUdidReadRecorder::kDecimal &&
                                      fields[j].firstRead == field.firstRead &&
                                      fields[j].endRead == field.endRead);
        }
        if (converted) {
            continue;
        }
        // A serial with its blanks trimmed is found by its trimmed text.
        std::string text = upper(field.text);
        std::string trimmed = CStringTool::trim(text);
        bool done = false;
        for (const std::string& candidate : {text, trimmed}) {
            for (size_t at :
                 candidate.empty() ? std::vector<size_t>() : placesOf(body, candidate)) {
                bool free = true;
                for (size_t k = at; k < at + candidate.size(); ++k) {
                    free = free && !taken[k];
                }
                if (!free) {
                    continue;
                }
                CUdidReadRecorder::Field shown = field;
                shown.text = candidate;
                BodySegment segment = fieldSegment(recorder, record, shown, body, at);
                if (candidate.size() != text.size()) {
                    segment.note = "blanks trimmed";
                }
                placed.push_back(segment);
                std::fill(taken.begin() + long(at), taken.begin() + long(at + candidate.size()),
                          true);
                done = true;
                break;
            }
            if (done || candidate == trimmed) {
                break;
            }
        }
        if (!done) {
            // Read and then left out: a serial the generator rejected for another source.
            BodySegment unused = fieldSegment(recorder, record, field, body, 0);
            unused.length = 0;
            unused.text = field.text;
            explanation.unused.push_back(unused);
        }
    }
    std::sort(placed.begin(), placed.end(),
              [](const BodySegment& a, const BodySegment& b) { return a.start < b.start; });
    // The IBM bodies write the model, the product id's first four characters, into their text.
    const std::string model = upper(CStringTool::rtrim(record.m_productId, ' ').substr(0, 4));
    auto gap = [&](size_t start, size_t end) {
        BodySegment segment = fixedSegment(body, start, end);
        if (model.size() == 4 && index + 1 == recorder.generators.size() &&
            recorder.generators[index].name.compare(0, 4, "IBM:") == 0 &&
            segment.text.find(model) != std::string::npos) {
            segment.note = "the model \"" + model + "\" from the product id";
        }
        explanation.body.push_back(segment);
    };
    size_t cursor = 0;
    for (const BodySegment& segment : placed) {
        if (segment.start > cursor) {
            gap(cursor, segment.start);
        }
        explanation.body.push_back(segment);
        cursor = segment.start + segment.length;
    }
    if (cursor < body.size()) {
        gap(cursor, body.size());
    }
}

// The test a generator's body failed, from the last page it looked up and the last byte it
// read of it.
std::string failureReason(const CUdidReadRecorder& recorder, const CScsiDeviceData& record,
                          const Attempt& attempt, const std::string& generator,
                          const std::string& exception)
{
    const std::string family = familyOf(generator);
    if (exception.size() > 5 && exception.compare(exception.size() - 5, 5, ":0x83") == 0) {
        return "page 0x83 is not among the pages the device lists in page 0x00";
    }
    const CUdidReadRecorder::Lookup* lookup = nullptr;
    for (const CUdidReadRecorder::Lookup& candidate : recorder.lookups) {
        if (candidate.generator == attempt.index) {
            lookup = &candidate;
        }
    }
    if (lookup == nullptr) {
        if (attempt.endRead > attempt.firstRead || generator == "NETAPP:LUN") {
            return "the filer's vendor identity command gave no enclosure id";
        }
        return "the product id \"" + record.m_productId + "\" names no model the " + family +
               " body knows";
    }
    const int code = int(lookup->code);
    if (lookup->data == nullptr) {
        return pageName(code) + (code == 0 ? " data is not there" : " is not there");
    }
    if (const SBodyNeeds* needs = needsOf(generator)) {
        for (const auto& page : needs->pages) {
            if (page.code == code && lookup->length < page.bytes) {
                return sizeWords(code, lookup->length) + "; the " + family +
                       " body needs at least " + std::to_string(page.bytes);
            }
        }
    }
    // The page is long enough: a length it announces failed the test.
    const CUdidReadRecorder::Read* last = nullptr;
    for (size_t i = attempt.firstRead; i < attempt.endRead; ++i) {
        if (recorder.reads[i].data == lookup->data) {
            last = &recorder.reads[i];
        }
    }
    const std::string received = std::to_string(lookup->length);
    if (last != nullptr && code == 0x83 && last->index == 3) {
        const unsigned int high = lookup->length > 2 ? lookup->data[2] : 0u;
        const unsigned int announced = high * 256u + last->value;
        return "page 0x83 announces " + std::to_string(announced) + " bytes of designators; the " +
               family + " body needs more than 19";
    }
    if (last != nullptr && (code == 0xC0 || code == 0x80)) {
        const unsigned int serialAt = last->index + 1;
        return pageName(code) + " gives its serial " + std::to_string(last->value) +
               " bytes from byte " + std::to_string(serialAt) + ", past the " + received +
               " bytes received";
    }
    return sizeWords(code, lookup->length) + " and fails the " + family + " body's test";
}

std::string messageIdOf(const std::string& exception)
{
    return exception.substr(0, exception.find(':'));
}

std::string range(size_t first, size_t last)
{
    return std::to_string(first) + ".." + std::to_string(last);
}

// "body[0..13]"; "body" for a body with no characters at all.
std::string bodyRange(const BodySegment& segment)
{
    return segment.length == 0
               ? std::string("body")
               : "body[" + range(segment.start, segment.start + segment.length - 1) + "]";
}

std::string hexByteText(unsigned int value)
{
    char text[8];
    std::snprintf(text, sizeof text, "%02x", value & 0xffu);
    return text;
}

std::string padRight(const std::string& text, size_t width)
{
    return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

}  // namespace

std::string pageName(int code)
{
    if (code == 0) {
        return "INQUIRY";
    }
    if (code == kIdentityAnswer) {
        return "the NetApp identity answer";
    }
    char name[16];
    std::snprintf(name, sizeof name, "page 0x%02X", unsigned(code));
    return name;
}

UdidExplanation explainUdid(const CUdidReadRecorder& recorder, const CScsiDeviceData& record,
                            const SUdidOrigin& origin, const std::string& udid)
{
    UdidExplanation explanation;
    if (origin.fromOverride || recorder.generators.empty()) {
        return explanation;
    }
    const size_t count = recorder.generators.size();
    for (size_t i = 0; i < origin.failures.size() && i < count; ++i) {
        FailureExplanation failure;
        failure.generator = origin.failures[i].generator;
        failure.exception = origin.failures[i].exception;
        failure.messageId = messageIdOf(failure.exception);
        failure.reason = failureReason(recorder, record, attemptOf(recorder, i), failure.generator,
                                       failure.exception);
        if (i + 1 < origin.failures.size()) {
            failure.next = generatorWords(origin.failures[i + 1].generator) + " claimed the device";
        } else if (!origin.generator.empty()) {
            failure.next = generatorWords(origin.generator) + " made the UDID";
        } else {
            failure.next = "no generator made a UDID";
        }
        explanation.failures.push_back(failure);
    }
    if (origin.generator.empty()) {
        return explanation;
    }
    explanation.recorded = true;
    explanation.generator = origin.generator;
    const size_t prefixEnd = prefixLength(udid);
    explanation.prefix = udid.substr(0, prefixEnd);
    if (origin.generator == ":") {
        explanation.prefixSource =
            "INQUIRY vendor (bytes 8..15) and product (bytes 16..31), trailing blanks dropped, "
            "blanks in the product as \"_\"";
    } else if (origin.generator == "DGC:") {
        explanation.prefixSource = "the generator's vendor DGC and the family name CLARIION";
    } else {
        explanation.prefixSource = "the generator's claim strings, not the device's INQUIRY";
    }
    const std::string body = udid.substr(prefixEnd);
    if (origin.generator == ":") {
        defaultBody(recorder, record, count - 1, body, explanation);
    } else {
        arrayBody(recorder, record, count - 1, body, explanation);
    }
    return explanation;
}

std::vector<std::string> withoutExplainedWarnings(const std::vector<std::string>& warnings,
                                                  const UdidExplanation& explanation)
{
    if (!explanation.recorded) {
        return warnings;
    }
    std::vector<std::string> kept;
    for (const std::string& warning : warnings) {
        bool explained = false;
        for (const FailureExplanation& failure : explanation.failures) {
            explained = explained || warning == "WARNING: getUniqueDeviceID caught exception: [" +
                                                    failure.exception + "],skipping device.";
        }
        if (!explained) {
            kept.push_back(warning);
        }
    }
    return kept;
}

std::string describeSegment(const BodySegment& segment)
{
    std::string text = bodyRange(segment);
    text = padRight(text, 13) + " <- ";
    switch (segment.source) {
        case BodySegment::kFixed:
            text += segment.note.empty() ? "fixed \"" + segment.text + "\""
                                         : "\"" + segment.text + "\", " + segment.note;
            return text;
        case BodySegment::kDeviceName:
            return text + "the device name \"" + segment.text + "\"" +
                   (segment.note.empty() ? "" : ", " + segment.note);
        case BodySegment::kHostName:
            return text + "the host name \"" + segment.text + "\"";
        case BodySegment::kPage:
            break;
    }
    text += pageName(segment.page) + " bytes " + range(segment.first, segment.last) + " as " +
            segment.encoding + " \"" + segment.text + "\"";
    if (!segment.note.empty()) {
        text += ", " + segment.note;
    }
    if (segment.zeroBehind > 0) {
        const unsigned int behind = std::max(segment.first, segment.pageLength);
        text += "; " +
                (behind == segment.last ? "byte " + std::to_string(behind) + " lies"
                                        : "bytes " + range(behind, segment.last) + " lie") +
                " behind the " + std::to_string(segment.pageLength) +
                " bytes received and read as zero";
    } else if (segment.endsAtZero) {
        text += "; the text ends at the zero byte " + std::to_string(segment.last);
    }
    return text;
}

namespace {

// "page 0x83 bytes 0..23 as hex"
std::string segmentSource(const BodySegment& segment)
{
    if (segment.source != BodySegment::kPage) {
        std::string line = describeSegment(segment);
        return line.substr(line.find("<- ") + 3);
    }
    return pageName(segment.page) + " bytes " + range(segment.first, segment.last) + " as " +
           segment.encoding;
}

}  // namespace

std::string formatProvenance(const UdidExplanation& explanation)
{
    if (!explanation.recorded) {
        return "";
    }
    std::string text = "  " + padRight("prefix", 13) + " <- \"" + explanation.prefix + "\", " +
                       explanation.prefixSource + "\n";
    for (const BodySegment& segment : explanation.body) {
        text += "  " + describeSegment(segment) + "\n";
    }
    for (const BodySegment& segment : explanation.unused) {
        text += "  " + padRight("not used", 13) + " <- " + segmentSource(segment) + " \"" +
                segment.text + "\", read and left out\n";
    }
    return text;
}

ordered_json provenanceJson(const UdidExplanation& explanation)
{
    if (!explanation.recorded) {
        return nullptr;
    }
    ordered_json object;
    object["generator"] = explanation.generator;
    object["prefix"] = {{"text", explanation.prefix}, {"source", explanation.prefixSource}};
    ordered_json body = ordered_json::array();
    static const char* const kSources[] = {"fixed", "page", "device_name", "host_name"};
    for (const BodySegment& segment : explanation.body) {
        ordered_json entry;
        entry["start"] = segment.start;
        entry["length"] = segment.length;
        entry["text"] = segment.text;
        entry["source"] = kSources[segment.source];
        if (segment.source == BodySegment::kPage) {
            entry["page"] = segment.page == kIdentityAnswer ? ordered_json("identity_answer")
                                                            : ordered_json(segment.page);
            entry["bytes"] = {segment.first, segment.last};
            entry["encoding"] = segment.encoding;
            entry["page_length"] = segment.pageLength;
            entry["zero_behind"] = segment.zeroBehind;
        }
        if (!segment.note.empty()) {
            entry["note"] = segment.note;
        }
        entry["words"] = describeSegment(segment);
        body.push_back(entry);
    }
    object["body"] = body;
    ordered_json unused = ordered_json::array();
    for (const BodySegment& segment : explanation.unused) {
        unused.push_back({{"text", segment.text},
                          {"page", segment.page == kIdentityAnswer ? ordered_json("identity_answer")
                                                                   : ordered_json(segment.page)},
                          {"bytes", {segment.first, segment.last}},
                          {"encoding", segment.encoding}});
    }
    object["unused"] = unused;
    return object;
}

ExaminedDevice examineDevice(Session& session, const std::string& node)
{
    ExaminedDevice examined;
    // A record made the way discovery makes one.
    examined.record.reset(
        new CScsiDeviceData(node, "", Session::hostName(), 0, 0, 0, -1, "", "", "", 0));
    CScsiDeviceData& record = *examined.record;
    record.m_pagesValid = 1;
    record.m_secondFlag = 1;
    CScsiTool tool;
    tool.registerTraceLog(session.log());
    examined.status = tool.UpdateDevice(&record);
    if (examined.status == SCSI_STATUS_OK) {
        CUdidReadRecorder recorder;
        examined.udid = session.factory().getUniqueDeviceID(&record, examined.origin);
        examined.explanation = explainUdid(recorder, record, examined.origin, examined.udid);
    }
    return examined;
}

namespace {

PageBytes cachedPage(const CScsiDeviceData& record, unsigned int code)
{
    const CScsiModePage* page = record.findPage(code);
    if (page == nullptr || page->getData() == nullptr) {
        return PageBytes();
    }
    return PageBytes(page->getData(), page->getData() + page->getLength());
}

std::string designatorWords(const Designator& designator)
{
    return designator.value + " (" + designator.typeName + ", " + designator.associationName + ")";
}

// The designators of page 0x83 on both sides, matched by association and type in page order.
void compareDesignators(const PageBytes& before, const PageBytes& after,
                        std::vector<std::string>& lines)
{
    std::vector<Designator> old = parseDesignators(before);
    std::vector<Designator> now = parseDesignators(after);
    std::vector<bool> matched(now.size(), false);
    for (const Designator& gone : old) {
        size_t found = now.size();
        for (size_t i = 0; i < now.size() && found == now.size(); ++i) {
            if (!matched[i] && now[i].association == gone.association && now[i].type == gone.type) {
                found = i;
            }
        }
        if (found == now.size()) {
            lines.push_back("page 0x83 lost the designator " + designatorWords(gone));
            continue;
        }
        matched[found] = true;
        if (now[found].raw != gone.raw || now[found].codeSet != gone.codeSet) {
            lines.push_back("page 0x83 designator " + designatorWords(gone) + " is now " +
                            now[found].value);
        }
    }
    for (size_t i = 0; i < now.size(); ++i) {
        if (!matched[i]) {
            lines.push_back("page 0x83 gained the designator " + designatorWords(now[i]));
        }
    }
}

// The first byte of [first, last] where the two pages differ (a byte one side lacks counts as
// different), with both values; "" when they agree there.
std::string firstDifference(const PageBytes& before, const PageBytes& after, unsigned int first,
                            unsigned int last)
{
    for (unsigned int i = first; i <= last; ++i) {
        const bool inBefore = i < before.size();
        const bool inAfter = i < after.size();
        if (inBefore != inAfter || (inBefore && before[i] != after[i])) {
            char values[48];
            std::snprintf(values, sizeof values, "%s -> %s",
                          inBefore ? ("0x" + hexByteText(before[i])).c_str() : "none",
                          inAfter ? ("0x" + hexByteText(after[i])).c_str() : "none");
            return "first differs at byte " + std::to_string(i) + " (" + values + ")";
        }
    }
    return "";
}

}  // namespace

std::vector<std::string> explainIdentityChange(const ExaminedDevice& before,
                                               const ExaminedDevice& after)
{
    std::vector<std::string> lines;
    if (!before.record || !after.record || before.status != SCSI_STATUS_OK ||
        after.status != SCSI_STATUS_OK) {
        lines.push_back("one side's device does not answer: nothing to compare");
        return lines;
    }
    const UdidExplanation& old = before.explanation;
    const UdidExplanation& now = after.explanation;
    if (old.generator != now.generator) {
        lines.push_back("generator " + generatorWords(old.generator) + " -> " +
                        generatorWords(now.generator));
    }
    compareDesignators(cachedPage(*before.record, 0x83), cachedPage(*after.record, 0x83), lines);
    if (old.prefix != now.prefix) {
        lines.push_back("prefix \"" + old.prefix + "\" -> \"" + now.prefix + "\"");
    }
    for (size_t i = 0; i < old.body.size() && i < now.body.size(); ++i) {
        const BodySegment& a = old.body[i];
        const BodySegment& b = now.body[i];
        if (a.text == b.text) {
            continue;
        }
        std::string line = bodyRange(a) + " <- " + segmentSource(a) + " \"" + a.text + "\" -> ";
        if (segmentSource(a) != segmentSource(b) || a.start != b.start) {
            line += bodyRange(b) + " <- " + segmentSource(b) + " ";
        }
        line += "\"" + b.text + "\"";
        if (b.source == BodySegment::kPage && !b.note.empty()) {
            line += " (" + b.note + ")";
        }
        if (a.source == BodySegment::kPage && b.source == BodySegment::kPage && a.page == b.page &&
            a.page != kIdentityAnswer) {
            const std::string difference =
                firstDifference(cachedPage(*before.record, unsigned(a.page)),
                                cachedPage(*after.record, unsigned(b.page)),
                                std::min(a.first, b.first), std::max(a.last, b.last));
            if (!difference.empty()) {
                line += "; " + pageName(a.page) + " " + difference;
            }
        }
        lines.push_back(line);
    }
    if (old.body.size() != now.body.size()) {
        lines.push_back("the body has " + std::to_string(old.body.size()) + " parts before and " +
                        std::to_string(now.body.size()) + " after");
    }
    return lines;
}

}  // namespace scsitool_cli
