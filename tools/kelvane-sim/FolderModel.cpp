#include "kelvane-sim/FolderModel.hpp"

#include <algorithm>

namespace vornet::sim {

struct FolderModel::Node {
  std::string name;
  Node* parent = nullptr;
  bool folder = false;
  int own = CODE_SYNCED;  // of a file its state; of a folder the best it can have
  int shown = CODE_SYNCED;
  std::optional<int> pinned;
  FileStamp stamp;
  std::array<std::size_t, 3> childrenWithCode{};
  std::map<std::string, std::unique_ptr<Node>, std::less<>> children;

  void count(int code, bool add) {
    if (code < CODE_NOT_SYNCED || code > CODE_SYNCED) return;
    auto& counter = childrenWithCode[static_cast<std::size_t>(code)];
    counter = add ? counter + 1 : counter - 1;
  }

  int code() const {
    if (pinned) return *pinned;
    if (!folder || own == CODE_NOT_SYNCED || childrenWithCode[CODE_NOT_SYNCED] > 0)
      return folder ? CODE_NOT_SYNCED : own;
    return childrenWithCode[CODE_PENDING] > 0 ? CODE_PENDING : CODE_SYNCED;
  }
};

namespace {

std::string_view withoutTrailingSlash(std::string_view path) {
  if (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

}  // namespace

FolderModel::FolderModel() {
  clear();
}
FolderModel::~FolderModel() = default;

void FolderModel::clear() {
  root_ = std::make_unique<Node>();
  root_->folder = true;
  changes_.clear();
  size_ = 0;
  if (const auto pin = pins_.find("/"); pin != pins_.end()) root_->pinned = pin->second;
  root_->shown = root_->code();
  changes_["/"] = root_->shown;
}

FolderModel::Node* FolderModel::locate(std::string_view path) const {
  if (path.empty() || path.front() != '/' || path.ends_with("//")) return nullptr;
  const bool mustBeFolder = path.back() == '/';
  path = withoutTrailingSlash(path).substr(1);
  Node* node = root_.get();
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/'), path.size());
    const auto child = node->children.find(path.substr(0, end));
    if (child == node->children.end()) return nullptr;
    node = child->second.get();
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return mustBeFolder && !node->folder ? nullptr : node;
}

std::string FolderModel::pathOf(const Node& node) {
  if (node.parent == nullptr) return "/";
  std::string path = node.parent->parent == nullptr ? std::string() : pathOf(*node.parent);
  path += '/';
  path += node.name;
  return path;
}

std::string FolderModel::rowPath(const Node& node) {
  std::string path = pathOf(node);
  if (node.folder && node.parent != nullptr) path += '/';
  return path;
}

void FolderModel::refresh(Node& start) {
  for (Node* node = &start; node != nullptr; node = node->parent) {
    const int code = node->code();
    if (code == node->shown) return;
    if (node->parent != nullptr) {
      node->parent->count(node->shown, false);
      node->parent->count(code, true);
    }
    node->shown = code;
    changes_[rowPath(*node)] = code;
  }
}

// The node at `path`, made without a kind yet when it is new; null when the folder above is unknown.
FolderModel::Node* FolderModel::place(std::string_view path) {
  path = withoutTrailingSlash(path);
  if (path.size() < 2) return nullptr;
  const std::size_t slash = path.rfind('/');
  Node* parent = locate(slash == 0 ? "/" : path.substr(0, slash));
  if (parent == nullptr || !parent->folder) return nullptr;
  const std::string_view name = path.substr(slash + 1);
  if (const auto found = parent->children.find(name); found != parent->children.end()) return found->second.get();
  auto node = std::make_unique<Node>();
  node->name = name;
  node->parent = parent;
  if (const auto pin = pins_.find(path); pin != pins_.end()) node->pinned = pin->second;
  ++size_;
  return parent->children.emplace(std::string(name), std::move(node)).first->second.get();
}

void FolderModel::settle(Node& node, bool isNew) {
  if (!isNew) {
    refresh(node);
    return;
  }
  node.shown = node.code();
  node.parent->count(node.shown, true);
  changes_[rowPath(node)] = node.shown;
  refresh(*node.parent);
}

bool FolderModel::putFolder(std::string_view path, bool syncable) {
  const int best = syncable ? CODE_SYNCED : CODE_NOT_SYNCED;
  if (const Node* old = locate(path); old != nullptr && !old->folder) remove(path);
  const bool isNew = locate(path) == nullptr;
  Node* node = place(path);
  if (node == nullptr) return false;
  node->folder = true;
  node->own = best;
  settle(*node, isNew);
  return true;
}

bool FolderModel::putFile(std::string_view path, const FileStamp& stamp, int code) {
  if (const Node* old = locate(path); old != nullptr && old->folder) remove(path);
  const bool isNew = locate(path) == nullptr;
  Node* node = place(path);
  if (node == nullptr) return false;
  node->stamp = stamp;
  node->own = code;
  settle(*node, isNew);
  return true;
}

bool FolderModel::setFileCode(std::string_view path, int code) {
  Node* node = locate(path);
  if (node == nullptr || node->folder) return false;
  node->own = code;
  refresh(*node);
  return true;
}

void FolderModel::detach(Node& node, const std::string& path, std::vector<std::string>& files) {
  changes_[node.folder ? path + "/" : path] = std::nullopt;
  if (!node.folder) files.push_back(path);
  for (auto& [name, child] : node.children) detach(*child, path + "/" + name, files);
  --size_;
}

std::vector<std::string> FolderModel::remove(std::string_view path) {
  std::vector<std::string> files;
  Node* node = locate(path);
  if (node == nullptr) return files;
  if (node == root_.get()) {
    for (auto& [name, child] : node->children) detach(*child, "/" + name, files);
    node->children.clear();
    node->childrenWithCode = {};
    refresh(*node);
    return files;
  }
  detach(*node, pathOf(*node), files);
  Node* parent = node->parent;
  parent->count(node->shown, false);
  parent->children.erase(parent->children.find(node->name));
  refresh(*parent);
  return files;
}

void FolderModel::pin(std::string_view path, int code) {
  path = withoutTrailingSlash(path);
  pins_.insert_or_assign(std::string(path), code);
  if (Node* node = locate(path)) {
    node->pinned = code;
    refresh(*node);
  }
}

void FolderModel::unpin(std::string_view path) {
  path = withoutTrailingSlash(path);
  if (const auto pin = pins_.find(path); pin != pins_.end()) pins_.erase(pin);
  if (Node* node = locate(path)) {
    node->pinned.reset();
    refresh(*node);
  }
}

std::optional<FolderModel::Item> FolderModel::find(std::string_view path) const {
  const Node* node = locate(path);
  if (node == nullptr) return std::nullopt;
  return Item{node->folder, node->shown};
}

std::optional<FileStamp> FolderModel::stamp(std::string_view path) const {
  const Node* node = locate(path);
  if (node == nullptr || node->folder) return std::nullopt;
  return node->stamp;
}

std::optional<std::vector<std::pair<std::string, int>>> FolderModel::children(std::string_view folder) const {
  const Node* node = locate(folder);
  if (node == nullptr || !node->folder) return std::nullopt;
  const std::string prefix = node == root_.get() ? "/" : pathOf(*node) + "/";
  std::vector<std::pair<std::string, int>> result;
  result.reserve(node->children.size());
  for (const auto& [name, child] : node->children) result.emplace_back(prefix + name, child->shown);
  return result;
}

std::vector<std::string> FolderModel::childNames(std::string_view folder) const {
  std::vector<std::string> names;
  const Node* node = locate(folder);
  if (node == nullptr) return names;
  names.reserve(node->children.size());
  for (const auto& [name, child] : node->children) names.push_back(name);
  return names;
}

std::vector<FolderModel::Change> FolderModel::rows() const {
  std::vector<Change> result;
  result.reserve(size_ + 1);
  std::vector<std::pair<const Node*, std::string>> open{{root_.get(), "/"}};
  while (!open.empty()) {
    const auto [node, path] = std::move(open.back());
    open.pop_back();
    result.push_back({path, node->shown});
    for (const auto& [name, child] : node->children)
      open.emplace_back(child.get(), path + name + (child->folder ? "/" : ""));
  }
  return result;
}

std::vector<FolderModel::Change> FolderModel::takeChanges() {
  std::vector<Change> result;
  result.reserve(changes_.size());
  for (auto& [path, code] : changes_) result.push_back({path, code});
  changes_.clear();
  return result;
}

}  // namespace vornet::sim
