#include "base/AppConst.hpp"

namespace vornet {

// Neither object is ever destroyed: the file manager's threads and the worker may still use them when the process ends.

const AppConst& App() {
  static const auto& app = *new AppConst;
  return app;
}

const std::map<StatusCode, std::string_view>& statusMap() {
  static const auto& map = *new std::map<StatusCode, std::string_view>{
      {-1, statusNone}, {0, statusFailure}, {1, statusInProgress}, {2, statusSynced}};
  return map;
}

}  // namespace vornet
