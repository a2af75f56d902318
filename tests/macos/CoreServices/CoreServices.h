// What the sidebar registration uses of CoreFoundation and Launch Services, every object of which is its name here. The
// test stands in for them.
#pragma once

using Boolean = unsigned char;
using UInt8 = unsigned char;
using CFIndex = long;
using CFTypeRef = const void*;
using CFURLRef = const char*;
using LSSharedFileListRef = const char*;
using LSSharedFileListItemRef = const char*;
constexpr const char* kCFAllocatorDefault = "allocator";
constexpr const char* kLSSharedFileListFavoriteVolumes = "favourites";
constexpr const char* kLSSharedFileListItemLast = "last";

extern "C" {
CFURLRef CFURLCreateFromFileSystemRepresentation(const char* allocator, const UInt8* path, CFIndex length, Boolean);
void CFRelease(CFTypeRef);
LSSharedFileListRef LSSharedFileListCreate(const char* allocator, const char* type, CFTypeRef options);
LSSharedFileListItemRef LSSharedFileListInsertItemURL(LSSharedFileListRef, LSSharedFileListItemRef after,
                                                      CFTypeRef name, CFTypeRef icon, CFURLRef, CFTypeRef toSet,
                                                      CFTypeRef toClear);
}
