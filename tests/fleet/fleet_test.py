#!/usr/bin/env python3
"""A station's metrics, from the tool to an alert: a real Prometheus scrapes two real exporters. One reads what the tool
writes for a station of this machine again and again. The other stands for 200 stations: its files are made of those
that the tool wrote in different states, with a label "station" in each sample, which becomes the instance when they are
scraped. Arguments: the emulator, and the folder of the programs."""

import json
import os
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.parse
import urllib.request

import fleet_files

emulator, programs = sys.argv[1:3]
STATIONS = 200
SHORTEST_TIME = "2s"  # for which an alert's condition holds, in place of its minutes
LONGEST_WAIT = 45  # seconds; the machine may be busy
KEY = r"HKLM\SOFTWARE\Valdorn\Shared Tools\QUELM64"
# Without a proxy, whatever the environment says.
opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))


def start(program, *arguments, **more):
    return subprocess.Popen([emulator, os.path.join(programs, program), *arguments], stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, **more)


def run(program, *arguments):
    process = start(program, *arguments)
    output = process.communicate(timeout=60)[0].replace("\r", "")
    # Wine says so now and then of a process that just ends.
    output = re.sub(r"^wine client error:.*\n", "", output, flags=re.M)
    return process.returncode, output


def run_well(program, *arguments):
    code, output = run(program, *arguments)
    assert code == 0, f"{program} {arguments}: {output}"
    return output


def system(*arguments):
    return subprocess.run([emulator, *arguments], capture_output=True, text=True, timeout=60).returncode


def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")


def eventually(condition):
    """What the condition gives as soon as it is true; what it gave last, if that takes too long."""
    end = time.monotonic() + LONGEST_WAIT
    while True:
        result = condition()
        if result or time.monotonic() > end:
            return result
        time.sleep(0.25)


def free_port():
    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        return taken.getsockname()[1]


def get(url):
    try:
        with opener.open(url, timeout=10) as answer:
            return answer.read().decode("utf-8")
    except urllib.error.HTTPError as error:  # it tells what is wrong with a query
        return error.read().decode("utf-8")
    except OSError:
        return ""  # not listening yet


def replace(path, text):
    """Readers see the old file or the new one."""
    beside = path.with_suffix(".tmp")
    beside.write_text(text, encoding="utf-8")
    os.replace(beside, path)


def of_station(text, name):
    """A station's metrics as those of another one."""
    return re.sub(r"^(tessaplug_\w+)(?:\{(.*)\})? ",
                  lambda match: f'{match[1]}{{{match[2] + "," if match[2] else ""}station="{name}"}} ', text, flags=re.M)


def with_value(text, sample, value):
    changed, count = re.subn(rf"^({re.escape(sample)}) .*$", rf"\1 {value}", text, flags=re.M)
    assert count == 1, f"{sample} in {text}"
    return changed


class Exporter:
    """A real node exporter that shows the files of a folder."""

    def __init__(self, folder):
        self.address = f"127.0.0.1:{free_port()}"
        self.process = subprocess.Popen(
            ["prometheus-node-exporter", "--collector.disable-defaults", "--collector.textfile",
             f"--collector.textfile.directory={folder}", f"--web.listen-address={self.address}"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def end(self):
        self.process.terminate()
        self.process.wait(10)


class Prometheus:
    """A real one, with the alerts of this repository, which fire after two seconds."""

    def __init__(self, folder, real, simulated):
        rules = fleet_files.alerts.read_text(encoding="utf-8")
        (folder / "alerts.yml").write_text(re.sub(r"for: \w+", f"for: {SHORTEST_TIME}", rules), encoding="utf-8")
        (folder / "prometheus.yml").write_text(f"""
global: {{scrape_interval: 1s, evaluation_interval: 1s}}
rule_files: [alerts.yml]
scrape_configs:
  - job_name: tessaplug
    static_configs:
      - {{targets: ["{real.address}"], labels: {{instance: station-0}}}}
      - {{targets: ["{simulated.address}"], labels: {{instance: simulated}}}}
    metric_relabel_configs:
      - {{source_labels: [station], regex: (.+), target_label: instance}}
      - {{regex: station, action: labeldrop}}
""", encoding="utf-8")
        self.address = f"127.0.0.1:{free_port()}"
        self.log = open(folder / "prometheus.log", "w+", encoding="utf-8")
        self.process = subprocess.Popen(
            ["prometheus", f"--config.file={folder}/prometheus.yml", f"--storage.tsdb.path={folder}/data",
             f"--web.listen-address={self.address}", "--log.level=warn"], stdout=self.log, stderr=self.log)

    def ask(self, expression):
        answer = get(f"http://{self.address}/api/v1/query?" + urllib.parse.urlencode({"query": expression}))
        return json.loads(answer or '{"status": "not listening"}')

    def value(self, expression):
        """Of an expression with one result; nothing if it has none."""
        result = self.ask(expression).get("data", {}).get("result", [])
        return float(result[0]["value"][1]) if result else None

    def firing(self):
        """Alerts with the station of each. Left out is what the driver reported in other tests, and that the exporter
        of the simulated stations is no station itself."""
        result = self.ask('ALERTS{alertstate="firing"}').get("data", {}).get("result", [])
        return {(one["metric"]["alertname"], one["metric"]["instance"]) for one in result} - {
            ("TessaplugDriverErrors", f"station-{i}") for i in range(STATIONS + 1)} - {
            ("TessaplugMetricsMissing", "simulated")}

    def megabytes(self):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text(encoding="ascii")
        return int(re.search(r"VmRSS:\s+(\d+)", status)[1]) / 1024

    def end(self):
        self.process.terminate()
        self.process.wait(20)
        self.log.close()


class Fleet(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.temporary = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.temporary.cleanup)
        cls.folder = pathlib.Path(cls.temporary.name)
        cls.had_library = system("reg", "query", KEY, "/v", "Korvane_Oam") == 0
        cls.addClassCleanup(cls.remove_station)
        run_well("adapterctl.exe", "install")
        run_well("q5config.exe", "register", windows_path(pathlib.Path(programs, "station")))
        run("q5config.exe", "wipe")
        run_well("q5config.exe", "init")
        run("tessahost.exe", "uninstall")
        run_well("tessahost.exe", "install")

    @classmethod
    def remove_station(cls):
        run("tessahost.exe", "uninstall")
        run("adapterctl.exe", "unplug", "NX4120")
        run("q5config.exe", "wipe")
        if not cls.had_library:
            system("reg", "delete", KEY, "/v", "Korvane_Oam", "/f")

    def metrics(self):
        path = self.folder / "once.prom"
        self.assertEqual(run("tessactl.exe", "metrics", "--dumps", windows_path(self.folder), "--output",
                             windows_path(path)), (0, ""))
        return path.read_text(encoding="utf-8")

    def checked(self, text):
        done = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True, timeout=30)
        self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))
        return text

    def test_checker_refuses_a_document_that_is_wrong(self):
        text = self.metrics()
        for wrong in text.replace("# HELP tessaplug_dumps Memory dumps of the plug-in.\n", ""), text + 'a{b="c} 1\n':
            with self.assertRaises(AssertionError):
                self.checked(wrong)

    def test_metrics_on_standard_output_are_those_of_the_file(self):
        process = subprocess.run([emulator, os.path.join(programs, "tessactl.exe"), "metrics", "--dumps",
                                  windows_path(self.folder)], capture_output=True, timeout=60)
        self.assertEqual(process.returncode, 0)
        self.assertNotIn(b"\r", process.stdout, "the format knows none")
        without_values = [re.sub(r"\d\S*\n", "\n", text)
                          for text in (self.checked(process.stdout.decode("utf-8")), self.metrics())]
        self.assertEqual(*without_values)

    def test_alerts_fire_and_clear_for_one_station_of_201(self):
        # What stations tell in different states, all of them said by this one.
        down = self.checked(self.metrics())
        run_well("tessahost.exe", "start")
        time.sleep(0.5)  # Wine begins to deliver device events some time after the first registration
        idle = self.checked(self.metrics())
        run_well("adapterctl.exe", "plug", "NX4120")
        visible = 'tessaplug_access_points{model="NX4120",state="visible"} 5\n'
        plugged = eventually(lambda: (text := self.metrics()) and visible in text and text)
        self.assertTrue(plugged)
        self.assertIn('tessaplug_service_up{service="tessahost"} 0\n', down)
        self.assertIn('tessaplug_service_up{service="tessahost"} 1\n', idle)

        real, simulated = self.folder / "real", self.folder / "simulated"
        real.mkdir()
        simulated.mkdir()
        for i in range(1, STATIONS + 1):
            replace(simulated / f"{i}.prom", of_station((idle, plugged)[i % 2], f"station-{i}"))
        writer = start("tessactl.exe", "metrics", "--every", "1", "--dumps", windows_path(self.folder), "--output",
                       windows_path(real / "tessaplug.prom"))
        # Its output is not read to the end: programs that the emulator leaves running may hold the pipe.
        self.addCleanup(lambda: (writer.kill(), writer.wait(20), writer.stdout.close()))
        exporters = Exporter(real), Exporter(simulated)
        for exporter in exporters:
            self.addCleanup(exporter.end)
        prometheus = Prometheus(self.folder, *exporters)
        self.addCleanup(prometheus.end)

        self.assertTrue(eventually(lambda: prometheus.value("sum(tessaplug_service_up)") == STATIONS + 1))
        self.assertEqual(prometheus.value("sum(tessaplug_adapters_present)"), STATIONS / 2 + 1)
        self.assertEqual(prometheus.value("count(tessaplug_build_info)"), STATIONS + 1)
        self.assertEqual(prometheus.value("sum(node_textfile_scrape_error)"), 0)
        self.assertTrue(eventually(lambda: not self.soon(prometheus)), prometheus.firing())
        for expression in [*fleet_files.dashboard_expressions(), *fleet_files.alert_expressions().values()]:
            self.assertEqual(prometheus.ask(expression)["status"], "success", expression)

        # The real station's service ends and takes no notice of its adapter's removal; three of the others get the
        # files of stations in trouble. The service is not killed: Wine's service manager would not see it.
        run_well("tessahost.exe", "stop")
        run_well("adapterctl.exe", "unplug", "NX4120")
        mismatched = 'tessaplug_access_points_mismatched{model="NX4120"}'
        files = {simulated / f"{i}.prom": (simulated / f"{i}.prom").read_text(encoding="utf-8") for i in (7, 8, 9)}
        replace(simulated / "7.prom", of_station(with_value(idle, mismatched, 5), "station-7"))
        replace(simulated / "8.prom", of_station(down, "station-8"))
        replace(simulated / "9.prom",
                of_station(with_value(idle, "tessaplug_metrics_timestamp_seconds", int(time.time()) - 400),
                           "station-9"))
        expected = {("TessaplugServiceDown", "station-0"), ("TessaplugAccessPointsDoNotFollow", "station-0"),
                    ("TessaplugAccessPointsDoNotFollow", "station-7"), ("TessaplugServiceDown", "station-8"),
                    ("TessaplugMetricsStale", "station-9")}
        self.assertTrue(eventually(lambda: prometheus.firing() == expected), prometheus.firing())

        for path, text in files.items():
            replace(path, text)
        run_well("tessahost.exe", "start")
        self.assertTrue(eventually(lambda: not prometheus.firing()), prometheus.firing())

        took = prometheus.value('max(max_over_time(scrape_duration_seconds{instance="simulated"}[1m]))')
        samples = prometheus.value('sum(scrape_samples_scraped)')
        print(f"Prometheus with {STATIONS + 1} stations: {prometheus.megabytes():.0f} MB, {samples:.0f} samples, "
              f"longest scrape {1000 * took:.0f} ms")
        self.assertLess(took, 5)

        before = prometheus.value('tessaplug_metrics_timestamp_seconds{instance="station-0"}')
        self.assertTrue(eventually(
            lambda: prometheus.value('tessaplug_metrics_timestamp_seconds{instance="station-0"}') > before))
        self.assertIsNone(writer.poll(), "it goes on until it is told to end")

        # A station whose exporter is gone.
        exporters[0].end()
        self.assertTrue(eventually(lambda: prometheus.firing() == {("TessaplugStationUnreachable", "station-0")}),
                        prometheus.firing())

    @staticmethod
    def soon(prometheus):
        """Alerts that fire, or will if nothing changes, but for what the driver reported in other tests."""
        result = prometheus.ask('ALERTS{alertname!~"TessaplugDriverErrors|TessaplugMetricsMissing"}')
        return result.get("data", {}).get("result", [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
