#include "cache/dir_entry.h"

#include "cache/name_lookup.h"
#include "kelvane_vfs/leak_on_purpose.h"
#include "kelvane_vfs/not_null.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>

namespace {

pthread_mutex_t mutex;
pthread_mutexattr_t mutexattr;

} // namespace

void DirCreateLock() {
    pthread_mutexattr_init(&mutexattr);
    pthread_mutexattr_settype(&mutexattr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &mutexattr);
}

void DirDestroyLock() {
    pthread_mutex_destroy(&mutex);
}

void DirLock() {
    pthread_mutex_lock(&mutex);
}

void DirUnlock() {
    pthread_mutex_unlock(&mutex);
}

DirEntry* DirEntryNew(const char* name, std::int32_t type, const struct stat* st) {
    auto* entry = notNull(static_cast<DirEntry*>(std::calloc(1, sizeof(DirEntry))));
    entry->name = notNull(strdup(name));
    entry->type = type;
    entry->st = *st;
    return entry;
}

DirEntry* DirEntryAdd(DirEntry* dir, const char* name, std::int32_t type, const struct stat* st) {
    if (dir->type != directoryType) {
        return nullptr;
    }
    DirEntry* entry = DirEntryNew(name, type, st);
    DirEntryDel(dir, name);
    HASH_ADD_KEYPTR(hh, dir->children, entry->name, std::strlen(entry->name), entry);
    return entry;
}

void DirEntryDel(DirEntry* dir, const char* name) {
    if (dir->type != directoryType || dir->children == nullptr) {
        return;
    }
    DirEntry* entry = DirEntryFindChild(dir, name);
    if (entry == nullptr) {
        return;
    }
    HASH_DEL(dir->children, entry);
    DirEntryFree(entry);
}

// The table of extended attributes is not released: nothing in the daemon fills one.
void DirEntryFree(DirEntry* entry) {
    leakOnPurpose(entry->xattrs);
    std::free(entry->name);
    entry->name = nullptr;
    if (entry->type == directoryType) {
        DirEntry* child = nullptr;
        DirEntry* next = nullptr;
        HASH_ITER(hh, entry->children, child, next) {
            HASH_DEL(entry->children, child);
            DirEntryFree(child);
        }
    }
    std::free(entry);
}

DirEntry* DirEntryFindChild(const DirEntry* dir, const char* name) {
    return findInNameForms(dir->children, name);
}
