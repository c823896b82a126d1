#include "Printer.hpp"

namespace vornet::vi {

std::string Printer::labelOf(const std::string& identifier) const {
  for (const Badge& badge : badges_) {
    if (badge.identifier == identifier) {
      return badge.label;
    }
  }
  return identifier;
}

}  // namespace vornet::vi
