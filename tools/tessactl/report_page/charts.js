// The pictures. They are drawn for the width that there is, and anew when it changes.

function picture(at, width, height, label) {
    const drawing = svg("svg", {width, height, viewBox: "0 0 " + width + " " + height, role: "img", "aria-label": label});
    at.append(drawing);
    return drawing;
}

// A box with a name and a state. What does not match is marked by a thick line, a sign and a word.
const BOX = {width: 200, height: 44, gap: 8};
const SIGNS = {visible: "\u25cf", hidden: "\u25cb", missing: "\u2715", "not installed": "\u2013", running: "\u25b6",
    disturbed: "\u25b6", stopped: "\u25a0", present: "\u25cf", "no adapter": "\u25cb"};
const BOX_CLASSES = {visible: "visible", hidden: "hidden", missing: "absent", "not installed": "absent", running: "running",
    disturbed: "running", stopped: "stopped", present: "present", "no adapter": "absent"};

function box(drawing, x, y, width, name, state, wrong) {
    const group = svg("g", {"class": "item", "data-name": plain(name), "data-state": plain(state), "data-wrong": wrong ? "yes" : "no"});
    group.append(svg("rect", {x, y, width, height: BOX.height, rx: 5, "class": (BOX_CLASSES[state] || "box") + (wrong ? " wrong" : "")}));
    const most = Math.max(4, Math.floor((width - 16) / 7.5));
    const shown = plain(name);
    group.append(svg("text", {x: x + 8, y: y + 18}, shown.length > most ? shown.slice(0, most - 1) + "\u2026" : shown));
    group.append(svg("text", {x: x + 8, y: y + 36, "class": wrong ? "wrong-text" : "faint"},
        (SIGNS[state] || "?") + " " + state + (wrong ? "  \u26a0 " + wrong : "")));
    titled(group, shown + ": " + plain(state) + (wrong ? " - " + wrong : ""));
    drawing.append(group);
}

// What the state of an access point or component should not be, in a word.
function pointIsWrong(point, isPresent) {
    if (point.state === "visible") return isPresent ? "" : "no adapter";
    if (point.state === "missing") return "is missing";
    return isPresent ? "adapter is in" : "";
}

function componentIsWrong(component, isPresent) {
    return component.state !== "stopped" && !isPresent ? "no adapter" : "";
}

function drawModel(at, model, components, width) {
    const isPresent = model.devices.length > 0;
    const heading = html("h3", "", model.model);
    at.append(heading);
    if (model.devicesError) at.append(html("p", "missing", "Whether an adapter is there is not known: " + model.devicesError));
    const items = [["adapter", isPresent ? "present" : "no adapter", ""]];
    for (const point of model.accessPoints)
        items.push([point.name, point.state, model.devicesError ? "" : pointIsWrong(point, isPresent)]);
    const own = components.filter(c => model.catalogName && c.catalogName === model.catalogName);
    for (const component of own)
        items.push([component.name + " (" + component.number + ")", component.state, model.devicesError ? "" : componentIsWrong(component, isPresent)]);
    drawItems(at, items, width, model.model);
    for (const path of model.devices) at.append(html("p", "faint mono", path));
}

function drawItems(at, items, width, label) {
    const columns = Math.max(1, Math.floor((width + BOX.gap) / (BOX.width + BOX.gap)));
    const boxWidth = Math.min(320, (width - BOX.gap * (columns - 1)) / columns);
    const rows = Math.ceil(items.length / columns);
    const words = items.map(item => item[0] + " " + item[1] + (item[2] ? " (" + item[2] + ")" : "")).join(", ");
    const drawing = picture(at, width, rows * (BOX.height + BOX.gap) + 4, plain(label + ": " + words));
    items.forEach(([name, state, wrong], i) => box(drawing, (i % columns) * (boxWidth + BOX.gap) + 2 * (boxWidth === width),
        Math.floor(i / columns) * (BOX.height + BOX.gap) + 2, boxWidth - 4 * (boxWidth === width), name, state, wrong));
}

function drawStation(at, width) {
    const station = partOf("station", at);
    const components = partOf("components", at) || [];
    if (station) {
        if (station.libraryError)
            at.append(html("p", "missing", "How the access points stand is not known: " + station.libraryError));
        for (const model of station.models) drawModel(at, model, components, width);
    }
    const models = station ? station.models.map(model => model.catalogName) : [];
    const others = components.filter(c => !c.catalogName || !models.includes(c.catalogName));
    if (others.length) {
        at.append(html("h3", "", "Other components of the station manager"));
        drawItems(at, others.map(c => [c.name + " (" + c.number + ")", c.state, ""]), width, "Other components");
    }
    at.append(html("p", "faint", "\u26a0 and a thick line: it does not match the adapter, or is missing."));
}

// Everything that has a time, oldest first. All times are local.
function events() {
    const all = [];
    const add = (lane, entries) => {
        for (const e of entries || [])
            if (/^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d/.test(e.time))
                all.push({lane, time: e.time, at: Date.parse(e.time.replace(" ", "T") + "Z"), type: e.type || "information", text: e.text});
    };
    add("plug-in", parts.applicationLog && parts.applicationLog.data);
    add("driver", parts.systemLog && parts.systemLog.data);
    const lines = parts.hostLog && parts.hostLog.data ? parts.hostLog.data.lines : [];
    add("device events", lines.filter(line => line.text.startsWith("Device event")));
    add("service", lines.filter(line => !line.text.startsWith("Device event")));
    return all.filter(e => Number.isFinite(e.at)).sort((a, b) => a.at - b.at);
}

// An axis on which long pauses take as much room as short ones: days without an event hide no burst.
function axis(times, width, longest) {
    const sorted = [...new Set(times)].sort((a, b) => a - b);
    const places = [0];
    for (let i = 1; i < sorted.length; ++i) places.push(places[i - 1] + Math.min(sorted[i] - sorted[i - 1], longest));
    const scale = places.length > 1 && places[places.length - 1] > 0 ? width / places[places.length - 1] : 0;
    const breaks = [];
    for (let i = 1; i < sorted.length; ++i)
        if (sorted[i] - sorted[i - 1] > longest) breaks.push([(places[i - 1] + places[i]) / 2 * scale, sorted[i] - sorted[i - 1]]);
    return {
        at(time) {
            let low = 0, high = sorted.length - 1;
            while (low < high) {
                const middle = (low + high + 1) >> 1;
                if (sorted[middle] <= time) low = middle; else high = middle - 1;
            }
            return (places[low] + Math.min(Math.max(0, time - sorted[low]), longest)) * scale;
        },
        breaks,
    };
}

// By shape as well as by colour.
function eventMark(x, y, type) {
    if (type === "error") return svg("path", {d: "M" + x + " " + (y - 6) + "l6 11h-12z", "class": "error"});
    if (type === "warning") return svg("path", {d: "M" + x + " " + (y - 6) + "l6 6l-6 6l-6 -6z", "class": "warning"});
    return svg("circle", {cx: x, cy: y, r: 3.5, "class": "plain"});
}

const LANES = ["plug-in", "driver", "service", "device events"];
let shownEvents = 100;

function drawTime(at, width) {
    for (const name of ["applicationLog", "systemLog", "hostLog"]) partOf(name, at);
    const all = events();
    if (all.length === 0) {
        at.append(html("p", "", "No record has a time."));
        return;
    }
    const left = 100, right = 12, lane = 26;
    const inner = Math.max(50, width - left - right);
    const time = axis(all.map(e => e.at), inner, 600000);
    const drawing = picture(at, width, LANES.length * lane + 26, all.length + " records from " + all[0].time + " to " + all[all.length - 1].time);
    LANES.forEach((name, i) => {
        drawing.append(svg("text", {x: 0, y: i * lane + 18, "class": "faint"}, name));
        drawing.append(svg("line", {x1: left, x2: width - right, y1: i * lane + 14, y2: i * lane + 14, "class": "axis"}));
    });
    for (const [x] of time.breaks)
        drawing.append(svg("line", {x1: left + x, x2: left + x, y1: 0, y2: LANES.length * lane, "class": "break"}));
    for (const e of all)
        drawing.append(titled(eventMark(left + time.at(e.at), LANES.indexOf(e.lane) * lane + 14, e.type), e.time + "  " + plain(e.text)));
    const y = LANES.length * lane + 16;
    drawing.append(svg("text", {x: left, y, "class": "faint"}, all[0].time.slice(0, 16)));
    if (width > 600) drawing.append(svg("text", {x: width - right, y, "class": "faint", "text-anchor": "end"}, all[all.length - 1].time.slice(0, 16)));
    at.append(html("p", "faint", "Triangle: error; diamond: warning; dotted line: a pause of more than ten minutes, shortened. Newest first:"));
    const newest = all.slice(-shownEvents).reverse();
    at.append(table(["time", "of", "text"], newest.map(e => [e.time, e.lane + (e.type === "information" ? "" : ", " + e.type), e.text]),
        row => row[1].endsWith("error") ? "problem" : row[1].endsWith("warning") ? "note" : ""));
    if (all.length > shownEvents) {
        const more = html("button", "", "Show all " + all.length);
        more.addEventListener("click", () => { shownEvents = Infinity; draw(); });
        at.append(more);
    }
}

// Which part of the recording the flame chart shows, in microseconds; null: everything.
let shownSpan = null;

function microseconds(us) {
    return us >= 1e6 ? (us / 1e6).toFixed(2) + " s" : us >= 1000 ? (us / 1000).toFixed(1) + " ms" : us.toFixed(0) + " \u00b5s";
}

function recordingNotes(at, recording) {
    const notes = ["from " + recording.begins + " on for " + microseconds(recording.duration), recording.messages + " messages",
        recording.callsInAll + " calls"];
    if (recording.calls.length < recording.callsInAll) notes.push("shown are the newest " + recording.calls.length);
    if (recording.eventsLost || recording.buffersLost) notes.push(recording.eventsLost + " events and " + recording.buffersLost + " buffers were lost");
    if (recording.buffersReplaced) notes.push(recording.buffersReplaced + " old buffers were written over");
    at.append(html("p", "", recording.file + ": " + notes.join("; ")));
    if (recording.damage) at.append(html("p", "missing", recording.damage));
    if (recording.isCut) at.append(html("p", "missing", "It is too large to be read in the time of a report: the later part is missing."));
    if (recording.unknownMessages)
        at.append(html("p", "missing", recording.unknownMessages + " messages are not known to the trace formats (" + recording.formats +
            "): the recording is of another build."));
}

function drawFlames(at, recording, width) {
    const span = shownSpan || [0, recording.duration];
    const shown = recording.calls.filter(c => c[3] + c[4] >= span[0] && c[3] <= span[1]);
    const clamp = t => Math.min(Math.max(t, span[0]), span[1]);
    const time = axis([span[0], span[1], ...shown.flatMap(c => [clamp(c[3]), clamp(c[3] + c[4])])], width, shownSpan ? Infinity : 5000);
    const row = 16;
    const depths = new Map();
    for (const c of shown) depths.set(c[0], Math.max(depths.get(c[0]) || 0, c[2]));
    let height = 0;
    const tops = new Map();
    for (const thread of [...depths.keys()].sort((a, b) => a - b)) {
        tops.set(thread, height + 20);
        height += 20 + (Math.min(depths.get(thread), 40) + 1) * row + 8;
    }
    const drawing = picture(at, width, Math.max(height, 20), "Calls of " + tops.size + " threads");
    for (const [thread, top] of tops) {
        const t = recording.threads[thread];
        drawing.append(svg("text", {x: 0, y: top - 6}, (t.role || "thread") + " (" + t.process + "." + t.thread + ")"));
    }
    const roads = new Map(recording.roads.map(r => [r.thread + " " + r.begin, r.road]));
    for (const [thread, name, depth, begin, duration] of shown) {
        if (depth > 40) continue;
        const x = time.at(clamp(begin));
        const wide = Math.max(0.7, time.at(clamp(begin + duration)) - x);
        const y = tops.get(thread) + depth * row;
        const full = recording.functions[name];
        const isRoad = /::OnDevice(Arrival|Removal)$/.test(full);
        const road = isRoad ? roads.get(thread + " " + begin) : undefined;
        const kind = road === "arrival" ? "arrival" : road === "removal" ? "removal" : "call";
        drawing.append(titled(svg("rect", {x, y, width: wide, height: row - 1, "class": kind}), full + "\n" + microseconds(duration)));
        const label = (road ? (road === "arrival" ? "\u25b6 arrival: " : "\u25c0 removal: ") : "") + plain(full).split("::").slice(-2).join("::");
        const letters = Math.floor((wide - 4) / 7);
        if (letters >= 3) drawing.append(svg("text", {x: x + 2, y: y + 12, "font-size": 11}, label.slice(0, letters)));
    }
    if (!shownSpan)
        for (const [x] of time.breaks) drawing.append(svg("line", {x1: x, x2: x, y1: 0, y2: height, "class": "break"}));
}

function drawRecording(at, width) {
    const recording = partOf("recording", at);
    if (!recording) return;
    recordingNotes(at, recording);
    if (recording.calls.length === 0) {
        at.append(html("p", "", "It has no calls of functions."));
    } else {
        const show = (label, spanOf) => {
            const button = html("button", "", label);
            button.addEventListener("click", () => { shownSpan = spanOf; draw(); });
            at.append(button);
        };
        show("Everything", null);
        recording.roads.slice(-20).forEach(r => {
            const margin = r.duration / 20 + 1;
            show((r.road === "arrival" ? "\u25b6 " : "\u25c0 ") + r.road + " at " + microseconds(r.begin) + ", " + microseconds(r.duration),
                [r.begin - margin, r.begin + r.duration + margin]);
        });
        drawFlames(at, recording, width);
        at.append(html("p", "faint", "Each bar is a call, below it what it called; point at one for its name and duration. " +
            "\u25b6 arrivals and \u25c0 removals are outlined." + (shownSpan ? "" : " Dotted line: nothing happened for more than 5 ms, shortened.")));
    }
    if (recording.warnings.length) {
        at.append(html("h3", "", "Warnings and errors in it"));
        at.append(table(["at", "", "text"], recording.warnings.map(w => [microseconds(w.at), w.type, w.text]).reverse()));
    }
}

function draw() {
    const width = Math.floor(document.querySelector("main").clientWidth);
    for (const [id, drawInto] of [["station", drawStation], ["time", drawTime], ["recording", drawRecording]]) {
        const at = section(id);
        at.replaceChildren(at.querySelector("h2"));
        drawInto(at, width);
    }
}

showHead();
showFindings();
showService();
showExceptions();
showFiles();
draw();
let drawnWidth = window.innerWidth;
window.addEventListener("resize", () => {
    if (window.innerWidth === drawnWidth) return;
    drawnWidth = window.innerWidth;
    draw();
});
