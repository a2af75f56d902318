"""The daemon's functions against a scripted service: what they print, send, return and keep."""
import contextlib
import http.client
import itertools
import os
import pwd
import re
import select
import socket
import struct
import subprocess

from programs import BIN, ServerTest, text

# Each row of a table is a transcript: the program `calls` makes the row's calls, and all that happens has to stand in
# the row, in its order. A row begins with a line that begins with "$"; its fields are separated by "; " or a line's
# end:
#   "$ NAME ARGUMENT,ARGUMENT"  a call
#   "O TEXT", "E TEXT"  a line on one of the output streams. Those of the transport and of the path look-up are left out
#       where a row has none of them
#   "> METHOD URL|HEADER|BODY"  a request; "C*N" is a body of N times the byte C
#   "< STATUS BODY", "< BYTES"  the answer to a request, and the connection is closed; with "keep" before it, it is not,
#       with "reset" it is reset
#   "= NUMBER"  the call's result
#   "exit STATUS", "signal NUMBER"  the program's end, if that is not exit 0
#   "..."  anything, up to the fields that follow
#   "? ANSWER"  the same, with this answer; the row is repeated for each of several
# WORDS are replaced, in their order. Lines that begin with "//" are comments. Bytes are shown as Latin-1.
WORDS = {
    # A write over a connection that is closed at that moment.
    "AGAIN": "$ ONCE; < ; SEND0|TYPEa*3; < keep200 FILE5; = 3",
    "ONCE": "write /a.txt,3,0; E kelvane_write: path: /a.txt size: 3 offset: 0; SEND0|TYPEa*3",
    "SEND": "> PUT /%2Fa.txt?action=write&flags=8194&offset=",
    "TYPE": "Content-Type: application/octetstream|",
    "DIR4096": '{"s":4096,"b":8,"m":16877,"nl":1,"at":11,"mt":22,"ct":33}',
    "FILE5": '{"s":5,"b":8,"m":33188,"nl":1,"at":11,"mt":22,"ct":33}',
    "SOCKET": '{"s":9,"b":8,"m":49536,"nl":1,"at":11,"mt":22,"ct":33}',
    "OTHERS": "8 1 11 22 33 65534 4321",
    "ZEROS": "0 0 0 0 0 0 0 0 0",
    "TEXTS": '{"s":"1","b":"1","m":"x","nl":[],"at":{},"mt":null,"ct":"x"}',
    "AB": '{"entries":[{"n":"a","t":8},{"n":"b","t":4}]}',
    "LONG": "n" * 2000000,
    "NNN": "n" * 1021,
    "N64": "n" * 64,
    "BYTE0": "\0",
    "NFC": "\xc3\xa9",
    "NFD": "e\xcc\x81",
    "LIG": "\xef\xac\x81",
    "BAD": "\xff",
    "HANGUL": "\xea\xb0\x80\xe1\x86\xa7",
    "JAMO": "\xe1\x84\x80\xe1\x85\xa1\xe1\x86\xa7",
    "CREATE": str(os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_EXCL | os.O_CLOEXEC | os.O_DIRECTORY),
    "APPEND": str(os.O_RDWR | os.O_APPEND | os.O_NONBLOCK | os.O_NOFOLLOW | os.O_NOCTTY),
    "FAIL": "E   -> FAILED",
}
HIDDEN = "(?m)^.*(?:getURL: |OriginalEncodingPath|encoded_path=| bytes retrieved|CF: ).*\n"
MACOS = BIN + "/macos_calls"  # the same program in macOS's build, if there is one
PROGRAMS = [BIN + "/calls"] + [MACOS] * os.path.exists(MACOS)

TREE = r"""$ init; > GET /?action=props|; < 200 DIR4096; $ show /d/x; > GET /|
  < 200 {"entries":[{"n":"a.txt","t":8,"s":5},{"n":"dir x","t":4,"s":0},{"n":"d","t":4},{"n":"NFC","t":8,"s":1}]}
  > GET /%2Fd|; < 200 {"entries":[{"n":"old","t":8}]}; O none
  $ show /dir x/x; > GET /%2Fdir%20x|; < 200 {"entries":[]}; O none
"""


class CallsTest(ServerTest):
    def setUp(self):
        super().setUp()
        self.listener = self.enterContext(socket.create_server(("127.0.0.1", 0)))
        self.record = self.enterContext(open(self.scratch + "/record", "ab", buffering=0))
        self.url = "http://127.0.0.1:%d/" % self.listener.getsockname()[1]

    def note(self, line):
        self.record.write((line + "\n").encode("latin-1"))

    # Answers the requests of a connection.
    def answer(self, connection, answers):
        with contextlib.suppress(ConnectionError), connection, connection.makefile("rb") as requests:
            kind = "keep"
            while kind == "keep" and (request := requests.readline().decode("latin-1")):
                headers = http.client.parse_headers(requests)
                body = requests.read(int(headers.get("Content-Length", 0))).decode("latin-1")
                body = f"{body[0]}*{len(body)}" if len(set(body)) == 1 else body
                self.note("> " + "|".join([request.rpartition(" HTTP/")[0], *[
                    f"{name}: {value}" for name, value in headers.items()
                    if name not in ("Host", "Accept", "Expect", "Content-Length")], body]))
                answer = next(answers, "")
                self.note("< " + answer)
                kind, answer = re.fullmatch("(?s)(keep|reset|)(.*)", answer).groups()
                if answer[:1].isdigit():
                    status, body = answer[:3], answer[4:]
                    closing = "" if kind == "keep" else r"\r\nConnection: close"
                    answer = rf"HTTP/1.1 {status} OK{closing}\r\nContent-Length: {len(body)}\r\n\r\n{body}"
                connection.sendall(answer.replace(r"\r\n", "\r\n").encode("latin-1"))
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", kind == "reset", 0))

    # What happens in a row.
    def transcript(self, program, row):
        calls = [call.encode("latin-1") for call in re.findall(r"(?m)^\$ (.*)", row)]
        answers = iter(re.findall("(?m)^< (.*)", row))
        self.record.truncate(0)
        with subprocess.Popen([program, self.url, *calls], stdout=self.record) as child:
            ended = os.pidfd_open(child.pid)
            while self.listener in select.select([self.listener, ended], [], [])[0]:
                self.answer(self.listener.accept()[0], answers)
            os.close(ended)
        if child.returncode != 0:
            self.note(f"signal {-child.returncode}" if child.returncode < 0 else f"exit {child.returncode}")
        told = text(self.record.name)
        return told if re.search(HIDDEN, row) else re.sub(HIDDEN, "", told)

    # Compares the rows of a table, each behind the fields of `start`.
    def check_rows(self, start, table, programs=PROGRAMS):
        for program, row in itertools.product(programs, table.split("\n$ ")[1:]):
            home = pwd.getpwuid(os.geteuid()).pw_dir if program == MACOS else "/nonexistent"
            expected = start + "$ " + row
            for word, meaning in {**WORDS, "BASE": self.url, "HOME": home + "/Library/kelvane/mount/"}.items():
                expected = expected.replace(word, meaning)
            fields = re.split("; |\n(?:  )?", expected)
            expected = "".join(field + "\n" for field in fields if field and not field.startswith("//"))
            before, *slots = re.split(r"(?m)^(?:\.\.\.|\? (.*))\n", expected)
            end = "".join(slots[1::2])
            line = text(__file__).partition("\n$ " + row)[0].count("\n") + 2
            with self.subTest(f"{__file__}:{line}", program=program):
                for answer in slots[::2]:
                    told = self.transcript(program, before + ("" if answer is None else f"< {answer}\n") + end)
                    if not (told.startswith(before) and told.endswith(end)):
                        self.assertEqual(told, expected)
                if not slots:
                    self.assertEqual(self.transcript(program, before), before)

    def test_operations(self):
        self.check_rows(TREE, r"""
$ mkdir /dir x/new; E kelvane_mkdir: /dir x/new; > GET /%2Fdir%20x%2Fnew?action=mkdir|; < 200 {"hc":200}
  > GET /%2Fdir%20x%2Fnew?action=props|; < 200 DIR4096; = 0; $ show /dir x/new; O new 1 16877 4096 OTHERS
$ mkdir /m; E kelvane_mkdir: /m; > GET /%2Fm?action=mkdir|; < 201 {"hc":200}; FAIL; = -2
$ mkdir /m; ? 200 call({"hc":500}); ? 200 {"HC":200,"hc":5}; > GET /%2Fm?action=props|; < 404; = 0
$ mkdir /m; ? 200 {"hc":"200"}; ? 200 {"hc":500}; FAIL; = -2
$ mkdir /m; ? 200 [200]; ? 200 {}; E The service's reply lacks the member "hc".; signal 6
$ unlink /a.txt; E kelvane_unlink: /a.txt; > GET /%2Fa.txt?action=unlink|; < 204; > GET /%2Fa.txt?action=props|
  < 404 no; = 0; $ show /a.txt; O none
$ unlink /d/old; ? 200 {"hc":409}; > GET /%2Fd%2Fold?action=props|; < 200 FILE5; = 0
  $ rmdir /d; E kelvane_rmdir: /d; > GET /%2Fd?action=rmdir|; < 200 {"hc":409}; > GET /%2Fd?action=props|; < 204; = 0
  $ show /d/old; O none
$ rename /a.txt,/dir x/b.txt; E kelvane_rename: /a.txt -> /dir x/b.txt
  > GET /%2Fa.txt?action=rename&to=%2Fdir%20x%2Fb.txt&replace=1|; < 200 {"hc":200}; > GET /%2Fa.txt?action=props|
  < 404; > GET /%2Fdir%20x%2Fb.txt?action=props|; < 200 FILE5; = 0; $ show /a.txt; O none
  $ show /dir x/b.txt; O b.txt 2 33188 5 OTHERS
$ rename /d/old,/NFD; ...; > GET /%2Fd%2Fold?action=rename&to=%2F%C3%A9&replace=1|; < 200 {"hc":409}
  E   -> cannot overwrite; = -2
$ truncate /a.txt,5000000000; E kelvane_truncate: /a.txt 5000000000
  > GET /%2Fa.txt?action=truncate&offset=5000000000|; < 200 {"hc":409}; > GET /%2Fa.txt?action=props|; < 200 SOCKET
  = 0; $ show /a.txt; O a.txt 1 49536 9 OTHERS
$ create /d/c; E kelvane_create: /d/c mode: 33188 flags: -5 uid: 65534; > GET /%2Fd%2Fc?action=create&mode=33188|
  < 500; > GET /%2Fd%2Fc?action=props|; < 200 FILE5; O 0; = -5; $ show /d/c; O c 2 33188 5 OTHERS
$ open /d/no; E kelvane_open: /d/no flags: -5; FAIL; O -2; = 1026
  $ open /d/old; E kelvane_open: /d/old flags: -5; O 0; = -5; $ flush /m; E kelvane_flush: /m; = 0
  $ chmod /a.txt; E kelvane_chmod: /a.txt -> 384; = 0; $ setattr /m; E kelvane_setattr_x: /m; = 0
  $ signals; O settings up signal handlers; = 0
$ read /a.txt,2; E kelvane_read: /a.txt (2, 4); > GET /%2Fa.txt|Range: bytes=2-5|; < 206 cBYTE0efgh; O 4 cBYTE0ef???
$ read /a.txt,2; ? 206 cd; ? 200 abcd; O 2 cd?????
$ read /a.txt,2; ? 200 abcdefgh; ? 404 abcdef; O 4 cdef???
$ read /a.txt,2; ? 416 n; O 0 ???????
$ register Disk (srv); $ getattr /a.txt; E informing finder to add disk to sidebar: Disk (srv); E path: HOMEsrv/Disk
  O detached; E kelvane_getattr: /a.txt; O 0 0 5 0 0 0 0 0 65534 4321
  $ getattr /no; E kelvane_getattr: /no; O No attr for: /no; O -2 ZEROS
$ list /a.txt; E kelvane_readdir: /a.txt; O -2 is; $ list /no; E kelvane_readdir: /no; O -2 is
$ statfs; > GET /?action=statvfs|; < 503 {}; O 0 7 0 0 0 0 0 0 0; $ statfs; > GET /?action=statvfs|; < 200
  O 0 7 0 0 0 0 0 0 0; $ statfs null; > GET /?action=statvfs|
  < 200 {"bsize":-4,"frsize":2,"blocks":9000000000,"bfree":-1,"bavail":6,"namemax":255}; O 0 7 0 0 0 0 0 0 0
  $ statfs; O 0 -4 2 2147483647 4294967295 6 0 2 255; $ update /x; > GET /%2Fx?action=props|; < 200 FILE5; = 0
$ setxattr NFC,one; $ setxattr NFD,two; $ getxattr NFC; E kelvane_getxattr: /a.txt - NFC (size: 3, pos: 2)
  O 3 ??two??; $ removexattr NFC; E kelvane_removexattr: /a.txt - NFC; = 0; $ listxattr; E kelvane_listxattr: /a.txt
  = 0; $ getxattr NFD; E kelvane_getxattr: /a.txt - NFD (size: 3, pos: 2); O -93 ??two??

// Writes in parts.
$ write /a.txt,300000,5000000000; ...; SEND5000000000|TYPEa*131072; < 200 SOCKET; SEND5000131072|TYPEb*131072
  < 201 SOCKET; SEND5000262144|TYPEc*37856; < 200 FILE5; = 300000; $ show /a.txt; O a.txt 2 33188 5 OTHERS
$ write /a.txt,131073,0; ...; SEND0|TYPEa*131072; < 200 FILE5; SEND131072|TYPEb*1; < 300; = -1
  $ write /a.txt,0,0; E kelvane_write: path: /a.txt size: 0 offset: 0; = 0
$ write /a.txt,3,0; ? 200 stored; ? 299 [; ? 200 TEXTS; = 3; $ show /a.txt; O a.txt 2 0 0 0 0 0 0 0 65534 4321
$ write /a.txt,3,0; ...; E UPLOAD failed due to Empty reply from server; exit 1
$ ONCE; < keep200 FILE5; = 3; $ ONCE; < resetHTTP/1.1 200 OK\r\n
  E UPLOAD failed due to Recv failure: Connection reset by peer; exit 1
$ ONCE; < keep200 FILE5; = 3; AGAIN; AGAIN; AGAIN; AGAIN; AGAIN; AGAIN; AGAIN
$ write /NFD,1,0; ? 200 FILE5; = 1; $ unlink /NFC; E kelvane_unlink: /NFC; > GET /%2Fe%CC%81?action=unlink|; < 500
  FAIL; = -2; $ list /; E kelvane_readdir: /; O CACHE-DirRead: adding: a.txt; O CACHE-DirRead: adding: dir x
  O CACHE-DirRead: adding: d; O CACHE-DirRead: adding: NFD; O 0 is a.txt 5 dir x 0 d 0 NFD 5

// Refreshes.
$ update /a.txt; ? 200; ? 200 TEXTS; = 0; $ show /a.txt; O a.txt 2 0 0 0 0 0 0 0 65534 4321
$ update /a.txt; ? 403 FILE5; ? 201 FILE5; = 0; $ show /a.txt; O none

// The age of the cache, and what it takes in.
$ clock 1060; $ show /d/no; O none; $ show /a.txt/x; O none; $ update /no/x; = 0
  $ clock 1061; $ show /; > GET /?action=props|; < 404 FILE5; > GET /|; < 200
  O Failed to parse: ; O / 1 ZEROS; $ show /a.txt; O none
$ fetch /d; > GET /%2Fd|; < 500 {"entries":[{"n":"b","t":10,"m":98304,"nl":65538,"at":-5}]}; = 1
  $ show /d/old; O old 2 0 0 0 0 0 0 0 65534 4321; $ show /d/b; O b 2 32768 0 0 2 -5 0 0 65534 4321
  $ destroy; $ destroy; $ init; > GET /?action=props|; < 404 x; $ show /; O  1 ZEROS
""")

    def test_replies(self):
        self.check_rows("$ init; > GET /?action=props|; < 200 DIR4096\n", r"""
// A look-up drops a tree that is more than a minute old, unless a calling function still uses the tree. The clock moves
// on by more than a minute each time it is read.
$ step 61; $ show /dir/in; > GET /|; < 200 {"entries":[{"n":"dir","t":4}]}; > GET /%2Fdir|
  < 200 {"entries":[{"n":"in","t":8}]}; O in 2 0 0 0 0 0 0 0 65534 4321
$ step 61; $ list /dir; E kelvane_readdir: /dir; > GET /|; < 200 {"entries":[{"n":"dir","t":4}]}; > GET /%2Fdir|
  < 200 {"entries":[{"n":"in","t":8}]}; O CACHE-DirRead: adding: in; O 0 is in 0
$ step 61; $ update /dir/in; > GET /|; < 200 {"entries":[{"n":"dir","t":4}]}; > GET /%2Fdir|
  < 200 {"entries":[{"n":"in","t":8}]}; > GET /%2Fdir%2Fin?action=props|; < 404; = 0

// Transfers that fail, and replies that nobody should send.
$ spell /NNNNNNnnnnn; ...; signal 6
$ list /; ? 404 AB; ? 302 AB; ? HTTP/1.1 302 OK\r\nLocation: BASE\r\n\r\nAB; O 0 is a 0 b 0
$ list /; ? 200 [; O Failed to parse: [; O 0 is
$ list /; ? HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\nAB; ? 200 {"entries":"LONG"}
  ? 200 {"entries":[1,"x",null,true,[],{},{"t":4},{"n":7,"t":8},{"n":"","t":8},{"n":"x/y","t":8}]}
  ? 200 {"entries":[{"n":"LONG","t":8}]}; O 0 is
$ list /; ? 200 {"Entries":{"k":{"N":"x","t":[],"s":"1","m":{},"b":1e400,"mt":-1e999,"at":99999999999}}}; O 0 is x 0
$ list /; ? 200 {"entries":[{"n":"x","t":8},{"n":"a","t":4,"S":3e9},{"t":4},{"n":"..","t":8},{"n":"x","t":8,"s":7}]}
  O 0 is a 2147483647 .. 2147483647 x 7
$ list /; E kelvane_readdir: /; > GET /|
  < 200 {"entries":[{"n":"NNN","t":8},{"n":"NNNb","t":8},{"n":"NNNc","t":8},{"n":"NNNd","t":8},{"n":"e","t":8}]}
  O CACHE-DirRead: adding: NNN; O CACHE-DirRead: adding: NNNb; O CACHE-DirRead: adding: NNNc
  O CACHE-DirRead: adding: NNNd; O CACHE-DirRead: adding: e; O 0 is NNN 0 NNNb 0 NNNc 0 NNNd 0 e 0
$ list /; ? 200 []; ? 200 {"entries":[{"n":"x"}]}; ? 200 {"entries":[{"n":"x","t":8},{"n":"LONG","t":8}]}; signal 6
$ list /; E kelvane_readdir: /; > GET /|; < reset; O CURL error: Failure when receiving data from the peer; exit 1
$ list /; ? SSH-2.0 hello\r\n; ? HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nabc
  ? HTTP/1.1 200 OK\r\nContent-Length: 900\r\n\r\nAB; exit 1
""")

    def test_names_trace_and_desktop(self):
        self.check_rows("", r"""
$ pick a,NFC,A,a; O a 3; $ pick NFC,NFC,NFD; O NFD 1; $ pick LIG,fi,LIG; O LIG 1; $ pick BAD,BAD; O BAD 1
  $ pick BAD,a; O none 1; $ pick LIGNFD,LIGNFC,fiNFC; O LIGNFC 2; $ pick LIGNFC,LIGNFD,fiNFC; O fiNFC 2
  $ pick LIGNFC,LIGNFD,fiNFD; O LIGNFD 2; $ pick LIGNFC,fiNFD; O fiNFD 1; $ pick NNNnn; O none 0
  $ pick JAMO,HANGUL; O HANGUL 1; $ flags CREATE; = 4865; $ flags APPEND; = 4218882
$ pick NNNNFC,NNNNFC; signal 6
$ pick NNNnnn; signal 6
$ inform A (b) (c); E informing finder to add disk to sidebar: A (b) (c); E path: HOMEc/A (b); $ inform Disk (srv
  E informing finder to add disk to sidebar: Disk (srv; $ inform N64 (N64)
  E informing finder to add disk to sidebar: N64 (N64); E path: HOMEN64/N64
$ inform Disk(srv); ...; E path: HOMEsrv/Dis
$ inform Dis)(srv; ...; signal 6

// The lines of the transport and of the path look-up.
$ init; E getURL: path: /, query: action=props
  O DirReadOriginalEncodingPathUnlocked: ; E getURL: url: BASE?action=props; > GET /?action=props|; < 200 DIR4096
  O getURL: 57 bytes retrieved; $ list /; E kelvane_readdir: /; O DirReadOriginalEncodingPathUnlocked: /
  E getURL: path: , query: (null); O DirReadOriginalEncodingPathUnlocked: ; E getURL: url: BASE; > GET /|
  < 200 {"entries":[{"n":"NFC","t":4}]}
  O getURL: 30 bytes retrieved; O CACHE-DirRead: adding: NFC; O 0 is NFC 0; $ show //NFD/in/
  E getURL: path: /NFD, query: (null); O DirReadOriginalEncodingPathUnlocked: NFD; O encoded_path=/NFC
  E getURL: url: BASE%2F%C3%A9; > GET /%2F%C3%A9|; < 200 {"entries":[{"n":"in","t":8,"s":3}]}
  O getURL: 36 bytes retrieved; O in 2 0 3 0 0 0 0 0 65534 4321; $ show /; O  1 16877 4096 OTHERS
  $ put q; O DirReadOriginalEncodingPathUnlocked: ; > PUT /?q|TYPE; < 201 x; O 0 bytes retrieved; $ get q
  E getURL: path: , query: q; O DirReadOriginalEncodingPathUnlocked: ; E getURL: url: BASE?q; > GET /?q|A: 1|B: 2|
  < 204; O getURL: 0 bytes retrieved; $ overflow; O not enough memory (realloc returned NULL)
""")
        self.check_rows("", r"""
$ inform Documents (storage); ...; E path: HOMEstorage/Documents; O CF: allocator HOMEstorage/Documents 1
  O CF: allocator favourites; O CF: list last url; O CF: release item; O CF: release list
$ run kelvane_vfs,BASE,Disk (srv),/mnt; O thread started, pipe ready; O kelvane_vfs starting; O Disk (srv) /mnt 464
  O detached; O settings up signal handlers; > GET /?action=props|; < 404; E kelvane_getattr: /a; > GET /|
  < 200 {"entries":[{"n":"a","t":8}]}; E kelvane_setattr_x: /a; handleSignal: 15; stopping fuse for mount point /mnt
  handleSignal: write result = 1; O got packet from signalHandler, trying to exit...; O kelvane_vfs exiting; = 1
""", PROGRAMS[1:])
