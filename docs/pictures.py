"""pictures.py QEL: draws docs/qel-top.svg, docs/mon-watch.svg and docs/mon-serve.svg from running programs: what a terminal
of tmux shows, and the texts, curves, lines and grounds that a browser shows. It takes half a minute, since curves need a past."""
import html
import math
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import time

docs = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(docs.parent / "tests/support"))
from browser import Browser  # noqa: E402

QEL = str(pathlib.Path(sys.argv[1]).resolve())
SECONDS = 30
COLUMNS = 100
WIDE, HIGH = 8.4, 18  # pixels of a character
COLOURS = "#14181c #ff7b72 #7ee787 #f0c060 #7db7f5 #d2a8ff #76e3ea #e4e8ec".split()


def runs(line):
    """The parts of a line that look alike: column, text, and the codes of their look."""
    look, column = set(), 0
    for codes, text in re.findall(r"(?:\x1b\[([\d;]*)m)?([^\x1b]*)", line.replace("\x0e", "").replace("\x0f", "")):
        for code in map(int, filter(None, codes.split(";"))):
            if code in (0, 39, 49, 22, 24, 27):
                look -= {0: look, 39: set(range(30, 38)), 49: set(range(40, 48)), 22: {1}, 24: {4}, 27: {7}}[code].copy()
            else:
                look.add(code)
        if text:
            yield column, text, frozenset(look)
        column += len(text)


def drawn(screen, title):
    lines = screen.rstrip("\n").split("\n")
    paper, ink = COLOURS[0], COLOURS[7]
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {COLUMNS * WIDE + 20:.0f} {len(lines) * HIGH + 20}" role="img" '
           f'font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="14"><title>{title}</title>',
           f'<rect width="100%" height="100%" rx="6" fill="{paper}"/>']
    for number, line in enumerate(lines):
        for column, text, look in runs(line):
            x, y, width = 10 + column * WIDE, 10 + number * HIGH, len(text) * WIDE
            fore = next((COLOURS[code - 30] for code in look if 30 <= code < 38), ink)
            back = next((COLOURS[code - 40] for code in look if 40 <= code < 48), paper)
            if 7 in look:
                fore, back = back, fore
            if back != paper:
                out.append(f'<rect x="{x:.1f}" y="{y}" width="{width:.1f}" height="{HIGH}" fill="{back}"/>')
            if text.strip():
                x += (len(text) - len(text.lstrip())) * WIDE
                text = text.strip()
                more = (' font-weight="bold"' if 1 in look else "") + (' text-decoration="underline"' if 4 in look else "")
                out.append(f'<text x="{x:.1f}" y="{y + 14}" textLength="{len(text) * WIDE:.1f}" fill="{fore}"{more} '
                           f'xml:space="preserve">{html.escape(text)}</text>')
    return "\n".join(out + ["</svg>\n"])


PAGE_WIDE, PAGE_HIGH = 820, 560
# The parts of the page within the window, as elements of SVG. A text is drawn in pieces of one line.
PARTS = r"""(() => {
    const parts = [], quote = (text) => text.replace(/&/g, "&amp;").replace(/</g, "&lt;");
    const round = (number) => Math.round(number * 10) / 10;
    const rectangle = (x, y, width, height, fill) => parts.push(`<rect x="${round(x)}" y="${round(y)}" width="${round(width)}" `
        + `height="${round(height)}" fill="${fill}"/>`);
    const within = (box) => box.width > 0 && box.height > 0 && box.top < innerHeight;
    const drawn = (element) => {
        const style = getComputedStyle(element), box = element.getBoundingClientRect();
        if (!element.checkVisibility() || !within(box))
            return;
        if (element.matches("polyline")) {
            const place = element.getScreenCTM();
            const points = [...element.points].map((point) => point.matrixTransform(place)).map((p) => `${round(p.x)},${round(p.y)}`);
            parts.push(`<polyline points="${points.join(" ")}" fill="none" stroke="${style.stroke}"/>`);
        }
        if (!/, 0\)|transparent/.test(style.backgroundColor))
            rectangle(box.x, box.y, box.width, box.height, style.backgroundColor);
        if (parseFloat(style.borderBottomWidth) > 0)
            rectangle(box.x, box.bottom - 1, box.width, 1, style.borderBottomColor);
        for (const node of element.childNodes)
            if (node.nodeType === Node.TEXT_NODE)
                text(node, style);
            else if (node.nodeType === Node.ELEMENT_NODE)
                drawn(node);
    };
    const text = (node, style) => {
        const pieces = [];
        for (const word of node.data.matchAll(/\S+/g)) {
            const range = document.createRange();
            range.setStart(node, word.index);
            range.setEnd(node, word.index + word[0].length);
            const box = range.getBoundingClientRect(), last = pieces.at(-1);
            if (!within(box))
                continue;
            if (last !== undefined && Math.abs(last.y - box.bottom) < 1)
                Object.assign(last, {words: last.words + " " + word[0], end: box.right});
            else
                pieces.push({words: word[0], x: box.left, y: box.bottom, end: box.right, height: box.height});
        }
        for (const piece of pieces)
            parts.push(`<text x="${round(piece.x)}" y="${round(piece.y - piece.height * .24)}" textLength="${round(piece.end - piece.x)}" `
                + `font-size="${style.fontSize}" font-weight="${style.fontWeight}" fill="${style.color}">${quote(piece.words)}</text>`);
    };
    drawn(document.body);
    return parts.join("\n");
})()"""


def page_of(browser):
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {PAGE_WIDE} {PAGE_HIGH}" role="img" '
            f'font-family="DejaVu Sans, Verdana, sans-serif"><title>The page of qel mon serve</title>\n'
            f'<rect width="100%" height="100%" fill="#ffffff"/>\n{browser.evaluate(PARTS)}\n</svg>\n')


def main():
    with tempfile.TemporaryDirectory() as folder:
        environment = dict(os.environ, XDG_RUNTIME_DIR=folder, HOME=folder, LC_ALL="C.UTF-8", TERM="xterm-256color")
        for name in "RUNTIME_DIRECTORY", "NO_COLOR", "TMUX":
            environment.pop(name, None)
        running = []

        def start(*words):
            running.append(subprocess.Popen([QEL, *words], env=environment, cwd=folder, stdout=subprocess.PIPE, text=True))
            return re.search(r" port (\d+)", running[-1].stdout.readline())[1]

        def qel(*words):
            subprocess.run([QEL, *words], env=environment, cwd=folder, check=True, stdout=subprocess.DEVNULL)

        def tmux(*words):
            return subprocess.run(["tmux", "-L", f"pictures{os.getpid()}", "-f", "/dev/null", *words], env=environment, cwd=folder,
                                  check=True, capture_output=True, text=True).stdout

        def work(end):
            for step in range(10 ** 6):
                if time.monotonic() > end:
                    return
                qel("mon", "set", "batch.mon", "jobs.done", str(int(12 * step + 40 * math.sin(step / 9))))
                qel("mon", "set", "batch.mon", "jobs.waiting", str(int(30 + 25 * math.sin(step / 5))))
                qel("mon", "set", "batch.mon", "temperature", f"{41 + 6 * math.sin(step / 14) + step % 3 / 4:.1f}")
                qel("server", "ping", "rshd")

        try:
            environment["VRXNMSPORT"] = start("ns", "serve", "--port", "0")
            start("rshd", "--port", "0", "--register", *(["--as-root"] if os.geteuid() == 0 else []))
            qel("mon", "create", "--title", "Night run", "batch.mon")
            for name, kind, value in (("jobs.done", "int", "0"), ("jobs.failed", "int", "2"), ("jobs.waiting", "int", "0"),
                                      ("phase", "string", "sorting"), ("temperature", "real", "0"), ("verified", "bool", "no")):
                qel("mon", "add", "batch.mon", name, kind, value)
            shown = [next(pathlib.Path(folder, "qelstd").glob(f"{name}-*.mon")) for name in ("nameserver", "rshd")]
            port = start("mon", "serve", "--listen", "127.0.0.1:0", "batch.mon", *map(str, shown))
            for name, command, rows in (("qel-top", "top", 24), ("mon-watch", "mon watch batch.mon", 10)):
                tmux("new-session", "-d", "-s", name, "-x", str(COLUMNS), "-y", str(rows), f"{QEL} {command}")
            worker = threading.Thread(target=work, args=[time.monotonic() + SECONDS])
            worker.start()
            browser = Browser()
            browser.show(PAGE_WIDE, PAGE_HIGH)
            browser.open(f"http://127.0.0.1:{port}/")
            worker.join(SECONDS - 1)
            browser.evaluate("document.getElementById('zeros').click()")
            browser.evaluate("document.querySelector('[data-name=\"jobs.waiting\"] button')?.click()")
            (docs / "mon-serve.svg").write_text(page_of(browser))
            for name, title in (("qel-top", "qel top"), ("mon-watch", "qel mon watch batch.mon")):
                (docs / f"{name}.svg").write_text(drawn(tmux("capture-pane", "-e", "-p", "-t", name), title))
            browser.close()
            worker.join()
        finally:
            subprocess.run(["tmux", "-L", f"pictures{os.getpid()}", "kill-server"], env=environment, capture_output=True)
            for program in running:
                program.terminate()
                program.wait()


main()
