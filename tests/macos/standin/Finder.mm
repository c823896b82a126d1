#include "Finder.hpp"

#import <FinderSync/FinderSync.h>
#include <objc/runtime.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <thread>

#import <Foundation/NSDebug.h>
#import "Additions.h"

@interface NSAutoreleasePool (Depth)
- (id)enclosingPool;
@end

namespace {

struct State : vornet::standin::Seen {
  std::mutex lock;
  id<FIFinderSync> principal = nil;
  bool showing = false;
  std::optional<std::vector<std::string>> selection;
  std::size_t running = 1;
  bool refusing = false;
  std::optional<std::string> containers;
};

State& state() {
  static State& made = *new State;  // the extension's threads may use it until the very end
  return made;
}

std::string text(NSString* string) {
  return string ? [string UTF8String] : "(nil)";
}

NSString* string(const std::string& text) {
  return [NSString stringWithUTF8String:text.c_str()];
}

void requireFileURL(NSURL* url) {
  if (![url isFileURL]) [NSException raise:NSInvalidArgumentException format:@"not a file URL: %@", url];
}

std::size_t poolsOfThread() {
  std::size_t count = 0;
  for (id pool = [NSAutoreleasePool currentPool]; pool; pool = [pool enclosingPool]) ++count;
  return count;
}

void note(const std::string& event) {
  const std::lock_guard guard(state().lock);
  state().events.push_back(event);
}

}  // namespace

@implementation NSAutoreleasePool (Depth)

- (id)enclosingPool {
  return _parent;
}

@end

@implementation FIFinderSync

- (instancetype)init {
  note("init");
  if (state().refusing) {
    [self release];
    return nil;
  }
  self = [super init];
  state().principal = self;
  return self;
}

@end

@implementation FIFinderSyncController

+ (FIFinderSyncController*)defaultController {
  static FIFinderSyncController* controller = [[self alloc] init];
  return controller;
}

- (NSSet<NSURL*>*)directoryURLs {
  NSMutableSet* urls = [NSMutableSet set];
  const std::lock_guard guard(state().lock);
  for (const auto& folder : state().folders)
    [urls addObject:[NSURL fileURLWithPath:string(folder) isDirectory:folder.ends_with('/')]];
  return urls;
}

- (void)setDirectoryURLs:(NSSet<NSURL*>*)urls {
  std::vector<std::string> folders;
  for (NSURL* url in urls) {
    requireFileURL(url);
    folders.push_back(text([url path]) + ([[url absoluteString] hasSuffix:@"/"] ? "/" : ""));
  }
  std::sort(folders.begin(), folders.end());
  note("directories");
  {
    const std::lock_guard guard(state().lock);
    state().folders = folders;
  }
  if (!state().showing) return;
  std::thread([urls] {
    @autoreleasepool {
      for (NSURL* url in urls) [state().principal beginObservingDirectoryAtURL:url];
    }
  }).join();
}

- (void)setBadgeImage:(NSImage*)image label:(NSString*)label forBadgeIdentifier:(NSString*)badgeID {
  if (!image) [NSException raise:NSInvalidArgumentException format:@"no image for the badge %@", badgeID];
  note("badge " + text(badgeID) + " '" + text(label) + "' " + text([image name]));
}

- (void)setBadgeIdentifier:(NSString*)badgeID forURL:(NSURL*)url {
  if (!badgeID) [NSException raise:NSInvalidArgumentException format:@"no badge identifier for %@", url];
  requireFileURL(url);
  const std::lock_guard guard(state().lock);
  state().badges.emplace_back(text(badgeID), text([url path]));
  state().lastURL = url;
  state().lastPools = poolsOfThread();
}

- (NSURL*)targetedURL {
  return nil;
}

- (NSArray<NSURL*>*)selectedItemURLs {
  const std::lock_guard guard(state().lock);
  if (!state().selection) return nil;
  NSMutableArray* urls = [NSMutableArray array];
  for (const auto& path : *state().selection) [urls addObject:[NSURL fileURLWithPath:string(path)]];
  return urls;
}

+ (BOOL)isExtensionEnabled {
  const char* enabled = std::getenv("VORNET_EXTENSION");
  return enabled && std::string(enabled) == "on";
}

+ (void)showExtensionManagementInterface {
  std::puts("settings opened");
}

@end

@implementation NSFileManager (GroupContainers)

- (NSURL*)containerURLForSecurityApplicationGroupIdentifier:(NSString*)groupIdentifier {
  const std::lock_guard guard(state().lock);
  if (!state().containers) return nil;
  NSString* container = [string(*state().containers) stringByAppendingPathComponent:groupIdentifier];
  [self createDirectoryAtPath:container withIntermediateDirectories:YES attributes:nil error:NULL];
  return [NSURL fileURLWithPath:container isDirectory:YES];
}

@end

namespace {

/// GNUstep asks the window server for the running applications; here the test says how many there are.
NSArray* runningApplications(id, SEL, NSString* bundleIdentifier) {
  const std::lock_guard guard(state().lock);
  state().askedApplications.push_back(text(bundleIdentifier));
  NSMutableArray* applications = [NSMutableArray array];
  for (std::size_t i = 0; i < state().running; ++i)
    [applications addObject:[[[NSRunningApplication alloc] init] autorelease]];
  return applications;
}

/// GNUstep's application needs a window server, and so do the panel and the view that it makes with every menu: they
/// are left out.
id noApplication(id, SEL) {
  return nil;
}
template <class... Arguments>
id nothing(id self, SEL, Arguments...) {
  [self release];
  return nil;
}

template <typename Function>
void replace(Class owner, SEL selector, Function* implementation) {
  // By way of the type that clang 19 takes for any function's.
  const auto any = reinterpret_cast<IMP>(reinterpret_cast<void (*)()>(implementation));
  class_replaceMethod(owner, selector, any, method_getTypeEncoding(class_getInstanceMethod(owner, selector)));
}

}  // namespace

@interface VornetStandins : NSObject
@end

@implementation VornetStandins

+ (void)load {
  replace(object_getClass(objc_getClass("NSRunningApplication")), @selector(runningApplicationsWithBundleIdentifier:),
          &runningApplications);
  Class application = object_getClass(objc_getClass("NSApplication"));
  replace(application, @selector(initialize), &noApplication);
  replace(application, @selector(sharedApplication), &noApplication);
  Class panel = objc_getClass("NSMenuPanel");
  replace(panel, @selector(init), &nothing<>);
  replace(panel, @selector(initWithContentRect:styleMask:backing:defer:),
          &nothing<NSRect, NSUInteger, NSBackingStoreType, BOOL>);
  replace(objc_getClass("NSMenuView"), @selector(initWithFrame:), &nothing<NSRect>);
}

@end

namespace vornet::standin {

Seen seen() {
  const std::lock_guard guard(state().lock);
  return state();
}

void showFoldersAtOnce() {
  state().showing = true;
}

std::ptrdiff_t liveObjects() {
  GSDebugAllocationActive(YES);
  std::ptrdiff_t count = 0;
  Class* classes = GSDebugAllocationClassList();
  for (const Class* each = classes; each && *each; ++each) count += GSDebugAllocationCount(*each);
  NSZoneFree(NSDefaultMallocZone(), classes);
  return count;
}

void setSelection(const std::optional<std::vector<std::string>>& paths) {
  const std::lock_guard guard(state().lock);
  state().selection = paths;
}

void setRunningApplications(std::size_t count) {
  const std::lock_guard guard(state().lock);
  state().running = count;
}

void refuseConstruction() {
  state().refusing = true;
}

void setGroupContainers(const std::optional<std::string>& folder) {
  const std::lock_guard guard(state().lock);
  state().containers = folder;
}

}  // namespace vornet::standin
