#include "storage/options.h"

#include "storage/trouble.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <getopt.h>

namespace {

const char* const usageText =
    "usage: kelvane_storage [OPTION ...] DIRECTORY\n"
    "Serves DIRECTORY over HTTP and prints the base URL to give to kelvane_vfs.\n"
    "\n"
    "  --listen ADDRESS     address or name to listen on (127.0.0.1); can be repeated\n"
    "  --port N             port; 0, which is the default, picks a free one\n"
    "  --prefix PATH        what the base URL's path begins with (/)\n"
    "  --read-only          refuse every change\n"
    "  --sync               put every change on the disk before it is answered\n"
    "  --secret-file FILE   keep the secret of the base URL in FILE; without, each start makes a new one\n"
    "  --no-secret          no secret in the base URL\n"
    "  --users FILE         ask for one of the names and passwords in FILE, which can be hashed\n"
    "  --host NAME          a name by which clients may call the server; can be repeated\n"
    "  --tls-cert FILE      serve over HTTPS with this certificate\n"
    "  --tls-key FILE       and this key\n"
    "  --behind-proxy       clients come through a proxy that does HTTPS\n"
    "  --log FILE           write a line for each request; - is standard output\n"
    "  --version, --help\n";

// An option and where its value goes.
struct Row {
    const char* name;
    bool Options::*flag = nullptr;
    std::string Options::*text = nullptr;
    std::vector<std::string> Options::*list = nullptr;
};

constexpr Row rows[] = {
    {.name = "help"},
    {.name = "version"},
    {.name = "port", .text = &Options::port},
    {.name = "no-secret", .flag = &Options::noSecret},
    {.name = "read-only", .flag = &Options::readOnly},
    {.name = "sync", .flag = &Options::sync},
    {.name = "behind-proxy", .flag = &Options::behindProxy},
    {.name = "prefix", .text = &Options::base},
    {.name = "secret-file", .text = &Options::secretFile},
    {.name = "users", .text = &Options::usersFile},
    {.name = "tls-cert", .text = &Options::certificateFile},
    {.name = "tls-key", .text = &Options::keyFile},
    {.name = "log", .text = &Options::logFile},
    {.name = "listen", .list = &Options::listen},
    {.name = "host", .list = &Options::hosts},
};

bool isPort(const std::string& text) {
    std::uint16_t port = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, port);
    return error == std::errc() && stop == end;
}

// True for a text that can stand in a URL's path as it is.
bool isPlainPath(const std::string& text) {
    return text.starts_with('/') &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f && c != '?' && c != '#'; });
}

bool isNameAlone(const std::string& name) {
    return !name.empty() && name.find_first_of(":/@ ") == std::string::npos;
}

// Empty, or what is wrong.
std::string judgeOptions(const Options& options) {
    const auto wrong = std::find_if_not(options.hosts.begin(), options.hosts.end(), isNameAlone);
    return !isPort(options.port)          ? "--port " + options.port + ": not a number from 0 to 65535"
           : !isPlainPath(options.base)   ? "--prefix " + options.base + ": not a path that can stand in a URL as it is"
           : wrong != options.hosts.end() ? "--host " + *wrong + ": not a name alone; it has no port"
           : options.certificateFile.empty() == options.keyFile.empty() ? ""
           : options.keyFile.empty()                                    ? "--tls-cert needs --tls-key"
                                                                        : "--tls-key needs --tls-cert";
}

} // namespace

int complainOfUsage(const std::string& text) {
    say(text + "; --help shows the usage");
    return wrongUsage;
}

int parseOptions(int argc, char* argv[], Options& options) {
    std::vector<option> table;
    for (const Row& row : rows) {
        table.push_back(
            {row.name, row.text != nullptr || row.list != nullptr ? required_argument : no_argument, nullptr, 0});
    }
    table.push_back({});
    for (int index = 0, found = 0; (found = getopt_long(argc, argv, "h", table.data(), &index)) != -1;) {
        if (found == '?') { // getopt has printed what is wrong
            return wrongUsage;
        }
        const Row& row = rows[found == 'h' ? 0 : index];
        if (row.flag != nullptr) {
            options.*row.flag = true;
        } else if (row.text != nullptr) {
            options.*row.text = optarg;
        } else if (row.list != nullptr) {
            (options.*row.list).emplace_back(optarg);
        } else {
            std::fputs(row.name == rows[0].name ? usageText : "kelvane_storage " KELVANE_VERSION "\n", stdout);
            return success;
        }
        options.noSecret &= row.text != &Options::secretFile; // the later one counts
    }
    const std::string error = argc == optind      ? "DIRECTORY is missing"
                              : argc > optind + 1 ? "one argument too many: " + std::string(argv[optind + 1])
                                                  : judgeOptions(options);
    if (!error.empty()) {
        return complainOfUsage(error);
    }
    if (options.listen.empty()) {
        options.listen = {"127.0.0.1"};
    }
    options.directory = argv[optind];
    return -1;
}
