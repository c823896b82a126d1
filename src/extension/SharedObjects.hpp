#pragma once

#include <memory>

#include "platform/AppKit.hpp"

/// The controller's process-wide objects. Each is made once, on first use from any thread, and never changes
/// afterwards, statusManager() excepted. The readers of the databases, syncDB() and configDB(), are declared beside
/// their classes.
namespace vornet {

class RESTPollingManager;

/// The badge images "checkmark", "sync" and "error", and the product image "QMT" of the menu entries. An image that the
/// extension's resources lack stops the process.
const platform::Image& syncedImg();
const platform::Image& inProgressImg();
const platform::Image& failureImg();
const platform::Image& vornetImg();

/// The slot of the one status manager: empty until the first controller fills it, before any callback runs; read only
/// from then on.
std::shared_ptr<RESTPollingManager>& statusManager();

/// The status manager; a missing one stops the process.
RESTPollingManager& requiredStatusManager();

}  // namespace vornet
