#include <unicode/dcfmtsym.h>
#include <unicode/fieldpos.h>
#include <unicode/localpointer.h>
#include <unicode/numsys.h>
#include <unicode/simpletz.h>
#include <unicode/smpdtfmt.h>
#include <unicode/ucal.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <mutex>
#include <utility>

#include "platform/Foundation.hpp"

namespace vornet::platform {
namespace {

using std::chrono::floor;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::string_view POSIX_LOCALE = "en_US_POSIX";

/// The system time zone's offset from universal time at `second`. ICU brings its own zone data, which is older than
/// the system's and knows no zones described by rules.
seconds offsetAt(seconds second) {
  using namespace std::chrono;
  static std::mutex& oneAtATime = *new std::mutex;  // as in the C library, where the thread sanitizer cannot see it
  const std::lock_guard guard(oneAtATime);
  ::tzset();  // notices when the system's zone has changed
  const auto time = static_cast<std::time_t>(second.count());
  std::tm local{};
  if (!::localtime_r(&time, &local)) return seconds(0);
  // From the fields: the stated offset of zones that count leap seconds is wrong.
  const sys_days day = year(local.tm_year + 1900) / (local.tm_mon + 1) / local.tm_mday;
  return day.time_since_epoch() + hours(local.tm_hour) + minutes(local.tm_min) + seconds(local.tm_sec) - second;
}

std::string utf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
}

bool isGregorian(const icu::Locale& locale) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::LocalUEnumerationPointer calendars(
      ucal_getKeywordValuesForLocale("calendar", locale.getBaseName(), true, &status));
  const char* usual = U_SUCCESS(status) ? uenum_next(calendars.getAlias(), nullptr, &status) : nullptr;
  return usual && std::string_view(usual) == "gregorian";
}

}  // namespace

std::string currentLocaleIdentifier() {
  for (const char* variable : {"LC_ALL", "LC_TIME", "LANG"}) {
    const char* value = std::getenv(variable);
    if (!value || !*value) continue;
    std::string_view name(value);
    name = name.substr(0, name.find_first_of(".@"));  // "ar_EG.UTF-8" names a locale and an encoding
    return std::string(name == "C" || name == "POSIX" ? POSIX_LOCALE : name);
  }
  return std::string(POSIX_LOCALE);
}

std::string dateDescription(Date date) {
  const std::time_t time = std::chrono::system_clock::to_time_t(floor<seconds>(date));
  std::tm parts{};
  ::gmtime_r(&time, &parts);
  char text[64];
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S +0000", &parts));
}

/// Formatting by ICU costs more than a microsecond, and many log lines share a second. So the text of a second is kept,
/// and only its three digits of milliseconds are replaced. Most locales have the Gregorian calendar and ten digits:
/// their dates are written without ICU's formatter, which would take two megabytes of memory.
struct DateFormatter::Impl {
  Impl(const icu::Locale& in, std::string_view by) : locale(in), pattern(by) {}

  const icu::Locale locale;
  const std::string pattern;
  std::unique_ptr<icu::SimpleDateFormat> format;  // null where it is not needed
  std::string digits[10];
  std::optional<seconds> offset;  // of the system's zone
  bool splits = false;            // milliseconds can be replaced: three digits, of one code point each

  seconds second{seconds::min()};
  std::string before;  // the text of `second` up to its milliseconds, and after them
  std::string after;

  /// True if `pattern` in `locale` needs no ICU formatter.
  bool makePlain() {
    UErrorCode status = U_ZERO_ERROR;
    const bool hasKeywords = std::string_view(locale.getName()).find('@') != std::string_view::npos;
    const std::unique_ptr<icu::NumberingSystem> system(icu::NumberingSystem::createInstance(locale, status));
    if (hasKeywords || U_FAILURE(status) || system->isAlgorithmic() || !isGregorian(locale)) return false;
    const icu::UnicodeString symbols = system->getDescription();
    if (symbols.countChar32() != 10) return false;
    for (int digit = 0; digit < 10; ++digit)
      digits[digit] = utf8(icu::UnicodeString(symbols.char32At(symbols.moveIndex32(0, digit))));
    splits = writePlain(seconds(0));
    return splits;
  }

  bool makeFormat() {
    UErrorCode status = U_ZERO_ERROR;
    format = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString::fromUTF8(pattern), locale, status);
    if (U_FAILURE(status)) return false;
    readDigits();
    return true;
  }

  void setZoneAt(seconds moment) {
    const seconds now = offsetAt(moment);
    if (offset == now) return;
    offset = now;
    if (!format) return;
    const auto ahead = std::chrono::duration_cast<std::chrono::duration<std::int32_t, std::milli>>(now);
    format->adoptTimeZone(new icu::SimpleTimeZone(ahead.count(), icu::UnicodeString("System")));
  }

  std::string written(int value, std::size_t width) const {
    std::string text;
    for (; width > 0; --width, value /= 10) text.insert(0, digits[value % 10]);
    return text;
  }

  /// Writes the text of the local time `moment`; false when `pattern` has other fields than those below, or
  /// milliseconds not once.
  bool writePlain(seconds moment) {
    const auto day = floor<std::chrono::days>(moment);
    const std::chrono::year_month_day date{std::chrono::sys_days(day)};
    const std::chrono::hh_mm_ss time(moment - day);
    const std::pair<std::string_view, int> fields[] = {
        {"yyyy", static_cast<int>(date.year())},          {"MM", static_cast<int>(unsigned{date.month()})},
        {"dd", static_cast<int>(unsigned{date.day()})},   {"HH", static_cast<int>(time.hours().count())},
        {"mm", static_cast<int>(time.minutes().count())}, {"ss", static_cast<int>(time.seconds().count())}};
    before.clear();
    after.clear();
    std::string* text = &before;
    for (std::size_t at = 0; at < pattern.size();) {
      const auto next = std::min(pattern.find_first_not_of(pattern[at], at), pattern.size());
      const auto piece = std::string_view(pattern).substr(at, next - at);
      const auto* const field =
          std::find_if(std::begin(fields), std::end(fields), [&](const auto& known) { return known.first == piece; });
      if (field != std::end(fields))
        *text += written(field->second, piece.size());
      else if (piece == "SSS" && text == &before)
        text = &after;
      else if (piece.find_first_not_of("-: .") == std::string_view::npos)
        *text += piece;
      else
        return false;
      at = next;
    }
    return text == &after;
  }

  std::string formatted(milliseconds date) const {
    icu::UnicodeString text;
    format->format(static_cast<UDate>(date.count()), text);
    return utf8(text);
  }

  void readDigits() {
    UErrorCode status = U_ZERO_ERROR;
    const icu::DecimalFormatSymbols symbols(format->getSmpFmtLocale(), status);
    if (U_FAILURE(status)) return;
    for (int digit = 0; digit < 10; ++digit) {
      const auto symbol = digit == 0 ? icu::DecimalFormatSymbols::kZeroDigitSymbol
                                     : static_cast<icu::DecimalFormatSymbols::ENumberFormatSymbol>(
                                           icu::DecimalFormatSymbols::kOneDigitSymbol + digit - 1);
      digits[digit] = utf8(symbols.getConstSymbol(symbol));
    }
    splits = true;
  }

  std::string fraction(milliseconds part) const {
    const auto value = static_cast<int>(part.count());
    return digits[value / 100] + digits[value / 10 % 10] + digits[value % 10];
  }

  std::string composed(milliseconds part) const { return before + fraction(part) + after; }

  /// Takes the text of the second of `date` apart; false when it does not hold the milliseconds once, as three digits.
  bool split(milliseconds date, milliseconds part) {
    icu::UnicodeString text;
    icu::FieldPosition field(UDAT_FRACTIONAL_SECOND_FIELD);
    format->format(static_cast<UDate>(date.count()), text, field);
    if (utf8(text.tempSubStringBetween(field.getBeginIndex(), field.getEndIndex())) != fraction(part)) return false;
    before = utf8(text.tempSubStringBetween(0, field.getBeginIndex()));
    after = utf8(text.tempSubString(field.getEndIndex()));
    // Assembled for milliseconds of three different digits, it must equal the library's text: a pattern may hold them
    // twice, or differently.
    const auto next = [](auto digit) { return (digit + 1) % 10; };
    const auto value = part.count();
    const milliseconds other(next(value / 100) * 100 + next(value / 10 % 10) * 10 + next(value % 10));
    return composed(other) == formatted(date - part + other);
  }
};

DateFormatter::DateFormatter(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
DateFormatter::~DateFormatter() = default;

std::unique_ptr<DateFormatter> DateFormatter::make(const std::string& localeIdentifier, std::string_view pattern) {
  auto impl = std::make_unique<Impl>(icu::Locale::createCanonical(localeIdentifier.c_str()), pattern);
  if (!impl->makePlain() && !impl->makeFormat()) return nullptr;
  return std::unique_ptr<DateFormatter>(new DateFormatter(std::move(impl)));
}

std::string DateFormatter::stringFromDate(Date date) {
  Impl& impl = *impl_;
  const auto whole = floor<milliseconds>(date.time_since_epoch());
  const auto second = floor<seconds>(whole);
  const milliseconds part = whole - second;
  if (impl.second != second || !impl.splits) impl.setZoneAt(second);
  if (impl.splits && impl.second != second) {
    impl.splits = impl.format ? impl.split(whole, part) : impl.writePlain(second + *impl.offset);
    impl.second = second;
  }
  if (!impl.splits) return impl.formatted(whole);
  return impl.composed(part);
}

}  // namespace vornet::platform
