#import "FinderSync.h"

#include <memory>
#include <vector>

#include "extension/FinderSync.hpp"
#include "extension/SharedObjects.hpp"
#import "platform/macos/Cocoa.hpp"

namespace cocoa = vornet::platform::cocoa;

@interface FinderSync ()
- (instancetype)initBase:(vornet::FinderSync*)controller;
@end

namespace {

/// The controller of one principal object, which has the base class's part of the object's construction done when its
/// own construction comes to it.
class Controller final : public vornet::FinderSync {
 public:
  explicit Controller(::FinderSync* object) : object_(object) {}
  ::FinderSync* object() const { return object_; }

 private:
  bool initBase() override {
    object_ = [object_ initBase:this];
    return object_ != nil;
  }

  ::FinderSync* object_;
};

/// An object as the controller takes it: a file URL, or nothing for any other.
vornet::SelectorObject selectorObject(id object) {
  if (![object isKindOfClass:[NSURL class]]) return {};
  return cocoa::fileURL(object);
}

}  // namespace

@implementation FinderSync

- (instancetype)initBase:(vornet::FinderSync*)controller {
  self = [super init];
  if (!self) return nil;
  _controller = controller;  // callbacks come, on other threads, as soon as a folder is observed
  // The framework wants a set from the start, and the core sets none while it knows no synced folder.
  if (!vornet::statusManager()) [[FIFinderSyncController defaultController] setDirectoryURLs:[NSSet set]];
  return self;
}

- (instancetype)init {
  return cocoa::outermost([&]() -> ::FinderSync* {
    auto controller = std::make_unique<Controller>(self);
    if (!controller->init()) return nil;
    return controller.release()->object();
  });
}

- (void)setFileSyncStatus:(NSURL*)url status:(NSInteger)status {
  cocoa::outermost([&] {
    const cocoa::BadgedObject badged(url);
    _controller->setFileSyncStatus(cocoa::fileURL(url), status);
  });
}

- (void)enableVI:(NSSet*)dirs {
  cocoa::outermost([&] {
    std::vector<vornet::SelectorObject> urls;
    for (id dir in dirs) urls.push_back(selectorObject(dir));
    _controller->performSelector("enableVI:", {urls});
  });
}

- (void)disableVI {
  cocoa::outermost([&] { _controller->disableVI(); });
}

- (void)beginObservingDirectoryAtURL:(NSURL*)url {
  cocoa::outermost([&] { _controller->beginObservingDirectoryAtURL(cocoa::fileURL(url)); });
}

- (void)endObservingDirectoryAtURL:(NSURL*)url {
  cocoa::outermost([&] { _controller->endObservingDirectoryAtURL(cocoa::fileURL(url)); });
}

- (void)requestBadgeIdentifierForURL:(NSURL*)url {
  cocoa::outermost([&] {
    const cocoa::BadgedObject badged(url);
    _controller->requestBadgeIdentifierForURL(cocoa::fileURL(url));
  });
}

- (NSString*)toolbarItemName {
  return cocoa::outermost([&] { return cocoa::string(_controller->toolbarItemName()); });
}

- (NSString*)toolbarItemToolTip {
  return cocoa::outermost([&] { return cocoa::string(_controller->toolbarItemToolTip()); });
}

- (NSImage*)toolbarItemImage {
  return cocoa::outermost([&] { return cocoa::image(_controller->toolbarItemImage()); });
}

- (NSMenu*)menuForMenuKind:(FIMenuKind)kind {
  return cocoa::outermost([&]() -> NSMenu* {
    const auto menu = _controller->menuForMenuKind(static_cast<vornet::platform::FIMenuKind>(kind));
    return menu ? cocoa::menu(*menu) : nil;
  });
}

- (IBAction)share:(id)sender {
  (void)sender;
  cocoa::outermost([&] { _controller->share(); });
}

- (IBAction)copyLink:(id)sender {
  (void)sender;
  cocoa::outermost([&] { _controller->copyLink(); });
}

- (IBAction)notes:(id)sender {
  (void)sender;
  cocoa::outermost([&] { _controller->notes(); });
}

- (IBAction)viewVersions:(id)sender {
  (void)sender;
  cocoa::outermost([&] { _controller->viewVersions(); });
}

- (IBAction)viewInCloud:(id)sender {
  (void)sender;
  cocoa::outermost([&] { _controller->viewInCloud(); });
}

@end
