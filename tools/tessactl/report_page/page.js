"use strict";
// Shows the data of the report. Whatever comes from the station becomes text, through textContent only: nothing of it
// is ever parsed as HTML, as a style or as script.

const SVG = "http://www.w3.org/2000/svg";
const data = JSON.parse(document.getElementById("data").textContent);
const parts = data.parts;

// Characters that would turn the text around them, break its line or show as nothing are written by their number.
const UNSEEN = /[\u0000-\u001f\u007f-\u009f\u00ad\u061c\u180e\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff\ud800-\udfff\ufff0-\ufffb]/g;
function plain(value) {
    const text = value === null || value === undefined ? "" : String(value);
    // Pairs of surrogates are one character, and stay.
    return text.replace(/[\ud800-\udbff][\udc00-\udfff]|[\s\S]/g, c => c.length === 2 ? c : c.replace(UNSEEN, u =>
        u === "\t" ? " " : "\u27e8U+" + u.charCodeAt(0).toString(16).toUpperCase().padStart(4, "0") + "\u27e9"));
}

// An HTML element with text and children.
function html(name, className, content, ...children) {
    const element = document.createElement(name);
    if (className) element.className = className;
    if (content !== undefined && content !== null) element.textContent = plain(content);
    element.append(...children);
    return element;
}

// An SVG element. Attributes are numbers and names of the page's own.
function svg(name, attributes, content) {
    const element = document.createElementNS(SVG, name);
    for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
    if (content !== undefined) element.textContent = plain(content);
    return element;
}

function titled(element, title) {
    element.append(svg("title", {}, title));
    return element;
}

// A table; each row is a list of texts or elements. Classes of rows come from the page's own words.
function table(heads, rows, classOf) {
    const body = html("tbody");
    for (const row of rows) {
        const line = html("tr", classOf ? classOf(row) : "");
        row.forEach((cell, i) => line.append(
            cell instanceof Node ? html("td", "", null, cell) : html("td", i === 0 ? "word" : "", cell)));
        body.append(line);
    }
    const head = html("tr");
    for (const text of heads) head.append(html("th", "", text));
    return html("div", "scrolls", null, html("table", "cards", null, html("thead", "", null, head), body));
}

function bytesInWords(bytes) {
    const units = ["bytes", "KB", "MB", "GB"];
    let unit = 0;
    for (; bytes >= 1024 && unit < units.length - 1; ++unit) bytes /= 1024;
    return (unit === 0 ? bytes : bytes.toFixed(1)) + " " + units[unit];
}

function ageInWords(seconds) {
    for (const [length, word] of [[86400, "day"], [3600, "hour"], [60, "minute"]])
        if (seconds >= length) {
            const count = Math.floor(seconds / length);
            return count + " " + word + (count === 1 ? "" : "s");
        }
    return seconds + " s";
}

// The data of a part; a note or an error is shown in the section.
function partOf(name, section) {
    const part = parts[name] || {error: "it is not in this report"};
    if (section && part.error !== undefined) section.append(html("p", "missing", "Not known: " + part.error));
    if (section && part.note !== undefined) section.append(html("p", "faint", part.note));
    return part.data;
}

function section(id) {
    return document.getElementById(id);
}

const PART_NAMES = {
    findings: "what doctor found", station: "adapters and access points", components: "the station manager's components",
    service: "the service's configuration", applicationLog: "the plug-in's records (Application log)",
    systemLog: "the driver's records (System log)", hostLog: "the service's log file", recording: "a recording",
    recordingNow: "whether a recording runs", exceptions: "exceptions of the running service", dumps: "memory dumps",
    files: "recordings and logs",
};

function showHead() {
    const report = data.report;
    section("made").textContent = plain(report.computer + ", " + report.time + " local time (" + report.timeUtc + " UTC), " +
        report.system + "; made by tessactl " + report.tool.version + ", commit " + report.tool.commit + " of " +
        report.tool.date);
    section("contains").textContent = plain("This page contains the configuration of the service, paths of files, device " +
        "paths, and texts of event records, logs, exceptions and recordings. " + (report.anonymous
            ? "Names of users and computers were replaced where they could be known: the computer's own name, users with a " +
              "profile on it, folders of profiles, servers in paths. Look it through before you give it away."
            : "Names of users and computers may be in them: give it only to people you trust, or make it with --anonymous."));
    const missing = Object.keys(PART_NAMES).filter(name => parts[name] === undefined || parts[name].error !== undefined);
    if (missing.length > 0) {
        const list = html("ul");
        for (const name of missing)
            list.append(html("li", "", PART_NAMES[name] + ": " + (parts[name] || {error: "not in this report"}).error));
        section("missing").append(html("h2", "", "What is missing here"), list);
    }
    for (const {list, lost} of data.shortened || [])
        section("missing").append(html("p", "missing", "To keep the page small the oldest " + lost + " entries of " + list +
            " were left out."));
}

function showFindings() {
    const at = section("findings");
    const findings = partOf("findings", at);
    if (!findings) return;
    const rank = {problem: 0, note: 1, ok: 2};
    const sorted = findings.map((finding, i) => [finding, i])
        .sort((a, b) => rank[a[0].state] - rank[b[0].state] || a[1] - b[1]).map(pair => pair[0]);
    const rows = sorted.map(f => [{problem: "\u2716 problem", note: "\u25b2 note", ok: "\u2714 ok"}[f.state] || "", f.what,
        html("div", "", f.found, ...(f.advice ? [html("div", "advice", "\u2192 " + f.advice)] : []))]);
    const count = findings.filter(f => f.state === "problem").length;
    at.append(html("p", "", count === 0 ? "No problems." : count === 1 ? "One problem." : count + " problems."));
    at.append(table(["", "what", "found"], rows,
        row => row[0].includes("problem") ? "problem" : row[0].includes("note") ? "note" : ""));
}

function showService() {
    const at = section("service");
    const service = partOf("service", at);
    if (!service) return;
    const rows = [["name", service.name + (service.displayName ? " (" + service.displayName + ")" : "")],
        ["state", service.state + (service.process ? ", process " + service.process : "") +
            (service.exitCode ? ", ended with error " + service.exitCode + ", own code " + service.ownExitCode : "")]];
    if (service.settingsError) rows.push(["settings", "not known: " + service.settingsError]);
    else rows.push(["started", service.start], ["account", service.account], ["needs", service.dependencies.join(", ")],
        ["command line", html("code", "", service.commandLine)]);
    const station = parts.station && parts.station.data;
    if (station) {
        rows.push(["library", station.library + " (" + station.libraryOrigin + ")"]);
        for (const object of station.interprocess)
            rows.push(["object", object.mutex + ": " + (object.mutexExists ? "there" : "missing") + "; shared memory: " +
                (object.sharedMemoryExists ? "there" : "missing")]);
    }
    at.append(table(["setting", "value"], rows));
}

function showExceptions() {
    const at = section("exceptions");
    const heads = ["time (UTC)", "what", "where"];
    const row = e => [e.time, e.what, html("span", "mono", e.function + " in " + e.file + "(" + e.line + "), thread " + e.thread)];
    const exceptions = partOf("exceptions", at);
    if (exceptions) {
        at.append(html("h3", "", "The running service"));
        at.append(exceptions.length ? table(heads, exceptions.map(row).reverse()) : html("p", "", "None were thrown."));
    }
    for (const dump of (parts.dumps && parts.dumps.data) || []) {
        if (!dump.history) continue;
        at.append(html("h3", "", dump.file));
        const info = dump.info.data;
        if (dump.info.error) at.append(html("p", "missing", "Not known: " + dump.info.error));
        if (info) {
            at.append(html("p", "", info.threads + " threads, " + info.modules + " modules; " + (info.exceptionCode
                ? "exception " + info.exceptionCode + " " + info.exceptionName + " at " + info.exceptionPlace + " in thread " +
                  info.exceptionThread : "no exception was captured")));
            for (const b of info.builds)
                at.append(html("p", "faint", b.module + ": " + (b.error || b.version + ", commit " + b.commit + " of " + b.date)));
        }
        if (dump.history.error && dump.history.error !== dump.info.error)
            at.append(html("p", "missing", "Its exceptions are not known: " + dump.history.error));
        if (dump.history.data && dump.history.data.length) at.append(table(heads, dump.history.data.map(row).reverse()));
        else if (dump.history.data) at.append(html("p", "", "No exceptions."));
    }
}

function showFiles() {
    const at = section("files");
    const row = f => [f.written, html("span", "mono", f.file), bytesInWords(f.bytes), ageInWords(f.ageSeconds) + " old"];
    const dumps = partOf("dumps", at);
    const files = partOf("files", at);
    const rows = [...(dumps || []), ...(files || [])].map(row);
    if (rows.length) at.append(table(["written", "file", "size", "age"], rows));
    else if (dumps && files) at.append(html("p", "", "There are none."));
    const running = partOf("recordingNow", at);
    if (running) at.append(html("p", "", running.running ? "A recording runs into " + running.file + "." : "No recording runs."));
}
