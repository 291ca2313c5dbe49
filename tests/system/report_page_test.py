#!/usr/bin/env python3
"""The page of "tessactl report" in a browser: a station of the test's own is shown as it is, in a narrow and in a wide
window, without an error, and hostile texts stay texts. Arguments: the emulator, the folder of the programs, a folder
for pictures."""

import html.parser
import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

emulator, programs, pictures = sys.argv[1:4]
BROWSER = shutil.which("chromium")
HOSTILE = "</script><img src=x onerror=alert(1)>\u202e &amp; 'x' \"y\"\r\n\u0000 \ud800 {\"data\":0} \u00ad\u0085\u200b\u200f\u2066\ufeff"
POINTS = ["AUTO", "XLI", "PROFIBUS", "FWL", "FWL_FAST_LOAD"]


def point(name, state):
    return {"name": name, "installed": True, "exists": state != "missing", "hidden": state == "hidden", "state": state}


def model(name, catalog, devices, states):
    return {"model": name, "catalogName": catalog, "devices": devices, "devicesError": "",
            "accessPoints": [point(f"{name}({kind})", state) for kind, state in zip(POINTS, states)]}


def station():
    """An NX4120 that is in, with one point hidden and one missing; a Fennlink U3 that is out, with one visible."""
    return {"plugInRuns": True, "interprocess": [], "library": "C:\\x.dll", "libraryOrigin": "registry", "libraryError": "",
            "models": [model("NX4120", "NX4120", ["\\\\?\\usb#1"], ["visible", "missing", "hidden", "visible", "visible"]),
                       model("Fennlink U3", "FENNLINK", [], ["hidden", "hidden", "visible", "hidden", "hidden"])]}


def recording():
    """A worker that waits, handles an arrival, waits ten seconds, and handles a removal."""
    functions = ["Handle", "tessaplug::DeviceNotifier::OnDeviceArrival", "tessaplug::DeviceNotifier::OnDeviceRemoval"]
    return {"file": "C:\\t.etl", "formats": "", "damage": "", "isCut": False, "eventsLost": 0, "buffersLost": 0,
            "buffersReplaced": 0, "messages": 6, "unknownMessages": 3, "callsInAll": 7, "begins": "10:00:00.000000",
            "duration": 2e7, "threads": [{"process": 4, "thread": 8, "role": "worker"}], "functions": functions,
            "calls": [[0, 1, 1, 1000, 5000], [0, 2, 1, 1e7, 5000], [0, 0, 0, 0, 2e7]],
            "roads": [{"road": "arrival", "thread": 0, "begin": 1000, "duration": 5000},
                      {"road": "removal", "thread": 0, "begin": 1e7, "duration": 5000}],
            "warnings": [{"thread": 0, "at": 5, "type": "error", "text": HOSTILE}]}


def exception(what):
    return {"time": "1", "what": what, "function": "f", "file": "g", "line": 3, "thread": 7}


def file(name, size, age):
    return {"file": name, "bytes": size, "written": "x", "ageSeconds": age}


def parts():
    record = {"time": "2026-11-21 10:11:12", "type": "warning", "id": 4, "text": HOSTILE}
    later = {"time": "2026-11-24 10:11:12", "type": "information", "id": 4, "text": "three days later"}
    return {
        "findings": {"data": [{"what": "fine", "ok": True, "state": "ok", "found": "yes", "advice": ""},
                              {"what": HOSTILE, "ok": False, "state": "problem", "found": HOSTILE, "advice": HOSTILE}]},
        "station": {"data": station()},
        "components": {"data": [{"number": 2, "catalogName": "NX4120", "name": HOSTILE, "state": "running"},
                                {"number": 3, "catalogName": "FENNLINK", "name": "left", "state": "disturbed"},
                                {"number": 4, "catalogName": "FENNLINK", "name": "left", "state": "stopped"}]},
        "service": {"error": HOSTILE},
        "applicationLog": {"data": [record] * 110 + [later]}, "systemLog": {"data": [record]},
        "hostLog": {"data": {"file": "x", "lines": [{"time": "2026-11-21 10:11:12.131", "text": "Device event"},
                                                    {"time": "2026-11-21 10:11:12.132", "text": "RUNNING"},
                                                    {"time": "2026-11-21 10:21:12.132", "text": "STOPPED"},
                                                    {"time": "", "text": "torn"}]}},
        "recording": {"data": recording()}, "recordingNow": {"data": {"running": False}},
        "exceptions": {"data": [exception("older"), exception(HOSTILE)]},
        "dumps": {"data": [{**file(HOSTILE, 5 << 20, 90), "info": {"error": "damaged"}, "history": {"error": "damaged"}},
                           {**file("another", 1023, 59), "info": {"error": "torn"}, "history": {"error": "cut"}}]},
        "files": {"data": [file("a", 1024, 60), file("b", 5 << 40, 86400 * 2 - 1), file("c", 0, 7200)]},
    }


class Texts(html.parser.HTMLParser):
    """The elements of a page: items of the pictures, names of all elements, and the text in each section."""

    def __init__(self, source):
        super().__init__()
        self.items, self.names, self.texts, self.classes = {}, set(), {}, []
        self.rows = {}  # the texts of the cells of each row, in each section
        self.shapes = {}  # attributes of the parts of the pictures
        self.section = self.raw = None
        self.is_in_cell = False
        self.feed(source)

    def handle_starttag(self, tag, attrs):
        attrs = dict(attrs)
        self.names.add(tag)
        self.classes += (attrs.get("class") or "").split()
        if tag == "section" or attrs.get("id") == "contains":
            self.section = attrs["id"]
        if tag == "tr":
            self.rows.setdefault(self.section, []).append([])
        if tag == "td":
            self.rows[self.section][-1].append("")
            self.is_in_cell = True
        if tag in ("circle", "line", "rect"):
            self.shapes.setdefault(self.section, []).append((tag, attrs))
        if "data-name" in attrs:
            self.items[attrs["data-name"]] = (attrs["data-state"], attrs["data-wrong"])
        self.raw = tag in ("script", "style")

    def handle_endtag(self, tag):
        self.raw = False
        if tag == "section" or self.section == "contains":
            self.section = None
        if tag == "td":
            self.is_in_cell = False

    def handle_data(self, text):
        if not self.raw and self.section:
            self.texts[self.section] = self.texts.get(self.section, "") + text
            if self.is_in_cell:
                self.rows[self.section][-1][-1] += text


def browse(page, folder, *arguments):
    done = subprocess.run(
        [BROWSER, "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
         f"--user-data-dir={folder}/profile", "--enable-logging=stderr", *arguments, page.as_uri()],
        capture_output=True, text=True, errors="replace", timeout=60)
    return done.stdout, [line for line in done.stderr.splitlines() if "CONSOLE" in line]


class ReportPage(unittest.TestCase):
    station = []  # as the browser showed it, once for all tests

    @classmethod
    def setUpClass(cls):
        assert BROWSER, "chromium is missing: scripts/setup.sh installs it"
        cls.folder = pathlib.Path(tempfile.mkdtemp())
        cls.page = cls.folder / "report.html"
        # Into a file: what the emulator starts on the way, such as the desktop, would keep a pipe open.
        told = cls.folder / "told"
        with open(told, "wb") as output:
            done = subprocess.run([emulator, str(pathlib.Path(programs) / "tessactl.exe"), "report", "Z:" + str(cls.page)],
                                  stdin=subprocess.DEVNULL, stdout=output, stderr=output, timeout=60)
        assert done.returncode == 0, told.read_text(errors="replace")
        cls.own = cls.page.read_text(encoding="ascii", errors="strict")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.folder, ignore_errors=True)

    def with_parts(self, told, script="", **others):
        """The page as the tool wrote it, with other parts, and a script that runs behind its own."""
        head, data, rest = re.fullmatch(r'(.*id="data">)(.*?)(</script>.*)', self.own, re.DOTALL).groups()
        data = json.loads(data)
        data["parts"] = told
        data.update(others)
        text = json.dumps(data)
        for character in "<>&":
            text = text.replace(character, f"\\u{ord(character):04x}")
        page = self.folder / "station.html"
        page.write_text(head + text + rest + f"<script>{script}</script>", encoding="ascii")
        return page

    def shown(self, page):
        dom, errors = browse(page, self.folder, "--window-size=1400,1000", "--dump-dom")
        self.assertEqual(errors, [])
        return Texts(dom)

    def shown_station(self):
        if not self.station:
            self.station.append(self.shown(self.with_parts(parts())))
        return self.station[0]

    def test_the_tools_own_page_loads_without_an_error(self):
        texts = self.shown(self.page)
        self.assertIn("Fennlink U3: adapter present and active", texts.texts["findings"])
        self.assertIn("Names of users and computers may be in them", texts.texts["contains"])
        self.assertNotIn("http", re.sub(r"http://www\.w3\.org/2000/svg", "", self.own).replace("http-equiv", ""))

    def test_a_page_without_any_part_says_what_is_missing(self):
        texts = self.shown(self.with_parts({"findings": {"error": "nothing answers"}},
                                           shortened=[{"list": "/parts/systemLog/data", "lost": 7}]))
        self.assertIn("the oldest 7 entries of /parts/systemLog/data were left out", texts.texts["missing"])
        self.assertIn("what doctor found: nothing answers", texts.texts["missing"])
        self.assertIn("memory dumps: not in this report", texts.texts["missing"])

    def test_the_picture_shows_the_station_and_what_does_not_match(self):
        texts = self.shown_station()
        self.assertEqual(texts.items["NX4120(AUTO)"], ("visible", "no"))
        self.assertEqual(texts.items["NX4120(XLI)"], ("missing", "yes"))
        self.assertEqual(texts.items["NX4120(PROFIBUS)"], ("hidden", "yes"))
        self.assertEqual(texts.items["Fennlink U3(AUTO)"], ("hidden", "no"))
        self.assertEqual(texts.items["Fennlink U3(PROFIBUS)"], ("visible", "yes"))
        self.assertEqual([state for name, state in texts.items.items() if name.endswith("(2)")], [("running", "no")])
        self.assertEqual([texts.items[f"left ({i})"] for i in (3, 4)], [("disturbed", "yes"), ("stopped", "no")])
        self.assertIn("arrival at 1.0 ms, 5.0 ms", texts.texts["recording"])
        self.assertIn("7 calls; shown are the newest 3", texts.texts["recording"])
        self.assertIn("removal", texts.classes)
        self.assertIn("of another build", texts.texts["recording"])
        self.assertLess(texts.texts["findings"].find("problem"), texts.texts["findings"].find("fine"))

    def test_what_happened_is_listed_newest_first_and_a_long_pause_takes_little_room(self):
        texts = self.shown_station()
        rows = texts.rows["time"][1:]
        self.assertEqual(rows[0], ["2026-11-24 10:11:12", "plug-in", "three days later"])
        self.assertEqual(len(rows), 100)
        self.assertEqual([row[1:] for row in rows if row[0].startswith("2026-11-21 10:11:12.1")],
                         [["service", "RUNNING"], ["device events", "Device event"]])
        self.assertIn("Show all 115", texts.texts["time"])
        self.assertEqual(len([1 for _, shape in texts.shapes["time"] if shape.get("class") == "break"]), 1)
        marks = sorted(float(shape["cx"]) for name, shape in texts.shapes["time"] if name == "circle")
        self.assertEqual(len(marks), 4)
        self.assertAlmostEqual(marks[2], (marks[0] + marks[3]) / 2, delta=1, msg="ten minutes, and three days")

    def test_exceptions_dumps_and_files_are_listed(self):
        texts = self.shown_station()
        self.assertEqual(["older" in row[1] for row in texts.rows["exceptions"][1:]], [False, True], "the newest first")
        self.assertEqual(texts.texts["exceptions"].count("damaged"), 1)
        self.assertIn("Not known: tornIts exceptions are not known: cut", texts.texts["exceptions"])
        self.assertEqual([row[2:] for row in texts.rows["files"][1:]],
                         [["5.0 MB", "1 minute old"], ["1023 bytes", "59 s old"], ["1.0 KB", "1 minute old"],
                          ["5120.0 GB", "1 day old"], ["0 bytes", "2 hours old"]])

    def test_buttons_show_one_arrival_and_all_that_happened(self):
        texts = self.shown(self.with_parts(parts(), "for (const [id, i] of [['recording', 1], ['time', 0]])"
                                           " document.querySelectorAll('#' + id + ' button')[i].click();",
                                           report={"anonymous": True, "tool": {}}))
        self.assertEqual(len(texts.rows["time"][1:]), 115)
        bars = {shape["class"]: shape for name, shape in texts.shapes["recording"] if name == "rect"}
        self.assertEqual(set(bars), {"arrival", "call"}, "the removal is elsewhere")
        whole, arrival = (float(bars[name]["width"]) for name in ("call", "arrival"))
        self.assertAlmostEqual(arrival / whole, 10 / 11, delta=0.01)
        self.assertIn("were replaced where they could be known", texts.texts["contains"])

    def test_hostile_texts_stay_texts(self):
        texts = self.shown_station()
        self.assertNotIn("img", texts.names)
        for section in ("missing", "findings", "station", "time", "recording", "exceptions", "files"):
            self.assertIn("</script><img src=x onerror=alert(1)>\u27e8U+202E\u27e9 &amp; 'x'", texts.texts[section])
            self.assertFalse(set("\u202e\u00ad\u0085\u200b\u200f\u2066\ufeff") & set(texts.texts[section]))

    def test_narrow_and_wide_windows(self):
        page = self.with_parts(parts())
        # Windows of a browser are 500 pixels wide at least: the narrow page is in a frame.
        for width in (400, 1400):
            frame = self.folder / f"frame{width}.html"
            frame.write_text(f'<!DOCTYPE html><body style="margin:0"><iframe id=f src="{page.as_uri()}" style="border:0;'
                             f'width:{width}px;height:3000px"></iframe><script>f.onload = () => setTimeout(() => {{'
                             'const d = f.contentDocument.documentElement;'
                             'document.title = d.scrollWidth + " " + [...f.contentDocument.querySelectorAll("svg")]'
                             '.map(s => Math.ceil(s.getBoundingClientRect().right)).reduce((a, b) => Math.max(a, b), 0);'
                             '}, 300)</script>', encoding="ascii")
            dom, errors = browse(frame, self.folder, "--allow-file-access-from-files", "--virtual-time-budget=3000",
                                 "--dump-dom")
            self.assertEqual(errors, [])
            widest, pictures_end = map(int, re.search(r"<title>(\d+) (\d+)</title>", dom).groups())
            self.assertLessEqual(widest, width, "nothing makes the page wider than the window")
            self.assertLessEqual(pictures_end, width)
            self.assertGreater(pictures_end, width / 2, "the pictures use the room")
            picture = pathlib.Path(pictures) / f"report-{width}.png"
            browse(frame, self.folder, "--allow-file-access-from-files", f"--window-size={max(500, width)},3000",
                   "--virtual-time-budget=3000", f"--screenshot={picture}")
            self.assertGreater(picture.stat().st_size, 10000)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
