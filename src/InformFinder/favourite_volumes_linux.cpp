#include "InformFinder/favourite_volumes.h"

#include "kelvane_vfs/not_null.h"

#include <cstring>
#include <pwd.h>
#include <unistd.h>
#include <vector>

void* openAutoreleasePool() {
    return nullptr;
}

void releaseAutoreleasePool(void*) {}

// From the password database, because the daemon does not use its environment.
char* homeDirectory() {
    std::vector<char> buffer(16384);
    passwd record = {};
    passwd* found = nullptr;
    getpwuid_r(getuid(), &record, buffer.data(), buffer.size(), &found);
    return notNull(strdup(found != nullptr ? record.pw_dir : ""));
}

void insertFavouriteVolume(const char*) {}
