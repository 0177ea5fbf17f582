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


# Folders of the build whose objects are in no program or library of the package.
OTHERS = {"pos": ("tools/",), "pos-tools": (), "adaptive-platform-linux-dev": ("tools/", "app/")}


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def field(text, name):
    found = re.search(rf"^{name}:((?: .*|\n .*)*)", text, re.MULTILINE)
    return found[1].strip() if found else ""


def headers_of(build):
    """The files that the compiler has read outside of the tree, for each object."""
    objects = re.split(r"\n\n", output("ninja", "-C", str(build), "-t", "deps").strip())
    return {text.split(":")[0]: set(re.findall(r"^ +(/\S+)$", text, re.MULTILINE)) for text in objects}


def owners(files):
    """The names of the installed packages that the files belong to."""
    listed = subprocess.run(["dpkg", "--search", *sorted(files)], check=False, capture_output=True, text=True).stdout
    return {owner.partition(":")[0] for line in listed.splitlines() if not line.startswith("diversion ")
            for owner in line.rsplit(": ", 1)[0].split(", ")}


def identifier(name):
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", "-", name)


def installed():
    """Version and source of the distribution's packages on this machine, by name and architecture ("all" too)."""
    found = {}
    shown = output("dpkg-query", "--show", "--showformat", "${Package}\t${Version}\t${Architecture}\t${source:Package}\n")
    for package, version, architecture, source in (line.split("\t") for line in shown.splitlines()):
        found[package, architecture] = version, source
    return found


def from_debian(package, version, architecture, source):
    return {
        "SPDXID": identifier(f"{package}-{architecture}"), "name": package, "versionInfo": version,
        "sourceInfo": f"built from {source}", "downloadLocation": "NOASSERTION", "filesAnalyzed": False,
        "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl", "referenceLocator":
                          f"pkg:deb/debian/{package}@{version.replace('+', '%2B')}?arch={architecture}"}],
    }


def from_npm(name, version):
    """A package of the page of posctl serve."""
    return {
        "SPDXID": identifier(f"npm-{name}"), "name": name, "versionInfo": version, "downloadLocation": "NOASSERTION",
        "filesAnalyzed": False, "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                                                  "referenceLocator": f"pkg:npm/{name}@{version}"}],
    }


def main(source, buildinfo):
    text = buildinfo.read_text(encoding="utf-8")
    building, architecture = (field(text, name).split()[0] for name in ("Build-Architecture", "Architecture"))
    machine = installed()
    documents, packages, relations = [], {}, []

    def find(name, of):
        """The package `name` or `name:architecture`; nothing if it is virtual or an alternative that is not installed. The
        building machine's tells the version of one that it does not have for `of`."""
        package, _, own = name.partition(":")
        for here, there in ((own or of, own or of), ("all", "all"), (building, own or of)):
            if entry := machine.get((package, here)):
                version, origin = entry
                return from_debian(package, version, there, origin)
        return None

    def relate(one, kind, other):
        packages[other["SPDXID"]] = other
        relations.append({"spdxElementId": one["SPDXID"], "relationshipType": kind, "relatedSpdxElement": other["SPDXID"]})

    headers = headers_of(source / "build")
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
        read = set().union(*(files for name, files in headers.items() if not name.startswith(OTHERS[package])))
        for other in sorted(owners(read)):
            relate(ours, "CONTAINS", find(other, architecture))
        for depended in re.findall(r"([a-z0-9][a-z0-9+.-]+)(?: \([^)]*\))?", field(control, "Depends")):
            if other := find(depended, architecture):
                relate(ours, "DEPENDS_ON", other)
        if package == "pos-tools":
            for place, of_page in json.loads((source / "web/package-lock.json").read_text())["packages"].items():
                if place and not of_page.get("dev"):
                    relate(ours, "CONTAINS", from_npm(place.removeprefix("node_modules/"), of_page["version"]))
    for name in re.findall(r"^ ([a-z0-9][a-z0-9+.:-]+) \(= \S+\),?$", field(text, "Installed-Build-Depends"), re.MULTILINE):
        other = find(name, building)
        packages.setdefault(other["SPDXID"], other)
        relations += [{"spdxElementId": other["SPDXID"], "relationshipType": "BUILD_DEPENDENCY_OF",
                       "relatedSpdxElement": ours} for ours in documents]
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
