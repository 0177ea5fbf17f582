"""Puts the verdicts of all groups together. Fails unless docs/conformance.md lists the same rows and
none of them failed; with --write it writes that file."""

import difflib
import json
import sys

import suite
from devices import SOURCE

PAGE = SOURCE / "docs/conformance.md"
GROUPS = ("message_format", "wire", "procedure_calls", "discovery_messages", "discovery_behaviour",
          "options", "segmentation")
HEAD = """\
# Conformance of the SOME/IP runtime

What a peer can see of the public SOME/IP standard (messages and calls, service discovery, segmentation),
requirement by requirement, and whether this runtime does it. Generated: `ctest -R conformance` in a build
folder runs the tests of `tests/conformance`, in which scapy and plain sockets play the peers of the real
application and, where the application does not have a feature, of a host program made of the same runtime.
Each row is one test; the last test compares this page with what came out. "not met" is what the runtime
does not do, with what it does instead; its test has to fail, so that the page cannot lag behind.
`POS_BUILD_DIR=… POS_SOURCE_DIR=. /usr/bin/python3 tests/conformance/table.py --write` writes the page
after a run.

"""
TAIL = """\
## Not visible to a peer

| Requirements | Why |
|---|---|
"""
NOT_VISIBLE = (
    ("someip_577", "advice to generators of code; records are described in the code"),
    ("someipsd_16", "what a process tells its own parts"),
    ("someipsd_1195", "a remark about the standard itself"),
    ("someipsd_1170 someiptp_793", "without text in the edition at hand"),
)


def page(results):
    parts = [HEAD]
    for result in results:
        parts.append(f"## {result['title']}\n\n{suite.table(result['rows'])}\n")
    parts.append(TAIL)
    parts += [f"| {', '.join(ids.split())} | {why} |\n" for ids, why in NOT_VISIBLE]
    return "".join(parts)


def main():
    results = []
    for group in GROUPS:
        file = suite.RESULTS / f"{group}.json"
        if not file.exists():
            sys.exit(f"no verdicts of {group}: its test must run first")
        results.append(json.loads(file.read_text(encoding="utf-8")))
    wanted = PAGE.read_text(encoding="utf-8")
    for result in results:
        for row in result["rows"]:
            # A machine that cannot run a test does not make the page wrong.
            ids, text, verdict = row
            begin = f"| {', '.join(ids)} | {text} | "
            listed = next((line for line in wanted.splitlines() if line.startswith(begin)), None)
            if verdict.startswith("not run (") and listed:
                print(f"{verdict}: {', '.join(ids)} | {text}")
                row[2] = listed[len(begin):-2]
    text = page(results)
    print(text)
    if "--write" in sys.argv:
        PAGE.write_text(text, encoding="utf-8")
    elif text != wanted:
        sys.exit("docs/conformance.md is not what the tests say:\n" + "".join(difflib.unified_diff(
            wanted.splitlines(True), text.splitlines(True), "docs/conformance.md", "the tests")))
    bad = [row for result in results for row in result["rows"]
           if row[2] != "pass" and not row[2].startswith(("does not apply: ", "not met: "))]
    if bad:
        sys.exit("not conformant:\n" + "\n".join(f"{', '.join(ids)}: {text} ({verdict})"
                                                 for ids, text, verdict in bad))


main()
