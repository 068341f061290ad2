// The macOS platform file over the real desktop services: what the fake of them, in
// support/MacServices.h, says that they do. Runs on a Mac alone.
#include <gtest/gtest.h>
#include <string.h>

#include <filesystem>
#include <string>

#include "CmConfig.h"
#include "port/CmPort.h"
#include "support/Home.h"

namespace UTIL_NS {
namespace {

using kelto_test::ScopedHome;
using kelto_test::WriteFile;

TEST(CmMacServices, NameIsThatOfTheProgram) {
    uint16_t awUnits[CM_PORT_NAME_UNITS];
    const size_t nUnits = CmPortExecutableName(awUnits);
    EXPECT_EQ(u"CmMacServices_test", std::u16string(awUnits, awUnits + nUnits));
}

TEST(CmMacServices, ItemInformationTellsTheExtension) {
    const ScopedHome home;
    const std::string sPlain = home.path() + "plain";
    const std::string sNamed = home.path() + "named.dylib";
    WriteFile(sPlain, "");
    WriteFile(sNamed, "");
    EXPECT_EQ(CmPortItem::WITHOUT_EXTENSION, CmPortItemInformation(sPlain.c_str()));
    EXPECT_EQ(CmPortItem::WITH_EXTENSION, CmPortItemInformation(sNamed.c_str()));
    EXPECT_EQ(CmPortItem::UNKNOWN, CmPortItemInformation((home.path() + "missing").c_str()));
}

TEST(CmMacServices, BundleIsCreatedFromItsDirectory) {
    const ScopedHome home;
    const std::string sBundle = home.path() + "yrktrace.bundle";
    EXPECT_EQ(nullptr, CmPortBundleCreate(sBundle.c_str()));
    std::filesystem::create_directories(sBundle + "/Contents/MacOS");
    WriteFile(sBundle + "/Contents/Info.plist",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
              "<key>CFBundleIdentifier</key><string>org.kelto.test</string>"
              "<key>CFBundlePackageType</key><string>BNDL</string></dict></plist>\n");
    void* const hBundle = CmPortBundleCreate(sBundle.c_str());
    ASSERT_NE(nullptr, hBundle);
    EXPECT_EQ(nullptr, CmPortBundleFunction(hBundle, "YRKINFO2"));  // it has no code
    CmPortBundleRelease(hBundle);
}

TEST(CmMacServices, ParentPathIsAsLongAsItSays) {
    char achPath[1024];
    memset(achPath, 'x', sizeof(achPath));
    const int nLength = MMP_GetCurrentModuleParentPath(achPath, sizeof(achPath));
    if (nLength != 0) {
        EXPECT_EQ(static_cast<size_t>(nLength), strnlen(achPath, sizeof(achPath)));
    }
}

}  // namespace
}  // namespace UTIL_NS
