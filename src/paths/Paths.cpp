#include "paths/Paths.hpp"

namespace vornet {
namespace {

using platform::FileURL;

const std::string& requiredPath(const FileURL& url) {
  if (!url.path()) platform::fatalError("a file URL without a path");
  return *url.path();
}

std::string removingAll(std::string_view text, std::string_view part) {
  std::string result;
  if (part.empty()) return std::string(text);
  if (text.starts_with(part)) text.remove_prefix(part.size());
  for (std::size_t at; (at = text.find(part)) != std::string_view::npos; text.remove_prefix(at + part.size()))
    result += text.substr(0, at);
  result += text;
  return result;  // by itself, or it would be copied
}

}  // namespace

std::string getCloudPath(const FileURL& root, const FileURL& pathURL) {
  return getCloudPath(root, requiredPath(pathURL));
}

std::string getCloudPath(const FileURL& root, std::string_view path) {
  return removingAll(path, requiredPath(root));
}

std::string getCloudPathWithTrailingSlash(const FileURL& root, const FileURL& pathURL) {
  return getCloudPath(root, pathURL) + (isDirectory(pathURL) ? "/" : "");
}

FileURL getLocalPath(const FileURL& root, std::string_view cfsPath) {
  return FileURL::fileURLWithPath(requiredPath(root) + std::string(cfsPath));
}

FileURL getLocalPathOfObject(const FileURL& root, const std::optional<std::string>& CFSPathURL) {
  if (!CFSPathURL) platform::fatalError("a missing cloud path");
  return getLocalPath(root, *CFSPathURL);
}

std::vector<std::string> urlsToCloudPaths(const FileURL& root, const std::optional<std::vector<FileURL>>& pathURLs) {
  std::vector<std::string> paths;
  if (!pathURLs) return paths;
  paths.reserve(pathURLs->size());
  for (const auto& url : *pathURLs) {
    const auto kind = platform::fileKindAtPath(requiredPath(url));
    if (kind == platform::FileKind::absent) continue;
    paths.push_back(getCloudPath(root, url));
    if (kind == platform::FileKind::directory) paths.back() += '/';
  }
  return paths;
}

std::string escape(std::string_view text) {
  static constexpr std::string_view kept = "-._~!$&'()*+,;=:@/?";
  static constexpr char digits[] = "0123456789ABCDEF";
  if (!platform::isValidUTF8(text)) platform::fatalError("percent-encoding of text that is not UTF-8");
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const bool letterOrDigit = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (letterOrDigit || kept.find(c) != std::string_view::npos) {
      out += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      out.append({'%', digits[byte >> 4], digits[byte & 0xF]});
    }
  }
  return out;
}

bool isDirectory(const FileURL& url) {
  return platform::fileKindAtPath(requiredPath(url)) == platform::FileKind::directory;
}

}  // namespace vornet
