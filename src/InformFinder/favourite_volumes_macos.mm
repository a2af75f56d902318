#include "InformFinder/favourite_volumes.h"

#include "kelvane_vfs/not_null.h"

#include <cstring>

#import <CoreServices/CoreServices.h>
#import <Foundation/Foundation.h>

void* openAutoreleasePool() {
    return [[NSAutoreleasePool alloc] init];
}

void releaseAutoreleasePool(void* pool) {
    [static_cast<NSAutoreleasePool*>(pool) release];
}

char* homeDirectory() {
    return notNull(strdup([NSHomeDirectory() UTF8String]));
}

// The URL is not released: one small object in the life of the process.
void insertFavouriteVolume(const char* path) {
    CFURLRef url = CFURLCreateFromFileSystemRepresentation(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(path),
                                                           static_cast<CFIndex>(std::strlen(path)), true);
    if (url == nullptr) {
        return;
    }
    LSSharedFileListRef list = LSSharedFileListCreate(kCFAllocatorDefault, kLSSharedFileListFavoriteVolumes, nullptr);
    if (list == nullptr) {
        return;
    }
    LSSharedFileListItemRef item =
        LSSharedFileListInsertItemURL(list, kLSSharedFileListItemLast, nullptr, nullptr, url, nullptr, nullptr);
    if (item != nullptr) {
        CFRelease(item);
    }
    CFRelease(list);
}
