// How the time line is drawn: upper half of a row where the thread ran, lower half what it waited in. A group of calls
// has a colour, a pattern and a letter, so that none of them is needed alone.

const ROW_HEIGHT = 30;
const RULER_HEIGHT = 24;
const RUN_LANE = { top: 3, height: 9 };
const WAIT_LANE = { top: 13, height: 14 };
const LABEL_LEAST = 12; // pixels that a letter needs
const NAME_LEAST = 64;

// What a pattern's tile of 8 by 8 is crossed by, as lines from point to point.
const PATTERN_LINES = {
    lock: [[0, 8, 8, 0]],
    condition: [[2, 2, 3, 2], [6, 6, 7, 6]],
    io: [[0, 2, 8, 2], [0, 6, 8, 6]],
    sleep: [[4, 0, 4, 8]],
    wait: [[0, 0, 8, 8]],
    rest: [[0, 0, 8, 8], [0, 8, 8, 0]],
};

function styleOf(name) {
    return getComputedStyle(document.documentElement).getPropertyValue(`--${name}`).trim();
}

function paintsOf(timeline, context) {
    const colours = Object.fromEntries(["back", "fore", "dim", "line", "panel", "mark", "bar-text"]
        .map((name) => [name, styleOf(name)]));
    return { ...colours, groups: timeline.groups.map((group) => patternOf(group.id, context)),
        plain: timeline.groups.map((group) => styleOf(group.id)) };
}

function patternOf(group, context) {
    const tile = element("canvas", { width: 8, height: 8 });
    const paint = tile.getContext("2d");
    paint.fillStyle = styleOf(group);
    paint.fillRect(0, 0, 8, 8);
    paint.strokeStyle = styleOf("pattern");
    paint.lineWidth = group === "condition" ? 2 : 1.2;
    for (const [x0, y0, x1, y1] of PATTERN_LINES[group] || []) {
        paint.beginPath();
        paint.moveTo(x0, y0);
        paint.lineTo(x1, y1);
        paint.stroke();
    }
    return context.createPattern(tile, "repeat");
}

function drawTimeline(view) {
    const { canvas, context, box } = view;
    const ratio = devicePixelRatio || 1;
    const width = box.clientWidth;
    const height = Math.min(view.fullHeight, Math.max(box.clientHeight, 1));
    if (width === 0) {
        return;
    }
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
    canvas.style.width = `${width}px`;
    canvas.style.height = `${height}px`;
    view.spacer.style.height = `${view.fullHeight - height}px`;
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
    view.paints = paintsOf(view.timeline, context);
    view.width = width;
    view.height = height;
    context.fillStyle = view.paints.back;
    context.fillRect(0, 0, width, height);
    drawGrid(view);
    const first = Math.max(0, Math.floor(box.scrollTop / ROW_HEIGHT));
    const last = Math.min(view.threads.length, Math.ceil((box.scrollTop + height) / ROW_HEIGHT));
    for (let row = first; row < last; ++row) {
        drawRow(view, row, RULER_HEIGHT + row * ROW_HEIGHT - box.scrollTop);
    }
    drawRuler(view);
}

function xOf(view, time) {
    return view.labelWidth + ((time - view.from) / (view.to - view.from)) * (view.width - view.labelWidth);
}

function timeOf(view, x) {
    return view.from + ((x - view.labelWidth) / (view.width - view.labelWidth)) * (view.to - view.from);
}

function drawRow(view, row, top) {
    const { context, paints } = view;
    const thread = view.threads[row];
    if (row === view.row) {
        context.fillStyle = paints.panel;
        context.fillRect(0, top, view.width, ROW_HEIGHT);
    }
    context.fillStyle = paints.line;
    context.fillRect(0, top + ROW_HEIGHT - 1, view.width, 1);
    context.save();
    context.beginPath();
    context.rect(view.labelWidth, top, view.width - view.labelWidth, ROW_HEIGHT);
    context.clip();
    drawLife(view, thread, top);
    drawRuns(view, thread, top);
    drawCells(view, thread, top);
    drawWaits(view, thread, top);
    context.restore();
    drawLabel(view, thread, row, top);
}

function drawLife(view, thread, top) {
    const left = xOf(view, thread.begin);
    view.context.fillStyle = view.paints.line;
    view.context.fillRect(left, top + ROW_HEIGHT - 2, Math.max(xOf(view, thread.end) - left, 1), 2);
}

// As high as the share of the stretch that the samples account for.
function drawRuns(view, thread, top) {
    if (view.hidden.has(0)) {
        return;
    }
    view.context.fillStyle = view.paints.groups[0];
    for (const run of entriesIn(thread.runs, view.from, view.to)) {
        const left = xOf(view, run.start);
        const width = Math.max(xOf(view, run.end) - left, 1);
        const share = Math.min(1, (run.samples * thread.sampleNs) / Math.max(run.end - run.start, 1));
        const height = Math.max(2, RUN_LANE.height * share);
        view.context.fillRect(left, top + RUN_LANE.top + RUN_LANE.height - height, width, height);
        if (width > NAME_LEAST) {
            drawText(view, view.timeline.names[run.name] || "", left, top + RUN_LANE.top, width, RUN_LANE.height);
        }
    }
}

// Short calls: per pixel the share of the time that each group took.
function drawCells(view, thread, top) {
    let column = null;
    for (const cell of entriesIn(thread.cells, view.from, view.to)) {
        if (view.hidden.has(cell.group)) {
            continue;
        }
        const left = Math.floor(Math.max(xOf(view, cell.start), view.labelWidth - 1));
        if (column === null || left !== column.left) {
            drawColumn(view, column, top);
            column = { left, right: left + 1, end: cell.end, start: cell.start, ns: new Map() };
        }
        column.right = Math.max(column.right, xOf(view, cell.end));
        column.end = cell.end;
        column.ns.set(cell.group, (column.ns.get(cell.group) || 0) + cell.ns);
    }
    drawColumn(view, column, top);
}

function drawColumn(view, column, top) {
    if (column === null) {
        return;
    }
    let bottom = top + WAIT_LANE.top + WAIT_LANE.height;
    for (const [group, ns] of column.ns) {
        const height = Math.max(1, Math.min(1, ns / (column.end - column.start)) * WAIT_LANE.height);
        bottom -= height;
        view.context.fillStyle = view.paints.plain[group];
        view.context.fillRect(column.left, bottom, column.right - column.left, height);
    }
}

function drawWaits(view, thread, top) {
    let drawnTo = -Infinity; // calls in the pixel of the one before would change nothing
    for (const wait of waitsIn(thread, view.from, view.to)) {
        const left = xOf(view, wait.start);
        const right = Math.max(xOf(view, wait.end), left + 1);
        if (view.hidden.has(wait.group) || (right <= drawnTo && right - left <= 1 && !wait.isMatch)) {
            continue;
        }
        drawnTo = Math.ceil(right);
        drawWait(view, wait, Math.max(left, view.labelWidth - 4), Math.min(right, view.width + 4), top + WAIT_LANE.top);
    }
}

function drawWait(view, wait, left, right, top) {
    const { context, paints } = view;
    const width = right - left;
    context.globalAlpha = view.isSearching && !wait.isMatch ? 0.25 : 1;
    context.fillStyle = paints.groups[wait.group];
    context.fillRect(left, top, width, WAIT_LANE.height);
    if (wait.isMatch || wait === view.selected) {
        context.strokeStyle = paints.mark;
        context.lineWidth = 2;
        context.strokeRect(left, top - 1, Math.max(width, 2), WAIT_LANE.height + 2);
    }
    if (width > LABEL_LEAST) {
        const letter = view.timeline.groups[wait.group].letter;
        const name = width > NAME_LEAST ? ` ${view.timeline.names[wait.name]} ${lockLabel(view.timeline, wait)}` : "";
        drawText(view, letter + name + (wait.isOpen ? " …never returned" : ""), left, top, width, WAIT_LANE.height,
            paints.plain[wait.group]);
    }
    context.globalAlpha = 1;
}

// On a plain ground, so that a pattern does not run through the letters.
function drawText(view, text, left, top, width, height, ground) {
    const { context } = view;
    context.font = `${Math.min(height, 11)}px system-ui, sans-serif`;
    context.textBaseline = "middle";
    const shown = fitText(context, text, width - 4);
    if (ground !== undefined && shown !== "") {
        context.fillStyle = ground;
        context.fillRect(left + 1, top + 1, context.measureText(shown).width + 3, height - 2);
    }
    context.fillStyle = view.paints["bar-text"];
    context.fillText(shown, left + 2, top + height / 2 + 0.5);
}

function fitText(context, text, width) {
    if (context.measureText(text).width <= width) {
        return text;
    }
    const fitting = firstIndex(text.length, (i) => context.measureText(text.slice(0, i + 1)).width > width);
    return text.slice(0, fitting);
}

function drawLabel(view, thread, row, top) {
    const { context, paints } = view;
    context.fillStyle = row === view.row ? paints.panel : paints.back;
    context.fillRect(0, top, view.labelWidth, ROW_HEIGHT - 1);
    context.font = "12px system-ui, sans-serif";
    context.textBaseline = "alphabetic";
    context.fillStyle = paints.fore;
    context.fillText(fitText(context, threadLabel(thread), view.labelWidth - 10), 4, top + 13);
    context.fillStyle = paints.dim;
    context.font = "10px system-ui, sans-serif";
    context.fillText(fitText(context, processLabel(thread), view.labelWidth - 10), 4, top + 25);
}

function eachTick(view, act) {
    const step = rulerStep(view.to - view.from, (view.width - view.labelWidth) / 110);
    const first = Math.ceil(view.from / step);
    for (let tick = first; tick * step <= view.to; ++tick) {
        act(xOf(view, tick * step), tick * step, step);
    }
}

function drawGrid(view) {
    view.context.fillStyle = view.paints.line;
    eachTick(view, (x) => view.context.fillRect(x, RULER_HEIGHT - 6, 1, view.height));
}

function drawRuler(view) {
    const { context, paints } = view;
    context.fillStyle = paints.panel;
    context.fillRect(0, 0, view.width, RULER_HEIGHT);
    context.font = "11px system-ui, sans-serif";
    context.textBaseline = "middle";
    context.fillStyle = paints.fore;
    eachTick(view, (x, time, step) => context.fillText(rulerText(time, step), x + 3, RULER_HEIGHT / 2));
    context.fillStyle = paints.panel;
    context.fillRect(0, 0, view.labelWidth, RULER_HEIGHT);
    context.fillStyle = paints.dim;
    context.fillText("thread", 4, RULER_HEIGHT / 2);
}

// All ticks in one unit, with the decimals that tell them apart.
function rulerText(time, step) {
    const units = [[1e9, "s"], [1e6, "ms"], [1e3, "µs"], [1, "ns"]];
    const [size, unit] = units.find(([least]) => time >= least) || units[units.length - 1];
    const decimals = Math.max(0, Math.ceil(Math.log10(size / step) - 1e-9));
    return `${(time / size).toFixed(decimals)} ${unit}`;
}
