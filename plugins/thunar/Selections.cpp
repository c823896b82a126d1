#include "Selections.hpp"

#include <memory>

#include "client/Paths.hpp"
#include "client/Plugin.hpp"

namespace vornet::thunar {

client::Selection selectionOf(const GList* files) {
  client::Selection selection;
  for (; files && selection.size() <= client::Plugin::LARGEST_SELECTION; files = files->next) {
    const std::unique_ptr<gchar, decltype(&g_free)> url(thunarx_file_info_get_uri(THUNARX_FILE_INFO(files->data)),
                                                        g_free);
    auto path = client::pathOfURL(url.get());
    if (!path) return {};
    selection.push_back(*std::move(path));
  }
  return selection;
}

}  // namespace vornet::thunar
