#include "Notices.hpp"

#include <boost/json.hpp>
#include <cstdio>

#include "DisplayText.hpp"

namespace vornet::vi {

void Notices::write(const char* what, const std::string& kind, const std::string& message) const {
  namespace json = boost::json;
  const json::object object{{what, {{"kind", kind}, {"message", validUTF8(message)}}}};
  const std::string line =
      json_ ? printableJSON(json::serialize(object)) : "vornet-vi: " + safeText(message, localeIsUTF8());
  std::fputs((line + "\n").c_str(), stderr);
}

}  // namespace vornet::vi
