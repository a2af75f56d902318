// libFuzzer target: what the server makes of any request line and Range header (cut apart at the first newline). Nothing
// that it accepts may lead out of the served directory or lie outside the file.
#include "storage/target.h"

#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::size_t newline = text.find('\n');
    Target target;
    if (parseTarget(text.substr(0, newline), size % 2 == 0 ? "/" : "/base", target) == 0) {
        for (const std::string& path : {"/" + target.path + "/", "/" + target.to + "/"}) {
            const bool isEmpty = path == "//";
            if (path.find("/../") != std::string::npos || path.find("/./") != std::string::npos || (!isEmpty && path.find("//") != std::string::npos) ||
                    path.find('\0') != std::string::npos || target.offset < 0) {
                std::abort();
            }
        }
    }
    if (newline != std::string::npos) {
        Range range = {};
        const std::uint64_t length = size * 7919;
        if (parseRange(text.c_str() + newline + 1, length, range) == RangeKind::part && (range.length == 0 || range.first + range.length > length)) {
            std::abort();
        }
    }
    return 0;
}
