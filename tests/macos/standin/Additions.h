#pragma once

#import <Foundation/Foundation.h>

// What Foundation declares on macOS, by its public documentation, and GNUstep does not.

@interface NSFileManager (GroupContainers)
- (NSURL*)containerURLForSecurityApplicationGroupIdentifier:(NSString*)groupIdentifier;
@end
