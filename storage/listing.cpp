#include "storage/listing.h"

#include "storage/json.h"
#include "storage/tree.h"
#include "storage/trouble.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr std::size_t partSize = 1 << 17;
constexpr std::size_t longestElement = 2048; // an escaped name has 1530 characters

// 0 with the attributes in `st`, or a negated error number: -ENOENT for an entry that is not shown.
int look(const Listing& listing, const char* name, struct stat& st) {
    if (fstatat(dirfd(listing.directory.get()), name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return -errno;
    }
    if (S_ISLNK(st.st_mode)) {
        const int found = lookUp(listing.path.empty() ? name : listing.path + "/" + name, st).number;
        return found >= 0 ? 0 : isFailure(found) ? found : -ENOENT;
    }
    return isShown(st) ? 0 : -ENOENT;
}

// Adds the entry `name` to the text; 0 or a negated error number.
int addEntry(Listing& listing, const char* name) {
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) {
        return 0;
    }
    if (!isUtf8(name)) {
        ++listing.leftOut;
        return 0;
    }
    struct stat st;
    const int result = look(listing, name, st);
    if (result == 0) {
        listing.text += std::exchange(listing.hasElements, true) ? "," : "";
        appendElement(listing.text, name, st);
    }
    return result == -ENOENT ? 0 : result;
}

} // namespace

int beginListing(Descriptor directory, const std::string& path, Listing& listing) {
    takeMemory(listing.share, partSize);
    listing.directory.reset(fdopendir(directory.number));
    if (listing.directory == nullptr) {
        return -errno;
    }
    directory.number = -1; // the stream closes it
    listing.path = path;
    const int result = continueListing(listing);
    listing.text.insert(0, "{\"entries\":[");
    return result;
}

int continueListing(Listing& listing) {
    listing.text.clear();
    listing.taken = 0;
    while (listing.text.size() < partSize - longestElement) {
        errno = 0;
        const dirent* entry = readdir(listing.directory.get());
        if (entry == nullptr && errno != 0) {
            return -errno;
        }
        if (entry == nullptr) {
            listing.isComplete = true;
            listing.text += "]}";
            break;
        }
        if (const int error = addEntry(listing, entry->d_name); error != 0) {
            return error;
        }
    }
    if (listing.isComplete && listing.leftOut != 0) {
        std::string shown;
        appendString(shown, ("/" + listing.path).c_str());
        say(shown + ": left out " + std::to_string(listing.leftOut) + " name(s) that are not UTF-8");
    }
    return 0;
}
