// Runs all scripts of a page (standard input) over a document that is only what they build, and prints its
// elements as [tag, id, text] lines of JSON. What a script asks of a browser beyond that (sizes, painting) is
// answered with something that can be asked on. A script that fails ends the run with its error.
"use strict";
const { readFileSync } = require("fs");
const vm = require("vm");

const something = new Proxy(function () {}, {
    get: (target, name) => (name === Symbol.toPrimitive ? () => 0 : name === Symbol.iterator ? function* () {}
        : name === "length" ? 0 : something),
    set: () => true,
    apply: () => something,
    construct: () => something,
});

class Node {}

function makeElement(tag, attributes = {}, text = "") {
    const children = [];
    const own = {
        tag, attributes, children,
        append: (...more) => { children.push(...more); },
        replaceChildren: (...more) => { children.splice(0, children.length, ...more); },
        setAttribute: (name, value) => { attributes[name] = String(value); },
        getAttribute: (name) => attributes[name] ?? null,
        get textContent() {
            return text + children.map((child) => (typeof child === "string" ? child : child.textContent)).join("");
        },
        set textContent(value) { text = String(value); children.length = 0; },
    };
    return new Proxy(Object.setPrototypeOf(own, Node.prototype), {
        get: (target, name) => (name in target ? target[name] : something),
        set: (target, name, value) => { target[name] = value; return true; },
    });
}

const page = readFileSync(0, "utf8");
const scripts = [...page.matchAll(/<script([^>]*)>([^]*?)<\/script>/g)];
const byId = { data: makeElement("script", {}, scripts.find((script) => script[1].includes('id="data"'))[2]) };
const document = new Proxy({
    createElement: (tag) => makeElement(tag),
    getElementById: (id) => (byId[id] ??= makeElement("div", { id })),
}, { get: (target, name) => (name in target ? target[name] : something), set: () => true });
const missing = { document, Node, ResizeObserver: something, matchMedia: something, getComputedStyle: something,
    requestAnimationFrame: something, addEventListener: something, devicePixelRatio: 1, innerWidth: 1200,
    innerHeight: 800, window: something };
vm.createContext(missing);
for (const script of scripts.filter((found) => !found[1].includes("json"))) {
    vm.runInContext(script[2], missing);
}

function show(node) {
    if (typeof node === "object" && node.tag !== something) {
        console.log(JSON.stringify([node.tag, node.attributes.id ?? "", node.textContent]));
        node.children.forEach(show);
    }
}
Object.values(byId).filter((node) => node !== byId.data).forEach(show);
