// The flame graph without its picture: trees of stacks, merged, searched and laid out.

// One tree of the stacks of these threads. A node has function (an index, -1: the root), self and total in samples,
// selfNs and totalNs as each sample's process weighs them, children, parent and depth.
function buildFlame(flame, threads) {
    const root = newNode(-1, null);
    for (const thread of threads) {
        addThread(root, thread);
    }
    return root;
}

function newNode(called, parent) {
    return { function: called, self: 0, total: 0, selfNs: 0, totalNs: 0, children: new Map(), parent,
        depth: parent === null ? 0 : parent.depth + 1, isMatch: false };
}

// A node of a thread's list stands behind its parent; the first one is the root.
function addThread(root, thread) {
    const nodes = [root];
    for (let i = 0; i < thread.functions.length; ++i) {
        const parent = nodes[thread.parents[i]];
        const called = thread.functions[i];
        let node = parent.children.get(called);
        if (node === undefined) {
            node = newNode(called, parent);
            parent.children.set(called, node);
        }
        nodes.push(node);
        const ns = thread.self[i] * thread.sampleNs;
        node.self += thread.self[i];
        node.selfNs += ns;
        for (let above = node; thread.self[i] !== 0 && above !== null; above = above.parent) {
            above.total += thread.self[i];
            above.totalNs += ns;
        }
    }
}

function pathOf(node) {
    const path = [];
    for (let at = node; at !== null; at = at.parent) {
        path.unshift(at);
    }
    return path;
}

// Marks the nodes whose function is wanted; what has one of them on its stack, each sample counted once.
function markMatches(root, isWanted) {
    const matched = { samples: 0, ns: 0 };
    const open = [[root, false]];
    while (open.length !== 0) {
        const [node, isInside] = open.pop();
        node.isMatch = isWanted !== null && node.function >= 0 && isWanted(node.function);
        if (node.isMatch && !isInside) {
            matched.samples += node.total;
            matched.ns += node.totalNs;
        }
        for (const child of node.children.values()) {
            open.push([child, isInside || node.isMatch]);
        }
    }
    return matched;
}

// The frames that are wide enough to be seen, from the root down to the focus at full width, then what it calls;
// the widest first. Left and width in pixels.
function layOut(focus, width, least) {
    const frames = pathOf(focus).map((node) => ({ node, left: 0, width, isAbove: node !== focus }));
    const open = [[focus, 0]];
    while (open.length !== 0) {
        const [node, left] = open.pop();
        const scale = focus.totalNs === 0 ? 0 : width / focus.totalNs;
        let at = left;
        for (const child of [...node.children.values()].sort((a, b) => b.totalNs - a.totalNs)) {
            if (child.totalNs * scale < least) {
                break;
            }
            frames.push({ node: child, left: at, width: child.totalNs * scale, isAbove: false });
            open.push([child, at]);
            at += child.totalNs * scale;
        }
    }
    return frames;
}

// Colour goes by module, so that libraries stand apart; the name is always there too.
function hueOf(text) {
    let hash = 7;
    for (let i = 0; i < text.length; ++i) {
        hash = (hash * 31 + text.charCodeAt(i)) % 3600;
    }
    return Math.floor(hash / 10);
}
