#include "Finder.hpp"

#import <FinderSync/FinderSync.h>
#include <objc/runtime.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#import <Foundation/NSDebug.h>
#import "Additions.h"

@interface NSAutoreleasePool (Depth)
- (id)enclosingPool;
@end

namespace {

using vornet::standin::Badge;

constexpr std::chrono::seconds PATIENCE{30};

struct State {
  std::mutex lock;
  std::condition_variable changed;
  std::vector<std::string> events;
  std::vector<std::string> folders;
  std::vector<Badge> badges;
  vornet::standin::Push lastPush;
  id<FIFinderSync> principal = nil;
  bool showing = false;
  std::optional<std::vector<std::string>> selection;
  std::size_t running = 1;
  std::vector<std::string> asked;
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
  state().lastPush = {url, poolsOfThread()};
  state().changed.notify_all();
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
  state().asked.push_back(text(bundleIdentifier));
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
id nothing(id self, SEL) {
  [self release];
  return nil;
}
id noPanel(id self, SEL, NSRect, NSUInteger, NSBackingStoreType, BOOL) {
  [self release];
  return nil;
}
id noView(id self, SEL, NSRect) {
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
  replace(panel, @selector(init), &nothing);
  replace(panel, @selector(initWithContentRect:styleMask:backing:defer:), &noPanel);
  replace(objc_getClass("NSMenuView"), @selector(initWithFrame:), &noView);
}

@end

namespace vornet::standin {

std::vector<std::string> events() {
  const std::lock_guard guard(state().lock);
  return state().events;
}

std::vector<std::string> observedFolders() {
  const std::lock_guard guard(state().lock);
  return state().folders;
}

std::vector<Badge> badges() {
  const std::lock_guard guard(state().lock);
  return state().badges;
}

void showFoldersAtOnce() {
  state().showing = true;
}

Push lastPush() {
  const std::lock_guard guard(state().lock);
  return state().lastPush;
}

std::ptrdiff_t liveObjects() {
  GSDebugAllocationActive(YES);
  std::ptrdiff_t count = 0;
  Class* classes = GSDebugAllocationClassList();
  for (const Class* each = classes; each && *each; ++each) count += GSDebugAllocationCount(*each);
  NSZoneFree(NSDefaultMallocZone(), classes);
  return count;
}

bool waitForBadge(const Badge& badge) {
  std::unique_lock guard(state().lock);
  return state().changed.wait_for(guard, PATIENCE, [&] {
    return std::find(state().badges.begin(), state().badges.end(), badge) != state().badges.end();
  });
}

bool waitForBadges(std::size_t count) {
  std::unique_lock guard(state().lock);
  return state().changed.wait_for(guard, PATIENCE, [&] { return state().badges.size() >= count; });
}

void setSelection(const std::optional<std::vector<std::string>>& paths) {
  const std::lock_guard guard(state().lock);
  state().selection = paths;
}

void setRunningApplications(std::size_t count) {
  const std::lock_guard guard(state().lock);
  state().running = count;
}

std::vector<std::string> askedApplications() {
  const std::lock_guard guard(state().lock);
  return state().asked;
}

void refuseConstruction() {
  state().refusing = true;
}

void setGroupContainers(const std::optional<std::string>& folder) {
  const std::lock_guard guard(state().lock);
  state().containers = folder;
}

}  // namespace vornet::standin
