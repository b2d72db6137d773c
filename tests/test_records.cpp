// SPDX-License-Identifier: Apache-2.0
// The device record, the page cache entries, and the string tools.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "device_scsi_data.h"
#include "stringtool.h"
#include "temp_dir.h"

TEST(ModePage, CopiesAreIndependentAndStoringReplaces)
{
    const unsigned char a[] = {1, 2, 3};
    const unsigned char b[] = {9};
    CScsiModePage page(a, 3);
    CScsiModePage copy(page);
    page.set(b, 1);
    EXPECT_EQ(copy.getLength(), 3u);
    EXPECT_EQ(copy.getData()[2], 3);
    EXPECT_EQ(page.getLength(), 1u);
    EXPECT_EQ(page.getData()[0], 9);
    copy = page;
    EXPECT_EQ(copy.getLength(), 1u);
    EXPECT_NE(copy.getData(), page.getData());
    page.set(nullptr, 0);
    EXPECT_EQ(page.getData(), nullptr);
    EXPECT_EQ(page.getLength(), 0u);
    EXPECT_EQ(CScsiModePage().getLength(), 0u);
    EXPECT_EQ(CScsiModePage().getData(), nullptr);
}

TEST(StringTool, NumbersFromText)
{
    struct {
        const char* text;
        unsigned int value;
    } decimal[] = {
        // clang-format off
        {"", 0}, {"42", 42}, {"42abc", 42}, {" 7", 7}, {"abc", 0}, {"x1", 0}, {"-1", 4294967295u}};
    // clang-format on
    for (const auto& c : decimal) {
        EXPECT_EQ(CStringTool::str2uint(c.text), c.value) << c.text;
        EXPECT_EQ(CStringTool::str2int(c.text), static_cast<int>(c.value)) << c.text;
    }
    // clang-format off
    struct {
        const char* text;
        unsigned int value;
    } hex[] = {
        {"0x1F", 31}, {"0x", 0}, {"0xG1", 0}, {"zz10", 16}, {"0X0a", 10}, {"0x123456789", 0x23456789u},
        {"0x1 ", 0}, {"0xffffffff", 0xffffffffu}, {"ab", 0}, {"0xA", 10}};
    // clang-format on
    for (const auto& c : hex) {
        EXPECT_EQ(CStringTool::hexstr2uint(c.text), c.value) << c.text;
    }
    EXPECT_EQ(CStringTool::int2str(-12), "-12");
    EXPECT_EQ(CStringTool::uint2str(4294967295u), "4294967295");
    EXPECT_EQ(CStringTool::bool2str(true), "true");
    EXPECT_EQ(CStringTool::int2wstr(-3), L"-3");
}

// Hex dumps, blank trimming and upper case are pinned through the default generator's body, the
// claim tests and the factory's UDIDs.
TEST(StringTool, TextHelpers)
{
    const unsigned char bytes[] = {0x60, 0x05, 0x0A, 0xFF};
    EXPECT_EQ(CStringTool::binary2str(bytes, 0), "");
    EXPECT_EQ(CStringTool::binary2str(bytes, -1), "");
    EXPECT_EQ(CStringTool::trim("\tabc \n"), "\tabc \n");
    EXPECT_EQ(CStringTool::trim("  abc  "), "abc");
    EXPECT_EQ(CStringTool::trim("   "), "");
    EXPECT_EQ(CStringTool::ltrim("000120", '0'), "120");
    EXPECT_FALSE(CStringTool::isalphaNumeric(""));
    EXPECT_TRUE(CStringTool::isalphaNumeric("ab1"));
    EXPECT_FALSE(CStringTool::isalphaNumeric("ab-1"));
    EXPECT_FALSE(CStringTool::isalphaNumeric("ab 1"));
    EXPECT_EQ(CStringTool::tostrlower("ABC-1"), "abc-1");
    EXPECT_EQ(CStringTool::rtrim("120000", '0'), "12");
    EXPECT_EQ(CStringTool::tostrupper(std::wstring(L"ab1")), L"AB1");
    EXPECT_EQ(CStringTool::tostrlower(std::wstring(L"AB1")), L"ab1");
    EXPECT_EQ(CStringTool::uint2wstr(4294967295u), L"4294967295");
    EXPECT_EQ(CStringTool::str2wstr("abc"), L"abc");
    EXPECT_EQ(CStringTool::wstr2str(std::wstring(L"abc")), "abc");
    EXPECT_EQ(CStringTool::wstr2str(std::wstring()), "");
    // In the C locale a byte above 0x7F is no character, and a wide character above 0x7F has no
    // byte: either conversion gives nothing rather than a part.
    EXPECT_EQ(CStringTool::str2wstr(""), L"");
    EXPECT_EQ(CStringTool::str2wstr("ab\xff"), L"");
    EXPECT_EQ(CStringTool::wstr2str(std::wstring(L"ab\x100")), "");
    EXPECT_EQ(CStringTool::wstr2str(std::string("ab")), "ab");
    EXPECT_EQ(CStringTool::str2wstr(std::wstring(L"ab")), L"ab");
}

TEST(ReadDir, ListsMatchingEntriesAsFullPaths)
{
    TempDir temp;
    const std::string dir = temp.path(), base = dir + "/";
    for (const char* name : {"x1", "x2", "y1"})
        writeFile(base + name, "");
    std::vector<std::string> found = readDir(base, "x");
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (std::vector<std::string>{base + "x1", base + "x2"}));
    std::vector<std::string> all = readDir(base, "");
    EXPECT_EQ(all.size(), 5u);  // "." and ".." match the empty pattern
    EXPECT_NE(std::find(all.begin(), all.end(), base + "."), all.end());
    EXPECT_EQ(readDir(dir, "x1"), std::vector<std::string>{dir + "x1"});  // joined as given
    testing::internal::CaptureStdout();
    EXPECT_TRUE(readDir("/nonexistent-dir/", "").empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}
