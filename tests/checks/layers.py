"""layers.py ROOT: headers of the operating system and conditions on it stay in the base layer and the platform calls, and
in their private headers and sources; the lower layers include nothing of the upper ones."""
import re
import tree

HOST_HEADERS = re.compile(
    r"(sys|net|netinet|arpa|linux|asm|bits)/.*"
    r"|(alloca|byteswap|dirent|dlfcn|elf|endian|err|execinfo|fcntl|features|fnmatch|ftw|getopt|glob|grp|iconv|ifaddrs"
    r"|langinfo|libgen|link|malloc|mqueue|netdb|paths|poll|pthread|pwd|regex|resolv|sched|semaphore|signal|spawn"
    r"|strings|syslog|termios|threads|ucontext|unistd|utime|utmpx?|wordexp)\.h"
    r"|(windows|winsock2?|winreg|io|process|direct)\.h", re.IGNORECASE)
HOST_CONDITION = re.compile(r"#\s*(?:if|ifdef|ifndef|elif)\b.*\b(_WIN32|WIN32|_MSC_VER|__linux__|__unix__|__APPLE__)\b")
# Functions and types that come with the headers above, or with the C library of one operating system only.
HOST_NAME = re.compile(
    r"(?<![\w.>:])(?:::)?(localtime_r|gmtime_r|timegm|strnlen|strdup|strerror_r|setenv|unsetenv|putenv|getpid|fork|execv\w*"
    r"|usleep|nanosleep|pread|pwrite|fcntl|ioctl|mmap|sigaction|pthread_\w+)\s*\("
    r"|\b(off_t|ssize_t|pid_t|mode_t|pthread_t|abi::__forced_unwind)\b")
ABOVE_HOST = ("qel", "tools", "examples")
BASE_LAYER = ("baselib", "ctools", "platform")

# The headers that the base layer may include as <qel/...>: its own headers and the declarations that all layers share.
shared = {f"qel/{path.name}" for path in tree.files("qel/qelbase/inc")}

faults = []
for path in tree.files(*ABOVE_HOST, *BASE_LAYER):
    above = path.relative_to(tree.root()).parts[0] in ABOVE_HOST
    for number, line in enumerate(tree.without_comments(path.read_text()).splitlines(), 1):
        place = f"{path.relative_to(tree.root())}:{number}"
        found = re.match(r'\s*#\s*include\s*["<]([^">]+)[">]', line)
        header = found.group(1) if found else ""
        public = path.suffix == ".h" and not path.stem.endswith("_p")
        if (above or public) and HOST_HEADERS.fullmatch(header):
            faults.append(f"{place}: host header {header}")
        name = HOST_NAME.search(re.sub(r'"(?:\\.|[^"\\])*"', '""', line)) if above else None
        if name:
            faults.append(f"{place}: {name.group(1) or name.group(2)} of the operating system")
        if above and HOST_CONDITION.search(line):
            faults.append(f"{place}: host condition: {line.strip()}")
        if not above and header.startswith("qel/") and header not in shared \
                and not header.startswith(("qel/base/", "qel/platform/")):
            faults.append(f"{place}: {header} is of a layer above")
tree.finish(faults)
