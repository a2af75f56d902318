// libFuzzer target: any request line and Range header for the server (the input is split at the first newline).
// Nothing that it accepts may lead out of the served directory or lie outside the file.
#include "storage/request.h"

#include <algorithm>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
    const std::string text(data, size), line = text.substr(0, text.find('\n')),
                                        header = text.substr(std::min(size, line.size() + 1));
    Target target;
    const bool accepted = parseTarget(line, size % 2 == 0 ? "/" : "/base", target) == 0;
    const std::string paths = "/" + target.path + "/\n/" + target.to.value_or("") + "/";
    const auto holds = [&](const std::string& part) { return paths.find(part) != std::string::npos; };
    if (accepted && (holds("/../") || holds("/./") || holds(std::string(1, '\0')) || target.offset.value_or(0) < 0)) {
        std::abort();
    }
    Range range = {};
    if (parseRange(header, size, range) && range.length != 0 && range.first + range.length > size) {
        std::abort();
    }
    return 0;
}
