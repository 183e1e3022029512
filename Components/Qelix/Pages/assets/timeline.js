// The time line's page: what moves it, and what it says.

const LEAST_SPAN = 100; // nanoseconds across the whole picture

function showTimeline(timeline, place) {
    const threads = timeline.threads.map((thread) => decodeThread(timeline, thread));
    const view = { timeline, threads, from: 0, to: Math.max(timeline.spanNs, LEAST_SPAN), row: -1, selected: null,
        hidden: new Set(), hits: [], hit: -1, isSearching: false, labelWidth: 190, held: null,
        fullHeight: RULER_HEIGHT + threads.length * ROW_HEIGHT };
    view.canvas = element("canvas", { tabindex: 0, role: "application", id: "timeline-canvas",
        "aria-label": "Time line of threads. Plus and minus zoom, left and right move, up and down choose a thread, "
            + "n and p go to its next and previous call.", "aria-describedby": "timeline-said" });
    view.context = view.canvas.getContext("2d");
    view.spacer = element("div"); // what the rows that are not drawn would measure
    view.box = element("div", { class: "timeline" }, view.canvas, view.spacer);
    view.box.style.height = `${Math.min(view.fullHeight + 2, innerHeight * 0.78)}px`;
    view.said = element("p", { class: "said", role: "status", id: "timeline-said" });
    place.append(element("h2", { id: "timeline" }, "When threads ran and waited: time line"), timelineLegend(view),
        timelineTools(view), view.said, view.box, timelineNotes(timeline));
    listenTimeline(view);
    new ResizeObserver(() => drawTimeline(view)).observe(view.box);
    drawTimeline(view);
}

function timelineLegend(view) {
    const totals = groupTotals(view.timeline, view.threads);
    const entries = view.timeline.groups.map((group, index) => {
        const swatch = element("canvas", { width: 28, height: 16, "aria-hidden": "true" });
        const paint = swatch.getContext("2d");
        paint.fillStyle = patternOf(group.id, paint);
        paint.fillRect(0, 0, 28, 16);
        const box = element("input", { type: "checkbox", checked: true, onchange: (event) => {
            view.hidden[event.target.checked ? "delete" : "add"](index);
            drawTimeline(view);
        } });
        const { calls, ns } = totals[index];
        const count = index === 0 ? countText(calls, "sample") : countText(calls, "call");
        return element("li", {}, element("label", { id: `legend-${group.id}` }, box, swatch,
            element("b", {}, group.letter), `${groupLabel(group)}: ${durationText(ns)}, ${count}`));
    });
    return element("ul", { class: "legend" }, ...entries);
}

function timelineTools(view) {
    const button = (label, act) => element("button", { type: "button", onclick: act }, label);
    const search = element("input", { type: "search", id: "timeline-search", placeholder: "lock, call or /expression/",
        oninput: (event) => searchCalls(view, event.target.value),
        onkeydown: (event) => event.key === "Enter" && goToHit(view, event.shiftKey ? -1 : 1) });
    view.matched = element("span", { id: "timeline-matched", role: "status" });
    return element("div", { class: "tools" }, button("Zoom in", () => zoomTimeline(view, 0.5)),
        button("Zoom out", () => zoomTimeline(view, 2)), button("Show all", () => showSpan(view, 0, Infinity)),
        element("label", {}, "Search", search), button("Previous", () => goToHit(view, -1)),
        button("Next", () => goToHit(view, 1)), view.matched,
        element("span", { class: "dim" }, "Wheel: zoom · Shift+wheel or drag: move · keys: + − ← → ↑ ↓ n p 0"));
}

function showSpan(view, from, to) {
    const all = Math.max(view.timeline.spanNs, LEAST_SPAN);
    const span = Math.min(all, Math.max(LEAST_SPAN, to - from));
    view.from = Math.min(Math.max(0, from), all - span);
    view.to = view.from + span;
    drawTimeline(view);
}

function zoomTimeline(view, factor, at = (view.from + view.to) / 2) {
    showSpan(view, at - (at - view.from) * factor, at + (view.to - at) * factor);
}

function panTimeline(view, part) {
    const by = part * (view.to - view.from);
    showSpan(view, view.from + by, view.to + by);
}

function searchCalls(view, text) {
    const matcher = matcherOf(text);
    const { hits, totalNs } = searchTimeline(view.timeline, view.threads, matcher);
    view.hits = hits;
    view.hit = -1;
    view.isSearching = matcher !== null;
    view.matched.textContent = matcher === null ? ""
        : `${countText(hits.length, "call")} drawn alone: ${durationText(totalNs)}`;
    drawTimeline(view);
}

function goToHit(view, step) {
    if (view.hits.length !== 0) {
        view.hit = (view.hit + step + view.hits.length) % view.hits.length;
        selectWait(view, view.hits[view.hit].row, view.hits[view.hit].wait);
    }
}

function selectWait(view, row, wait) {
    selectRow(view, row);
    view.selected = wait;
    const span = view.to - view.from;
    const middle = (wait.start + wait.end) / 2;
    if (wait.end < view.from || wait.start > view.to) {
        showSpan(view, middle - span / 2, middle + span / 2);
    }
    view.said.textContent = [threadLabel(view.threads[row]), ...describeWait(view.timeline, wait)].join(" · ");
    drawTimeline(view);
}

function selectRow(view, row) {
    view.row = Math.max(0, Math.min(view.threads.length - 1, row));
    const top = view.row * ROW_HEIGHT;
    const room = view.height - RULER_HEIGHT - ROW_HEIGHT;
    view.box.scrollTop = Math.min(Math.max(view.box.scrollTop, top - room), top);
    view.said.textContent = describeThread(view.timeline, view.threads[view.row]).join(" · ");
    drawTimeline(view);
}

function stepWait(view, step) {
    const waits = view.threads[view.row]?.waits || [];
    const at = waits.indexOf(view.selected);
    const next = at < 0 ? firstIndex(waits.length, (i) => waits[i].start >= view.from) : at + step;
    if (waits[next] !== undefined) {
        selectWait(view, view.row, waits[next]);
    }
}

function describeThread(timeline, thread) {
    return [threadLabel(thread), processLabel(thread), countText(thread.calls, "call"),
        `CPU ${durationText(thread.samples * thread.sampleNs)} (${countText(thread.samples, "sample")})`];
}

function describeWait(timeline, wait) {
    const group = timeline.groups[wait.group];
    const lock = lockLabel(timeline, wait);
    return [`${group.letter} ${groupLabel(group)}: ${timeline.names[wait.name]}`, lock === "" ? null : lock,
        wait.isOpen ? `never returned, at least ${durationText(wait.end - wait.start)}` : durationText(wait.end - wait.start),
        `from ${durationText(wait.start)}`].filter((line) => line !== null);
}

function describeRun(timeline, thread, run) {
    return [`${timeline.groups[0].letter} ran: ${countText(run.samples, "sample")}, `
        + `${durationText(run.samples * thread.sampleNs)} of CPU within ${durationText(run.end - run.start)}`,
    run.name < 0 ? null : `for example in ${timeline.names[run.name]}`, `from ${durationText(Math.max(run.start, 0))}`]
        .filter((line) => line !== null);
}

function describeCells(timeline, cells) {
    return cells.map((cell) => `${timeline.groups[cell.group].letter} ${groupLabel(timeline.groups[cell.group])}: `
        + `${countText(cell.count, "short call")}, ${durationText(cell.ns)} within ${durationText(timeline.cellNs)}`);
}

// What lies under the pointer, in words; null outside every row.
function describePoint(view, x, y) {
    const down = y - RULER_HEIGHT + view.box.scrollTop;
    const thread = y < RULER_HEIGHT ? undefined : view.threads[Math.floor(down / ROW_HEIGHT)];
    if (thread === undefined) {
        return null;
    }
    if (x < view.labelWidth) {
        return describeThread(view.timeline, thread);
    }
    const time = timeOf(view, x);
    const slack = (2 * (view.to - view.from)) / (view.width - view.labelWidth);
    const isRunLane = down % ROW_HEIGHT < WAIT_LANE.top;
    const runs = isRunLane && !view.hidden.has(0) ? entriesIn(thread.runs, time - slack, time + slack) : [];
    const wait = isRunLane ? undefined : waitAt(thread, time, slack);
    const cells = isRunLane || wait ? [] : entriesIn(thread.cells, time, time);
    const lines = runs.length !== 0 ? describeRun(view.timeline, thread, runs[0])
        : wait !== undefined && !view.hidden.has(wait.group) ? describeWait(view.timeline, wait)
            : cells.length !== 0 ? describeCells(view.timeline, cells) : ["nothing recorded here"];
    return [`${threadLabel(thread)} at ${durationText(time)}`, ...lines];
}

function hoverTimeline(view, event) {
    const described = describePoint(view, event.offsetX, event.offsetY);
    if (described === null || view.held !== null) {
        tooltip.hide();
    } else {
        tooltip.show(event.clientX, event.clientY, described[0], described.slice(1));
    }
}

function dragTimeline(view, event) {
    const perPixel = (view.to - view.from) / (view.width - view.labelWidth);
    const by = (view.held.x - event.clientX) * perPixel;
    view.box.scrollTop += view.held.y - event.clientY;
    view.held = { x: event.clientX, y: event.clientY };
    showSpan(view, view.from + by, view.to + by);
}

function wheelTimeline(view, event) {
    if (event.offsetX < view.labelWidth) {
        return; // over the names the wheel scrolls the threads
    }
    event.preventDefault();
    if (event.shiftKey || Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
        panTimeline(view, Math.sign(event.deltaX || event.deltaY) * 0.1);
    } else {
        zoomTimeline(view, event.deltaY > 0 ? 1.25 : 0.8, timeOf(view, event.offsetX));
    }
}

function keyTimeline(view, event) {
    const acts = { "+": () => zoomTimeline(view, 0.5), "=": () => zoomTimeline(view, 0.5), "-": () => zoomTimeline(view, 2),
        "0": () => showSpan(view, 0, Infinity), Home: () => showSpan(view, 0, Infinity),
        ArrowLeft: () => panTimeline(view, -0.2), ArrowRight: () => panTimeline(view, 0.2),
        ArrowUp: () => selectRow(view, view.row - 1), ArrowDown: () => selectRow(view, view.row + 1),
        n: () => stepWait(view, 1), p: () => stepWait(view, -1) };
    if (event.key in acts && !event.ctrlKey && !event.metaKey) {
        acts[event.key]();
        event.preventDefault();
    }
}

function listenTimeline(view) {
    const { canvas, box } = view;
    canvas.addEventListener("wheel", (event) => wheelTimeline(view, event), { passive: false });
    canvas.addEventListener("keydown", (event) => keyTimeline(view, event));
    canvas.addEventListener("pointerdown", (event) => {
        canvas.setPointerCapture(event.pointerId);
        canvas.classList.add("held");
        view.held = { x: event.clientX, y: event.clientY };
    });
    canvas.addEventListener("pointerup", () => {
        canvas.classList.remove("held");
        view.held = null;
    });
    canvas.addEventListener("pointermove", (event) => {
        if (view.held !== null) {
            dragTimeline(view, event);
        }
        hoverTimeline(view, event);
    });
    canvas.addEventListener("pointerleave", tooltip.hide);
    box.addEventListener("scroll", () => drawTimeline(view));
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => drawTimeline(view));
}

function timelineNotes(timeline) {
    const notes = ["Upper half of a row: the thread ran, as high as the samples' share of the time. Lower half: calls, "
        + "each as long as it took. Calls shorter than the thresholds of the recording are not there; where nothing is "
        + "drawn the thread may have run between two samples, waited outside of any call that was recorded, or not been "
        + "scheduled."];
    if (timeline.binned !== 0) {
        notes.push(`To keep the page small, calls shorter than ${durationText(timeline.shortestAloneNs)} are drawn `
            + `together, as what they took of each ${durationText(timeline.cellNs)}: `
            + `${countText(timeline.binned, "call")} of ${(timeline.binned + timeline.alone).toLocaleString("en")}. `
            + "A search finds the calls that are drawn alone.");
    }
    if (timeline.runGapNs > timeline.firstRunGapNs) {
        notes.push(`Samples less than ${durationText(timeline.runGapNs)} apart are drawn as one stretch.`);
    }
    if (timeline.untimed !== 0) {
        notes.push(`${countText(timeline.untimed, "call")} without a time: the clock failed.`);
    }
    if (timeline.hidden.threads !== 0) {
        notes.push(`${countText(timeline.hidden.threads, "thread")} with least recorded time are not drawn: `
            + `${countText(timeline.hidden.calls, "call")}, ${countText(timeline.hidden.samples, "sample")}.`);
    }
    return element("ul", { class: "notes dim" }, ...notes.map((note) => element("li", {}, note)));
}
