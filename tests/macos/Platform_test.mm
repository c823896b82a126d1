// The seam as it is implemented for macOS, against real files and real objects of Foundation.
#import <Foundation/Foundation.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <set>

#include "Finder.hpp"
#include "platform/AppKit.hpp"
#include "platform/Dispatch.hpp"
#include "platform/FinderSync.hpp"
#include "platform/Foundation.hpp"
#import "platform/macos/Cocoa.hpp"
#include "support/Databases.hpp"
#include "support/TemporaryFolder.hpp"
#include "support/Threads.hpp"

namespace vornet::platform {
namespace {

namespace fs = std::filesystem;
using testing::Optional;

class MacPlatform : public testing::Test {
 protected:
  const AutoreleasePool pool_;
  const test::TemporaryFolder folder_;
};

TEST_F(MacPlatform, DistinguishesUTF8FromOtherBytes) {
  for (const char* good : {"", "a", "å", "\xF0\x9F\x98\x80", "a\nb"}) EXPECT_TRUE(isValidUTF8(good)) << good;
  for (const char* bad : {"\xC0\xAF", "\xED\xA0\x80", "\xF5\x80\x80\x80", "\xE2\x82", "\xFF", "\xF4\x90\x80\x80",
                          "\xE0\x80\x80", "ok\x80"}) {
    EXPECT_FALSE(isValidUTF8(bad)) << bad;
  }
  EXPECT_TRUE(isValidUTF8({"a\0b", 3}));
}

TEST_F(MacPlatform, DistinguishesFilesFromFolders) {
  test::writeFile(folder_ / "file", "x");
  fs::create_symlink(folder_ / "file", folder_ / "link");
  fs::create_symlink(folder_ / "nothing", folder_ / "dangling");
  for (const char* file : {"file", "link"}) EXPECT_EQ(fileKindAtPath(folder_ / file), FileKind::file) << file;
  EXPECT_EQ(fileKindAtPath(folder_.path()), FileKind::directory);
  for (const char* absent : {"nothing", "dangling", "\xFF"})
    EXPECT_EQ(fileKindAtPath(folder_ / absent), FileKind::absent) << absent;
}

TEST_F(MacPlatform, MakesFoldersWithThoseAboveThem) {
  EXPECT_EQ(createDirectory(folder_ / "a/b/c"), std::nullopt);
  EXPECT_EQ(createDirectory(folder_ / "a/b/c"), std::nullopt);
  EXPECT_TRUE(fs::is_directory(folder_ / "a/b/c"));
  test::writeFile(folder_ / "file", "");
  EXPECT_THAT(createDirectory(folder_ / "file/a"), Optional(testing::Not("")));
}

TEST_F(MacPlatform, AFileThatIsMadeTakesThePlaceOfAnother) {
  test::writeFile(folder_ / "log", "old");
  EXPECT_TRUE(createFile(folder_ / "log"));
  EXPECT_EQ(fs::file_size(folder_ / "log"), 0U);
  EXPECT_FALSE(createFile(folder_ / "no/folder"));

  test::writeFile(folder_ / "target", "kept");
  fs::create_symlink(folder_ / "target", folder_ / "link");
  ASSERT_EQ(::mkfifo((folder_ / "pipe").c_str(), 0600), 0);
  for (const char* name : {"link", "pipe"}) {
    EXPECT_TRUE(createFile(folder_ / name)) << name;
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(folder_ / name))) << name;
  }
  EXPECT_EQ(test::readFile(folder_ / "target"), "kept");
}

TEST_F(MacPlatform, WritesWholeLinesFromSeveralThreadsAtTheEndOfAFile) {
  const std::string path = folder_ / "log";
  test::writeFile(path, "first\n");
  std::string error;
  const auto file = FileHandle::forWriting(path, error);
  ASSERT_TRUE(file) << error;
  test::inParallel(3, [&](std::size_t number) {
    const std::string line(200, "abc"[number]);
    for (int i = 0; i < 100; ++i) file->write(line + "\n");
  });

  std::istringstream text(test::readFile(path));
  std::string line;
  std::getline(text, line);
  EXPECT_EQ(line, "first");
  std::size_t lines = 0;
  for (; std::getline(text, line); ++lines) EXPECT_EQ(line, std::string(200, line[0]));
  EXPECT_EQ(lines, 300U);
}

TEST_F(MacPlatform, SaysWhyAFileCannotBeOpened) {
  std::string error;
  EXPECT_FALSE(FileHandle::forWriting(folder_ / "absent", error));
  EXPECT_FALSE(fs::exists(folder_ / "absent"));
  EXPECT_EQ(error, "No such file or directory");
  EXPECT_FALSE(FileHandle::forWriting(folder_.path().string(), error));
  EXPECT_EQ(error, "Is a directory");
}

TEST_F(MacPlatform, ReadsPropertyListsInXMLAndInBinary) {
  test::writePreferences(folder_ / "xml", "/Users/ann/Å b");
  NSData* binary = [NSPropertyListSerialization
      dataWithPropertyList:[NSDictionary dictionaryWithObjectsAndKeys:@"/Users/bo", @"root_dir", @(7), @"number", nil]
                    format:NSPropertyListBinaryFormat_v1_0
                   options:0
                     error:NULL];
  [binary writeToFile:cocoa::string(folder_ / "binary") atomically:NO];
  fs::create_symlink(folder_ / "binary", folder_ / "link");

  EXPECT_EQ(PropertyList::dictionaryAtPath(folder_ / "xml")->textForKey("root_dir"), "/Users/ann/Å b");
  const auto list = PropertyList::dictionaryAtPath(folder_ / "link");
  ASSERT_TRUE(list);
  EXPECT_EQ(list->textForKey("root_dir"), "/Users/bo");
  EXPECT_EQ(list->textForKey("number"), std::nullopt);
  EXPECT_EQ(list->textForKey("absent"), std::nullopt);
}

TEST_F(MacPlatform, ReadsNoPropertyListFromAnythingElse) {
  const std::string head = R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0">)";
  test::writeFile(folder_ / "array", head + "<array><string>a</string></array></plist>");
  test::writeFile(folder_ / "broken", head + "<dict><key>a</key>");
  test::writeFile(folder_ / "old style", "{ root_dir = \"/a\"; }");
  test::writeFile(folder_ / "empty", "");
  test::writeFile(folder_ / "large",
                  head + "<dict><key>root_dir</key><string>" + std::string(1 << 20, 'a') + "</string></dict></plist>");
  ASSERT_EQ(::mkfifo((folder_ / "pipe").c_str(), 0600), 0);
  for (const char* name : {"array", "broken", "old style", "empty", "large", "pipe", "absent", "."})
    EXPECT_FALSE(PropertyList::dictionaryAtPath(folder_ / name)) << name;
}

TEST_F(MacPlatform, KeepsTheMillisecondsOfEveryDate) {
  const auto formatter = DateFormatter::make("en_US_POSIX", "ss.SSS");
  ASSERT_TRUE(formatter);
  // Which fractions a floating-point number cannot hold differs from year to year.
  for (const long seconds : {1456837509L, 31536009L, 4102444809L}) {
    for (int part = 0; part < 1000; ++part) {
      const Date date(std::chrono::milliseconds(1000 * seconds + part) + std::chrono::microseconds(part));
      char expected[8];
      std::snprintf(expected, sizeof expected, "09.%03d", part);
      EXPECT_EQ(formatter->stringFromDate(date), expected) << seconds;
    }
  }
}

TEST_F(MacPlatform, KeepsNoFormatterAndNoLocale) {
  DateFormatter::make("en_US_POSIX", "SSS");                                      // makes objects that are kept
  NSLocale* locale = [[NSLocale alloc] initWithLocaleIdentifier:@"en_US_POSIX"];  // GNUstep has one of a kind
  const auto owners = [locale retainCount];
  const auto before = standin::liveObjects();
  for (int i = 0; i < 100; ++i) DateFormatter::make("en_US_POSIX", "SSS");
  EXPECT_LT(standin::liveObjects() - before, 50);
  EXPECT_EQ([locale retainCount], owners);
}

TEST_F(MacPlatform, WritesDatesInTheDigitsOfTheLocale) {
  const auto formatter = DateFormatter::make("ar_EG", "SSS");
  ASSERT_TRUE(formatter);
  EXPECT_EQ(formatter->stringFromDate(Date(std::chrono::milliseconds(120))), "١٢٠");
  EXPECT_NE(currentLocaleIdentifier(), "");
  EXPECT_EQ(dateDescription(Date(std::chrono::seconds(1456837509))), "2016-03-01 13:05:09 +0000");
}

TEST_F(MacPlatform, KnowsItsBundleAndItsProcess) {
  EXPECT_EQ(bundleInfoText("CFBundlePackageType"), "XPC!");
  EXPECT_EQ(bundleInfoText("LSUIElement"), std::nullopt);
  EXPECT_EQ(bundleInfoText("absent"), std::nullopt);
  EXPECT_EQ(processName(), "VornetVIExt");
  EXPECT_EQ(processIdentifier(), ::getpid());
}

TEST_F(MacPlatform, FindsImagesByName) {
  for (const char* name : {"checkmark", "sync", "error", "QMT"}) {
    const auto image = Image::named(name);
    ASSERT_TRUE(image) << name;
    EXPECT_EQ(image->name(), name);
    EXPECT_GT([cocoa::image(*image) size].width, 0) << name;
  }
  EXPECT_FALSE(Image::named("absent"));
  EXPECT_FALSE(Image::named(""));
}

TEST_F(MacPlatform, TakesFileURLsApartAndPutsThemTogether) {
  NSURL* folder = [NSURL fileURLWithPath:@"/a/Å b" isDirectory:YES];
  const auto url = cocoa::fileURL(folder);
  EXPECT_EQ(url.path(), "/a/Å b");
  EXPECT_TRUE(url.hasDirectoryPath());
  EXPECT_TRUE([cocoa::url(url) isEqual:folder]);
  EXPECT_FALSE(cocoa::fileURL([NSURL fileURLWithPath:@"/a/b" isDirectory:NO]).hasDirectoryPath());
  EXPECT_FALSE(cocoa::fileURL(nil).path());
  EXPECT_FALSE(cocoa::url(FileURL()));
  EXPECT_FALSE(cocoa::url(FileURL::fileURLWithPath("/\xFF")));
  EXPECT_TRUE([[cocoa::url(FileURL::fileURLWithPath(folder_.path().string())) absoluteString] hasSuffix:@"/"]);
}

TEST_F(MacPlatform, TheControllerKeepsWhatItIsGiven) {
  auto& controller = FIFinderSyncController::defaultController();
  const std::set<FileURL> urls = {FileURL::fileURLWithPath("/a", true), FileURL::fileURLWithPath("/b", true)};
  controller.setDirectoryURLs(urls);
  EXPECT_EQ(controller.directoryURLs(), urls);
  EXPECT_EQ(controller.selectedItemURLs(), std::nullopt);
  standin::setSelection(std::vector<std::string>{"/b/2", "/b/1"});
  EXPECT_THAT(controller.selectedItemURLs(),
              Optional(testing::ElementsAre(FileURL::fileURLWithPath("/b/2"), FileURL::fileURLWithPath("/b/1"))));
  controller.setBadgeIdentifier("SYNCED", FileURL());
  EXPECT_THAT(standin::seen().badges, testing::IsEmpty());
}

TEST_F(MacPlatform, SettingABadgeLeavesNothingToTheCallersPool) {
  auto& controller = FIFinderSyncController::defaultController();
  const auto url = FileURL::fileURLWithPath(folder_.path().string());
  controller.setBadgeIdentifier("SYNCED", url);
  const auto before = standin::liveObjects();
  for (int i = 0; i < 100; ++i) controller.setBadgeIdentifier("SYNCED", url);
  EXPECT_LT(standin::liveObjects() - before, 50);
}

TEST_F(MacPlatform, GivesEachGroupItsContainer) {
  standin::setGroupContainers(folder_.path().string());
  NSDictionary* names = [[NSBundle mainBundle] objectForInfoDictionaryKey:@"VornetApplicationGroups"];
  ASSERT_EQ([names count], 1U);
  NSString* group = [[names allKeys] objectAtIndex:0];
  EXPECT_EQ(containerURLForGroup(*cocoa::text(group))->path(), folder_ / *cocoa::text([names objectForKey:group]));
  EXPECT_EQ(containerURLForGroup("a.group")->path(), folder_ / "a.group");
  EXPECT_EQ(containerURLForGroup(""), std::nullopt);
  standin::setGroupContainers(std::nullopt);
  EXPECT_EQ(containerURLForGroup("a.group"), std::nullopt);
}

TEST_F(MacPlatform, ABackgroundTaskMayBeWaitedForRepeatedly) {
  std::atomic<bool> ran = false;
  auto task = BackgroundTask::start([&ran] { ran = true; });
  task.wait();
  EXPECT_TRUE(ran);
  task.wait();
  BackgroundTask().wait();
}

TEST_F(MacPlatform, ABackgroundTaskOutlivesItsHandle) {
  test::Gate let;
  test::Gate ran;
  {
    const auto dropped = BackgroundTask::start([&] {
      let.pass();
      ran.open();
    });
  }
  let.open();
  EXPECT_TRUE(ran.passInTime());
}

TEST_F(MacPlatform, ASerialQueueRunsItsTasksInOrderAndAllOfThem) {
  std::vector<int> order;
  {
    SerialQueue queue("test");
    for (int i = 0; i < 100; ++i) queue.async([&order, i] { order.push_back(i); });
    queue.drain();
    EXPECT_EQ(order.size(), 100U);
    for (int i = 100; i < 200; ++i) queue.async([&order, i] { order.push_back(i); });
  }
  ASSERT_EQ(order.size(), 200U);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(MacPlatform, KeepsNoQueueAndNoGroup) {
  BackgroundTask::start([] {}).wait();  // the system's own queue stays
  const auto before = standin::liveDispatchObjects();
  {
    SerialQueue queue("short-lived");
    auto task = BackgroundTask::start([] {});
    task.wait();
    EXPECT_EQ(standin::liveDispatchObjects(), before + 2);
  }
  EXPECT_EQ(standin::liveDispatchObjects(), before);
}

TEST_F(MacPlatform, ASerialQueueTakesTasksWhileOneOfThemWaits) {
  test::Gate let;
  SerialQueue queue("busy");
  queue.async([&let] { let.passInTime(); });
  bool ran = false;
  queue.async([&ran] { ran = true; });
  EXPECT_FALSE(ran);
  let.open();
  queue.drain();
  EXPECT_TRUE(ran);
}

TEST_F(MacPlatform, DrainingASerialQueueMayBeGivenUp) {
  test::Gate let;
  SerialQueue queue("stuck");
  queue.async([&let] { let.pass(); });
  EXPECT_FALSE(queue.drain(std::chrono::milliseconds(10)));
  let.open();
  EXPECT_TRUE(queue.drain(std::chrono::hours(1)));
}

TEST_F(MacPlatform, AnExceptionThatReachesAnObjectiveCFrameStopsTheProcess) {
  EXPECT_DEATH(cocoa::outermost([] { fs::create_directory("/nowhere/at/all"); }), "filesystem");
}

TEST_F(MacPlatform, SpeaksToTheSystemLogAndStopsWithAReason) {
  EXPECT_EXIT(
      {
        systemLog("Å said");
        exitProcess(3);
      },
      testing::ExitedWithCode(3), "Å said");
  EXPECT_DEATH(fatalError("a reason"), R"(VornetVIExt\[[0-9:]+\] Fatal error: a reason)");
}

}  // namespace
}  // namespace vornet::platform
