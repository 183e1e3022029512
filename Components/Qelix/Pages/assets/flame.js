// The flame graph: a frame is as wide as its function's share of the CPU time, and stands on what called it.

const FRAME_HEIGHT = 18;
const LEAST_FRAME = 1.5; // pixels; what is narrower cannot be read or hit

function showFlame(flame, place) {
    const view = { flame, root: null, focus: null, current: null, frames: new Map(), isUp: false, search: "" };
    view.picture = element("div", { class: "frames", role: "tree", "aria-label": "Flame graph",
        onkeydown: (event) => flameKey(view, event) });
    view.box = element("div", { class: "flame" }, view.picture);
    view.said = element("p", { class: "said", role: "status", id: "flame-said" });
    place.append(element("h2", { id: "flame" }, "Where the CPU time went: flame graph"), flameTools(view),
        view.said, view.box, flameNotes(flame));
    view.picture.addEventListener("click", (event) => withFrame(view, event, (node) => focusFlame(view, node)));
    view.picture.addEventListener("pointermove", (event) => flameHover(view, event));
    view.picture.addEventListener("pointerleave", tooltip.hide);
    view.picture.addEventListener("focusin", (event) => withFrame(view, event, (node) => sayFrame(view, node)));
    new ResizeObserver(() => drawFlame(view)).observe(view.box);
    selectFlame(view, "all");
}

function flameTools(view) {
    const threads = element("select", { id: "flame-thread", onchange: (event) => selectFlame(view, event.target.value) },
        ...flameChoices(view.flame).map(([value, label]) => element("option", { value }, label)));
    const search = element("input", { type: "search", id: "flame-search", placeholder: "function or /expression/",
        oninput: (event) => { view.search = event.target.value; searchFlame(view); } });
    const up = element("input", { type: "checkbox", id: "flame-up",
        onchange: (event) => { view.isUp = event.target.checked; drawFlame(view); } });
    view.matched = element("span", { id: "flame-matched", role: "status" });
    return element("div", { class: "tools" }, element("label", {}, "Threads", threads),
        element("label", {}, "Search", search), view.matched,
        element("button", { type: "button", onclick: () => focusFlame(view, view.root) }, "Show all"),
        element("label", {}, up, "Root below"),
        element("span", { class: "dim" }, "Click or Enter: zoom · arrows: move · Escape: back · /: search"));
}

// Everything, each process, threads that share a name, each thread.
function flameChoices(flame) {
    const choices = [["all", "all threads"]];
    const groups = new Map();
    for (const thread of flame.threads) {
        const add = (key, label) => groups.set(key, { label, count: 1 + (groups.get(key)?.count || 0) });
        add(`p${processId(thread)}`, processLabel(thread));
        add(`n${thread.name}`, `threads named ${thread.name || "-"}`);
    }
    const isChoice = (key, count) => (key[0] === "p" ? flame.processes > 1 : count > 1);
    for (const [key, { label, count }] of groups) {
        if (isChoice(key, count)) {
            choices.push([key, `${label}: ${countText(count, "thread")}`]);
        }
    }
    flame.threads.forEach((thread, index) => choices.push([`t${index}`, `thread ${threadLabel(thread)}`]));
    return choices;
}

function threadsChosen(flame, choice) {
    const kind = choice[0];
    const value = choice.slice(1);
    return flame.threads.filter((thread, index) => choice === "all" || (kind === "p" && processId(thread) === value)
        || (kind === "n" && thread.name === value) || (kind === "t" && String(index) === value));
}

function selectFlame(view, choice) {
    view.root = buildFlame(view.flame, threadsChosen(view.flame, choice));
    searchFlame(view);
    focusFlame(view, view.root);
}

function searchFlame(view) {
    const matcher = matcherOf(view.search);
    const wanted = matcher === null ? null : view.flame.functions.map(([name]) => matcher(name));
    const matched = markMatches(view.root, wanted === null ? null : (called) => wanted[called]);
    view.matched.textContent = wanted === null ? ""
        : `matched: ${shareText(matched.ns, view.root.totalNs)} (${countText(matched.samples, "sample")})`;
    if (view.focus !== null) {
        drawFlame(view);
    }
}

function focusFlame(view, node) {
    view.focus = node;
    view.current = node;
    drawFlame(view);
    sayFrame(view, node);
}

function nameOf(view, node) {
    return node.function < 0 ? "all samples" : view.flame.functions[node.function][0];
}

function detailsOf(view, node) {
    const all = view.root.totalNs;
    const lines = [`total ${shareText(node.totalNs, all)}: ${countText(node.total, "sample")}, ${durationText(node.totalNs)}`,
        `self ${shareText(node.selfNs, all)}: ${countText(node.self, "sample")}, ${durationText(node.selfNs)}`];
    if (node.function >= 0 && view.flame.functions[node.function][1] !== "") {
        lines.push(view.flame.functions[node.function][1]);
    }
    return lines;
}

function sayFrame(view, node) {
    view.current = node;
    view.said.textContent = `${nameOf(view, node)} · ${detailsOf(view, node).join(" · ")}`;
}

function drawFlame(view) {
    const width = view.box.clientWidth;
    if (width === 0 || view.focus === null) {
        return;
    }
    const frames = layOut(view.focus, width, LEAST_FRAME);
    const deepest = frames.reduce((most, frame) => Math.max(most, frame.node.depth), 0);
    const hadFocus = view.picture.contains(document.activeElement);
    view.frames.clear();
    view.picture.style.height = `${(deepest + 1) * FRAME_HEIGHT}px`;
    view.picture.replaceChildren(...frames.map((frame) => drawFrame(view, frame, deepest)));
    const current = view.frames.get(view.current) || view.frames.get(view.focus);
    current.tabIndex = 0;
    if (hadFocus) {
        current.focus({ preventScroll: true });
    }
}

function drawFrame(view, { node, left, width, isAbove }, deepest) {
    const name = nameOf(view, node);
    const isPlain = node.function < 0;
    const made = element("div", { role: "treeitem", "aria-level": node.depth + 1, tabindex: -1,
        "aria-label": `${name}, ${detailsOf(view, node).slice(0, 2).join(", ")}` }, width > 24 ? name : "");
    made.className = ["frame", isPlain && "plain", node.isMatch && "match", isAbove && "above",
        !node.isMatch && view.search !== "" && "faded"].filter(Boolean).join(" ");
    made.style.left = `${left}px`;
    made.style.width = `${Math.max(width - 0.5, 1)}px`;
    made.style.top = `${(view.isUp ? deepest - node.depth : node.depth) * FRAME_HEIGHT}px`;
    if (!isPlain) {
        made.style.background = `hsl(${hueOf(view.flame.functions[node.function][1])} 62% var(--frame-light))`;
    }
    made.node = node;
    view.frames.set(node, made);
    return made;
}

function withFrame(view, event, act) {
    const frame = event.target.closest(".frame");
    if (frame !== null) {
        act(frame.node);
    }
}

function flameHover(view, event) {
    const frame = event.target.closest(".frame");
    if (frame === null) {
        tooltip.hide();
    } else {
        tooltip.show(event.clientX, event.clientY, nameOf(view, frame.node), detailsOf(view, frame.node));
    }
}

// The frame next to this one in the same row, among those that are drawn.
function besideFrame(view, node, step) {
    const row = [...view.frames.keys()].filter((other) => other.depth === node.depth)
        .sort((a, b) => parseFloat(view.frames.get(a).style.left) - parseFloat(view.frames.get(b).style.left));
    return row[row.indexOf(node) + step];
}

function flameKey(view, event) {
    const node = view.current;
    const inwards = [...view.frames.keys()].find((other) => other.parent === node);
    const targets = { ArrowLeft: besideFrame(view, node, -1), ArrowRight: besideFrame(view, node, 1),
        ArrowDown: view.isUp ? node.parent : inwards, ArrowUp: view.isUp ? inwards : node.parent };
    if (event.key === "Enter" || event.key === " ") {
        focusFlame(view, node);
    } else if (event.key === "Escape") {
        focusFlame(view, view.root);
    } else if (event.key in targets) {
        view.frames.get(targets[event.key])?.focus();
    } else {
        return;
    }
    event.preventDefault();
}

function flameNotes(flame) {
    const notes = [`${countText(flame.samples, "sample")}, standing for ${durationText(flame.sampledNs)} of CPU time. `
        + "Waiting does not show here: a thread that waits burns no CPU and is not sampled. Colours tell modules apart."];
    if (flame.samples === 0) {
        notes.push("The session has no samples: record it with sampling switched on.");
    }
    if (flame.hiddenNodes !== 0) {
        notes.push(`To keep the page small ${countText(flame.hiddenNodes, "frame")} with fewest samples `
            + "are drawn together as “(smaller stacks)”; qelix export has every one.");
    }
    if (flame.hiddenThreads !== 0) {
        notes.push(`${countText(flame.hiddenThreads, "thread")} with fewest samples are drawn as one.`);
    }
    return element("ul", { class: "notes dim" }, ...notes.map((note) => element("li", {}, note)));
}
