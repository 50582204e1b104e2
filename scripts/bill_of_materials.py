#!/usr/bin/env python3
"""Prints the bill of materials of a release, SPDX 2.3 as JSON: the source, the programs built from it, and the
libraries that each is linked with, in the versions of this system's Debian packages.

usage: bill_of_materials.py VERSION TIME TARBALL BUILD_DIRECTORY
"""

import hashlib
import json
import os
import re
import subprocess
import sys

PROGRAMS = {"plax-tool": "sbin/plax-tool", "plaxd-standin": "bin/plaxd-standin"}

# By the library's name in the program: Debian package, licence.
SHARED_LIBRARIES = {
    "libc.so.6": ("libc6", "LGPL-2.1-or-later"),
    "libgcc_s.so.1": ("libgcc-s1", "GPL-3.0-or-later WITH GCC-exception-3.1"),
    "libpcap.so.0.8": ("libpcap0.8", "BSD-3-Clause"),
    "libm.so.6": ("libc6", "LGPL-2.1-or-later"),
    "libstdc++.so.6": ("libstdc++6", "GPL-3.0-or-later WITH GCC-exception-3.1"),
}
PRIVATE_LIBRARY = "libplax-platform.so"  # built of the same source

# Header-only libraries: they become part of the program.
HEADER_LIBRARIES = {"plaxd-standin": [("libcli11-dev", "BSD-3-Clause"), ("nlohmann-json3-dev", "MIT")]}


def output(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, check=True, text=True, env={**os.environ, "LC_ALL": "C"}).stdout


def needed_libraries(path):
    return re.findall(r"\(NEEDED\).*\[(.+)\]", output("readelf", "-d", path))


def identifier(name):
    return "SPDXRef-" + re.sub("[^A-Za-z0-9.-]", "-", name)


def package(name, version, licence, purpose, **more):
    return {"SPDXID": identifier(name), "name": name, "versionInfo": version, "primaryPackagePurpose": purpose,
            "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "licenseConcluded": "NOASSERTION",
            "licenseDeclared": licence, "copyrightText": "NOASSERTION", **more}


def debian_package(name, licence):
    version = output("dpkg-query", "--show", "--showformat", "${Version}", name)
    return package(name, version, licence, "LIBRARY", supplier="Organization: Debian", externalRefs=[{
        "referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
        "referenceLocator": f"pkg:deb/debian/{name.replace('+', '%2B')}@{version.replace('+', '%2B')}"}])


def relationship(element, kind, related):
    return {"spdxElementId": element, "relationshipType": kind, "relatedSpdxElement": identifier(related)}


def links(program, path):
    """The libraries of the program, how each is linked, and its licence."""
    shared = {SHARED_LIBRARIES[library] for library in needed_libraries(path) if library != PRIVATE_LIBRARY}
    return [("DYNAMIC_LINK", *library) for library in sorted(shared)] + \
        [("STATIC_LINK", *library) for library in HEADER_LIBRARIES.get(program, [])]


def document(version, time, tarball, build):
    with open(tarball, "rb") as file:
        digest = hashlib.sha256(file.read()).hexdigest()
    source = f"plax-tool-{version}.tar.gz"
    packages = [package(source, version, "MIT", "SOURCE", packageFileName=source,
                        checksums=[{"algorithm": "SHA256", "checksumValue": digest}])]
    relationships = [relationship("SPDXRef-DOCUMENT", "DESCRIBES", source)]
    libraries = {}
    for program, place in PROGRAMS.items():
        packages.append(package(program, version, "MIT", "APPLICATION"))
        relationships.append(relationship(identifier(program), "GENERATED_FROM", source))
        for kind, library, licence in links(program, os.path.join(build, place)):
            libraries[library] = licence
            relationships.append(relationship(identifier(program), kind, library))
    packages += [debian_package(*library) for library in sorted(libraries.items())]
    return {"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
            "name": f"plax-tool-{version}",
            "documentNamespace": f"https://plax-tool.invalid/spdx/plax-tool-{version}-{digest}",
            "creationInfo": {"created": time, "creators": ["Tool: bill_of_materials.py"]},
            "packages": packages, "relationships": relationships}


if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit(__doc__.splitlines()[-1])
    print(json.dumps(document(*sys.argv[1:]), indent=2))
