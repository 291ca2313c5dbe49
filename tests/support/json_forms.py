"""The forms of docs/json.md: their schemas, and whether an output has one."""

import json
import pathlib

import jsonschema

DOCUMENTS = pathlib.Path(__file__).resolve().parents[2] / "docs"


def schema(name):
    return json.loads((DOCUMENTS / "schemas" / (name + ".json")).read_text(encoding="utf-8"))


def whole(form):
    """A form with what it takes from other files in its place: the jsonschema of each Debian finds files in its own way."""
    if isinstance(form, list):
        return [whole(part) for part in form]
    if not isinstance(form, dict):
        return form
    if "$ref" in form:
        return whole(schema(form["$ref"].removesuffix(".json")))
    return {name: whole(part) for name, part in form.items()}


def check(name, output):
    """What the output says; an error unless it has the form."""
    value = json.loads(output)
    jsonschema.Draft202012Validator(whole(schema(name))).validate(value)
    return value


def check_lines(name, output):
    """The same of an object on each line, which may be the element of a form that is an array."""
    form = schema(name)
    validator = jsonschema.Draft202012Validator(form.get("items", form))
    values = [json.loads(line) for line in output.splitlines()]
    for value in values:
        validator.validate(value)
    return values
