#include "support/thunar/FakeFiles.hpp"

namespace vornet::thunar {
namespace {

constexpr const char* URL = "url";

gchar* urlOf(ThunarxFileInfo* file) {
  return g_strdup(static_cast<const gchar*>(g_object_get_data(G_OBJECT(file), URL)));
}

void implementFileInfo(gpointer interface, gpointer) {
  static_cast<ThunarxFileInfoIface*>(interface)->get_uri = urlOf;
}

GType fakeFileType() {
  static const GType type = [] {
    const GType made = g_type_register_static_simple(G_TYPE_OBJECT, "FakeFile", sizeof(GObjectClass), nullptr,
                                                     sizeof(GObject), nullptr, GTypeFlags(0));
    static const GInterfaceInfo FILE_INFO = {implementFileInfo, nullptr, nullptr};
    g_type_add_interface_static(made, THUNARX_TYPE_FILE_INFO, &FILE_INFO);
    return made;
  }();
  return type;
}

}  // namespace

FakeFiles::FakeFiles(const std::vector<std::string>& urls) {
  for (const auto& url : urls) {
    auto* file = g_object_new(fakeFileType(), nullptr);
    g_object_set_data_full(G_OBJECT(file), URL, g_strdup(url.c_str()), g_free);
    list_ = g_list_append(list_, file);
  }
}

FakeFiles::~FakeFiles() {
  thunarx_file_info_list_free(list_);
}

}  // namespace vornet::thunar
