// Windows as Nemo and Caja show them to a plug-in: above the items of each tab is a box for the plug-ins' widgets.
#include <gtk/gtk.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/Environment.hpp"
#include "support/StartedProgram.hpp"
#include "support/gtk/FakeTab.hpp"

namespace vornet::test {

using gtk::manager::LocationWidgetProvider;

using namespace std::chrono_literals;

/// A private display.
struct FakeWindows::Impl {
  Impl()
      : server({VORNET_XVFB, "-displayfd", "1", "-screen", "0", "640x480x24", "-nolisten", "tcp", "-extension", "GLX"},
               {}, folder / "server.output") {
    const auto until = std::chrono::steady_clock::now() + 30s;
    std::string number;
    while (number.empty()) {
      if (std::chrono::steady_clock::now() > until)
        throw std::runtime_error("no display: " + readFile(folder / "server.output"));
      std::this_thread::sleep_for(5ms);
      number = numberIn(readFile(folder / "server.output"));
    }
    display.emplace("DISPLAY", ":" + number);
  }

  /// The line that is a number: it is printed once the display takes clients. Warnings may precede it when other
  /// servers start at the same time.
  static std::string numberIn(const std::string& output) {
    for (std::size_t from = 0, end; (end = output.find('\n', from)) != std::string::npos; from = end + 1) {
      const auto line = output.substr(from, end - from);
      if (!line.empty() && line.find_first_not_of("0123456789") == std::string::npos) return line;
    }
    return {};
  }

  TemporaryFolder folder;
  StartedProgram server;
  ScopedVariable backend{"GDK_BACKEND", "x11"};
  ScopedVariable noAccessibility{"NO_AT_BRIDGE", "1"};
  ScopedVariable settings{"GSETTINGS_BACKEND", "memory"};
  std::optional<ScopedVariable> display;
};

FakeWindows::FakeWindows() : impl_(std::make_unique<Impl>()) {
  if (!gtk_init_check(nullptr, nullptr)) throw std::runtime_error("the display takes no clients");
}

FakeWindows::~FakeWindows() = default;  // the display is GTK's until the process ends

struct FakeWindow::Impl {
  LocationWidgetProvider* provider;
  GtkWidget* window;
  GtkWidget* boxes;
  std::vector<GtkWidget*> tabs;

  void fill(GtkWidget* box, const std::string& url) {
    GtkWidget* widget = VORNET_CALL(location_widget_provider_get_widget)(provider, url.c_str(), window);
    if (!widget) return;
    gtk_box_pack_start(GTK_BOX(box), widget, TRUE, TRUE, 0);
    gtk_widget_show(widget);
  }
};

FakeWindow::FakeWindow(FakeWindows&, TestHost& host)
    : impl_(std::make_unique<Impl>(Impl{reinterpret_cast<LocationWidgetProvider*>(host.provider()),
                                        gtk_window_new(GTK_WINDOW_TOPLEVEL),
                                        gtk_box_new(GTK_ORIENTATION_VERTICAL, 0),
                                        {}})) {
  gtk_container_add(GTK_CONTAINER(impl_->window), impl_->boxes);
  gtk_widget_show(impl_->boxes);
  gtk_widget_show(impl_->window);
}

FakeWindow::~FakeWindow() {
  gtk_widget_destroy(impl_->window);
}

FakeWindow::Tab FakeWindow::open(const std::string& url, bool inFront) {
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  gtk_container_set_border_width(GTK_CONTAINER(box), 6);
  gtk_container_add(GTK_CONTAINER(impl_->boxes), box);
  impl_->tabs.push_back(box);
  impl_->fill(box, url);
  if (inFront) gtk_widget_show(box);
  return impl_->tabs.size() - 1;
}

void FakeWindow::bringToFront(Tab tab) {
  gtk_widget_show(impl_->tabs[tab]);
}

void FakeWindow::sendToBack(Tab tab) {
  gtk_widget_hide(impl_->tabs[tab]);
}

void FakeWindow::go(Tab tab, const std::string& url) {
  GList* children = gtk_container_get_children(GTK_CONTAINER(impl_->tabs[tab]));
  for (const GList* child = children; child; child = child->next) gtk_widget_destroy(GTK_WIDGET(child->data));
  g_list_free(children);
  impl_->fill(impl_->tabs[tab], url);
}

void FakeWindow::close(Tab tab) {
  gtk_widget_destroy(impl_->tabs[tab]);
}

}  // namespace vornet::test
