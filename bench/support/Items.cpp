#include "support/Items.hpp"

#include <cstdio>

namespace vornet::bench {

std::string folderKeyOf(std::size_t number) {
  char text[64];
  std::snprintf(text, sizeof text, "/Projects/Northern region %02zu/Quarterly reports/", number);
  return text;
}

std::string itemOf(const std::string& key, std::size_t number) {
  char text[64];
  std::snprintf(text, sizeof text, "Report number %05zu (final version).docx", number);
  return key + text;
}

std::vector<std::string> itemsOf(const std::string& key, std::size_t entries) {
  std::vector<std::string> items;
  items.reserve(entries);
  for (std::size_t i = 0; i < entries; ++i) items.push_back(itemOf(key, i));
  return items;
}

StatusCode codeOf(std::size_t number, bool changed) {
  return changed && number % (ENTRIES / CHANGES) == 0 ? 1 : 2;
}

std::string replyFor(const std::string& key, bool changed, std::size_t entries) {
  std::string reply;
  for (std::size_t i = 0; i < entries; ++i) {
    reply.append(reply.empty() ? "{\"" : ",\"")
        .append(itemOf(key, i))
        .append("\":")
        .append(std::to_string(codeOf(i, changed)));
  }
  return reply += '}';
}

}  // namespace vornet::bench
