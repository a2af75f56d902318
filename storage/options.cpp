#include "storage/options.h"

#include <cstdio>
#include <getopt.h>
#include <memory>
#include <sys/stat.h>
#include <variant>

namespace {
constexpr std::size_t largestFile = 1 << 20;

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

// True for a text that can stand in a URL's path as it is.
bool isPlainPath(const std::string& text) {
    return text.starts_with('/') &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f && c != '?' && c != '#'; });
}

// Empty, or what is wrong.
std::string judgeOptions(const Options& options) {
    std::uint16_t port = 0;
    const auto wrong = std::find_if(options.hosts.begin(), options.hosts.end(), [](const std::string& name) {
        return name.empty() || name.find_first_of(":/@ ") != std::string::npos;
    });
    return !parseNumber(options.port, port) ? "--port " + options.port + ": not a number from 0 to 65535"
           : !isPlainPath(options.base)   ? "--prefix " + options.base + ": not a path that can stand in a URL as it is"
           : wrong != options.hosts.end() ? "--host " + *wrong + ": not a name alone; it has no port"
           : options.certificateFile.empty() == options.keyFile.empty() ? ""
           : options.keyFile.empty()                                    ? "--tls-cert needs --tls-key"
                                                                        : "--tls-key needs --tls-cert";
}
} // namespace

int parseOptions(int argc, char* argv[], Options& options) {
    const std::pair<const char*, std::variant<bool*, std::string*, std::vector<std::string>*>> places[] = {
        {"no-secret", &options.noSecret}, {"read-only", &options.readOnly},
        {"sync", &options.sync},          {"behind-proxy", &options.behindProxy},
        {"port", &options.port},          {"prefix", &options.base},
        {"users", &options.usersFile},    {"secret-file", &options.secretFile},
        {"tls-key", &options.keyFile},    {"tls-cert", &options.certificateFile},
        {"log", &options.logFile},        {"listen", &options.listen},
        {"host", &options.hosts},
    };
    std::vector<option> table;
    for (const auto& [name, place] : places) {
        const bool isFlag = std::holds_alternative<bool*>(place);
        table.push_back({name, isFlag ? no_argument : required_argument, nullptr, 0});
    }
    table.insert(table.end(), {{"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, 'v'}, {}});
    for (int index = 0, found = 0; (found = getopt_long(argc, argv, "h", table.data(), &index)) != -1;) {
        if (found == '?') { // getopt has printed what is wrong
            return wrongUsage;
        }
        if (found != 0) {
            std::fputs(found == 'h' ? usageText : "kelvane_storage " KELVANE_VERSION "\n", stdout);
            return success;
        }
        const auto& place = places[index].second;
        if (const auto* flag = std::get_if<bool*>(&place)) {
            **flag = true;
        } else if (const auto* text = std::get_if<std::string*>(&place)) {
            **text = optarg;
            options.noSecret &= *text != &options.secretFile; // the later one counts
        } else {
            std::get<std::vector<std::string>*>(place)->emplace_back(optarg);
        }
    }
    const std::string error = argc == optind      ? "DIRECTORY is missing"
                              : argc > optind + 1 ? "one argument too many: " + std::string(argv[optind + 1])
                                                  : judgeOptions(options);
    if (!error.empty()) {
        throw std::invalid_argument(error);
    }
    if (options.listen.empty()) {
        options.listen = {"127.0.0.1"};
    }
    options.directory = argv[optind];
    return -1;
}

std::string readSettings(const std::string& file, bool isPrivate) {
    const std::unique_ptr<FILE, int (*)(FILE*)> opened(std::fopen(file.c_str(), "re"), std::fclose);
    struct stat st;
    if (opened == nullptr || fstat(fileno(opened.get()), &st) != 0) {
        throw std::system_error(errno, std::generic_category(), file);
    }
    if (isPrivate && (st.st_mode & S_IRWXO) != 0) {
        throw std::runtime_error(file + ": others can read it; \"chmod o=\" mends that");
    }
    std::string text(largestFile + 1, '\0');
    text.resize(std::fread(text.data(), 1, text.size(), opened.get()));
    if (std::ferror(opened.get()) != 0) {
        throw std::system_error(errno, std::generic_category(), file);
    }
    if (text.empty() || text.size() > largestFile) {
        throw std::runtime_error(file + (text.empty() ? ": it is empty" : ": it is too large"));
    }
    return text;
}
