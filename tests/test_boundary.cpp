// SPDX-License-Identifier: Apache-2.0
// The shared library as a host process loads it: through dlopen, with its classes and nothing
// else visible, and never unloaded by dlclose.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

namespace {

const std::string kLibrary = SCSITOOL_BINARY_DIR "/libscsitool.so.1";

}  // namespace

TEST(Boundary, ExportsTheClassesAndNoHelper)
{
    void* library = dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    struct Case {
        const char* symbol;
        const char* what;
        bool exported;
    };
    const Case cases[] = {
        {"_ZN12CUDIDFactoryC1Ev", "CUDIDFactory::CUDIDFactory()", true},
        {"_ZTI23CUdidGeneratorException", "typeinfo for CUdidGeneratorException", true},
        {"_ZN11CStringTool10tostrupperERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
         "CStringTool::tostrupper(const std::string&)", true},
        {"_Z7readDirNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES4_",
         "readDir(std::string, std::string)", false},
        {"_Z24createUdidGeneratorTablev", "createUdidGeneratorTable()", false},
        {"_Z18readProcPartitionsv", "readProcPartitions()", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(dlsym(library, c.symbol) != nullptr, c.exported) << c.what;
    }
    EXPECT_EQ(dlclose(library), 0);
}

TEST(Boundary, DlcloseLeavesTheLibraryLoaded)
{
    void* library = dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    ASSERT_EQ(dlclose(library), 0);
    // The rescan lock's exit handler lives in the library: it must still be there at exit.
    void* again = dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_NOLOAD);
    EXPECT_NE(again, nullptr) << "dlclose unloaded the library";
    EXPECT_EQ(again, library);
    if (again != nullptr) {
        dlclose(again);
    }
}
