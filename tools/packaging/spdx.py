"""The list of components of a release, in the form of SPDX 2.3, as JSON."""

import json
import re
import time
import urllib.parse
import uuid

import run_times
import sums
from sources import Refused

TOOL = "tessaplug-packaging"


def identifier(kind, name):
    return f"SPDXRef-{kind}-{re.sub(r'[^A-Za-z0-9.-]', '-', name)}"


def _verification_code(contents):
    """SPDX's own sum over a package: that of the sorted sums of its files."""
    return sums.digest("".join(sorted(sums.digest(content, "sha1") for content in contents)).encode(), "sha1")


def _file(name, content, binary):
    return {
        "SPDXID": identifier("File", name),
        "fileName": f"./{name}",
        "fileTypes": ["BINARY" if binary else "TEXT"],
        "checksums": [{"algorithm": kind.upper(), "checksumValue": sums.digest(content, kind)}
                      for kind in ("sha1", "sha256")],
        "licenseConcluded": "NOASSERTION",
        "copyrightText": "NOASSERTION",
    }


def _component(component):
    name, version = (urllib.parse.quote(text, safe="") for text in (component.package, component.version))
    return {
        "SPDXID": identifier("Package", component.name),
        "name": component.name,
        "versionInfo": component.version,
        "supplier": "Organization: Debian",
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": False,
        "licenseConcluded": component.licence,
        "licenseDeclared": component.licence,
        "copyrightText": component.copyright,
        "comment": f"The version is that of Debian's package {component.package}.",
        "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                          "referenceLocator": f"pkg:deb/debian/{name}@{version}"}],
    }


def document(version, date, package_name, contents, components):
    """The list as a text.

    date           of the release, in seconds since 1970
    package_name   the file that is given away
    contents       the content of each file in it, by name
    components     what of others is in a binary, by its name in contents"""
    package = identifier("Package", "tessaplug")
    found = {component.name: component for inside in components.values() for component in inside}
    relationships = [("SPDXRef-DOCUMENT", "DESCRIBES", package)]
    for name in sorted(contents):
        relationships.append((package, "CONTAINS", identifier("File", name)))
        relationships += [(identifier("File", name), component.relationship, identifier("Package", component.name))
                          for component in components.get(name, ())]
    result = {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"tessaplug-{version}",
        "creationInfo": {"created": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(date)),
                         "creators": [f"Tool: {TOOL}"]},
        "packages": [{
            "SPDXID": package,
            "name": "tessaplug",
            "versionInfo": version,
            "packageFileName": package_name,
            "primaryPackagePurpose": "INSTALL",
            "downloadLocation": "NOASSERTION",
            "filesAnalyzed": True,
            "packageVerificationCode": {"packageVerificationCodeValue": _verification_code(contents.values())},
            "licenseConcluded": "NOASSERTION",
            "licenseDeclared": "NOASSERTION",
            "copyrightText": "NOASSERTION",
        }, *(_component(found[name]) for name in sorted(found))],
        "files": [_file(name, contents[name], name in components) for name in sorted(contents)],
        "relationships": [{"spdxElementId": one, "relationshipType": kind, "relatedSpdxElement": other}
                          for one, kind, other in relationships],
    }
    identifiers = [element["SPDXID"] for kind in ("packages", "files") for element in result[kind]]
    if len(set(identifiers)) != len(identifiers):
        raise Refused("two files or packages would have the same identifier in the list of components")
    texts = run_times.licence_texts(found.values())
    if texts:
        result["hasExtractedLicensingInfos"] = [{"licenseId": name, "extractedText": text}
                                                for name, text in texts.items()]
    # Another list has another name, the same list the same.
    unique = uuid.uuid5(uuid.NAMESPACE_URL, json.dumps(result, sort_keys=True))
    result["documentNamespace"] = f"https://spdx.org/spdxdocs/tessaplug-{version}-{unique}"
    return json.dumps(result, indent=2, ensure_ascii=False) + "\n"
