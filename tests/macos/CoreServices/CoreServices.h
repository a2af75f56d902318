// What the sidebar registration uses of CoreFoundation and Launch Services, every object of which is its name here. The
// test stands in for them.
#pragma once

typedef unsigned char Boolean, UInt8;
typedef long CFIndex;
typedef const void* CFTypeRef;
typedef const char *CFURLRef, *LSSharedFileListRef, *LSSharedFileListItemRef;
constexpr const char *kCFAllocatorDefault = "allocator", *kLSSharedFileListItemLast = "last";
constexpr const char* kLSSharedFileListFavoriteVolumes = "favourites";

extern "C" {
CFURLRef CFURLCreateFromFileSystemRepresentation(const char* allocator, const UInt8* path, CFIndex length, Boolean);
void CFRelease(CFTypeRef);
LSSharedFileListRef LSSharedFileListCreate(const char* allocator, const char* type, CFTypeRef options);
LSSharedFileListItemRef LSSharedFileListInsertItemURL(LSSharedFileListRef, LSSharedFileListItemRef after,
                                                      CFTypeRef name, CFTypeRef icon, CFURLRef, CFTypeRef toSet,
                                                      CFTypeRef toClear);
}
