// The application that carries the extension: macOS takes an extension from inside one only. Opening it shows the
// settings in which the extension is switched on, while it is not; it does nothing else.
#import <AppKit/AppKit.h>
#import <FinderSync/FinderSync.h>

int main() {
  @autoreleasepool {
    [NSApplication sharedApplication];
    if (![FIFinderSyncController isExtensionEnabled]) [FIFinderSyncController showExtensionManagementInterface];
  }
  return 0;
}
