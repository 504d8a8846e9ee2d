// Shows the values of monitor files. Events of the server (board.cpp) bring what has changed. Texts reach the page as text
// only: append and textContent never take them for HTML.

const samplesKept = 400; // of a curve
const samplesInRow = 90;
const leastPatience = 5; // seconds without an event until the connection counts as lost

const files = new Map(); // by id
const view = {filter: "", sort: "name", isDown: false, hidesZeros: false, isPaused: false};
const clock = {time: 0, at: 0, interval: 1}; // the server's time of the latest event, and the page's
const find = (id) => document.getElementById(id);

function make(tag, properties, ...children) {
    const node = Object.assign(document.createElement(tag), properties);
    node.append(...children);
    return node;
}

// Writing the same again would make screen readers read it again.
function write(node, text) {
    if (node.textContent !== text)
        node.textContent = text;
}

// ---- texts

function numberText(number, digits) {
    return String(Number.isInteger(number) ? number : Number(number.toPrecision(digits)));
}

function valueText(value) {
    if (value === null)
        return "none";
    if (typeof value === "boolean")
        return value ? "yes" : "no";
    return typeof value === "number" ? numberText(value, 10) : value;
}

function spanText(seconds) {
    for (const [limit, unit, name] of [[100, 1, "s"], [6000, 60, "min"], [172800, 3600, "h"], [Infinity, 86400, "d"]])
        if (seconds < limit)
            return `${Math.max(0, Math.floor(seconds / unit))} ${name}`;
}

const serverTime = () => clock.time + (performance.now() - clock.at) / 1000;

// ---- curves

const svgName = "http://www.w3.org/2000/svg";

function makeCurve() {
    const svg = document.createElementNS(svgName, "svg");
    svg.setAttribute("viewBox", "0 0 100 20");
    svg.setAttribute("preserveAspectRatio", "none");
    svg.append(document.createElementNS(svgName, "polyline"));
    return svg;
}

function drawCurve(svg, past) {
    const least = Math.min(...past), most = Math.max(...past);
    const height = (number) => most > least ? 19 - 18 * ((number / 2 - least / 2) / (most / 2 - least / 2)) : 10;
    const points = past.map((number, i) => `${(100 * i / Math.max(past.length - 1, 1)).toFixed(2)},${height(number).toFixed(2)}`);
    svg.firstChild.setAttribute("points", past.length > 1 ? points.join(" ") : "");
    return {least, most};
}

// ---- rows

function addRow(value) {
    value.button = make("button", {type: "button"}, value.name);
    value.button.setAttribute("aria-expanded", "false");
    value.button.addEventListener("click", () => open(value));
    value.shown = make("td", {className: "number value"});
    value.perSecond = make("td", {className: "number rate"});
    value.curve = make("td", {className: "curve"});
    value.age = make("td", {className: "age"});
    value.row = make("tr", {}, make("th", {scope: "row"}, value.button), value.shown, value.perSecond, value.curve, value.age);
    value.row.dataset.name = value.name;
}

// Shows a larger curve below the row, or closes it.
function open(value) {
    const isOpen = value.opened === undefined;
    value.button.setAttribute("aria-expanded", String(isOpen));
    if (isOpen) {
        value.large = makeCurve();
        value.large.setAttribute("role", "img");
        value.summary = make("p", {});
        value.opened = make("tr", {className: "opened"}, make("td", {colSpan: 5}, value.large, value.summary));
        value.row.after(value.opened);
        drawLarge(value);
    } else {
        value.opened.remove();
        value.opened = undefined;
    }
}

function drawLarge(value) {
    value.large.toggleAttribute("hidden", value.past.length < 2);
    if (value.past.length === 0)
        return write(value.summary, "No number: there is no curve.");
    const {least, most} = drawCurve(value.large, value.past);
    const text = `Least ${numberText(least, 6)}, greatest ${numberText(most, 6)}, in the last ${
        spanText(value.past.length * clock.interval)}`;
    value.large.setAttribute("aria-label", `Curve of ${value.name}. ${text}`);
    write(value.summary, text);
}

function drawRow(value) {
    if (value.row === undefined)
        addRow(value);
    write(value.shown, valueText(value.value));
    value.shown.classList.toggle("fresh", value.isFresh);
    write(value.perSecond, value.rate ? numberText(value.rate, 3) : "");
    if (value.past.length > 1) {
        if (!value.curve.hasChildNodes()) {
            value.curve.append(makeCurve());
            value.curve.firstChild.setAttribute("aria-hidden", "true"); // the opened one is for everybody
        }
        drawCurve(value.curve.firstChild, value.past.slice(-samplesInRow));
    }
    if (value.opened !== undefined)
        drawLarge(value);
}

function drawAges() {
    for (const file of files.values())
        for (const value of file.values.values())
            if (value.age?.isConnected)
                write(value.age, (value.hasChanged ? "" : ">") + spanText(serverTime() - value.since));
}

// ---- files

function addFile(file) {
    file.section = find("file").content.firstElementChild.cloneNode(true);
    file.part = (name) => file.section.querySelector(name);
    file.part("h2").id = `file-${file.id}`;
    file.section.setAttribute("aria-labelledby", `file-${file.id}`);
    file.part("table").setAttribute("aria-labelledby", `file-${file.id}`);
    for (const button of file.section.querySelectorAll("[data-sort]"))
        button.addEventListener("click", () => sortBy(button.dataset.sort));
}

const keys = {
    name: (value) => value.name,
    value: (value) => typeof value.value === "number" ? value.value : -Infinity,
    rate: (value) => value.rate ?? -Infinity,
    age: (value) => -value.since,
};

function inOrder(one, other) {
    const key = keys[view.sort], a = key(one), b = key(other);
    const byKey = a < b ? -1 : a > b ? 1 : 0;
    return (view.isDown ? -byKey : byKey) || (one.name < other.name ? -1 : 1);
}

function isShown(file, value) {
    if (view.hidesZeros && value.value === 0)
        return false;
    return `${file.name} ${file.title} ${value.name}`.toLowerCase().includes(view.filter);
}

function drawFile(file) {
    if (file.section === undefined)
        addFile(file);
    write(file.part("h2"), file.process === null ? file.name : `${file.name}, process ${file.process}`);
    file.section.dataset.state = file.state;
    file.section.dataset.name = file.name;
    write(file.part(".state"), file.state);
    write(file.part(".title"), file.title === file.name ? "" : file.title);
    write(file.part(".path"), file.path === file.name ? "" : file.path);
    for (const head of file.section.querySelectorAll("thead th"))
        if (head.firstChild.dataset?.sort === view.sort)
            head.setAttribute("aria-sort", view.isDown ? "descending" : "ascending");
        else
            head.removeAttribute("aria-sort");
    const shown = [...file.values.values()].filter((value) => isShown(file, value)).sort(inOrder);
    shown.forEach(drawRow);
    const rows = shown.flatMap((value) => value.opened === undefined ? [value.row] : [value.row, value.opened]);
    const body = file.part("tbody");
    if (rows.length !== body.children.length || rows.some((row, i) => row !== body.children[i])) {
        const focused = document.activeElement;
        body.replaceChildren(...rows);
        if (focused?.isConnected && focused !== document.activeElement)
            focused.focus();
    }
    file.part("table").hidden = rows.length === 0;
    file.section.hidden = rows.length === 0 && !`${file.name} ${file.title}`.toLowerCase().includes(view.filter);
}

function draw() {
    if (document.hidden)
        return;
    const all = [...files.values()].sort((one, other) => one.name < other.name ? -1 : one.name > other.name ? 1 : one.id - other.id);
    all.forEach(drawFile);
    const sections = all.map((file) => file.section), main = find("files");
    if (sections.length !== main.children.length || sections.some((section, i) => section !== main.children[i]))
        main.replaceChildren(...sections);
    const isNothing = sections.every((section) => section.hidden);
    find("empty").hidden = !isNothing && clock.hidden === 0;
    write(find("empty"), !isNothing ? `${clock.hidden} more values are not shown: they are too many.`
        : files.size === 0 ? "No server publishes its figures here at present." : "Nothing has this in its name.");
    drawAges();
}

function sortBy(key) {
    view.isDown = view.sort === key ? !view.isDown : key === "value" || key === "rate";
    view.sort = key;
    draw();
}

// ---- events

function takeFile(event, isWhole) {
    let file = files.get(event.id);
    if (file === undefined)
        files.set(event.id, file = {id: event.id, values: new Map()});
    else if (file.state !== event.state)
        write(find("news"), `${event.name}: ${event.state}`);
    const {values, ...facts} = event;
    Object.assign(file, facts);
    if (event.isWhole) {
        const names = new Set(values.map((value) => value.name));
        for (const name of file.values.keys())
            if (!names.has(name))
                file.values.delete(name);
    }
    for (const news of values) {
        let value = file.values.get(news.name);
        if (value === undefined)
            file.values.set(news.name, value = {past: []});
        Object.assign(value, news);
        value.isFresh = !isWhole && value.hasChanged && value.since !== value.before;
        value.before = value.since;
    }
}

function take(event) {
    Object.assign(clock, {time: event.time, at: performance.now(), interval: event.interval, hidden: event.hidden});
    for (const file of files.values())
        for (const value of file.values.values())
            value.isFresh = false;
    if (event.isWhole) {
        write(find("machine"), event.machine);
        document.title = `Monitor ${event.machine}`;
        const ids = new Set(event.files.map((file) => file.id));
        event.dropped = [...files.keys()].filter((id) => !ids.has(id));
    }
    event.dropped.forEach((id) => files.delete(id));
    event.files.forEach((file) => takeFile(file, event.isWhole));
    if (!event.isWhole)
        for (const file of files.values())
            for (const value of file.values.values())
                if (file.isLive && typeof value.value === "number")
                    value.past = [...value.past.slice(1 - samplesKept), value.value];
    if (!view.isPaused)
        draw();
}

// ---- the connection

let source, watchdog;

function setConnection(state, text) {
    document.body.dataset.connection = state;
    write(find("status"), text);
}

const setLost = () => setConnection("lost", "Connection lost. Trying again");

// The browser connects again by itself, unless the server refused it or is silent.
function watchOver() {
    clearTimeout(watchdog);
    watchdog = setTimeout(() => {
        setLost();
        connect();
    }, 1000 * Math.max(leastPatience, 3 * clock.interval));
}

function connect() {
    source?.close();
    source = new EventSource("events");
    source.onmessage = (message) => {
        setConnection("live", "Live");
        watchOver();
        take(JSON.parse(message.data));
    };
    source.onerror = setLost;
    watchOver();
}

find("filter").addEventListener("input", (event) => {
    view.filter = event.target.value.toLowerCase();
    draw();
});
find("zeros").addEventListener("change", (event) => {
    view.hidesZeros = event.target.checked;
    draw();
});
find("pause").addEventListener("click", (event) => {
    view.isPaused = !view.isPaused;
    event.target.setAttribute("aria-pressed", String(view.isPaused));
    if (!view.isPaused)
        draw();
});
document.addEventListener("keydown", (event) => {
    const filter = find("filter");
    if (event.key === "/" && event.target !== filter && !event.ctrlKey && !event.altKey && !event.metaKey) {
        event.preventDefault();
        filter.focus();
    } else if (event.key === "Escape" && event.target === filter) {
        filter.value = view.filter = "";
        draw();
    }
});
document.querySelector("form").addEventListener("submit", (event) => event.preventDefault());
document.addEventListener("visibilitychange", draw);
setInterval(() => view.isPaused || document.hidden || drawAges(), 1000);
connect();
