// What every picture uses. Text from a session reaches the page through textContent alone, so that no name of a
// thread, function or file can become markup.

function element(tag, attributes, ...children) {
    const made = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes || {})) {
        if (name.startsWith("on")) {
            made.addEventListener(name.slice(2), value);
        } else if (value === true) {
            made.setAttribute(name, "");
        } else if (value !== false && value !== null && value !== undefined) {
            made.setAttribute(name, value);
        }
    }
    made.append(...children.filter((child) => child !== null && child !== undefined));
    return made;
}

// "17 ns", "1.25 ms", "3.50 s": three digits that matter, as the text report has them.
function durationText(nanoseconds) {
    if (nanoseconds < 1000) {
        return `${Math.round(nanoseconds)} ns`;
    }
    let value = nanoseconds;
    for (const unit of ["µs", "ms", "s"]) {
        value /= 1000;
        if (value < 999.5 || unit === "s") {
            return `${value.toFixed(value < 9.995 ? 2 : value < 99.95 ? 1 : 0)} ${unit}`;
        }
    }
}

function shareText(part, whole) {
    return `${(whole === 0 ? 0 : (100 * part) / whole).toFixed(1)} %`;
}

function countText(count, one, many) {
    return `${count.toLocaleString("en")} ${count === 1 ? one : many || one + "s"}`;
}

// What a search field asks for: a part of the name in any case, or a /regular expression/. Null for an empty one.
function matcherOf(text) {
    const expression = /^\/(.+)\/$/.exec(text);
    if (expression !== null) {
        try {
            const compiled = new RegExp(expression[1], "i");
            return (name) => compiled.test(name);
        } catch (error) {
            return () => false; // it is still being typed
        }
    }
    const wanted = text.toLowerCase();
    return wanted === "" ? null : (name) => name.toLowerCase().includes(wanted);
}

function threadLabel(thread) {
    return `${thread.name === "" ? "-" : thread.name} (${thread.tid})`;
}

// Of merged sessions several can have one id; the mark is that of their files.
function processId(row) {
    return `${row.mark}${row.pid}`;
}

function processLabel(thread) {
    const rank = thread.rank ? `, rank ${thread.rank}` : "";
    return `process ${processId(thread)} ${thread.process === "" ? "-" : thread.process}${rank}`;
}

const tooltip = {
    show(x, y, title, lines) {
        const box = document.getElementById("tooltip");
        box.replaceChildren(element("b", {}, title), ...lines.map((line) => element("div", {}, line)));
        box.hidden = false;
        const room = box.getBoundingClientRect();
        box.style.left = `${Math.max(4, Math.min(x + 14, innerWidth - room.width - 8))}px`;
        box.style.top = `${y + 18 + room.height > innerHeight ? Math.max(4, y - room.height - 10) : y + 18}px`;
    },
    hide() {
        document.getElementById("tooltip").hidden = true;
    },
};
