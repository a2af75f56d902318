// The daemon and the server as their users run them: real processes, a real mount, real programs.
#include "tests/processes.h"
#include "tests/scripted_service.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace {

using Options = std::vector<std::string>;

const std::string composed = "\xc3\xa9";
const std::string decomposed = "e\xcc\x81";

int rounds() {
    const char* number = std::getenv("KELVANE_TEST_ROUNDS");
    return number != nullptr ? static_cast<int>(std::strtol(number, nullptr, 10)) : 50;
}

std::size_t count(const std::string& text, const std::string& part) {
    std::size_t found = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) { ++found; }
    return found;
}

struct MountTest : testing::Test {
    std::string scratch = makeScratch();
    std::string tree = scratch + "/tree";
    std::string disk = scratch + "/disk";
    std::string url;
    std::string program = KELVANE_VFS;
    pid_t server = 0;
    pid_t daemon = 0;

    void SetUp() override {
        if (access("/dev/fuse", R_OK | W_OK) != 0) {
            GTEST_SKIP() << "there is no /dev/fuse here: nothing can be mounted";
        }
        startWatchdog(280);
        adoptOrphans();
        std::filesystem::create_directories(tree);
        std::filesystem::create_directories(disk);
    }

    void TearDown() override {
        if (daemon != 0) {
            stop(daemon, disk);
        }
        stopServer();
        stopWatchdog();
        removeScratch(scratch);
    }

    void serve(Options options = {}) {
        options.insert(options.begin(), KELVANE_STORAGE);
        options.push_back(tree);
        server = startProcess(options, scratch + "/server");
        ASSERT_TRUE(eventually([&] { return fileText(scratch + "/server.out").ends_with("\n"); }));
        url = fileText(scratch + "/server.out");
        url.pop_back();
    }

    void stopServer() {
        if (server != 0) {
            kill(server, SIGTERM);
            EXPECT_EQ(endOf(server), 0);
        }
        server = 0;
    }

    // The daemon must not care for a proxy in its environment or for signals that its starter blocks.
    pid_t start(const std::string& point, const Options& options = {"-f"}) {
        setenv("http_proxy", "http://127.0.0.1:9", 1);
        sigset_t blocked;
        sigfillset(&blocked);
        sigdelset(&blocked, SIGINT);
        sigdelset(&blocked, SIGTERM);
        sigdelset(&blocked, SIGHUP);
        pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
        Options command = {program, url, "Documents (storage)"};
        command.insert(command.end(), options.begin(), options.end());
        command.push_back(point);
        const pid_t process = startProcess(command, point + "-log");
        pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
        return process;
    }

    // Starts a daemon in the foreground and waits until its disk answers.
    pid_t mount(const std::string& point, const Options& options = {"-f"}) {
        const pid_t process = start(point, options);
        EXPECT_TRUE(eventually([&] { return isMounted(point) && access((point + "/.").c_str(), F_OK) == 0; }));
        return process;
    }

    static void stop(pid_t process, const std::string& point) {
        kill(process, SIGTERM);
        EXPECT_EQ(endOf(process), 1);
        EXPECT_FALSE(isMounted(point));
        const std::string errors = fileText(point + "-log.err");
        EXPECT_EQ(errors.find("Sanitizer"), std::string::npos) << errors.substr(errors.find("Sanitizer") - 100, 5000);
    }

    // The FUSE library leaves its own records of open folders and files behind when its loop is told to end in the middle
    // of requests, so a test that does that does not look for leaks.
    static void ignoreLeaks() {
        const char* options = std::getenv("ASAN_OPTIONS");
        setenv("ASAN_OPTIONS", (std::string(options != nullptr ? options : "") + ":detect_leaks=0").c_str(), 1);
    }

    // Serves the tree and mounts it at `disk`.
    void mountTree(const Options& options = {}) {
        serve(options);
        daemon = mount(disk);
    }

    // Runs a command in both folders and compares what it prints and how it ends.
    static void expectSame(const std::string& command, const std::string& expectedIn, const std::string& actualIn) {
        std::string expected;
        std::string actual;
        const int expectedStatus = runShell("cd '" + expectedIn + "' && " + command, &expected);
        const int actualStatus = runShell("cd '" + actualIn + "' && " + command, &actual);
        EXPECT_EQ(actualStatus, expectedStatus) << command << "\n" << actual.substr(0, 2000);
        EXPECT_TRUE(actual == expected) << command << "\nlocal:\n" << expected.substr(0, 2000) << "\nmounted:\n" << actual.substr(0, 2000);
    }
};

} // namespace

TEST(CommandLine, Edges) {
    const struct {
        std::string arguments;
        int status;
        std::string output;
    } rows[] = {
            {"", 1, ""},
            {"http://127.0.0.1:1/", 1, "usage: kelvane_vfs BASE_URL DISK_NAME [FUSE options ...] MOUNT_POINT\n"},
            {std::string(128, 'u') + " disk /none", 128 + SIGABRT, "thread started, pipe ready\n"},
            {std::string(127, 'u') + " disk /none/such", 1, "thread started, pipe ready\nkelvane_vfs starting\n"},
    };
    for (const auto& row : rows) {
        std::string output;
        EXPECT_EQ(runShell("exec " KELVANE_VFS " " + row.arguments, &output, 20), row.status) << row.arguments;
        EXPECT_TRUE(row.output.empty() ? output.empty() : output.starts_with(row.output)) << output;
    }
}

TEST_F(MountTest, ReadsLikeTheDirectoryItself) {
    runShell("cp -RL /usr/share/doc /usr/include/linux " + tree + "; cd " + tree +
             " && mkdir -p 'Ünï/deep er' && "
             "echo text >'Ünï/deep er/名前' && : >empty && head -c 3000001 /dev/urandom >big && find . -type p -delete");
    mountTree();
    for (const char* command : {
                 "ls -lR --time-style=+%s",
                 "find . -mindepth 1 -printf '%p %y %s %b %m %n %U %G %As %Ts %Cs\\n' | sort",
                 "find . -type f | sort | xargs -d '\\n' md5sum",
                 "tar c --sort=name . | tar t",
                 "find . -type f | sort | xargs -d '\\n' -P 8 -n 200 cat | wc -c",
                 "rsync -rtn --stats . /nowhere/ | grep 'Number of'",
                 "df --output=size . | tail -n 1",
                 "cat none",
                 "cat big/none",
                 "ls -la none",
                 "tail -c +2999990 big | od -c",
         }) {
        expectSame(command, tree, disk);
    }
    std::string output;
    EXPECT_EQ(runShell("for i in 1 2 3 4 5 6 7 8; do cmp " + tree + "/big " + disk + "/big || echo differs & done; wait", &output), 0);
    EXPECT_EQ(output, "");
    EXPECT_EQ(runShell("rsync -rt " + disk + "/ " + scratch + "/copy && diff -r " + tree + " " + scratch + "/copy"), 0);
    const int file = open((disk + "/big").c_str(), O_RDONLY);
    const auto* bytes = static_cast<const char*>(mmap(nullptr, 3000001, PROT_READ, MAP_PRIVATE, file, 0));
    EXPECT_TRUE(std::string(bytes, 3000001) == fileText(tree + "/big"));
    munmap(const_cast<char*>(bytes), 3000001);
    close(file);
}

TEST_F(MountTest, AsksOnceForWhatItKnows) {
    runShell("cd " + tree + " && for d in $(seq 100); do mkdir d$d; (cd d$d; touch $(seq 100)); done; mkdir d0; cd d0; seq 100000 | xargs touch");
    mountTree();
    std::string output;
    for (int look = 0; look < 2; ++look) {
        EXPECT_EQ(runShell("find " + disk + " -name d0 -prune -o -ls | wc -l", &output), 0);
        EXPECT_EQ(output, "10101\n");
    }
    const std::string trace = fileText(disk + "-log.err");
    EXPECT_EQ(count(trace, ", query: (null)\n"), 101U);
    EXPECT_EQ(count(trace, ", query: action=props\n"), 1U);
    expectSame("ls -f d0 | sort | grep -v '^[.]' | md5sum", tree, disk);
}

// What programs do to a disk, done to a local folder and to the mount: same output, same status, and the server's
// folder follows.
TEST_F(MountTest, ProgramsWorkOnIt) {
    mountTree();
    const std::string local = scratch + "/local";
    std::filesystem::create_directories(local);
    runShell("mkdir -p " + scratch + "/src/sub/leer && cd " + scratch +
             "/src && echo one >a && "
             "head -c 300000 /dev/urandom >sub/b && echo 3 >'sub/Ünïcode 名前' && tar cf ../src.tar .");
    const std::string git = "git -c user.name=T -c user.email=t@example.invalid ";
    for (const std::string& command : {
                 std::string("cp -a ../src copied && cp -p ../src/a copied/p && ls -R copied"),
                 std::string("rsync -a ../src/ synced && rsync -ai --size-only ../src/ synced | grep '^>'; diff "
                             "-r ../src synced"),
                 std::string("mkdir untarred && tar xf ../src.tar -C untarred && diff -r ../src untarred"),
                 std::string("dd if=../src/sub/b of=odd bs=777 seek=3 count=300 2>&1 | head -n 2; dd if=../src/sub/b of=odd "
                             "bs=1000 seek=7 count=9 conv=notrunc 2>/dev/null; md5sum odd; stat -c %s odd"),
                 std::string("truncate -s 5000 odd && md5sum odd && truncate -s 10 odd && od -c odd && truncate -s 0 odd "
                             "&& wc -c odd"),
                 std::string("echo one >>log; echo two >>log; cat log; stat -c %s log"),
                 std::string("echo saved >doc && echo newer >.doc.swp && mv .doc.swp doc && cat doc && ls -A | grep doc"),
                 std::string("mkdir -p é/ü/ñ && echo x >é/ü/ñ/ø && mv é/ü z && cat z/ñ/ø && ls -R é z && rm -r é z && ls"),
                 std::string("sqlite3 t.db 'create table t(a); insert into t values(1),(2); delete from t where a=1; "
                             "select * from t; pragma integrity_check'"),
                 git + "init -q repo && cd repo && cp -r ../copied/sub ../copied/a . && " + git + "add . && " + git + "commit -qm first && " + git +
                         "fsck 2>&1 && " + git + "clone -q . ../cloned && diff -r --exclude=.git . ../cloned",
                 std::string("chmod 600 copied/a && chown 0:0 copied/a && touch -d 2001-01-01 copied/a && echo accepted"),
                 std::string("mkdir copied; rm none; mv none other; cat copied; rmdir copied/a; rmdir copied 2>/dev/null"),
                 std::string("mv copied/a copied/sub/b && cat copied/sub/b && mkdir x && touch x/f && mv x synced/x && ls "
                             "-R synced"),
                 std::string("exec 3>open; echo a >&3; rm open; echo b >&3; exec 3>&-; until [ -z \"$(ls -A | grep "
                             "hidden)\" ]; do sleep 0.1; done; ls -A"),
                 std::string("rm -r untarred repo cloned && ls -A"),
         }) {
        expectSame(command, local, disk);
    }
    EXPECT_EQ(runShell("diff -r " + local + " " + disk + " && diff -r " + local + " " + tree), 0);
    // The mode stays what the server has.
    expectSame("stat -c %a copied/sub/sub/b", tree, disk);
}

TEST_F(MountTest, AgreesWithTheServerInEverySpelling) {
    std::ofstream(tree + "/" + composed) << "old";
    std::filesystem::create_directories(tree + "/dir " + decomposed);
    mountTree();
    const std::string changes[] = {
            "cat " + decomposed + " >/dev/null && echo longer >" + decomposed,
            "printf more >>" + decomposed,
            "truncate -s 3 " + decomposed,
            "mv " + decomposed + " 'dir " + composed + "/" + decomposed + "'",
            "mkdir 'dir " + composed + "/sub' && touch 'dir " + decomposed + "/sub/f'",
            "rm -r 'dir " + composed + "/sub'",
            "mv 'dir " + composed + "' plain",
            "rm plain/" + composed,
    };
    for (const std::string& change : changes) {
        EXPECT_EQ(runShell("cd " + disk + " && " + change), 0) << change;
        expectSame("find . -mindepth 1 -type d -printf '%p %s\\n' -o -printf '%p %y %s %Ts\\n' | sed 's/" + decomposed + "/" + composed +
                           "/g' | sort; find . -type f -exec cat {} +",
                tree, disk);
    }
}

TEST_F(MountTest, ReadOnlyServerFailsEveryChangeCleanly) {
    std::filesystem::create_directories(tree + "/d");
    std::ofstream(tree + "/a") << "content";
    mountTree({"--read-only"});
    for (const char* change : {"mkdir m", "rmdir d", "rm a", "mv a b", "truncate -s 1 a", "touch new"}) {
        std::string output;
        EXPECT_NE(runShell("cd " + disk + " && LC_ALL=C " + change, &output), 0);
        EXPECT_NE(output.find("No such file or directory"), std::string::npos) << change << output;
    }
    std::string output;
    EXPECT_NE(runShell("cd " + disk + " && LC_ALL=C dd if=/dev/zero of=a conv=notrunc bs=1 count=1", &output), 0);
    EXPECT_NE(output.find("Operation not permitted"), std::string::npos) << output;
    expectSame("find . -mindepth 1 -printf '%p %s\\n' | sort; cat a", tree, disk);
}

TEST_F(MountTest, TwoDaemonsOnOneServer) {
    program = KELVANE_VFS_FAST; // a minute of its cache takes a second
    mountTree();
    const std::string second = scratch + "/second";
    std::filesystem::create_directories(second);
    const pid_t other = mount(second);
    EXPECT_EQ(runShell("ls " + second + " && echo one >" + disk + "/f && mkdir " + disk + "/d"), 0);
    // What the other one cached stays until its minute is over, and files can vanish under it meanwhile.
    EXPECT_EQ(runShell("cd " + disk + " && for i in $(seq 40); do echo $i >d/$i; done & cd " + second +
                       " && for i in $(seq 40); do echo $i >e$i; cat ../disk/e$i; rm -f e$i; ls; done >/dev/null 2>&1; wait $!"),
            0);
    EXPECT_TRUE(eventually([&] { return access((second + "/d/40").c_str(), F_OK) == 0; }));
    expectSame("find . -mindepth 1 -printf '%p %s\\n' | sort", tree, second);
    stop(other, second);
}

TEST_F(MountTest, StopsAtEverySignalInEveryMode) {
    ignoreLeaks();
    serve();
    runShell("head -c 2000000 /dev/zero >" + tree + "/big");
    std::vector<Options> modes = {{"-f"}, {"-f", "-s"}};
#ifndef __SANITIZE_THREAD__ // which holds signals back in a process that was forked off several threads
    modes.insert(modes.end(), {{}, {"-s"}});
#endif
    for (const Options& mode : modes) {
        const bool background = mode.empty() || mode[0] != "-f";
        for (int round = 0; round < 3 * rounds(); ++round) {
            const int signal = round % 3 == 0 ? SIGINT : round % 3 == 1 ? SIGTERM : SIGHUP;
            pid_t process = start(disk, mode);
            if (background) {
                ASSERT_EQ(endOf(process), 0);
                process = adoptedChild({server});
                watchProcess(process);
            }
            ASSERT_TRUE(eventually([&] { return isMounted(disk) && access((disk + "/big").c_str(), F_OK) == 0; }));
            // Every other round is busy: a file stays open and is being read.
            const bool busy = round % 2 == 1;
            pid_t reader = 0;
            if (busy) {
                reader = startProcess({"/bin/sh", "-c",
                                              "cat " + disk + "/big >/dev/null && echo started; exec >/dev/null 2>&1; while cat " + disk +
                                                      "/big; do :; done; exec 3<" + disk + "/big"},
                        scratch + "/reader");
                ASSERT_TRUE(eventually([&] { return fileText(scratch + "/reader.out") == "started\n"; }));
            }
            kill(process, signal);
            ASSERT_EQ(endOf(process), 1) << "round " << round << " background " << background;
            if (busy) {
                endOf(reader);
            }
            ASSERT_FALSE(isMounted(disk));
            if (!background) {
                const std::string output = fileText(disk + "-log.out");
                std::size_t at = 0;
                for (const std::string& line : {"handleSignal: " + std::to_string(signal), "stopping fuse for mount point " + disk,
                             std::string("handleSignal: write result = 1"), std::string("got packet from signalHandler, trying to exit...")}) {
                    at = output.find(line + "\n", at);
                    ASSERT_NE(at, std::string::npos) << line << output.substr(output.size() - 500);
                }
                ASSERT_TRUE(output.ends_with("kelvane_vfs exiting\n")) << output;
            }
        }
    }
}

TEST_F(MountTest, UnmountedFromOutsideEndsWithStatusZero) {
    serve();
    for (const Options& mode : {Options{"-f"}, Options{"-f", "-s"}}) {
        const pid_t process = mount(disk, mode);
        EXPECT_EQ(kill(process, SIGPIPE), 0);
        EXPECT_EQ(runShell("fusermount -u " + disk), 0);
        EXPECT_EQ(endOf(process), 0);
        EXPECT_TRUE(fileText(disk + "-log.out").ends_with("kelvane_vfs exiting\n"));
    }
}

TEST_F(MountTest, LosingTheServiceEndsTheDaemon) {
    ScriptedService service;
    startScript(service);
    setReply(service, "GET /?action=props", httpReply(200, attributesJson(1, 040755)));
    setReply(service, "GET /", httpReply(200, listingJson({element("f", 8, 100000)})));
    setReply(service, "GET /%2Ff", {"HTTP/1.1 206 Part\r\nContent-Length: 4096\r\n\r\nhalf", false, true});
    url = "http://127.0.0.1:" + std::to_string(service.port) + "/";
    // The connection is reset in the middle of a body.
    pid_t process = mount(disk, {"-f", "-o", "auto_unmount"});
    EXPECT_NE(runShell("cat " + disk + "/f"), 0);
    EXPECT_EQ(endOf(process), 1);
    EXPECT_NE(fileText(disk + "-log.out").find("CURL error: "), std::string::npos);
    EXPECT_TRUE(eventually([&] { return !isMounted(disk); }));
    // Nobody listens any more, at a read and at the start.
    process = mount(disk, {"-f", "-o", "auto_unmount,attr_timeout=0,entry_timeout=0"});
    stopScript(service);
    EXPECT_NE(runShell("ls " + disk), 0);
    EXPECT_EQ(endOf(process), 1);
    EXPECT_TRUE(eventually([&] { return !isMounted(disk); }));
    process = start(disk, {"-f", "-o", "auto_unmount"});
    EXPECT_EQ(endOf(process), 1);
    EXPECT_NE(fileText(disk + "-log.out").find("CURL error: Couldn't connect to server\n"), std::string::npos);
    EXPECT_TRUE(eventually([&] { return !isMounted(disk); }));
}

// Whatever a write was acknowledged for is on the server, however the daemon is stopped in the middle of others.
TEST_F(MountTest, StopsInTheMiddleOfWritesAndListings) {
    ignoreLeaks();
    serve();
    std::size_t total = 0;
    for (const Options& mode : {Options{"-f"}, Options{"-f", "-s"}}) {
        for (int round = 0; round < 2 * rounds(); ++round) {
            const std::string name = "/file" + std::to_string(round);
            const pid_t process = mount(disk, mode);
            std::string acknowledged;
            // Opened while the disk is there: a write must not go to the folder below it afterwards.
            const int file = open((disk + name).c_str(), O_CREAT | O_WRONLY, 0644);
            std::thread lister([&] { runShell("while ls -lR " + disk + " >/dev/null 2>&1 && cat " + disk + "/* >/dev/null 2>&1; do :; done"); });
            std::thread writer([&] {
                std::string block(20000, '0');
                for (char c = 'a'; write(file, block.assign(block.size(), c).data(), block.size()) == static_cast<ssize_t>(block.size());
                        c = c == 'z' ? 'a' : static_cast<char>(c + 1)) {
                    acknowledged += block;
                }
                close(file);
            });
            sleepMilliseconds(5 + round % 20);
            kill(process, SIGTERM);
            EXPECT_EQ(endOf(process), 1);
            writer.join();
            lister.join();
            ASSERT_FALSE(isMounted(disk));
            ASSERT_TRUE(fileText(tree + name).starts_with(acknowledged)) << "round " << round;
            EXPECT_EQ(fileText(disk + "-log.err").find("Sanitizer"), std::string::npos);
            total += acknowledged.size();
            std::filesystem::remove(tree + name);
        }
    }
    EXPECT_GT(total, 0U);
}

TEST_F(MountTest, WorksOverHttps) {
    const std::string certificate = scratch + "/cert.pem";
    ASSERT_EQ(runShell("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=test -addext "
                       "subjectAltName=IP:127.0.0.1 -keyout " +
                       scratch + "/key.pem -out " + certificate),
            0);
    runShell("head -c 1000000 /dev/urandom >" + tree + "/big");
    serve({"--tls-cert", certificate, "--tls-key", scratch + "/key.pem"});
    EXPECT_TRUE(url.starts_with("https://127.0.0.1:")) << url;
    EXPECT_EQ(endOf(start(disk, {"-f", "-o", "auto_unmount"})), 1);
    EXPECT_NE(fileText(disk + "-log.out").find("CURL error: SSL peer certificate or SSH remote key was not OK\n"), std::string::npos);
    EXPECT_TRUE(eventually([&] { return !isMounted(disk); }));
    // Trusted in a mount namespace of its own, where the certificate stands in the place of the system's list.
    std::ofstream(scratch + "/trusted") << "set -e; mount --bind " << certificate << " /etc/ssl/certs/ca-certificates.crt\n"
                                        << KELVANE_VFS << " " << url << " 'D (s)' -f " << disk << " >/dev/null 2>&1 & daemon=$!\ntrap 'kill $daemon' EXIT\n"
                                        << "until mountpoint -q " << disk << "; do sleep 0.05; done; cmp " << tree << "/big " << disk << "/big; cp " << disk
                                        << "/big " << disk << "/copy\n"
                                        << "trap - EXIT; kill $daemon; wait $daemon || echo status $?\n";
    std::string output;
    EXPECT_EQ(runShell("unshare -m sh " + scratch + "/trusted", &output, 60), 0);
    EXPECT_EQ(output, "status 1\n");
    EXPECT_EQ(runShell("cmp " + tree + "/big " + tree + "/copy"), 0);
}
