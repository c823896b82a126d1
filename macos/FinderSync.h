#pragma once

#import <AppKit/AppKit.h>
#import <FinderSync/FinderSync.h>

namespace vornet {
class FinderSync;
}

/// The extension's principal class, which the Finder makes and calls back on threads of its choice. A shell: it hands
/// every call to the controller of the same name and decides nothing itself.
@interface FinderSync : FIFinderSync {
 @private
  vornet::FinderSync* _controller;  // never deleted: the status manager keeps calling it
}

/// Shows the badge of `status` on `url`; a status without one removes it.
- (void)setFileSyncStatus:(NSURL*)url status:(NSInteger)status;

/// Makes `dirs` (file URLs), or nothing, the folders that the Finder observes for this extension. An element that is no
/// URL stops the process.
- (void)enableVI:(NSSet*)dirs;
- (void)disableVI;

// The actions of the menu's entries, on the Finder's current selection. The sender is ignored.
- (IBAction)share:(id)sender;
- (IBAction)copyLink:(id)sender;
- (IBAction)notes:(id)sender;
- (IBAction)viewVersions:(id)sender;
- (IBAction)viewInCloud:(id)sender;

@end
