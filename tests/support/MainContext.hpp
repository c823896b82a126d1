#pragma once

#include <functional>

namespace vornet::test {

/// Lets the default main context run until `condition` holds; false after a minute without.
bool runUntil(const std::function<bool()>& condition);

/// Lets it run until nothing is left to be done at once.
void settle();

}  // namespace vornet::test
