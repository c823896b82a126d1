#pragma once

#include <glib-object.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Manager.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::gtk {

/// Files for which the file manager waits, because their folder's badges are on their way. It asks for no other file of
/// the folder meanwhile. The main thread's.
class UnansweredFiles {
 public:
  /// Adds `file`, of `folder`. `provider` was asked for it; `complete` receives the answer. Returns the handle by which
  /// the file manager names the question.
  manager::OperationHandle* add(manager::InfoProvider* provider, manager::FileInfo* file, GClosure* complete,
                                std::string folder) {
    files_.push_back(std::make_unique<File>(
        File{GObjectPtr<manager::InfoProvider>(static_cast<manager::InfoProvider*>(g_object_ref(provider))),
             GObjectPtr<manager::FileInfo>(static_cast<manager::FileInfo*>(g_object_ref(file))),
             GClosurePtr(g_closure_ref(complete)), std::move(folder)}));
    return handleOf(*files_.back());
  }

  /// The file manager no longer waits for the answer.
  void cancel(const manager::OperationHandle* handle) {
    std::erase_if(files_, [handle](const auto& file) { return handleOf(*file) == handle; });
  }

  /// Answers the files of `folder`. `fill` gives a file what is to be shown.
  template <typename Fill>
  void answer(const std::string& folder, Fill fill) {
    // Taken out first: with each answer the file manager may ask for the next file.
    std::vector<std::unique_ptr<File>> answered;
    for (auto& file : files_)
      if (file->folder == folder) answered.push_back(std::move(file));
    std::erase(files_, nullptr);
    for (const auto& file : answered) {
      fill(file->file.get());
      VORNET_CALL(info_provider_update_complete_invoke)
      (file->complete.get(), file->provider.get(), handleOf(*file), manager::COMPLETE);
    }
  }

 private:
  struct File {
    GObjectPtr<manager::InfoProvider> provider;
    GObjectPtr<manager::FileInfo> file;
    GClosurePtr complete;
    std::string folder;
  };

  static manager::OperationHandle* handleOf(File& file) { return reinterpret_cast<manager::OperationHandle*>(&file); }

  std::vector<std::unique_ptr<File>> files_;
};

}  // namespace vornet::gtk
