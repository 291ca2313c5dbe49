"""The files of deploy/fleet, and what they ask for."""

import json
import pathlib
import re

repository = pathlib.Path(__file__).resolve().parents[2]
folder = repository / "deploy" / "fleet"
alerts = folder / "alerts.yml"


def dashboard():
    return json.loads((folder / "dashboard.json").read_text(encoding="utf-8"))


def alert_expressions():
    """The expression of each alert by its name."""
    return dict(re.findall(r"- alert: (\w+)\n\s+expr: (.+)\n", alerts.read_text(encoding="utf-8")))


def dashboard_expressions():
    """All expressions of the dashboard, with its variable filled in."""
    return [target["expr"].replace("$instance", ".*") for panel in dashboard()["panels"]
            for target in panel["targets"]]


def known_metrics():
    """The metrics that tessactl may tell."""
    source = (repository / "tools" / "tessactl" / "metrics_text.cpp").read_text(encoding="utf-8")
    return set(re.findall(r'^    \{"(tessaplug_\w+)"', source, re.M))


def metrics_in(text):
    """The names of metrics in an expression or document; a name in quotes is a label's value."""
    return set(re.findall(r"(?<![\w\"])tessaplug_[a-z_]+\b", text))
