#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unicode/smpdtfmt.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <sstream>
#include <vector>

#include "platform/Foundation.hpp"
#include "support/ChildProcess.hpp"
#include "support/Environment.hpp"

namespace vornet::platform {
namespace {

namespace fs = std::filesystem;
using std::chrono::hours;
using std::chrono::milliseconds;
using test::ScopedVariable;

constexpr std::string_view PATTERN = "yyyy-MM-dd HH:mm:ss.SSS";

// 2016-03-01 14:05:09.123 UTC
constexpr milliseconds MOMENT{1456841109123};

Date dateAt(milliseconds sinceEpoch) {
  return Date(sinceEpoch);
}

std::string formatted(const std::string& locale, milliseconds moment = MOMENT) {
  return DateFormatter::make(locale, PATTERN)->stringFromDate(dateAt(moment));
}

/// The same by the library alone.
class Reference {
 public:
  explicit Reference(const std::string& locale)
      : format_(icu::UnicodeString::fromUTF8(icu::StringPiece(PATTERN.data(), static_cast<int>(PATTERN.size()))),
                icu::Locale::createCanonical(locale.c_str()), status_) {
    EXPECT_TRUE(U_SUCCESS(status_)) << locale;
  }
  std::string operator()(milliseconds moment) const {
    icu::UnicodeString text;
    std::string out;
    return format_.format(static_cast<UDate>(moment.count()), text).toUTF8String(out);
  }

 private:
  UErrorCode status_ = U_ZERO_ERROR;
  icu::SimpleDateFormat format_;
};

// --- The current locale

class CurrentLocale : public testing::Test {
 protected:
  ScopedVariable all{"LC_ALL", std::nullopt};
  ScopedVariable time{"LC_TIME", std::nullopt};
  ScopedVariable language{"LANG", std::nullopt};
};

TEST_F(CurrentLocale, IsThePOSIXOneWhenNothingIsSet) {
  EXPECT_EQ(currentLocaleIdentifier(), "en_US_POSIX");
}

TEST_F(CurrentLocale, ComesFromTheFirstOfThreeVariablesThatIsNotEmpty) {
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

TEST_F(DateFormatterTest, WritesThePatternsFields) {
  EXPECT_EQ(formatted("en_US_POSIX"), "2016-03-01 14:05:09.123");
  EXPECT_EQ(formatted("de_DE"), "2016-03-01 14:05:09.123");
}

TEST_F(DateFormatterTest, WritesTheLocalesDigitsAndCalendar) {
  EXPECT_EQ(formatted("ar_EG"), "٢٠١٦-٠٣-٠١ ١٤:٠٥:٠٩.١٢٣");
  EXPECT_EQ(formatted("th_TH"), "2559-03-01 14:05:09.123");
  EXPECT_EQ(formatted("fa_IR"), "۱۳۹۴-۱۲-۱۱ ۱۴:۰۵:۰۹.۱۲۳");
}

TEST_F(DateFormatterTest, CutsOffFractionsOfAMillisecond) {
  const auto formatter = DateFormatter::make("en_US_POSIX", PATTERN);
  const Date date = dateAt(MOMENT) + std::chrono::nanoseconds(999999);
  EXPECT_EQ(formatter->stringFromDate(date), "2016-03-01 14:05:09.123");
  EXPECT_EQ(formatter->stringFromDate(date + std::chrono::nanoseconds(1)), "2016-03-01 14:05:09.124");
  EXPECT_EQ(formatter->stringFromDate(dateAt(milliseconds(0)) - std::chrono::nanoseconds(1)),
            "1969-12-31 23:59:59.999");
}

TEST_F(DateFormatterTest, WritesAllOfASecondsMilliseconds) {
  for (const char* locale : {"en_US_POSIX", "ar_EG", "fa_IR"}) {
    const auto formatter = DateFormatter::make(locale, PATTERN);
    const Reference reference(locale);
    for (milliseconds moment = MOMENT - milliseconds(1500); moment < MOMENT + milliseconds(1500);
         moment += milliseconds(1)) {
      ASSERT_EQ(formatter->stringFromDate(dateAt(moment)), reference(moment)) << locale << ' ' << moment.count();
    }
  }
}

TEST_F(DateFormatterTest, WritesDatesBefore1970) {
  const auto formatter = DateFormatter::make("en_US_POSIX", PATTERN);
  EXPECT_EQ(formatter->stringFromDate(dateAt(milliseconds(-1))), "1969-12-31 23:59:59.999");
  EXPECT_EQ(formatter->stringFromDate(dateAt(milliseconds(-1000))), "1969-12-31 23:59:59.000");
  EXPECT_EQ(formatter->stringFromDate(dateAt(milliseconds(-1001))), "1969-12-31 23:59:58.999");
  EXPECT_EQ(formatter->stringFromDate(dateAt(milliseconds(0))), "1970-01-01 00:00:00.000");
}

TEST_F(DateFormatterTest, FormatsByOtherPatternsToo) {
  const auto formatter = DateFormatter::make("en_US_POSIX", "HH:mm");
  EXPECT_EQ(formatter->stringFromDate(dateAt(MOMENT)), "14:05");
  EXPECT_EQ(formatter->stringFromDate(dateAt(MOMENT + hours(1))), "15:05");
  const auto middle = DateFormatter::make("ar_EG", "SSS 'ms' ss");
  EXPECT_EQ(middle->stringFromDate(dateAt(MOMENT)), "١٢٣ ms ٠٩");
  EXPECT_EQ(middle->stringFromDate(dateAt(MOMENT + milliseconds(877))), "٠٠٠ ms ١٠");
  const auto twice = DateFormatter::make("en_US_POSIX", "SSS SSS");
  EXPECT_EQ(twice->stringFromDate(dateAt(MOMENT)), "123 123");
  EXPECT_EQ(twice->stringFromDate(dateAt(MOMENT + milliseconds(1))), "124 124");
  const auto tenths = DateFormatter::make("en_US_POSIX", "ss.S");
  EXPECT_EQ(tenths->stringFromDate(dateAt(MOMENT)), "09.1");
  EXPECT_EQ(tenths->stringFromDate(dateAt(MOMENT + milliseconds(100))), "09.2");
}

class DateFormatterLocales : public testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(, DateFormatterLocales,
                         testing::Values("en_US_POSIX", "en_US", "de_DE", "ar_EG", "ar_SA", "fa_IR", "th_TH", "hi_IN",
                                         "mr_IN", "bn_BD", "ne_NP", "my_MM", "ur_PK", "ps_AF", "ckb_IQ", "dz_BT",
                                         "sat_IN", "ff_Adlm", "ja_JP", "he_IL", "am_ET", "xx_YY", "en@numbers=mathsanb",
                                         "zh@numbers=hanidec", "en@numbers=roman", "en@calendar=hebrew",
                                         "ja@calendar=japanese", "en@calendar=ethiopic"));

TEST_P(DateFormatterLocales, AgreesWithTheLibraryOnManyDates) {
  const ScopedVariable zone("TZ", "Europe/Berlin");
  const std::string locale = GetParam();
  const auto formatter = DateFormatter::make(locale, PATTERN);
  ASSERT_NE(formatter, nullptr);
  const Reference reference(locale);
  std::mt19937_64 random(8806);
  // Four millennia around the epoch are more than a clock can hold; take what it holds.
  std::uniform_int_distribution<std::int64_t> moments(-9'000'000'000'000, 9'000'000'000'000);
  for (int i = 0; i < 500; ++i) {
    const milliseconds moment(moments(random));
    const auto second = std::chrono::floor<std::chrono::seconds>(moment);
    // The date, its second's ends and the second before: kept texts are used, left and taken up again.
    for (const milliseconds near : {moment, milliseconds(second), second + milliseconds(999), second - milliseconds(1),
                                    second + milliseconds(1000), moment}) {
      ASSERT_EQ(formatter->stringFromDate(dateAt(near)), reference(near)) << near.count();
    }
  }
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
  const milliseconds moments[] = {milliseconds(-9'223'372'036'854),
                                  milliseconds(-2'208'988'800'001),
                                  milliseconds(-1),
                                  milliseconds(0),
                                  milliseconds(951'782'399'999),
                                  MOMENT,
                                  milliseconds(1'710'892'800'000),
                                  milliseconds(1'735'689'599'000),
                                  milliseconds(1'767'225'600'000),
                                  milliseconds(4'107'542'400'010),
                                  milliseconds(9'223'372'036'854)};
  const auto locales = manyLocales();
  ASSERT_GT(locales.size(), 1500U);
  const icu::Locale own = icu::Locale::getDefault();
  for (const char* usual : {"en_US_POSIX", "fa_IR"}) {  // which the library takes for an unknown language
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(usual, status);
    for (const auto& name : locales) {
      const auto formatter = DateFormatter::make(name, PATTERN);
      const Reference reference(name);
      for (const auto& moment : moments)
        ASSERT_EQ(formatter->stringFromDate(dateAt(moment)), reference(moment)) << name << ' ' << moment.count();
    }
    icu::Locale::setDefault(own, status);
  }
}

class DateFormatterZones : public testing::TestWithParam<const char*> {};

INSTANTIATE_TEST_SUITE_P(, DateFormatterZones,
                         testing::Values("America/New_York", "Europe/Berlin", "Australia/Lord_Howe", "Asia/Kathmandu",
                                         "Africa/Monrovia", "Pacific/Apia"));

TEST_P(DateFormatterZones, AgreesWithTheLibraryThroughAllChangesOfAYear) {
  const ScopedVariable zone("TZ", GetParam());
  const auto formatter = DateFormatter::make("en_US_POSIX", PATTERN);
  const Reference reference("en_US_POSIX");
  for (const milliseconds start : {milliseconds(1293836400000) /* 2011 */, milliseconds(63072000000) /* 1972 */}) {
    for (milliseconds moment = start; moment < start + hours(24 * 366); moment += std::chrono::minutes(30)) {
      for (const int offset : {-1, 0, 1}) {
        const milliseconds near = moment + milliseconds(offset);
        ASSERT_EQ(formatter->stringFromDate(dateAt(near)), reference(near)) << near.count();
      }
    }
  }
}

TEST(DateFormatterZone, IsTheSystemsWithItsSummerTime) {
  const ScopedVariable zone("TZ", "America/New_York");
  const auto formatter = DateFormatter::make("en_US_POSIX", PATTERN);
  // 2021-03-14 07:00 UTC: the clock goes from 2 to 3.
  EXPECT_EQ(formatter->stringFromDate(dateAt(milliseconds(1615705199999))), "2021-03-14 01:59:59.999");
  EXPECT_EQ(formatter->stringFromDate(dateAt(milliseconds(1615705200000))), "2021-03-14 03:00:00.000");
  // 2021-11-07 06:00 UTC: the clock goes from 2 back to 1.
  EXPECT_EQ(formatter->stringFromDate(dateAt(milliseconds(1636264799999))), "2021-11-07 01:59:59.999");
  EXPECT_EQ(formatter->stringFromDate(dateAt(milliseconds(1636264800000))), "2021-11-07 01:00:00.000");
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
  for (int i = 0; i < 73; ++i)
    instants.push_back(milliseconds(1767225600000) + i * hours(5 * 24) + i * milliseconds(1183123));
  return instants;
}

/// The output of the program `date` for each of `instants` in each of `zones`, to the second.
std::vector<std::string> writtenByDate(const std::vector<std::string>& zones,
                                       const std::vector<milliseconds>& instants) {
  const test::TemporaryFolder folder;
  std::string list;
  for (const auto& zone : zones) list += zone + "\n";
  test::writeFile(folder / "zones", list);
  list.clear();
  for (const auto& instant : instants) list += "@" + std::to_string(instant.count() / 1000) + "\n";
  test::writeFile(folder / "instants", list);
  const std::string command = "cd '" + folder.path().string() +
                              "' && while read -r zone; do TZ=$zone date -f instants '+%Y-%m-%d %H:%M:%S'; "
                              "done < zones > dates";
  std::vector<std::string> dates;
  if (std::system(command.c_str()) != 0) return dates;
  std::istringstream lines(test::readFile(folder / "dates"));
  for (std::string line; std::getline(lines, line);) dates.push_back(line);
  return dates;
}

/// The zones in which dates differ from what the program `date` writes, each with the first pair that does.
std::vector<std::string> zonesThatDiffer(const std::vector<std::string>& zones) {
  const auto instants = instantsOfAYear();
  const auto dates = writtenByDate(zones, instants);
  if (dates.size() != zones.size() * instants.size()) return {"the program date failed"};
  std::vector<std::string> differ;
  auto expected = dates.begin();
  for (const auto& name : zones) {
    const ScopedVariable zone("TZ", name);
    const auto formatter = DateFormatter::make("en_US_POSIX", "yyyy-MM-dd HH:mm:ss");
    const auto withFraction = DateFormatter::make("en_US_POSIX", PATTERN);
    std::string difference;
    for (const auto& instant : instants) {
      const auto written = formatter->stringFromDate(dateAt(instant));
      const auto whole = withFraction->stringFromDate(dateAt(instant));
      if (difference.empty() && (written != *expected || !whole.starts_with(*expected + ".")))
        difference = name + ": " + whole + " instead of " + *expected;
      ++expected;
    }
    if (!difference.empty()) differ.push_back(difference);
  }
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
    const auto before = formatter->stringFromDate(dateAt(MOMENT));
    if (!setSystemZone("Asia/Kathmandu")) return NOT_ALLOWED;
    const auto after = formatter->stringFromDate(dateAt(MOMENT + milliseconds(1000)));
    return (before == "2016-03-01 23:05:09.123" ? 1 : 0) + (after == "2016-03-01 19:50:10.123" ? 2 : 0);
  });
  const int result = traveller.wait();
  if (result == NOT_ALLOWED) GTEST_SKIP() << "needs root and mount namespaces";
  EXPECT_EQ(result, 3);
}

TEST(DateFormatterZone, IsFollowedWhenItChanges) {
  const ScopedVariable utc("TZ", "UTC");
  const auto formatter = DateFormatter::make("en_US_POSIX", PATTERN);
  EXPECT_EQ(formatter->stringFromDate(dateAt(MOMENT)), "2016-03-01 14:05:09.123");
  const ScopedVariable tokyo("TZ", "Asia/Tokyo");
  EXPECT_EQ(formatter->stringFromDate(dateAt(MOMENT + milliseconds(1000))), "2016-03-01 23:05:10.123");
}

TEST(DateFormatterZone, KeepsTheLocalesDigitsAndCalendar) {
  const ScopedVariable zone("TZ", "<+0330>-3:30");
  EXPECT_EQ(formatted("ar_EG"), "٢٠١٦-٠٣-٠١ ١٧:٣٥:٠٩.١٢٣");
  EXPECT_EQ(formatted("th_TH"), "2559-03-01 17:35:09.123");
  EXPECT_EQ(formatted("fa_IR", MOMENT + hours(8)), "۱۳۹۴-۱۲-۱۲ ۰۱:۳۵:۰۹.۱۲۳");
}

// --- A date's own description

TEST(DateDescription, IsInUniversalTimeToTheSecond) {
  const ScopedVariable zone("TZ", "Asia/Kathmandu");
  EXPECT_EQ(dateDescription(dateAt(MOMENT)), "2016-03-01 14:05:09 +0000");
  EXPECT_EQ(dateDescription(dateAt(milliseconds(0))), "1970-01-01 00:00:00 +0000");
}

TEST(DateDescription, CutsOffPartsOfASecondBefore1970Too) {
  EXPECT_EQ(dateDescription(dateAt(milliseconds(-1))), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(dateDescription(dateAt(milliseconds(-1000))), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(dateDescription(dateAt(milliseconds(999))), "1970-01-01 00:00:00 +0000");
}

}  // namespace
}  // namespace vornet::platform
