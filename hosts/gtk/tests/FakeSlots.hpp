#pragma once

#include <gio/gio.h>

#include <string>

namespace vornet::test {

/// Objects like the application, the windows and the tabs of Nautilus. Which of their signals and properties exist is
/// said before the first one is made, and for good.
struct FakeSlots {
  static bool applicationTellsOfWindows;
  static bool windowsTellOfSlots;
  static bool slotsHaveLocations;
  static bool slotsAreActive;

  static GObject* newApplication();
  static GObject* newWindow();
  static GObject* newSlot();
  static void setLocation(GObject* slot, const std::string& url);
  static void setActive(GObject* slot, bool active);
};

}  // namespace vornet::test
