// SPDX-License-Identifier: Apache-2.0
// The read recorder: what it sees of a UDID's computation (the generators asked, the pages they
// looked up, the fields they made and the bytes behind them), that it changes no answer, and
// that it hears nothing it was not asked to.
#include <gtest/gtest.h>

#include <thread>

#include "device_udid_factory.h"
#include "page_builders.h"
#include "simhost.h"
#include "udid_read_recorder.h"

namespace {

struct FakeHost {
    FakeHost() : installed(host) { host.setHostname("testhost"); }
    simhost::SimHost host;
    simhost::SimHostInstall installed;
};

// The fields of the generator the factory asked last, as "kind first..last text" with each
// read behind its page marked by a "!".
std::vector<std::string> fieldsOfLast(const CUdidReadRecorder& recorder)
{
    static const char* const kKinds[] = {"text", "hex", "decimal"};
    std::vector<std::string> shown;
    for (const CUdidReadRecorder::Field& field : recorder.fields) {
        if (field.generator + 1 != recorder.generators.size()) {
            continue;
        }
        std::string text = kKinds[field.kind];
        if (field.endRead > field.firstRead) {
            text += " " + std::to_string(recorder.reads[field.firstRead].index) + ".." +
                    std::to_string(recorder.reads[field.endRead - 1].index);
        }
        for (size_t i = field.firstRead; i < field.endRead; ++i) {
            if (recorder.reads[i].index >= recorder.reads[i].length) {
                text += "!";
            }
        }
        shown.push_back(text + " " + field.text);
    }
    return shown;
}

}  // namespace

TEST(ReadRecorder, SeesTheFieldsEachBodyIsMadeOfAndChangesNoUdid)
{
    FakeHost system;
    struct Case {
        const char* vendor;
        const char* product;
        std::map<unsigned int, Bytes> pages;
        std::vector<std::string> fields;
    };
    // clang-format off
    const Case cases[] = {
        // The device name's last byte lies behind the 134 bytes received.
        {"EMC", "SYMMETRIX", {{0, PageBuilder(134).hex(124, "0001879014").text(132, "0A")}},
         {"hex 124..128 0001879014", "text 132..134! 0A"}},
        // Both numbers of an XP body convert a text; the second converts first.
        {"HP", "OPEN-V", {{0, PageBuilder(64).text(36, "50 0274904D2")}},
         {"text 39..43 02749", "text 44..47 04D2", "decimal 44..47 1234", "decimal 39..43 10057"}},
        // Not behind "50 ": the serial is the number of no text at all.
        {"HP", "OPEN-V", {{0, PageBuilder(64).text(36, "60 0274904D2")}},
         {"text 44..47 04D2", "decimal 44..47 1234", "decimal 0"}},
        {"3PARdata", "VV", {{0x80, serialPage80("1234567 ")}, {0x83, naaPage83("50002ac000010abc")}},
         {"text 4..11 1234567 ", "hex 8..15 50002AC000010ABC"}},
        // A page 0x83 of 23 bytes: its byte 23 is read behind it.
        {"IBM", "2107900", {{0, PageBuilder(43).text(36, "7512345")}, {0x83, naaPage83("60050763 0affc12a 00000000 00001a2b", 23)}},
         {"text 36..42 7512345", "hex 22..23! 1a00"}},
    };
    // clang-format on
    for (const Case& c : cases) {
        CUDIDFactory factory;
        auto quiet = makeDevice(c.vendor, c.product, c.pages, {0x00, 0x80, 0x83});
        auto heard = makeDevice(c.vendor, c.product, c.pages, {0x00, 0x80, 0x83});
        const std::string udid = factory.getUniqueDeviceID(quiet.get());
        CUdidReadRecorder recorder;
        EXPECT_EQ(factory.getUniqueDeviceID(heard.get()), udid) << c.vendor << " " << c.product;
        EXPECT_EQ(fieldsOfLast(recorder), c.fields) << c.vendor << " " << c.product;
    }
}

TEST(ReadRecorder, NotesEachGeneratorAskedAndThePagesItLookedUp)
{
    FakeHost system;
    CUDIDFactory factory;
    auto device = makeDevice("EMC", "SYMMETRIX",
                             {{0, inquiryPage("EMC", "SYMMETRIX", 36)},
                              {0x83, naaPage83("60000970000187901453303030413346")}},
                             {0x00, 0x83});
    CUdidReadRecorder recorder;
    factory.getUniqueDeviceID(device.get());

    ASSERT_EQ(recorder.generators.size(), 2u);
    EXPECT_EQ(recorder.generators[0].name, "EMC:SYMMETRIX");
    EXPECT_EQ(recorder.generators[1].name, ":");
    std::vector<std::string> lookups;
    for (const CUdidReadRecorder::Lookup& lookup : recorder.lookups) {
        lookups.push_back(std::to_string(lookup.generator) + ":" + std::to_string(lookup.code) +
                          "/" + std::to_string(lookup.length) +
                          (lookup.data == nullptr ? " absent" : ""));
    }
    // The Symmetrix body gives up on 36 bytes; the default one takes page 0x83 whole (a read
    // the recorder does not see: it is no field).
    EXPECT_EQ(lookups, (std::vector<std::string>{"0:0/36", "1:131/24"}));
    EXPECT_TRUE(recorder.reads.empty());
}

TEST(ReadRecorder, ListensOnlyOnItsThreadAndOnlyWhileItLives)
{
    FakeHost system;
    CUDIDFactory factory;
    const std::map<unsigned int, Bytes> pages = {
        {0, PageBuilder(136).hex(124, "0001879014").text(132, "0A3F")}};
    EXPECT_FALSE(CUdidReadRecorder::listening());
    {
        CUdidReadRecorder outer;
        {
            CUdidReadRecorder inner;
            EXPECT_EQ(CUdidReadRecorder::active(), &inner);
            std::thread other([&] {
                auto device = makeDevice("EMC", "SYMMETRIX", pages);
                EXPECT_EQ(CUdidReadRecorder::active(), nullptr);
                factory.getUniqueDeviceID(device.get());
            });
            other.join();
            EXPECT_TRUE(inner.generators.empty());
            EXPECT_TRUE(inner.reads.empty());
        }
        EXPECT_EQ(CUdidReadRecorder::active(), &outer);
        auto device = makeDevice("EMC", "SYMMETRIX", pages);
        factory.getUniqueDeviceID(device.get());
        EXPECT_EQ(outer.generators.size(), 1u);
        // Five bytes of hex, the test of byte 132, and four of text, each read twice: to test it
        // for the zero that ends the text and to take it.
        EXPECT_EQ(outer.reads.size(), 14u);
    }
    EXPECT_FALSE(CUdidReadRecorder::listening());
    EXPECT_EQ(CUdidReadRecorder::active(), nullptr);
}
