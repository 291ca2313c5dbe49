#!/usr/bin/env python3
"""The files for many stations: every alert fires and clears, and what dashboard and document name is there."""

import pathlib
import re
import subprocess
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

import fleet_files

SUBSCRIPTION = "{http://schemas.microsoft.com/2006/03/windows/events/subscription}"


def promtool(*arguments, folder=fleet_files.folder):
    done = subprocess.run(["promtool", *arguments], cwd=folder, capture_output=True, text=True, timeout=60)
    return done.returncode, done.stdout + done.stderr


class Alerts(unittest.TestCase):
    def test_rules_are_valid(self):
        code, output = promtool("check", "rules", "alerts.yml")
        self.assertEqual(code, 0, output)

    def test_every_alert_fires_and_clears(self):
        code, output = promtool("test", "rules", "alerts_test.yml")
        self.assertEqual(code, 0, output)
        tests = (fleet_files.folder / "alerts_test.yml").read_text(encoding="utf-8")
        for name in fleet_files.alert_expressions():
            outcomes = re.findall(rf"alertname: {name}\n +exp_alerts:( \[\])?", tests)
            self.assertEqual(outcomes, [" []", "", " []"], f"{name} is silent, fires, and is silent again")

    def test_an_alert_that_never_fires_is_found(self):
        with tempfile.TemporaryDirectory() as folder:
            for name in "alerts.yml", "alerts_test.yml":
                text = (fleet_files.folder / name).read_text(encoding="utf-8")
                pathlib.Path(folder, name).write_text(text.replace("mismatched > 0", "mismatched > 99"), encoding="utf-8")
            code, output = promtool("test", "rules", "alerts_test.yml", folder=folder)
        self.assertNotEqual(code, 0)
        self.assertIn("TessaplugAccessPointsDoNotFollow", output)

    def test_they_ask_for_metrics_that_there_are(self):
        for name, expression in fleet_files.alert_expressions().items():
            self.assertLessEqual(fleet_files.metrics_in(expression), fleet_files.known_metrics(), name)


class Dashboard(unittest.TestCase):
    def test_panels_are_whole_and_do_not_overlap(self):
        panels = fleet_files.dashboard()["panels"]
        self.assertEqual(len({panel["id"] for panel in panels}), len(panels))
        taken = set()
        for panel in panels:
            self.assertTrue(panel["title"])
            self.assertIn(panel["type"], {"stat", "table", "timeseries"})
            self.assertTrue(panel["targets"], panel["title"])
            place = panel["gridPos"]
            self.assertLessEqual(place["x"] + place["w"], 24, panel["title"])
            cells = {(x, y) for x in range(place["x"], place["x"] + place["w"])
                     for y in range(place["y"], place["y"] + place["h"])}
            self.assertFalse(cells & taken, panel["title"])
            taken |= cells

    def test_it_uses_only_variables_that_it_defines(self):
        dashboard = fleet_files.dashboard()
        defined = {variable["name"] for variable in dashboard["templating"]["list"]}
        text = (fleet_files.folder / "dashboard.json").read_text(encoding="utf-8")
        self.assertEqual(set(re.findall(r"\$\{?([a-z]\w*)", text)), defined)

    def test_it_asks_for_metrics_that_there_are(self):
        expressions = fleet_files.dashboard_expressions()
        self.assertGreater(len(expressions), 10)
        for expression in expressions:
            self.assertLessEqual(fleet_files.metrics_in(expression), fleet_files.known_metrics(), expression)


class EventForwarding(unittest.TestCase):
    def test_subscription_gathers_the_entries_of_plug_in_and_driver(self):
        root = ElementTree.parse(fleet_files.folder / "event_forwarding.xml").getroot()
        self.assertEqual(root.tag, SUBSCRIPTION + "Subscription")
        self.assertEqual(root.find(SUBSCRIPTION + "SubscriptionType").text, "SourceInitiated")
        query = ElementTree.fromstring(root.find(SUBSCRIPTION + "Query").text.strip())
        selects = {select.get("Path"): select.text for select in query.iter("Select")}
        self.assertEqual(selects, {"Application": "*[System[Provider[@Name='tessaplug']]]",
                                   "System": "*[System[Provider[@Name='fenlu3']]]"})


class Document(unittest.TestCase):
    text = (fleet_files.repository / "docs" / "many_stations.md").read_text(encoding="utf-8")

    def test_every_metric_is_explained(self):
        self.assertEqual(fleet_files.metrics_in(self.text), fleet_files.known_metrics())

    def test_every_alert_is_explained(self):
        self.assertEqual(set(re.findall(r"`(Tessaplug\w+)`", self.text)), set(fleet_files.alert_expressions()))


if __name__ == "__main__":
    unittest.main()
