"""The pages describe the settings that the programs have, and their links and file names exist."""

import copy
import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

SOURCE = pathlib.Path(os.environ["POS_SOURCE_DIR"])
BUILD = pathlib.Path(os.environ["POS_BUILD_DIR"])
POSCTL = BUILD / "tools/posctl/posctl"
SERVICE = ("services", "example::Lamp")
# Heading of the table → the place of such an object in the page's example, and in the output of posctl describe.
PLACES = {
    "The document": ((), ()),
    "Nodes": (("nodes", "POS"), ("nodes", 0)),
    "Service discovery": (("serviceDiscovery",), ("serviceDiscovery",)),
    "Limits": (("limits",), ("limits",)),
    "Segments": (("segments",), ("segments",)),
    "Services": (SERVICE, ("services", 0)),
    "Methods": ((*SERVICE, "methods", "blink"), ("services", 0, "methods", 0)),
    "Events": ((*SERVICE, "events", "broken"), ("services", 0, "events", 0)),
    "Fields": ((*SERVICE, "fields", "brightness"), ("services", 0, "fields", 0)),
    "Instances": ((*SERVICE, "instances", 0), ("services", 0, "instances", 0)),
    "Multicast": ((*SERVICE, "instances", 0, "multicast", 0), ("services", 0, "instances", 0, "multicast", 0)),
}


def at(document, place):
    for step in place:
        document = document[step]
    return document


def describe(document):
    """The output of posctl describe for a manifest, and its error text."""
    with tempfile.NamedTemporaryFile("w", suffix=".json") as file:
        json.dump(document, file)
        file.flush()
        told = subprocess.run([POSCTL, "describe", "--json"], env={**os.environ, "POS_MANIFEST": file.name},
                              capture_output=True, text=True, timeout=30, check=False)
    return told.stdout, told.stderr


def text_of(path):
    return (SOURCE / path).read_text(encoding="utf-8")


class Manifest(unittest.TestCase):
    def setUp(self):
        page = text_of("docs/manifest.md")
        self.example = json.loads(re.search(r"```json\n(.*?)```", page, re.DOTALL)[1])
        self.tables = {}
        for section in re.split(r"^##+ ", page, flags=re.MULTILINE)[1:]:
            rows = re.findall(r"^\| `(\w+)` \| ([^|]+) \| ([^|]+) \|", section, re.MULTILINE)
            self.tables[section.splitlines()[0]] = {key: (value, default) for key, value, default in rows}

    def error(self, heading, key, value=None):
        """The error text if the key of the example has this value, or is missing."""
        document = copy.deepcopy(self.example)
        one = at(document, PLACES[heading][0])
        one[key] = value
        if value is None:
            del one[key]
        return describe(document)[1]

    def test_the_tables_are_what_the_program_knows(self):
        self.assertEqual(self.tables.keys(), PLACES.keys())
        for heading, table in self.tables.items():
            known = re.search(r'no member "\?" \(known are (.*?)\)', self.error(heading, "?", 0))
            self.assertEqual(set(known[1].split(", ")), set(table), heading)
            for key, (value, default) in table.items():
                with self.subTest(heading, key=key):
                    if numbers := re.fullmatch(r"(\w+) to (\w+)", value):
                        low, high = (int(number, 0) for number in numbers.groups())
                        self.assertIn(f"a number from {low} to {high}, ", self.error(heading, key, -1))
                    if default == "required":
                        self.assertIn(f'a member "{key}"', self.error(heading, key))

    def test_what_is_not_given_has_the_default_of_the_page(self):
        document = copy.deepcopy(self.example)
        defaults = {}
        for heading, table in self.tables.items():
            for key, (_, default) in table.items():
                if default not in ("required", "none", "see below"):
                    at(document, PLACES[heading][0]).pop(key, None)
                    defaults[heading, key] = default
        # No element uses TCP in this document, but the port stays.
        told, error = describe(document)
        self.assertEqual(error, "")
        told = json.loads(told)
        for (heading, key), default in defaults.items():
            value = at(told, PLACES[heading][1])[key]
            self.assertEqual(value if isinstance(value, str) else json.dumps(value), default, key)


class Pages(unittest.TestCase):
    def test_the_settings_are_those_of_the_delivered_storage(self):
        rows = re.findall(r"^\| `(\w+)` \| (\w+) \| (\w+) \|", text_of("docs/settings.md"), re.MULTILINE)
        told = {key: {"type": kind, "value": json.loads(default)} for key, kind, default in rows}
        delivered = {**told, "recievedGNSSDataLogging": {"type": "Boolean", "value": False}}
        self.assertEqual(delivered, json.loads(text_of("config/initdata-POS_Key_Value_Port.json")))
        for key, entry in told.items():
            default = rf"\b{key} = {json.dumps(entry['value'])};"
            self.assertRegex(text_of("app/settings.h"), default)

    def test_the_names_of_the_status_page_are_those_of_the_program(self):
        told = subprocess.run([POSCTL, "explain", "--markdown"], capture_output=True, text=True, check=True).stdout
        self.assertEqual(text_of("docs/status.md").split("## Names\n\n")[1], told)
        for key, kind, default in re.findall(r'Setting\{"(\w+)", "(\w+)", "(\w+)"', text_of("tools/posctl/setting_table.h")):
            self.assertIn(f"| `{key}` | {kind} | {default} |", text_of("docs/settings.md"))

    def test_the_commands_of_posctl_are_on_its_page(self):
        told = subprocess.run([POSCTL, "--help"], capture_output=True, text=True, check=True).stdout
        names = re.findall(r"^  ([a-z-]+) ", told.split("Commands:")[1], re.MULTILINE)
        page = text_of("docs/posctl.md")
        self.assertGreater(len(names), 10)
        for name in names:
            self.assertRegex(page, rf"(?m)^\|.*`{name}[` ]", name)

    def test_every_variable_of_the_environment_is_in_the_table(self):
        told = set(re.findall(r"^\| `(POS_\w+)` \|", text_of("docs/platform-linux.md"), re.MULTILINE))
        asked_for = set()
        for folder in ("app", "persistency", "platform", "tools"):
            for source in (SOURCE / folder).rglob("*.[hc]*"):
                text = source.read_text(encoding="utf-8")
                asked_for |= set(re.findall(r'getenv\("(POS_\w+)"', text))
                # Not the variables of another program, which have their whole name.
                names = re.findall(r'(?:(?<![.>])variable(?:_name)?\(|variable = )"([A-Z_]+)"', text)
                asked_for |= {f"POS_{name}" for name in names}
        self.assertEqual(told, asked_for)

    def test_the_checks_of_doctor_are_those_of_the_program(self):
        table = subprocess.run([POSCTL, "doctor", "--list"], capture_output=True, text=True, timeout=30, check=True).stdout
        page = text_of("docs/troubleshooting.md")
        self.assertTrue(page.endswith(table), table)
        known = set(re.findall(r"^\| `([\w-]+)` \|", table, re.MULTILINE))
        for row in re.findall(r"^\|.*\|.*\|.*\|.*\|$", page.removesuffix(table), re.MULTILINE):
            self.assertLessEqual(set(re.findall(r"`([\w-]+)`", "".join(row.split(" | ")[1:2]))), known, row)

    def test_links_lead_to_a_page_and_to_a_heading_of_it(self):
        for page in [*SOURCE.glob("*.md"), *(SOURCE / "docs").rglob("*.md")]:
            prose = re.sub(r"^```.*?^```", "", page.read_text(encoding="utf-8"), flags=re.DOTALL | re.MULTILINE)
            for link, heading in re.findall(r"\]\((?!https:)([^)#:]*)#?([^)]*)\)", prose):
                with self.subTest(page=page.name, link=link, heading=heading):
                    target = page.parent / link if link else page
                    self.assertTrue(target.exists())
                    if heading:
                        headings = re.findall(r"^#+ (.*)$", target.read_text(encoding="utf-8"), re.MULTILINE)
                        self.assertIn(heading, [one.lower().replace(" ", "-") for one in headings])

    def test_every_file_that_the_map_names_exists(self):
        for page in ("README.md", "CONTRIBUTING.md", "docs/design/architecture.md", "docs/design/decisions.md"):
            prose = re.sub(r"^```.*?^```", "", text_of(page), flags=re.DOTALL | re.MULTILINE)
            for path in re.findall(r"`((?!out/|build/)[\w.-]+(?:/[\w.-]*)+|[\w-]+\.(?:md|json|txt))`", prose):
                with self.subTest(page=page, path=path):
                    self.assertTrue((SOURCE / path).exists())

    def test_the_examples_of_the_guide_compile(self):
        record, service, provider, command, source = re.findall(r"^```cpp\n(.*?)^```", text_of("CONTRIBUTING.md"),
                                                                re.DOTALL | re.MULTILINE)[:5]
        text = "".join(f'#include "{name}"\n' for name in (
            "binding/codec.h", "mw/com/cpp_binding/proxy.h", "mw/com/cpp_binding/skeleton.h", "tools/posctl/commands.h"))
        text += f"{record}\nnamespace lumo::services::time {{\n{service}\nvoid provide() {{\n{provider}}}\n}}\n"
        text += f"namespace posctl {{\n{command}}}\n{source}"
        compiler = next(one["command"].split() for one in json.loads((BUILD / "compile_commands.json").read_text())
                        if "tools/posctl" in one["file"])
        told = subprocess.run([*compiler[:compiler.index("-o")], "-fsyntax-only", "-x", "c++", "-"], input=text,
                              cwd=BUILD, capture_output=True, text=True, timeout=120, check=False).stderr
        self.assertEqual(told, "")


if __name__ == "__main__":
    unittest.main()
