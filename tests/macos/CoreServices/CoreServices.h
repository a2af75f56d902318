// What the sidebar registration uses of CoreFoundation and Launch Services, every object of which is its name here.
// Each function prints its call.
#pragma once

#include <cstdio>
#include <initializer_list>
#include <string>

typedef unsigned char Boolean, UInt8;
typedef long CFIndex;
typedef const char *CFTypeRef, *CFURLRef, *LSSharedFileListRef, *LSSharedFileListItemRef;
constexpr const char *kCFAllocatorDefault = "allocator", *kLSSharedFileListItemLast = "last";
constexpr const char* kLSSharedFileListFavoriteVolumes = "favourites";

inline const char* give(const char* object, std::initializer_list<const char*> call) {
    std::string line = "CF:";
    for (const char* part : call) {
        line += std::string(" ") + (part != nullptr ? part : "-");
    }
    std::puts(line.c_str());
    return object;
}

const auto CFRelease = [](CFTypeRef object) { give("", {"release", object}); };
const auto CFURLCreateFromFileSystemRepresentation = [](const char* a, const UInt8* path, CFIndex size, Boolean isDir) {
    return give("url", {a, std::string(reinterpret_cast<const char*>(path), size).c_str(), isDir ? "/" : ""});
};
const auto LSSharedFileListCreate = [](const char* a, const char* type, const char*) {
    return give("list", {a, type});
};
const auto LSSharedFileListInsertItemURL = [](auto... arguments) { return give("item", {arguments...}); };
