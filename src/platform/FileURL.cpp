// File URLs as text (RFC 8089, RFC 3986): the same on every system.
#include <algorithm>
#include <cctype>
#include <filesystem>

#include "platform/Foundation.hpp"

namespace vornet::platform {
namespace {

constexpr std::string_view SCHEME = "file:";
constexpr std::string_view AUTHORITY = "//";
constexpr std::string_view LOCAL_HOST = "localhost";
constexpr std::string_view KEPT = "-._~!$&'()*+,=:@/";  // kept unescaped in a URL's path, as are letters and digits

bool isLetterOrDigit(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/// The bytes that `text` encodes; none for a malformed escape or an escaped NUL.
std::optional<std::string> percentDecoded(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out += text[i];
      continue;
    }
    if (text.size() - i < 3) return std::nullopt;
    const int high = hexValue(text[i + 1]);
    const int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0 || (high == 0 && low == 0)) return std::nullopt;
    out += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return out;
}

bool startsWithIgnoringCase(std::string_view text, std::string_view lowerCase) {
  return text.size() >= lowerCase.size() &&
         std::equal(lowerCase.begin(), lowerCase.end(), text.begin(),
                    [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); });
}

}  // namespace

FileURL FileURL::fileURLWithPath(std::string_view path, bool isDirectory) {
  FileURL url;
  url.isDirectory_ = isDirectory;
  if (path.starts_with('/')) {
    url.path_ = path;
  } else {
    std::error_code gone;
    const auto current = std::filesystem::current_path(gone);
    if (gone) return {};
    url.path_ = (current / path).string();
  }
  while (url.path_->size() > 1 && url.path_->back() == '/') url.path_->pop_back();
  return url;
}

std::optional<FileURL> FileURL::fileURLWithText(std::string_view text) {
  if (!startsWithIgnoringCase(text, SCHEME)) return std::nullopt;
  text.remove_prefix(SCHEME.size());
  if (text.starts_with(AUTHORITY)) {
    text.remove_prefix(AUTHORITY.size());
    if (startsWithIgnoringCase(text, LOCAL_HOST)) text.remove_prefix(LOCAL_HOST.size());
  }
  if (!text.starts_with('/') || text.find_first_of("?#") != std::string_view::npos ||
      text.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  const auto path = percentDecoded(text);
  if (!path) return std::nullopt;
  if (!isValidUTF8(*path)) return FileURL();
  return fileURLWithPath(*path, path->ends_with('/'));
}

std::string FileURL::description() const {
  static constexpr char digits[] = "0123456789ABCDEF";
  if (!path_) return {};
  std::string out(SCHEME);
  out.reserve(SCHEME.size() + AUTHORITY.size() + path_->size() + 16);
  out += AUTHORITY;
  for (const char c : *path_) {
    if (isLetterOrDigit(c) || KEPT.find(c) != std::string_view::npos) {
      out += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      out.append({'%', digits[byte >> 4], digits[byte & 0xF]});
    }
  }
  if (isDirectory_ && out.back() != '/') out += '/';
  return out;
}

FileURL FileURL::appendingPathComponent(std::string_view name) const {
  if (!path_) return {};
  return fileURLWithPath(*path_ + (path_->ends_with('/') ? "" : "/") + std::string(name));
}

}  // namespace vornet::platform
