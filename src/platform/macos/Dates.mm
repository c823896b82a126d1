#import "platform/macos/Cocoa.hpp"

namespace vornet::platform {
namespace {

using std::chrono::duration;
using std::chrono::milliseconds;

/// The platform counts seconds in floating point, where a millisecond seldom is exact: a quarter of one more keeps the
/// digits right, whether the formatter cuts or rounds.
NSDate* dateObject(Date date) {
  const auto whole = std::chrono::floor<milliseconds>(date.time_since_epoch());
  return [NSDate dateWithTimeIntervalSince1970:duration<double>(whole).count() + 0.00025];
}

}  // namespace

std::string currentLocaleIdentifier() {
  @autoreleasepool {
    return cocoa::text([[NSLocale currentLocale] localeIdentifier]).value_or("");
  }
}

std::string dateDescription(Date date) {
  @autoreleasepool {
    return cocoa::text([dateObject(date) description]).value_or("");
  }
}

struct DateFormatter::Impl {
  explicit Impl(NSDateFormatter* made) : formatter(made) {}
  ~Impl() { [formatter release]; }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  NSDateFormatter* const formatter;  // owned
};

DateFormatter::DateFormatter(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
DateFormatter::~DateFormatter() = default;

std::unique_ptr<DateFormatter> DateFormatter::make(const std::string& localeIdentifier, std::string_view pattern) {
  @autoreleasepool {
    NSString* identifier = cocoa::string(localeIdentifier);
    NSString* format = cocoa::string(pattern);
    if (!identifier || !format) return nullptr;
    NSLocale* locale = VORNET_AUTORELEASED([[NSLocale alloc] initWithLocaleIdentifier:identifier]);
    NSDateFormatter* formatter = [[NSDateFormatter alloc] init];
    if (!formatter) return nullptr;
    auto impl = std::make_unique<Impl>(formatter);
    [formatter setLocale:locale];
    [formatter setDateFormat:format];
    return std::unique_ptr<DateFormatter>(new DateFormatter(std::move(impl)));
  }
}

std::string DateFormatter::stringFromDate(Date date) {
  @autoreleasepool {
    return cocoa::text([impl_->formatter stringFromDate:dateObject(date)]).value_or("");
  }
}

}  // namespace vornet::platform
