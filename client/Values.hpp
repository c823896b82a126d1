#pragma once

#include "GLibPtr.hpp"

namespace vornet::client {

using Value = GVariantPtr;

/// The child `index` of a container. Unlike g_variant_get_child() with "&s", which first serialises the whole
/// container, its cost does not depend on how many others there are.
inline Value childOf(GVariant* container, gsize index) {
  return Value(g_variant_get_child_value(container, index));
}

/// The text of a string value; it lives as long as the value.
inline const gchar* textOf(const Value& string) {
  return g_variant_get_string(string.get(), nullptr);
}

}  // namespace vornet::client
