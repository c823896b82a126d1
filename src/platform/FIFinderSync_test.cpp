#include <gtest/gtest.h>

#include "platform/FinderSync.hpp"

namespace vornet::platform {
namespace {

class Plain : public FIFinderSync {
 public:
  using FIFinderSync::initBase;
};

TEST(FIFinderSync, AnswersNothingWhereNothingIsOverridden) {
  Plain plain;
  const auto url = FileURL::fileURLWithPath("/a");
  plain.beginObservingDirectoryAtURL(url);
  plain.endObservingDirectoryAtURL(url);
  plain.requestBadgeIdentifierForURL(url);
  EXPECT_FALSE(plain.menuForMenuKind(FIMenuKind::contextualMenuForItems));
  EXPECT_EQ(plain.toolbarItemName(), "");
  EXPECT_EQ(plain.toolbarItemToolTip(), "");
  EXPECT_TRUE(plain.toolbarItemImage().isEmpty());
  EXPECT_TRUE(plain.initBase());
}

TEST(FIMenuKind, HasTheFrameworksValues) {
  EXPECT_EQ(static_cast<std::uint64_t>(FIMenuKind::contextualMenuForItems), 0u);
  EXPECT_EQ(static_cast<std::uint64_t>(FIMenuKind::contextualMenuForContainer), 1u);
  EXPECT_EQ(static_cast<std::uint64_t>(FIMenuKind::contextualMenuForSidebar), 2u);
  EXPECT_EQ(static_cast<std::uint64_t>(FIMenuKind::toolbarItemMenu), 3u);
}

}  // namespace
}  // namespace vornet::platform
