// What the sidebar registration uses of CoreFoundation and Launch Services. The test stands in for them.
#pragma once

extern "C" {

using Boolean = unsigned char;
using UInt8 = unsigned char;
using CFIndex = long;
using CFTypeRef = const void*;
using CFAllocatorRef = const struct OpaqueAllocator*;
using CFStringRef = const struct OpaqueString*;
using CFURLRef = const struct OpaqueURL*;
using CFDictionaryRef = const struct OpaqueDictionary*;
using CFArrayRef = const struct OpaqueArray*;
using IconRef = struct OpaqueIcon*;
using LSSharedFileListRef = struct OpaqueList*;
using LSSharedFileListItemRef = struct OpaqueItem*;

extern const CFAllocatorRef kCFAllocatorDefault;
extern CFStringRef kLSSharedFileListFavoriteVolumes;
extern LSSharedFileListItemRef kLSSharedFileListItemLast;

CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef, const UInt8* path, CFIndex length, Boolean isDirectory);
void CFRelease(CFTypeRef);
LSSharedFileListRef LSSharedFileListCreate(CFAllocatorRef, CFStringRef type, CFTypeRef options);
LSSharedFileListItemRef LSSharedFileListInsertItemURL(LSSharedFileListRef, LSSharedFileListItemRef after, CFStringRef displayName, IconRef, CFURLRef,
        CFDictionaryRef propertiesToSet, CFArrayRef propertiesToClear);
}
