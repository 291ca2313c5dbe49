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
HOSTILE = "</script><img src=x onerror=alert(1)>\u202e &amp; 'x' \"y\"\r\n\u0000 \ud800 {\"data\":0}"
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
                       model("Fennlink U3", "", [], ["hidden", "hidden", "visible", "hidden", "hidden"])]}


def recording():
    """A worker that waits, handles an arrival, waits ten seconds, and handles a removal."""
    functions = ["Handle", "tessaplug::DeviceNotifier::OnDeviceArrival", "tessaplug::DeviceNotifier::OnDeviceRemoval"]
    return {"file": "C:\\t.etl", "formats": "", "damage": "", "isCut": False, "eventsLost": 0, "buffersLost": 0,
            "buffersReplaced": 0, "messages": 6, "unknownMessages": 3, "callsInAll": 3, "begins": "10:00:00.000000",
            "duration": 2e7, "threads": [{"process": 4, "thread": 8, "role": "worker"}], "functions": functions,
            "calls": [[0, 1, 1, 1000, 5000], [0, 2, 1, 1e7, 5000], [0, 0, 0, 0, 2e7]],
            "roads": [{"road": "arrival", "thread": 0, "begin": 1000, "duration": 5000},
                      {"road": "removal", "thread": 0, "begin": 1e7, "duration": 5000}],
            "warnings": [{"thread": 0, "at": 5, "type": "error", "text": HOSTILE}]}


def parts():
    record = {"time": "2026-11-21 10:11:12", "type": "warning", "id": 4, "text": HOSTILE}
    return {
        "findings": {"data": [{"what": "fine", "ok": True, "state": "ok", "found": "yes", "advice": ""},
                              {"what": HOSTILE, "ok": False, "state": "problem", "found": HOSTILE, "advice": HOSTILE}]},
        "station": {"data": station()},
        "components": {"data": [{"number": 2, "catalogName": "NX4120", "name": HOSTILE, "state": "running"}]},
        "service": {"error": HOSTILE},
        "applicationLog": {"data": [record] * 3}, "systemLog": {"data": [record]},
        "hostLog": {"data": {"file": "x", "lines": [{"time": "2026-11-21 10:11:12.131", "text": "Device event"},
                                                    {"time": "", "text": "torn"}]}},
        "recording": {"data": recording()}, "recordingNow": {"data": {"running": False}},
        "exceptions": {"data": [{"time": "1", "what": HOSTILE, "function": "f", "file": "g", "line": 3, "thread": 7}]},
        "dumps": {"data": [{"file": HOSTILE, "bytes": 5 << 20, "written": "x", "ageSeconds": 90,
                            "info": {"error": "damaged"}, "history": {"error": "damaged"}}]},
        "files": {"data": []},
    }


class Texts(html.parser.HTMLParser):
    """The elements of a page: items of the pictures, names of all elements, and the text in each section."""

    def __init__(self, source):
        super().__init__()
        self.items, self.names, self.texts, self.classes = {}, set(), {}, []
        self.section = self.raw = None
        self.feed(source)

    def handle_starttag(self, tag, attrs):
        attrs = dict(attrs)
        self.names.add(tag)
        self.classes += (attrs.get("class") or "").split()
        if tag == "section":
            self.section = attrs["id"]
        if "data-name" in attrs:
            self.items[attrs["data-name"]] = (attrs["data-state"], attrs["data-wrong"])
        self.raw = tag in ("script", "style")

    def handle_endtag(self, tag):
        self.raw = False
        if tag == "section":
            self.section = None

    def handle_data(self, text):
        if not self.raw and self.section:
            self.texts[self.section] = self.texts.get(self.section, "") + text


def browse(page, folder, *arguments):
    done = subprocess.run(
        [BROWSER, "--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
         f"--user-data-dir={folder}/profile", "--enable-logging=stderr", *arguments, page.as_uri()],
        capture_output=True, text=True, errors="replace", timeout=60)
    return done.stdout, [line for line in done.stderr.splitlines() if "CONSOLE" in line]


class ReportPage(unittest.TestCase):
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

    def with_parts(self, told):
        """The page as the tool wrote it, with other parts."""
        head, data, rest = re.fullmatch(r'(.*id="data">)(.*?)(</script>.*)', self.own, re.DOTALL).groups()
        data = json.loads(data)
        data["parts"] = told
        text = json.dumps(data)
        for character in "<>&":
            text = text.replace(character, f"\\u{ord(character):04x}")
        page = self.folder / "station.html"
        page.write_text(head + text + rest, encoding="ascii")
        return page

    def shown(self, page):
        dom, errors = browse(page, self.folder, "--window-size=1400,1000", "--dump-dom")
        self.assertEqual(errors, [])
        return Texts(dom)

    def test_the_tools_own_page_loads_without_an_error(self):
        texts = self.shown(self.page)
        self.assertIn("Fennlink U3: adapter present and active", texts.texts["findings"])
        self.assertNotIn("http", re.sub(r"http://www\.w3\.org/2000/svg", "", self.own).replace("http-equiv", ""))

    def test_a_page_without_any_part_says_what_is_missing(self):
        texts = self.shown(self.with_parts({"findings": {"error": "nothing answers"}}))
        self.assertIn("what doctor found: nothing answers", texts.texts["missing"])
        self.assertIn("memory dumps: not in this report", texts.texts["missing"])

    def test_the_picture_shows_the_station_and_what_does_not_match(self):
        texts = self.shown(self.with_parts(parts()))
        self.assertEqual(texts.items["NX4120(AUTO)"], ("visible", "no"))
        self.assertEqual(texts.items["NX4120(XLI)"], ("missing", "yes"))
        self.assertEqual(texts.items["NX4120(PROFIBUS)"], ("hidden", "yes"))
        self.assertEqual(texts.items["Fennlink U3(AUTO)"], ("hidden", "no"))
        self.assertEqual(texts.items["Fennlink U3(PROFIBUS)"], ("visible", "yes"))
        self.assertEqual([state for name, state in texts.items.items() if name.endswith("(2)")], [("running", "no")])
        self.assertIn("arrival at 1.0 ms", texts.texts["recording"])
        self.assertIn("removal", texts.classes)
        self.assertIn("of another build", texts.texts["recording"])
        self.assertLess(texts.texts["findings"].find("problem"), texts.texts["findings"].find("fine"))

    def test_hostile_texts_stay_texts(self):
        texts = self.shown(self.with_parts(parts()))
        self.assertNotIn("img", texts.names)
        for section in ("missing", "findings", "station", "time", "recording", "exceptions", "files"):
            self.assertIn("</script><img src=x onerror=alert(1)>\u27e8U+202E\u27e9 &amp; 'x'", texts.texts[section])
            self.assertNotIn("\u202e", texts.texts[section])

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
