// The time line without its picture: the page's compact lists taken apart, and searched. Times are nanoseconds behind
// the session's first record.

// In full, where a narrow table of the text form says less.
const GROUP_LABELS = { cpu: "ran on a CPU", condition: "condition", wait: "waited for events", rest: "other calls" };

function groupLabel(group) {
    return GROUP_LABELS[group.id] || group.label;
}

// Lists hold starts as the distance from the entry before, which keeps the page small.
function decodeThread(timeline, thread) {
    const runs = [];
    for (let i = 0, at = 0; i < thread.runs.length; i += 4) {
        at += thread.runs[i];
        runs.push({ start: at, end: at + thread.runs[i + 1], samples: thread.runs[i + 2], name: thread.runs[i + 3] });
    }
    const waits = [];
    for (let i = 0, at = 0; i < thread.waits.length; i += 5) {
        at += thread.waits[i];
        const [duration, group, name, lock] = thread.waits.slice(i + 1, i + 5);
        const isOpen = duration < 0; // it has not returned
        waits.push({ start: at, end: isOpen ? Math.max(thread.end, at) : at + duration, group, name, lock, isOpen });
    }
    const cells = [];
    for (let i = 0, at = 0; i < thread.cells.length; i += 4) {
        at += thread.cells[i];
        const start = timeline.cellOriginNs + at * timeline.cellNs;
        const [group, count, ns] = thread.cells.slice(i + 1, i + 4);
        cells.push({ start, end: start + timeline.cellNs, group, count, ns });
    }
    return { ...thread, runs, waits, cells, reach: reachOf(waits) };
}

// The furthest end among a list's entries up to each: calls can lie inside one another.
function reachOf(entries) {
    let furthest = -Infinity;
    return entries.map((entry) => (furthest = Math.max(furthest, entry.end)));
}

function firstIndex(length, isBehind) {
    let low = 0;
    let high = length;
    while (low < high) {
        const middle = (low + high) >> 1;
        if (isBehind(middle)) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    return low;
}

// The entries that overlap a stretch of time, by start.
function waitsIn(thread, from, to) {
    const begin = firstIndex(thread.waits.length, (i) => thread.reach[i] >= from);
    const end = firstIndex(thread.waits.length, (i) => thread.waits[i].start > to);
    return thread.waits.slice(begin, end).filter((wait) => wait.end >= from);
}

// Runs and cells do not overlap among themselves.
function entriesIn(entries, from, to) {
    const begin = firstIndex(entries.length, (i) => entries[i].end >= from);
    const end = firstIndex(entries.length, (i) => entries[i].start > to);
    return entries.slice(begin, end);
}

// What lies under a point: of calls inside one another the innermost.
function waitAt(thread, time, slack) {
    const found = waitsIn(thread, time - slack, time + slack);
    return found.filter((wait) => wait.start <= time && time <= wait.end).pop() || found.pop();
}

function lockLabel(timeline, wait) {
    return wait.lock < 0 ? "" : timeline.locks[wait.lock];
}

function isWanted(timeline, matcher, wait) {
    return matcher(timeline.names[wait.name]) || matcher(lockLabel(timeline, wait));
}

// All calls that match, of all threads, by start; and what they come to. Calls in one another count twice.
function searchTimeline(timeline, threads, matcher) {
    const hits = [];
    let totalNs = 0;
    threads.forEach((thread, row) => {
        for (const wait of thread.waits) {
            wait.isMatch = matcher !== null && isWanted(timeline, matcher, wait);
            if (wait.isMatch) {
                hits.push({ row, wait });
                totalNs += wait.end - wait.start;
            }
        }
    });
    hits.sort((a, b) => a.wait.start - b.wait.start);
    return { hits, totalNs };
}

// What each group comes to, calls that are drawn alone and those in cells together.
function groupTotals(timeline, threads) {
    const totals = timeline.groups.map(() => ({ calls: 0, ns: 0 }));
    for (const thread of threads) {
        for (const wait of thread.waits) {
            totals[wait.group].calls += 1;
            totals[wait.group].ns += wait.end - wait.start;
        }
        for (const cell of thread.cells) {
            totals[cell.group].calls += cell.count;
            totals[cell.group].ns += cell.ns;
        }
        totals[0].calls += thread.samples;
        totals[0].ns += thread.samples * thread.sampleNs;
    }
    return totals;
}

// Round steps for the ruler: 1, 2 or 5 times a power of ten.
function rulerStep(span, most) {
    const least = Math.max(span / Math.max(most, 1), 1);
    const power = 10 ** Math.floor(Math.log10(least));
    return [1, 2, 5, 10].map((factor) => factor * power).find((step) => step >= least);
}
