#pragma once

#include <gio/gio.h>

#include <string>

namespace vornet::test {

/// Objects like the application, the windows and the tabs of Nautilus: those of version 43, or, where the test is
/// compiled with VORNET_NAUTILUS_51, those of version 51. Which of their signals and properties exist is set before the
/// first one is made.
struct FakeSlots {
  static bool applicationReportsWindows;
  static bool windowsReportSlots;
  static bool windowsHaveActiveSlot;
  static bool slotsHaveLocations;
  static bool slotsAreActive;

  static GObject* newApplication();
  static GObject* newWindow();
  static GObject* newSlot();
  static void setActiveSlot(GObject* window, GObject* slot);
  static void setLocation(GObject* slot, const std::string& url);
  static void setActive(GObject* slot, bool active);
};

}  // namespace vornet::test
