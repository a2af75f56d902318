// What the sidebar registration uses of CoreFoundation and Launch Services, every object of which is its name here.
// Each function prints its call.
#pragma once

#include <cstdio>

typedef unsigned char Boolean, UInt8;
typedef long CFIndex;
typedef const char *CFTypeRef, *CFURLRef, *LSSharedFileListRef, *LSSharedFileListItemRef;
constexpr const char *kCFAllocatorDefault = "allocator", *kLSSharedFileListItemLast = "last";
constexpr const char* kLSSharedFileListFavoriteVolumes = "favourites";

const auto CFRelease = [](CFTypeRef object) { std::printf("CF: release %s\n", object); };
const auto CFURLCreateFromFileSystemRepresentation = [](const char* a, const UInt8* path, CFIndex size, Boolean isDir) {
    std::printf("CF: %s %.*s %d\n", a, static_cast<int>(size), reinterpret_cast<const char*>(path), isDir);
    return "url";
};
const auto LSSharedFileListCreate = [](const char* a, const char* type, const char*) {
    std::printf("CF: %s %s\n", a, type);
    return "list";
};
const auto LSSharedFileListInsertItemURL = [](const char* list, const char* after, auto, auto, CFURLRef url, auto...) {
    std::printf("CF: %s %s %s\n", list, after, url);
    return "item";
};
