#include "kelvane_vfs/reply_tree.h"

#include "kelvane_vfs/not_null.h"

#include <cstddef>
#include <cstdlib>

namespace {

// The first block is large enough for every reply but a listing.
constexpr std::size_t firstBlockSize = 4UL * 1024;
constexpr std::size_t blockSize = 1024UL * 1024;

struct alignas(std::max_align_t) Block {
    Block* before;
};

// The thread's arena: its blocks, the newest first, and what is left of the newest.
thread_local Block* blocks = nullptr;
thread_local std::size_t room = 0;
thread_local char* next = nullptr;

void* takeFromArena(std::size_t size) {
    const std::size_t rounded = (size + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);
    if (rounded > room) {
        // A long string gets a block of its own size.
        const std::size_t usual = blocks == nullptr ? firstBlockSize : blockSize;
        const std::size_t total = sizeof(Block) + rounded > usual ? sizeof(Block) + rounded : usual;
        auto* block = notNull(static_cast<Block*>(std::malloc(total)));
        block->before = blocks;
        blocks = block;
        next = reinterpret_cast<char*>(block + 1);
        room = total - sizeof(Block);
    }
    void* taken = next;
    next += rounded;
    room -= rounded;
    return taken;
}

void leaveInArena(void*) {}

[[maybe_unused]] const bool hooksInstalled = [] {
    cJSON_Hooks hooks = {takeFromArena, leaveInArena};
    cJSON_InitHooks(&hooks);
    return true;
}();

} // namespace

const cJSON* parseReply(const char* text) {
    if (blocks != nullptr) {
        std::abort();
    }
    const cJSON* tree = cJSON_Parse(text);
    if (tree == nullptr) {
        releaseReply();
    }
    return tree;
}

void releaseReply() {
    while (blocks != nullptr) {
        Block* before = blocks->before;
        std::free(blocks);
        blocks = before;
    }
    room = 0;
}
