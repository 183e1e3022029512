// Draws a section for each picture that the page carries data for.

function showPage(data) {
    const main = document.getElementById("main");
    const name = data.session.path.replace(/\/+$/, "").split("/").pop();
    document.title = `qelix: ${name}`;
    const header = document.getElementById("header");
    header.append(element("h1", {}, name));
    if (data.session.damaged) {
        header.append(element("p", { role: "alert" }, "A file of this session is damaged or was cut off: what would "
            + "stand behind the damage is missing here."));
    }
    main.replaceChildren();
    if (data.report !== undefined) {
        showReport(data.report, main, data);
    }
    if (data.timeline !== undefined) {
        showTimeline(data.timeline, main);
    }
    if (data.flame !== undefined) {
        showFlame(data.flame, main);
    }
    document.addEventListener("keydown", (event) => {
        const search = document.querySelector("#flame-search, #timeline-search");
        if (event.key === "/" && !/^(INPUT|SELECT)$/.test(document.activeElement.tagName) && search !== null) {
            search.focus();
            event.preventDefault();
        }
    });
}

showPage(JSON.parse(document.getElementById("data").textContent));
