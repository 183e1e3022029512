// The report's tables, from the same facts as qelix report --json.

const TIME_KINDS = ["cpu", "lock", "condition", "io", "sleep", "wait", "rest"];

function showReport(report, place, data) {
    place.append(element("nav", { "aria-label": "Sections" }, ...[["times", "Threads"], ["locks", "Locks"], ["cpu", "CPU"],
        ["calls", "Calls"], ["never", "Never returned"], ["cautions", "Read this"],
        data.timeline && ["timeline", "Time line"], data.flame && ["flame", "Flame graph"]]
        .filter(Boolean).map(([id, label]) => element("a", { href: `#${id}` }, label))));
    place.append(summaryOf(report));
    showTimes(report, place, data.timeline);
    showLocks(report, place);
    showFunctions(report, place);
    showCalls(report, place);
    showNeverReturned(report, place);
    showCautions(report, place);
}

function summaryOf(report) {
    const facts = [report.command && report.command.join(" "), statusText(report.waitStatus),
        report.wallNs && `wall time ${durationText(report.wallNs)}`,
        countText(report.cut.processes || report.processes.length, "process", "processes"),
        `${countText(report.cpu.samples, "sample")} of ${durationText(report.cpu.periodNs)}`];
    return element("p", { id: "summary" }, facts.filter(Boolean).join(" · "));
}

// As waitpid(2) tells it.
function statusText(waitStatus) {
    if (waitStatus === null || waitStatus === undefined) {
        return "";
    }
    const signal = waitStatus & 0x7f;
    return signal === 0 ? `status ${(waitStatus >> 8) & 0xff}` : `died of signal ${signal}`;
}

// Columns are [title, text of a row, is it text]; the table says how many rows it leaves out.
function showTable(place, { id, title, rows, columns, all, empty }) {
    place.append(element("h2", { id }, title));
    if (rows.length === 0) {
        place.append(element("p", { class: "dim" }, empty));
        return;
    }
    const cell = (tag, text, isText) => element(tag, { class: isText ? "text" : null, title: isText ? text : null,
        scope: tag === "th" ? "col" : null }, text);
    const head = element("tr", {}, ...columns.map(([name, , isText]) => cell("th", name, isText)));
    const body = element("tbody");
    const table = element("table", {}, element("thead", {}, head), body);
    const show = (count) => body.append(...rows.slice(body.children.length, count).map((row) => element("tr", {},
        ...columns.map(([, text, isText]) => {
            const content = text(row);
            return content instanceof Node ? element("td", {}, content) : cell("td", String(content), isText);
        }))));
    show(30);
    place.append(element("div", { class: "table" }, table));
    if (rows.length > 30) {
        const more = element("button", { type: "button", onclick: () => { show(rows.length); more.remove(); } },
            `Show all ${rows.length}`);
        place.append(more);
    }
    if (all > rows.length) {
        place.append(element("p", { class: "dim" }, `${rows.length} of ${all}; qelix report --json has all`));
    }
}

function callColumns() {
    const duration = (row, name) => (row.calls === row.neverReturned + row.untimed ? "-" : durationText(row[name]));
    return [["calls", (row) => row.calls.toLocaleString("en")], ...["total", "mean", "p95", "longest"]
        .map((name) => [name, (row) => duration(row, `${name}Ns`)])];
}

// A bar of the time line's letters, as wide as each kind's share.
function barOf(times, letters) {
    const bar = element("span", { class: "bar" });
    for (const kind of TIME_KINDS) {
        const share = times.wallNs === 0 ? 0 : (100 * times[`${kind}Ns`]) / times.wallNs;
        if (share >= 1 && kind !== "rest") {
            bar.append(element("span", { style: `width:${Math.min(share, 100)}%;background:var(--${kind})`,
                title: `${kind} ${share.toFixed(1)} %` }, letters.get(kind)));
        }
    }
    return bar;
}

function showTimes(report, place, timeline) {
    const names = processNames(report);
    const letters = new Map(timeline.groups.map((group) => [group.id, group.letter]));
    showTable(place, { id: "times", title: "Where the time went", rows: report.times || [], all: report.cut.times,
        empty: "No thread recorded anything.", columns: [["thread", (row) => threadLabel(row), true],
            ["process", (row) => `${processId(row)} ${names.get(processId(row)) || "-"}`, true],
            ["wall", (row) => durationText(row.wallNs)],
            ...TIME_KINDS.map((kind) => [kind === "io" ? "I/O" : kind === "cpu" ? "CPU" : kind,
                (row) => shareText(row[`${kind}Ns`], row.wallNs)]), ["", (row) => barOf(row, letters)]] });
}

function processNames(report) {
    return new Map(report.processes.map((process) => [processId(process), process.name]));
}

function lockName(lock) {
    return lock.name || `0x${lock.address.toString(16)}`;
}

function showLocks(report, place) {
    const acquirers = (lock) => (lock.lastAcquirers || []).join(", ") || "-";
    showTable(place, { id: "locks", title: "Locks that were waited for", rows: report.locks, all: report.cut.locks,
        empty: "No call on a lock was recorded.", columns: [["lock", lockName, true], ["kind", (lock) => lock.kind, true],
            ["process", processId], ...callColumns(),
            ["mean waiters", (lock) => (lock.meanWaiters === undefined ? "-" : lock.meanWaiters.toFixed(2))],
            ["threads", (lock) => lock.threads.length], ["last acquirers", acquirers]] });
}

function showFunctions(report, place) {
    const { functions, sampledNs } = report.cpu;
    showTable(place, { id: "cpu", title: "Where CPU went", rows: functions, all: report.cut.functions,
        empty: "The session has no samples.", columns: [["self", (row) => shareText(row.selfNs, sampledNs)],
            ["total", (row) => shareText(row.totalNs, sampledNs)], ["self time", (row) => durationText(row.selfNs)],
            ["function", (row) => row.name, true], ["module", (row) => row.module.split("/").pop(), true]] });
}

function showCalls(report, place) {
    const rows = report.processes.flatMap((process) => process.threads.flatMap((thread) => thread.calls.map((call) => (
        { ...call, function: call.name, name: thread.name, tid: thread.tid, pid: process.pid, mark: process.mark }))));
    rows.sort((a, b) => b.totalNs - a.totalNs);
    showTable(place, { id: "calls", title: "Calls", rows: rows.slice(0, 2000), all: rows.length,
        empty: "No call was recorded.", columns: [["thread", (row) => threadLabel(row), true],
            ["process", processId], ["class", (row) => row.class, true], ["call", (row) => row.function, true],
            ...callColumns()] });
}

function showNeverReturned(report, place) {
    showTable(place, { id: "never", title: "Calls that never returned", rows: report.neverReturned,
        all: report.cut.neverReturned, empty: "Every recorded call returned.",
        columns: [["at least", (row) => durationText(row.atLeastNs)], ["process", processId],
            ["thread", (row) => row.tid], ["call", (row) => row.name, true],
            ["of", (row) => row.lock || (row.address ? `0x${row.address.toString(16)}` : "-"), true],
            ["last acquirer", (row) => row.lastAcquirer || "-"]] });
}

// What keeps the report from being the whole truth.
function cautionsOf(report) {
    const cautions = ["Waits have no stacks, unlocks are not recorded, and neither are descriptors or byte counts.",
        thresholdsText(report.thresholdsNs)];
    for (const process of report.processes) {
        for (const part of ["damage", "sampleDamage", "metadataDamage"]) {
            const damage = process[part];
            cautions.push(damage && `process ${processId(process)}: damaged at byte offset ${damage.offset}: ${damage.reason}; `
                + damage.remedy);
        }
    }
    const { agent } = report;
    cautions.push(agent.lostTraceRecords && `lost: ${countText(agent.lostTraceRecords, "record")} of calls`,
        agent.lostSampleRecords && `lost: ${countText(agent.lostSampleRecords, "sample")}`,
        agent.timerOverruns && `overruns: timers fired ${countText(agent.timerOverruns, "time")} more than they were heard`,
        agent.logErrorLines && `errors: ${agent.logErrorLines} in the agent's logs, the first: ${agent.firstLogError}`,
        ...agent.errors.map((error) => error.explanation),
        ...report.unrecorded.map((process) => `process ${processId(process)} ${process.program} was not recorded: ${process.reason}`));
    return cautions.filter(Boolean);
}

function thresholdsText(thresholds) {
    if (thresholds === null) {
        return "No calls were recorded, or it is not known which.";
    }
    const parts = Object.entries(thresholds).map(([name, ns]) => `${name} ${ns === null ? "off" : durationText(ns)}`);
    return `Calls shorter than this were not recorded: ${parts.join(", ")}.`;
}

function showCautions(report, place) {
    place.append(element("h2", { id: "cautions" }, "Read this"),
        element("ul", { class: "notes" }, ...cautionsOf(report).map((caution) => element("li", {}, caution))));
}
