#include "extension/SharedObjects.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <thread>
#include <vector>

#include "base/AppConst.hpp"
#include "db/ConfigDB.hpp"
#include "db/SyncDB.hpp"
#include "platform/linux/Host.hpp"
#include "rest/RESTPollingManager.hpp"
#include "support/Environment.hpp"
#include "support/ProcessStops.hpp"
#include "support/TemporaryFolder.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

constexpr std::array IMAGES = {"checkmark", "sync", "error", "QMT"};
constexpr std::array LOADERS = {&syncedImg, &inProgressImg, &failureImg, &vornetImg};

/// Makes the main bundle one with the images `names`, in `folder`.
template <typename Names>
void useImages(const TemporaryFolder& folder, const Names& names) {
  for (const char* name : names) writeFile(folder.path() / "16" / (std::string(name) + ".png"), "image");
  platform::host::Bundle bundle;
  bundle.imageFolders = {folder.path().string()};
  platform::host::setMainBundle(bundle);
}

TEST(SharedObjectsTest, ImagesAreTheResourcesWithTheirNames) {
  const TemporaryFolder folder;
  useImages(folder, IMAGES);
  for (std::size_t i = 0; i < IMAGES.size(); ++i) EXPECT_EQ(LOADERS[i]().name(), IMAGES[i]);
}

TEST(SharedObjectsTest, EachImageIsLoadedAloneWhenFirstNeeded) {
  const TemporaryFolder folder;
  useImages(folder, std::array{"sync"});
  EXPECT_EQ(inProgressImg().name(), "sync");
  useImages(folder, std::array{"checkmark"});
  EXPECT_EQ(syncedImg().name(), "checkmark");
}

TEST(SharedObjectsTest, AnImageOnceLoadedStays) {
  const TemporaryFolder folder;
  useImages(folder, IMAGES);
  const auto* first = &failureImg();
  platform::host::setMainBundle({});
  EXPECT_EQ(&failureImg(), first);
  EXPECT_EQ(failureImg().name(), "error");
}

using SharedObjectsDeathTest = ProcessStops;

TEST_F(SharedObjectsDeathTest, AMissingImageStopsTheProcess) {
  for (std::size_t missing = 0; missing < IMAGES.size(); ++missing) {
    const TemporaryFolder folder;
    auto names = std::vector(IMAGES.begin(), IMAGES.end());
    names.erase(names.begin() + static_cast<std::ptrdiff_t>(missing));
    useImages(folder, names);
    EXPECT_DEATH(LOADERS[missing](), std::string("missing image resource: ") + IMAGES[missing]);
  }
}

TEST_F(SharedObjectsDeathTest, AnAbsentStatusManagerStopsItsUsers) {
  EXPECT_DEATH(requiredStatusManager(), "no status manager");
}

TEST_F(SharedObjectsDeathTest, TheSharedObjectsCanBeUsedWhileTheProcessEnds) {
  const TemporaryFolder folder;
  useImages(folder, IMAGES);
  const auto exitAmidUse = [] {
    Gate used;
    std::thread([&used] {
      const auto use = [] {
        return App().APP_CODENAME.find('\0') + statusMap().at(2).size() + syncedImg().name().size() +
               (statusManager() ? 1U : 0U);
      };
      const auto expected = use();
      used.open();
      while (use() == expected) {
      }
      std::abort();
    }).detach();
    used.pass();
    std::exit(0);  // NOLINT: that threads go on meanwhile is the question
  };
  EXPECT_EXIT(exitAmidUse(), ::testing::ExitedWithCode(0), "");
}

TEST(SharedObjectsTest, StatusManagerIsAbsentAtFirstAndThenWhatWasAssigned) {
  const Environment environment;
  EXPECT_EQ(statusManager(), nullptr);
  const auto manager = std::make_shared<RESTPollingManager>();
  statusManager() = manager;
  EXPECT_EQ(statusManager(), manager);
  EXPECT_EQ(&requiredStatusManager(), manager.get());
  statusManager() = nullptr;
}

TEST(SharedObjectsTest, TheTwoDatabaseReadersAreDistinct) {
  EXPECT_NE(static_cast<SyncDB*>(&configDB()), &syncDB());
}

TEST(SharedObjectsTest, EachSharedObjectIsMadeOnceEvenWhenManyThreadsUseItFirst) {
  const TemporaryFolder folder;
  useImages(folder, IMAGES);
  constexpr std::size_t THREADS = 8;
  std::vector<std::vector<const void*>> seen(THREADS);
  inParallel(THREADS, [&](std::size_t number) {
    seen[number] = {&App(),       &statusMap(),     &syncDB(),     &configDB(), &statusManager(),
                    &syncedImg(), &inProgressImg(), &failureImg(), &vornetImg()};
  });
  for (const auto& objects : seen) EXPECT_EQ(objects, seen.front());
}

}  // namespace
}  // namespace vornet::test
