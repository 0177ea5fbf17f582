"""Writes the components of the Debian packages as SPDX 2.3 JSON, beside their .buildinfo.

sbom.py SOURCE BUILDINFO: the names of the files come from the .buildinfo. The code that the programs contain comes from
the dependencies that ninja has recorded in SOURCE/build, the libraries that they load from the packages themselves.
"""

import hashlib
import json
import pathlib
import re
import subprocess
import sys
import uuid


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def field(text, name):
    found = re.search(rf"^{name}:((?: .*|\n .*)*)", text, re.MULTILINE)
    return found[1].strip() if found else ""


def owners(files):
    """The installed packages that the files belong to."""
    listed = subprocess.run(["dpkg", "--search", *sorted(files)], check=False, capture_output=True, text=True).stdout
    return {owner for line in listed.splitlines() if not line.startswith("diversion ")
            for owner in line.rsplit(": ", 1)[0].split(", ")}


def identifier(name):
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", "-", name)


def installed(name):
    """A package of the distribution, as it is on this machine."""
    shown = output("dpkg-query", "--show", "--showformat", "${Package}\t${Version}\t${Architecture}\t${source:Package}",
                   name)
    package, version, architecture, source = shown.split("\t")
    return {
        "SPDXID": identifier(f"{package}-{architecture}"), "name": package, "versionInfo": version,
        "sourceInfo": f"built from {source}", "downloadLocation": "NOASSERTION", "filesAnalyzed": False,
        "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl", "referenceLocator":
                          f"pkg:deb/debian/{package}@{version.replace('+', '%2B')}?arch={architecture}"}],
    }


def main(source, buildinfo):
    text = buildinfo.read_text(encoding="utf-8")
    architecture = field(text, "Architecture").split()[0]
    documents, packages, relations = [], {}, []

    def relate(one, kind, other):
        packages[other["SPDXID"]] = other
        relations.append({"spdxElementId": one["SPDXID"], "relationshipType": kind, "relatedSpdxElement": other["SPDXID"]})

    headers = set(re.findall(r"^ +(/\S+)$", output("ninja", "-C", str(source / "build"), "-t", "deps"), re.MULTILINE))
    contained = owners(headers)
    for digest, name in re.findall(r"^ ([0-9a-f]{64}) \d+ (\S+\.deb)$", text, re.MULTILINE):
        deb = buildinfo.with_name(name)
        assert hashlib.sha256(deb.read_bytes()).hexdigest() == digest, name
        control = output("dpkg-deb", "--field", str(deb))
        package = field(control, "Package")
        if package.endswith("-dbgsym"):
            continue
        ours = {
            "SPDXID": identifier(package), "name": package, "versionInfo": field(control, "Version"),
            "packageFileName": name, "checksums": [{"algorithm": "SHA256", "checksumValue": digest}],
            "downloadLocation": "NOASSERTION", "filesAnalyzed": False,
        }
        packages[ours["SPDXID"]] = ours
        documents.append(ours["SPDXID"])
        for other in sorted(contained):
            relate(ours, "CONTAINS", installed(other))
        for depended in re.findall(r"([a-z0-9][a-z0-9+.-]+)(?: \([^)]*\))?", field(control, "Depends")):
            known = [name for name in (f"{depended}:{architecture}", depended)
                     if subprocess.run(["dpkg-query", "--show", name], check=False, capture_output=True).returncode == 0]
            if known:
                relate(ours, "DEPENDS_ON", installed(known[0]))
    for built_with in re.findall(r"^ ([a-z0-9][a-z0-9+.:-]+) \(= \S+\),?$", field(text, "Installed-Build-Depends"),
                                 re.MULTILINE):
        other = installed(built_with)
        packages.setdefault(other["SPDXID"], other)
        for ours in documents:
            relations.append({"spdxElementId": other["SPDXID"], "relationshipType": "BUILD_DEPENDENCY_OF",
                              "relatedSpdxElement": ours})
    created = output("date", "--utc", "--date", field(text, "Build-Date"), "+%Y-%m-%dT%H:%M:%SZ").strip()
    name = buildinfo.stem
    sbom = {
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": name,
        "documentNamespace": f"urn:uuid:{uuid.uuid5(uuid.NAMESPACE_OID, text)}",
        "creationInfo": {"created": created, "creators": ["Tool: packaging/sbom.py"]},
        "documentDescribes": documents, "packages": list(packages.values()), "relationships": relations,
    }
    buildinfo.with_suffix(".spdx.json").write_text(json.dumps(sbom, indent=1) + "\n", encoding="utf-8")


if __name__ == "__main__":
    main(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]))
