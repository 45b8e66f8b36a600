// What only a system with inherited handles and wide paths can get wrong.
#include <gtest/gtest.h>

#include <boost/filesystem/operations.hpp>
#include <set>
#include <stdexcept>

#include "core/platform/dirlist.h"
#include "core/platform/folderlock.h"
#include "core/platform/folders.h"
#include "core/platform/pathtext.h"
#include "core/platform/process.h"
#include "core/platform/randomaccessfile.h"
#include "tests/support/childprocess.h"
#include "tests/support/tempfolder.h"

namespace velmora::platform {
namespace {

const std::string kBeyondTheCodePage = "\xD0\xB6-\xE6\xBC\xA2-\xF0\x9F\x99\x82";

TEST(Handles, AreNotInheritedByAChild) {
    const test::TempFolder folder;
    intptr_t handle = kInvalidLockHandle;
    ASSERT_FALSE(acquireLock(folder.path(), handle));
    std::unique_ptr<RandomAccessFile> file = openSystemFile(folder.path() / "part", true);
    ASSERT_NE(file, nullptr);
    const test::ChildProcess child("cmd.exe", {"/c", "more"});  // waits for its input
    ASSERT_FALSE(releaseLock(handle));
    file.reset();
    intptr_t again = kInvalidLockHandle;
    EXPECT_FALSE(acquireLock(folder.path(), again)) << "the child still has the handle";
    EXPECT_FALSE(releaseLock(again));
}

TEST(WidePaths, CarryEveryCharacterAndRefuseWhatIsNoUnicode) {
    const test::TempFolder folder;
    const boost::filesystem::path child = folder.path() / pathFromUtf8(kBeyondTheCodePage);
    boost::filesystem::create_directory(child);
    ASSERT_NE(openSystemFile(child / "part", true), nullptr);
    std::set<std::string> names;
    int code = 0;
    const auto keep = [&](const boost::filesystem::path& name) { return names.insert(pathToUtf8(name)).second; };
    EXPECT_EQ(listFolder(folder.path(), keep, code), ListOutcome::complete);
    EXPECT_EQ(names.count(kBeyondTheCodePage), 1U);
    EXPECT_THROW(static_cast<void>(pathFromUtf8("\xC3")), std::range_error);
    EXPECT_THROW(static_cast<void>(pathToUtf8(boost::filesystem::path(L"\xD800"))), std::range_error);
}

TEST(UserDataFolder, IsAnExistingAbsoluteFolder) {
    int code = 0;
    const boost::filesystem::path path = userDataFolder(code);
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(path.is_absolute());
    EXPECT_TRUE(boost::filesystem::is_directory(path));
}

TEST(Termination, IsNotSeenWhileTheProcessRuns) { EXPECT_FALSE(isTerminating()); }

}  // namespace
}  // namespace velmora::platform
