"""tests.py ROOT: each source of the library and its tools has a test of its name, or stands in ELSEWHERE with the one that
tests it; and tests sleep only in the places that SLEEPS names."""
import re
import tree

# Sources whose test has another name: that of the class, interface or program to which they belong.
ELSEWHERE = {
    "xstreambuf": "xinputbuf xpipebuf xstdbuf xstringbuf",
    "btkstring": "btkstrsearch btkutf",
    "btkprocess": "btkfd btksystem btkenvironment",
    "btksocket": "btkacceptsocket btksocketaddress btksocketurgent nethandshake",
    "btkevent": "btkpoll",
    "btktunnel": "btkframes",
    "nmsserver": "nmsclient",
    "files": "directories errortable lasterror btkfilecopy",
    "environment": "console ctenv",
    "tmtime": "btkcalendar tmexception",
    "monchange": "btkfilewatch",
    "monstatistics": "btkruntime",
    "registry": "btkstaging registrykeys registryname registrystore",
    "lockfilebuf": "updatejournal",
    "hmxregistry": "reglib",
    "filelib": "fschecksum fslist fsdirectories fshquery",
    "ioserializer": "ioasciiserializer",
    "iobasestream": "iocopystream ioevent ioexception iostringstream iotry xiolib",
    "xmonlib": "monlock monparam monrecord",
    "nettls": "btktls tlsfolder tlssession",
    "netthread": "netasyncrequest",
    "netbaseserver": "netexception netlistener",
    "pcprocess": "pcexception",
    "rshprotocol": "rshexception rshrelay rshserver",
    "qelstd_c": "qelcolls_c",
    "qeljson": "qeljsonobjects qeljsonplan qeljsonreader qeljsonsource qeljsonwriter",
    "xdictionary": "qelbdict xdictindex xdictkeys xdictslots xrtticollections",
    "xrtti": "xrttiattrseq",
    "qelexception": "xportexception xstringerror",
    "xstring": "xstringquery",
    "nmsproxy": "nmsexception",
    "syslib": "sysexception",
    "types": "buildintypes eventlib iolib monlib netlib nmsclib proclib qeljava qellib rshlib startup stdcols timelib",
    "qel_info": "main program qelversion selftest",
    "qel_output": "help man",
    "qel_fs": "progress",
    "qel_export": "exposition httpserver monweb publishers",
    "qel_mon": "monwatch watchedfile",
    "qel_screen": "screen",
    "web": "board",
    "cluster": "etcd etcdreply",
    "keeper": "keeperrecords",
    "qel_conf": "watching",
    "qel_ns": "nsserve",
    "qel_rsh": "daemon rshd",
    "qel_tls": "authority folder pki show tlsoptions",
}

# Where tests sleep, how often, and why no event can stand there.
SLEEPS = {
    "another process is killed at some moment of its work": {
        "baselib/btkfilepart_test.cpp": 1, "baselib/nmsserver_test.cpp": 1, "config/lockfilebuf_test.cpp": 1,
        "platform/registry_test.cpp": 1, "monlibsrc/monshare_test.cpp": 1, "rshlib/rshkills_test.cpp": 1},
    "a peer, a client or a handler is slow, or sends again and again": {
        "monlibsrc/monshare_test.cpp": 1, "netlibsrc/netbaseserver_test.cpp": 2, "netlibsrc/netserver_test.cpp": 2,
        "netlibsrc/netsocketstream_test.cpp": 3, "rshlib/rshprocess_test.cpp": 1, "rshlib/rshprotocol_test.cpp": 1,
        "soak/hostile_test.cpp": 4, "soak/soak_test.cpp": 3},
    "polls, with a limit, what gives no event": {
        "baselib/btktunnel_test.cpp": 1, "config/lockfilebuf_test.cpp": 3, "platform/registry_test.cpp": 1,
        "monlibsrc/monshare_test.cpp": 1},
}

root = tree.root()
faults = []
tests = {path.stem.removesuffix("_test"): path for path in (root / "tests").rglob("*")
         if path.stem.endswith("_test") or path.suffix == ".txt" and path.name != "CMakeLists.txt"}
elsewhere = {source: test for test, sources in ELSEWHERE.items() for source in sources.split()}
faults += [f"{source}: there is no test {test}" for source, test in elsewhere.items() if test not in tests]
sources = {path.stem: path.relative_to(root) for path in tree.files("baselib", "ctools", "platform", "qel", "tools")
           if path.suffix == ".cpp"}
faults += [f"{path}: no test has its name" for stem, path in sorted(sources.items())
           if not {stem, "qel_" + stem} & tests.keys() and stem not in elsewhere]
faults += [f"{source}: " + ("no such source" if source not in sources else "a test has its name")
           for source in sorted(elsewhere) if source not in sources or source in tests]

for path in tree.files("tests"):
    name = path.relative_to(root / "tests").as_posix()
    found = len(re.findall(r"\b(?:sleep_(?:for|until)|u?sleep|nanosleep) ?\(", tree.without_comments(path.read_text())))
    listed = sum(places.get(name, 0) for places in SLEEPS.values())
    if found != listed:
        faults.append(f"tests/{name}: sleeps in {found} places, {listed} are listed")
tree.finish(faults)
