#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unicode/smpdtfmt.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <random>
#include <sstream>
#include <vector>

#include "platform/Foundation.hpp"
#include "support/ChildProcess.hpp"
#include "support/Environment.hpp"

namespace vornet::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using std::chrono::milliseconds;
using test::ScopedVariable;

constexpr std::string_view PATTERN = "yyyy-MM-dd HH:mm:ss.SSS";

// 2016-03-01 14:05:09.123 UTC
constexpr milliseconds MOMENT = 1456841109123ms;

std::string formatted(const std::string& locale, milliseconds moment = MOMENT) {
  return DateFormatter::make(locale, PATTERN)->stringFromDate(Date(moment));
}

/// Expects what the library alone writes for each of `moments`, in this order.
void expectTheLibrarysTexts(const std::string& locale, const std::vector<milliseconds>& moments) {
  const auto formatter = DateFormatter::make(locale, PATTERN);
  ASSERT_NE(formatter, nullptr) << locale;
  UErrorCode status = U_ZERO_ERROR;
  const icu::SimpleDateFormat library(icu::UnicodeString::fromUTF8(std::string(PATTERN)),
                                      icu::Locale::createCanonical(locale.c_str()), status);
  ASSERT_TRUE(U_SUCCESS(status)) << locale;
  for (const auto& moment : moments) {
    icu::UnicodeString text;
    std::string expected;
    library.format(static_cast<UDate>(moment.count()), text).toUTF8String(expected);
    ASSERT_EQ(formatter->stringFromDate(Date(moment)), expected) << locale << ' ' << moment.count();
  }
}

// --- The current locale

class CurrentLocale : public testing::Test {
 protected:
  ScopedVariable all{"LC_ALL", std::nullopt};
  ScopedVariable time{"LC_TIME", std::nullopt};
  ScopedVariable language{"LANG", std::nullopt};
};

TEST_F(CurrentLocale, ComesFromTheFirstOfThreeVariablesThatIsNotEmptyElseIsThePOSIXOne) {
  EXPECT_EQ(currentLocaleIdentifier(), "en_US_POSIX");
  const ScopedVariable lang("LANG", "de_DE.UTF-8");
  EXPECT_EQ(currentLocaleIdentifier(), "de_DE");
  const ScopedVariable timeOnly("LC_TIME", "fr_FR.UTF-8");
  EXPECT_EQ(currentLocaleIdentifier(), "fr_FR");
  const ScopedVariable everything("LC_ALL", "ar_EG.UTF-8");
  EXPECT_EQ(currentLocaleIdentifier(), "ar_EG");
  const ScopedVariable empty("LC_ALL", "");
  EXPECT_EQ(currentLocaleIdentifier(), "fr_FR");
  const ScopedVariable emptyToo("LC_TIME", "");
  EXPECT_EQ(currentLocaleIdentifier(), "de_DE");
}

TEST_F(CurrentLocale, LeavesOutEncodingAndModifier) {
  const std::pair<const char*, const char*> cases[] = {{"ar_EG.UTF-8", "ar_EG"},
                                                       {"de_DE@euro", "de_DE"},
                                                       {"ca_ES.UTF-8@valencia", "ca_ES"},
                                                       {"de", "de"},
                                                       {"C", "en_US_POSIX"},
                                                       {"POSIX", "en_US_POSIX"},
                                                       {"C.UTF-8", "en_US_POSIX"},
                                                       {"en_US_POSIX", "en_US_POSIX"}};
  for (const auto& [value, identifier] : cases) {
    const ScopedVariable set("LC_ALL", value);
    EXPECT_EQ(currentLocaleIdentifier(), identifier) << value;
  }
}

// --- Formatting

class DateFormatterTest : public testing::Test {
 protected:
  ScopedVariable zone{"TZ", "UTC"};
};

TEST_F(DateFormatterTest, WritesThePatternsFieldsWithTheLocalesDigitsAndCalendar) {
  EXPECT_EQ(formatted("en_US_POSIX"), "2016-03-01 14:05:09.123");
  EXPECT_EQ(formatted("de_DE"), "2016-03-01 14:05:09.123");
  EXPECT_EQ(formatted("ar_EG"), "٢٠١٦-٠٣-٠١ ١٤:٠٥:٠٩.١٢٣");
  EXPECT_EQ(formatted("th_TH"), "2559-03-01 14:05:09.123");
  EXPECT_EQ(formatted("fa_IR"), "۱۳۹۴-۱۲-۱۱ ۱۴:۰۵:۰۹.۱۲۳");
}

TEST_F(DateFormatterTest, CutsOffFractionsOfAMillisecond) {
  const auto formatter = DateFormatter::make("en_US_POSIX", PATTERN);
  const Date date = Date(MOMENT) + 999999ns;
  EXPECT_EQ(formatter->stringFromDate(date), "2016-03-01 14:05:09.123");
  EXPECT_EQ(formatter->stringFromDate(date + 1ns), "2016-03-01 14:05:09.124");
  EXPECT_EQ(formatter->stringFromDate(Date(0ms) - 1ns), "1969-12-31 23:59:59.999");
}

TEST_F(DateFormatterTest, WritesAllOfASecondsMilliseconds) {
  std::vector<milliseconds> moments(3000);
  std::iota(moments.begin(), moments.end(), MOMENT - 1500ms);
  for (const char* locale : {"en_US_POSIX", "ar_EG", "fa_IR"}) expectTheLibrarysTexts(locale, moments);
}

TEST_F(DateFormatterTest, WritesDatesBefore1970) {
  const auto formatter = DateFormatter::make("en_US_POSIX", PATTERN);
  EXPECT_EQ(formatter->stringFromDate(Date(-1ms)), "1969-12-31 23:59:59.999");
  EXPECT_EQ(formatter->stringFromDate(Date(-1000ms)), "1969-12-31 23:59:59.000");
  EXPECT_EQ(formatter->stringFromDate(Date(-1001ms)), "1969-12-31 23:59:58.999");
  EXPECT_EQ(formatter->stringFromDate(Date(0ms)), "1970-01-01 00:00:00.000");
}

TEST_F(DateFormatterTest, FormatsByOtherPatternsToo) {
  const auto formatter = DateFormatter::make("en_US_POSIX", "HH:mm");
  EXPECT_EQ(formatter->stringFromDate(Date(MOMENT)), "14:05");
  EXPECT_EQ(formatter->stringFromDate(Date(MOMENT + 1h)), "15:05");
  const auto middle = DateFormatter::make("ar_EG", "SSS 'ms' ss");
  EXPECT_EQ(middle->stringFromDate(Date(MOMENT)), "١٢٣ ms ٠٩");
  EXPECT_EQ(middle->stringFromDate(Date(MOMENT + 877ms)), "٠٠٠ ms ١٠");
  const auto twice = DateFormatter::make("en_US_POSIX", "SSS SSS");
  EXPECT_EQ(twice->stringFromDate(Date(MOMENT)), "123 123");
  EXPECT_EQ(twice->stringFromDate(Date(MOMENT + 1ms)), "124 124");
  const auto tenths = DateFormatter::make("en_US_POSIX", "ss.S");
  EXPECT_EQ(tenths->stringFromDate(Date(MOMENT)), "09.1");
  EXPECT_EQ(tenths->stringFromDate(Date(MOMENT + 100ms)), "09.2");
}

TEST(DateFormatterLocales, AgreeWithTheLibraryOnManyDates) {
  const ScopedVariable zone("TZ", "Europe/Berlin");
  std::mt19937_64 random(8806);
  // Four millennia around the epoch are more than a clock can hold; take what it holds.
  std::uniform_int_distribution<std::int64_t> dates(-9'000'000'000'000, 9'000'000'000'000);
  std::vector<milliseconds> moments;
  for (int i = 0; i < 500; ++i) {
    const milliseconds moment(dates(random));
    const milliseconds second = std::chrono::floor<std::chrono::seconds>(moment);
    // The date, its second's ends and the second before: kept texts are used, left and taken up again.
    moments.insert(moments.end(), {moment, second, second + 999ms, second - 1ms, second + 1000ms, moment});
  }
  std::istringstream locales(
      "en_US_POSIX en_US de_DE ar_EG ar_SA fa_IR th_TH hi_IN mr_IN bn_BD ne_NP my_MM ur_PK ps_AF ckb_IQ dz_BT sat_IN "
      "ff_Adlm ja_JP he_IL am_ET xx_YY en@numbers=mathsanb zh@numbers=hanidec en@numbers=roman en@calendar=hebrew "
      "ja@calendar=japanese en@calendar=ethiopic");
  for (std::string locale; locales >> locale;) expectTheLibrarysTexts(locale, moments);
}

/// The library's locales, and every language and country.
std::vector<std::string> manyLocales() {
  std::vector<std::string> names;
  std::int32_t count = 0;
  const icu::Locale* locales = icu::Locale::getAvailableLocales(count);
  for (std::int32_t i = 0; i < count; ++i) names.emplace_back(locales[i].getName());
  for (const char* const* language = icu::Locale::getISOLanguages(); *language; ++language)
    names.emplace_back(*language);
  for (const char* const* country = icu::Locale::getISOCountries(); *country; ++country)
    for (const char* language : {"en_", "ar_", "xx_"}) names.push_back(std::string(language) + *country);
  return names;
}

TEST_F(DateFormatterTest, AgreesWithTheLibraryInEveryLocale) {
  // The ends of what a clock can hold, of the epoch's day, of leap years and days, of other calendars' years.
  std::vector<milliseconds> moments = {MOMENT};
  for (const milliseconds end :
       {-9'223'372'036'854ms, -2'208'988'800'001ms, -1ms, 0ms, 951'782'399'999ms, 1'710'892'800'000ms,
        1'735'689'599'000ms, 1'767'225'600'000ms, 4'107'542'400'010ms, 9'223'372'036'854ms}) {
    moments.push_back(end);
  }
  const auto locales = manyLocales();
  ASSERT_GT(locales.size(), 1500U);
  const icu::Locale own = icu::Locale::getDefault();
  for (const char* usual : {"en_US_POSIX", "fa_IR"}) {  // which the library takes for an unknown language
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(usual, status);
    for (const auto& name : locales) expectTheLibrarysTexts(name, moments);
    icu::Locale::setDefault(own, status);
  }
}

class DateFormatterZones : public testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(, DateFormatterZones,
                         testing::Values("America/New_York", "Europe/Berlin", "Australia/Lord_Howe", "Asia/Kathmandu",
                                         "Africa/Monrovia", "Pacific/Apia"));

TEST_P(DateFormatterZones, AgreesWithTheLibraryThroughAllChangesOfAYear) {
  const ScopedVariable zone("TZ", GetParam());
  std::vector<milliseconds> moments;
  for (const milliseconds start : {1293836400000ms /* 2011 */, 63072000000ms /* 1972 */})
    for (milliseconds moment = start; moment < start + 24h * 366; moment += 30min)
      moments.insert(moments.end(), {moment - 1ms, moment, moment + 1ms});
  expectTheLibrarysTexts("en_US_POSIX", moments);
}

TEST(DateFormatterZone, IsTheSystemsWithItsSummerTime) {
  const ScopedVariable zone("TZ", "America/New_York");
  const auto formatter = DateFormatter::make("en_US_POSIX", PATTERN);
  // 2021-03-14 07:00 UTC: the clock goes from 2 to 3.
  EXPECT_EQ(formatter->stringFromDate(Date(1615705199999ms)), "2021-03-14 01:59:59.999");
  EXPECT_EQ(formatter->stringFromDate(Date(1615705200000ms)), "2021-03-14 03:00:00.000");
  // 2021-11-07 06:00 UTC: the clock goes from 2 back to 1.
  EXPECT_EQ(formatter->stringFromDate(Date(1636264799999ms)), "2021-11-07 01:59:59.999");
  EXPECT_EQ(formatter->stringFromDate(Date(1636264800000ms)), "2021-11-07 01:00:00.000");
}

/// The zones of the system's data, by the names that TZ takes.
std::vector<std::string> zonesOfTheSystem() {
  const fs::path folder = "/usr/share/zoneinfo";
  std::vector<std::string> zones;
  for (const auto& entry : fs::recursive_directory_iterator(folder))
    if (entry.is_regular_file() && test::readFile(entry.path()).starts_with("TZif"))
      zones.push_back(fs::relative(entry.path(), folder).string());
  std::sort(zones.begin(), zones.end());
  return zones;
}

/// Every fifth day of 2026, at various times of the day.
std::vector<milliseconds> instantsOfAYear() {
  std::vector<milliseconds> instants;
  for (int i = 0; i < 73; ++i) instants.push_back(1767225600000ms + i * 24h * 5 + i * 1183123ms);
  return instants;
}

/// The output of the program `date`, a line for each of `instants` in each of `zones`, to the second.
std::string writtenByDate(const std::vector<std::string>& zones, const std::vector<milliseconds>& instants) {
  const test::TemporaryFolder folder;
  std::ofstream zoneList(folder / "zones");
  for (const auto& zone : zones) zoneList << zone << std::endl;  // the program reads it next
  std::ofstream instantList(folder / "instants");
  for (const auto& instant : instants) instantList << '@' << instant.count() / 1000 << std::endl;
  const std::string command = "cd '" + folder.path().string() +
                              "' && while read -r zone; do TZ=$zone date -f instants '+%Y-%m-%d %H:%M:%S'; "
                              "done < zones > dates";
  EXPECT_EQ(std::system(command.c_str()), 0);
  return test::readFile(folder / "dates");
}

/// The zones in which dates differ from what the program `date` writes, each with the first pair that does.
std::vector<std::string> zonesThatDiffer(const std::vector<std::string>& zones) {
  const auto instants = instantsOfAYear();
  std::istringstream dates(writtenByDate(zones, instants));
  std::vector<std::string> differ;
  for (const auto& name : zones) {
    const ScopedVariable zone("TZ", name);
    const auto formatter = DateFormatter::make("en_US_POSIX", "yyyy-MM-dd HH:mm:ss");
    const auto withFraction = DateFormatter::make("en_US_POSIX", PATTERN);
    std::string difference;
    for (const auto& instant : instants) {
      std::string expected = "nothing";
      std::getline(dates, expected);
      const auto written = formatter->stringFromDate(Date(instant));
      const auto whole = withFraction->stringFromDate(Date(instant));
      if (difference.empty() && (written != expected || !whole.starts_with(expected + ".")))
        difference = name + ": " + whole + " instead of " + expected;
    }
    if (!difference.empty()) differ.push_back(difference);
  }
  EXPECT_EQ(dates.peek(), EOF) << "the program wrote more dates";
  return differ;
}

TEST(DateFormatterZone, AgreesWithTheProgramDateInEveryZoneOfTheSystem) {
  const auto zones = zonesOfTheSystem();
  ASSERT_GT(zones.size(), 400u) << "is tzdata installed?";
  EXPECT_THAT(zonesThatDiffer(zones), testing::IsEmpty());
}

TEST(DateFormatterZone, MayBeDescribedInsteadOfNamed) {
  EXPECT_THAT(zonesThatDiffer({"EST5EDT,M3.2.0,M11.1.0", "<+0330>-3:30", "NZST-12NZDT,M9.5.0,M4.1.0/3", "XYZ-0:00:07",
                               ":Europe/Berlin", "/usr/share/zoneinfo/Asia/Tokyo", "Nowhere/AtAll", ""}),
              testing::IsEmpty());
  const ScopedVariable zone("TZ", "<+0330>-3:30");
  EXPECT_EQ(formatted("en_US_POSIX"), "2016-03-01 17:35:09.123");
}

/// Makes `zone` the system's for this process, which has a separate mount namespace.
bool setSystemZone(const std::string& zone) {
  return ::mount(("/usr/share/zoneinfo/" + zone).c_str(), "/etc/localtime", nullptr, MS_BIND, nullptr) == 0;
}

TEST(DateFormatterZone, IsTheSystemsOwnWithoutAVariableAndFollowsItsChanges) {
  constexpr int NOT_ALLOWED = 100;
  const ScopedVariable none("TZ", std::nullopt);
  test::ChildProcess traveller([] {
    const bool apart = ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    if (!apart || !setSystemZone("Asia/Tokyo")) return NOT_ALLOWED;
    const auto formatter = DateFormatter::make("en_US_POSIX", PATTERN);
    const auto before = formatter->stringFromDate(Date(MOMENT));
    if (!setSystemZone("Asia/Kathmandu")) return NOT_ALLOWED;
    const auto after = formatter->stringFromDate(Date(MOMENT + 1000ms));
    return (before == "2016-03-01 23:05:09.123" ? 1 : 0) + (after == "2016-03-01 19:50:10.123" ? 2 : 0);
  });
  const int result = traveller.wait();
  if (result == NOT_ALLOWED) GTEST_SKIP() << "needs root and mount namespaces";
  EXPECT_EQ(result, 3);
}

TEST(DateFormatterZone, IsFollowedWhenItChanges) {
  const ScopedVariable utc("TZ", "UTC");
  const auto formatter = DateFormatter::make("en_US_POSIX", PATTERN);
  EXPECT_EQ(formatter->stringFromDate(Date(MOMENT)), "2016-03-01 14:05:09.123");
  const ScopedVariable tokyo("TZ", "Asia/Tokyo");
  EXPECT_EQ(formatter->stringFromDate(Date(MOMENT + 1000ms)), "2016-03-01 23:05:10.123");
}

TEST(DateFormatterZone, KeepsTheLocalesDigitsAndCalendar) {
  const ScopedVariable zone("TZ", "<+0330>-3:30");
  EXPECT_EQ(formatted("ar_EG"), "٢٠١٦-٠٣-٠١ ١٧:٣٥:٠٩.١٢٣");
  EXPECT_EQ(formatted("th_TH"), "2559-03-01 17:35:09.123");
  EXPECT_EQ(formatted("fa_IR", MOMENT + 8h), "۱۳۹۴-۱۲-۱۲ ۰۱:۳۵:۰۹.۱۲۳");
}

// --- A date's own description

TEST(DateDescription, IsInUniversalTimeCutToTheSecondBefore1970Too) {
  const ScopedVariable zone("TZ", "Asia/Kathmandu");
  EXPECT_EQ(dateDescription(Date(MOMENT)), "2016-03-01 14:05:09 +0000");
  EXPECT_EQ(dateDescription(Date(999ms)), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(dateDescription(Date(0ms)), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(dateDescription(Date(-1ms)), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(dateDescription(Date(-1000ms)), "1969-12-31 23:59:59 +0000");
}

}  // namespace
}  // namespace vornet::platform
