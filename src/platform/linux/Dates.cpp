#include <unicode/dcfmtsym.h>
#include <unicode/fieldpos.h>
#include <unicode/simpletz.h>
#include <unicode/smpdtfmt.h>

#include <cstdlib>
#include <ctime>
#include <mutex>

#include "platform/Foundation.hpp"

namespace vornet::platform {
namespace {

using std::chrono::floor;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr std::string_view POSIX_LOCALE = "en_US_POSIX";

/// How far the system's time zone is ahead of universal time at `second`. The library brings zone data of its own,
/// which is older than the system's and knows no zones described by rules.
seconds offsetAt(seconds second) {
  using namespace std::chrono;
  static std::mutex& oneAtATime = *new std::mutex;  // as in the C library, where the thread sanitizer cannot see it
  const std::lock_guard guard(oneAtATime);
  ::tzset();  // notices when the system's zone has changed
  const auto time = static_cast<std::time_t>(second.count());
  std::tm local{};
  if (!::localtime_r(&time, &local)) return seconds(0);
  // From the fields, as zones that count leap seconds are ahead by other than they say.
  const sys_days day = year(local.tm_year + 1900) / (local.tm_mon + 1) / local.tm_mday;
  return day.time_since_epoch() + hours(local.tm_hour) + minutes(local.tm_min) + seconds(local.tm_sec) - second;
}

std::string utf8(const icu::UnicodeString& text) {
  std::string out;
  text.toUTF8String(out);
  return out;
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

/// Formatting by ICU costs more than a microsecond, and the lines of a log come many a second: the text of a second is
/// kept, and only its three digits of milliseconds are replaced.
struct DateFormatter::Impl {
  explicit Impl(std::unique_ptr<icu::SimpleDateFormat> made) : format(std::move(made)) {}

  std::unique_ptr<icu::SimpleDateFormat> format;
  std::string digits[10];
  std::optional<seconds> offset;  // of the zone that `format` has
  bool splits = false;  // whether texts can be put together: three digits of milliseconds, of one code point each

  seconds second{seconds::min()};
  std::string before;  // the text of `second` up to its milliseconds, and after them
  std::string after;

  void setZoneAt(seconds moment) {
    const seconds now = offsetAt(moment);
    if (offset == now) return;
    offset = now;
    const auto ahead = std::chrono::duration_cast<std::chrono::duration<std::int32_t, std::milli>>(now);
    format->adoptTimeZone(new icu::SimpleTimeZone(ahead.count(), icu::UnicodeString("System")));
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
    // Put together for milliseconds of which every digit is another, it must be what the library writes: a pattern may
    // hold them twice, or otherwise.
    const auto next = [](auto digit) { return (digit + 1) % 10; };
    const auto value = part.count();
    const milliseconds other(next(value / 100) * 100 + next(value / 10 % 10) * 10 + next(value % 10));
    return composed(other) == formatted(date - part + other);
  }
};

DateFormatter::DateFormatter(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
DateFormatter::~DateFormatter() = default;

std::unique_ptr<DateFormatter> DateFormatter::make(const std::string& localeIdentifier, std::string_view pattern) {
  UErrorCode status = U_ZERO_ERROR;
  auto format = std::make_unique<icu::SimpleDateFormat>(
      icu::UnicodeString::fromUTF8(icu::StringPiece(pattern.data(), static_cast<std::int32_t>(pattern.size()))),
      icu::Locale::createCanonical(localeIdentifier.c_str()), status);
  if (U_FAILURE(status)) return nullptr;
  auto impl = std::make_unique<Impl>(std::move(format));
  impl->readDigits();
  return std::unique_ptr<DateFormatter>(new DateFormatter(std::move(impl)));
}

std::string DateFormatter::stringFromDate(Date date) {
  Impl& impl = *impl_;
  const auto whole = floor<milliseconds>(date.time_since_epoch());
  const auto second = floor<seconds>(whole);
  const milliseconds part = whole - second;
  if (impl.second != second || !impl.splits) impl.setZoneAt(second);
  if (impl.splits && impl.second != second) {
    impl.splits = impl.split(whole, part);
    impl.second = second;
  }
  if (!impl.splits) return impl.formatted(whole);
  return impl.composed(part);
}

}  // namespace vornet::platform
