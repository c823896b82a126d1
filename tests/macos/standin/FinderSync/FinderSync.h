#pragma once

#import <AppKit/AppKit.h>
#import <Foundation/Foundation.h>

// Stands in for the FinderSync framework where there is none. Written from the framework's public documentation.

NS_ASSUME_NONNULL_BEGIN

typedef NS_ENUM(NSUInteger, FIMenuKind) {
  FIMenuKindContextualMenuForItems = 0,
  FIMenuKindContextualMenuForContainer = 1,
  FIMenuKindContextualMenuForSidebar = 2,
  FIMenuKindToolbarItemMenu = 3,
};

@protocol FIFinderSync <NSObject>
@optional
- (nullable NSMenu*)menuForMenuKind:(FIMenuKind)menu;
- (void)beginObservingDirectoryAtURL:(NSURL*)url;
- (void)endObservingDirectoryAtURL:(NSURL*)url;
- (void)requestBadgeIdentifierForURL:(NSURL*)url;
@property(readonly, copy) NSString* toolbarItemName;
@property(readonly, copy) NSImage* toolbarItemImage;
@property(readonly, copy) NSString* toolbarItemToolTip;
@end

@interface FIFinderSync : NSObject <FIFinderSync>
@end

@interface FIFinderSyncController : NSExtensionContext
+ (FIFinderSyncController*)defaultController;
- (NSSet<NSURL*>*)directoryURLs;
- (void)setDirectoryURLs:(nullable NSSet<NSURL*>*)urls;
- (void)setBadgeImage:(NSImage*)image label:(nullable NSString*)label forBadgeIdentifier:(NSString*)badgeID;
- (void)setBadgeIdentifier:(NSString*)badgeID forURL:(NSURL*)url;
- (nullable NSURL*)targetedURL;
- (nullable NSArray<NSURL*>*)selectedItemURLs;
+ (BOOL)isExtensionEnabled;
+ (void)showExtensionManagementInterface;
@end

NS_ASSUME_NONNULL_END
