// SPDX-License-Identifier: Apache-2.0
// A recorder of what the generators read while one UDID is computed: the pages they look up,
// every byte they read through CachedBytes, the fields they make of those bytes, and which
// generator was asked. A tool that explains a UDID puts one on the stack around the factory's
// getUniqueDeviceID; nothing is recorded otherwise, and an enumeration pays one test of a
// pointer per byte read.
//
// One recorder listens at a time, on the thread that made it (a second one made on that thread
// listens until it ends, then the first again); reads on other threads are not its own and go
// unrecorded.
#ifndef SCSITOOL_UDID_READ_RECORDER_H
#define SCSITOOL_UDID_READ_RECORDER_H

#include <atomic>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "scsitool_export.h"

class SCSITOOL_EXPORT CUdidReadRecorder {
public:
    // One byte read: the array it came from, that array's length, the index and the value
    // returned (zero for an index at or past the length).
    struct Read {
        const unsigned char* data;
        unsigned int length;
        unsigned int index;
        unsigned char value;
    };
    // One page looked up in the cache: its code (0: standard INQUIRY) and what was found
    // (data nullptr: not there).
    struct Lookup {
        size_t generator;  // index into generators, or npos before the first
        unsigned int code;
        const unsigned char* data;
        unsigned int length;
    };
    enum FieldKind { kText, kHex, kDecimal };
    // One field a generator made: the reads [firstRead, endRead) and the text they became. A
    // decimal field converts an earlier text field (input, in base) and takes its reads.
    struct Field {
        size_t generator;
        FieldKind kind;
        size_t firstRead;
        size_t endRead;
        std::string text;
        std::string input;
        int base;
    };
    // One generator whose body was asked for, by name, from the read and field it started at.
    struct Generator {
        std::string name;
        size_t firstRead;
    };

    static const size_t npos = static_cast<size_t>(-1);

    CUdidReadRecorder();
    ~CUdidReadRecorder();
    CUdidReadRecorder(const CUdidReadRecorder&) = delete;
    CUdidReadRecorder& operator=(const CUdidReadRecorder&) = delete;

    // The recorder listening on this thread, or nullptr.
    static CUdidReadRecorder* active()
    {
        CUdidReadRecorder* recorder = s_active.load(std::memory_order_acquire);
        return recorder != nullptr && recorder->m_owner == std::this_thread::get_id() ? recorder
                                                                                      : nullptr;
    }
    // Whether any recorder listens: the one test an unrecorded read pays.
    static bool listening() { return s_active.load(std::memory_order_relaxed) != nullptr; }

    void noteRead(const unsigned char* data, unsigned int length, unsigned int index);
    void noteLookup(unsigned int code, const unsigned char* data, unsigned int length);
    void noteField(FieldKind kind, size_t firstRead, const std::string& text);
    void noteDecimal(const std::string& input, int base, const std::string& text);
    void noteGenerator(const std::string& name);

    std::vector<Read> reads;
    std::vector<Lookup> lookups;
    std::vector<Field> fields;
    std::vector<Generator> generators;

private:
    size_t currentGenerator() const { return generators.empty() ? npos : generators.size() - 1; }

    // Read by every thread that reads a page; set by the one that records.
    static std::atomic<CUdidReadRecorder*> s_active;
    std::thread::id m_owner;
    CUdidReadRecorder* m_previous;
};

#endif
