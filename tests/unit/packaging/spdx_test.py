#!/usr/bin/env python3
"""The list of components keeps the rules of SPDX 2.3 and tells of an installer package what is really in it. Argument:
the folder of the programs."""

import hashlib
import json
import pathlib
import re
import shutil
import subprocess
import tempfile

import jsonschema

from under_test import PROGRAMS, ROOT, InFolder, main

import check_binaries
import msi_content
import package
import spdx

SCHEMA = json.loads(pathlib.Path(__file__).with_name("spdx_schema.json").read_text(encoding="utf-8"))
KNOWN_LICENCES = {"NOASSERTION", "GPL-3.0-or-later", "GCC-exception-3.1", "ZPL-2.1", "MIT", "BSD-3-Clause"}
DATE = 1700000000
INSTALLED = ("tessaplug.dll", "tessactl.exe", "THIRD_PARTY_NOTICES.md")
CALLED = "tessahost.exe"  # packed as something that the installer itself calls
PACKAGE = """<Wix xmlns="http://schemas.microsoft.com/wix/2006/wi">
<Product Id="*" Name="test" Language="1033" Version="1.0.0" Manufacturer="test"
         UpgradeCode="11111111-0000-4000-8000-000000000000">
<Package InstallerVersion="500" Compressed="yes"/><Media Id="1" Cabinet="a.cab" EmbedCab="yes"/>
<Binary Id="called" SourceFile="{called}"/>
<Directory Id="TARGETDIR" Name="SourceDir"><Directory Id="ProgramFiles64Folder"><Directory Id="D" Name="A folder">
<Component Id="C" Guid="21111111-0000-4000-8000-000000000000">{files}</Component>
</Directory></Directory></Directory><Feature Id="F" Level="1"><ComponentRef Id="C"/></Feature></Product></Wix>"""


def make_msi(folder, path):
    for name in (*INSTALLED, CALLED):
        shutil.copy(ROOT / name if name.endswith(".md") else PROGRAMS / name, folder)
    files = "".join(f'<File Id="F{i}" Source="{name}" Name="{name}"/>' for i, name in enumerate(INSTALLED))
    (folder / "test.wxs").write_text(PACKAGE.format(called=CALLED, files=files), encoding="utf-8")
    subprocess.run(["wixl", "-a", "x64", "-o", path, "test.wxs"], cwd=folder, check=True)


class Spdx(InFolder):
    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory() as folder:
            msi = pathlib.Path(folder) / "test.msi"
            make_msi(pathlib.Path(folder), msi)
            cls.contents = msi_content.files(msi)
            cls.msi = msi.read_bytes()
        cls.components = package.components_of(cls.contents, PROGRAMS)
        cls.text = cls.make()
        cls.list = json.loads(cls.text)

    @classmethod
    def make(cls, version="1.2.3", date=DATE, contents=None):
        return spdx.document(version, date, "test.msi", contents or cls.contents, cls.components)

    def related(self, kind, one):
        return {entry["relatedSpdxElement"] for entry in self.list["relationships"]
                if (entry["relationshipType"], entry["spdxElementId"]) == (kind, one)}

    def test_package_is_read_whole(self):
        self.assertEqual({pathlib.PurePosixPath(name).name for name in self.contents}, {*INSTALLED, "called"})
        for name, content in self.contents.items():
            source = PROGRAMS / pathlib.PurePosixPath(name.replace("/called", f"/{CALLED}")).name
            self.assertEqual(content, (source if source.exists() else ROOT / source.name).read_bytes(), name)

    def test_list_keeps_the_rules(self):
        jsonschema.validate(self.list, SCHEMA)
        for damage in (lambda wrong: wrong["files"][0]["checksums"].pop(0),
                       lambda wrong: wrong["packages"][0].pop("packageVerificationCode"),
                       lambda wrong: wrong["packages"][1].pop("downloadLocation"),
                       lambda wrong: wrong["creationInfo"].update(created="yesterday"),
                       lambda wrong: wrong.pop("documentNamespace")):
            wrong = json.loads(self.text)
            damage(wrong)
            with self.assertRaises(jsonschema.ValidationError):
                jsonschema.validate(wrong, SCHEMA)

    def test_every_file_is_listed_with_its_sums(self):
        listed = {entry["fileName"]: {sum["algorithm"]: sum["checksumValue"] for sum in entry["checksums"]}
                  for entry in self.list["files"]}
        self.assertEqual(listed, {f"./{name}": {"SHA1": hashlib.sha1(content).hexdigest(),
                                                "SHA256": hashlib.sha256(content).hexdigest()}
                                  for name, content in self.contents.items()})

    def test_sum_over_the_package_is_that_of_its_files(self):
        sums = sorted(hashlib.sha1(content).hexdigest() for content in self.contents.values())
        self.assertEqual(self.list["packages"][0]["packageVerificationCode"]["packageVerificationCodeValue"],
                         hashlib.sha1("".join(sums).encode()).hexdigest())

    def test_every_static_run_time_of_every_binary_is_named(self):
        names = {entry["SPDXID"]: entry["name"] for entry in self.list["packages"]}
        binaries = [entry for entry in self.list["files"] if not entry["fileName"].endswith(".md")]
        self.assertEqual(len(binaries), 3)
        for entry in binaries:
            self.assertEqual(entry["fileTypes"], ["BINARY"])
            self.assertEqual({names[one] for one in self.related("STATIC_LINK", entry["SPDXID"])},
                             {"libgcc", "libstdc++", "mingw-w64-crt", "winpthreads"}, entry["fileName"])

    def test_relationships_are_between_what_is_listed(self):
        elements = [self.list["SPDXID"], *(entry["SPDXID"] for entry in self.list["packages"] + self.list["files"])]
        self.assertEqual(len(set(elements)), len(elements))
        for entry in self.list["relationships"]:
            self.assertIn(entry["spdxElementId"], elements)
            self.assertIn(entry["relatedSpdxElement"], elements)
        product = self.list["packages"][0]["SPDXID"]
        self.assertEqual(self.related("DESCRIBES", "SPDXRef-DOCUMENT"), {product})
        self.assertEqual(self.related("CONTAINS", product), {entry["SPDXID"] for entry in self.list["files"]})

    def test_every_licence_is_known_or_has_its_text(self):
        texts = {entry["licenseId"] for entry in self.list["hasExtractedLicensingInfos"]}
        used = {word for entry in self.list["packages"] for word in re.findall(r"[\w.+-]+", entry["licenseDeclared"])}
        self.assertEqual(used - KNOWN_LICENCES - {"AND", "WITH"}, texts)

    def test_same_release_has_the_same_list_and_another_one_another_name(self):
        self.assertEqual(self.make(), self.text)
        self.assertEqual(self.list["creationInfo"]["created"], "2023-11-14T22:13:20Z")
        changed = {**self.contents, next(iter(self.contents)): b"changed"}
        for other in (self.make(contents=changed), self.make(date=DATE + 1), self.make(version="1.2.4")):
            self.assertNotEqual(json.loads(other)["documentNamespace"], self.list["documentNamespace"])

    def test_names_that_would_share_an_identifier_are_refused(self):
        self.refused("the same identifier", spdx.document, "1.2.3", DATE, "test.msi", {"a b": b"", "a-b": b""}, {})

    def test_binary_that_was_not_built_here_is_refused(self):
        content = (PROGRAMS / "tessaplug.dll").read_bytes()
        self.refused("holds a d/tessaplug.dll that is none of the product's", package.components_of,
                     {"d/tessaplug.dll": content + b"1"}, PROGRAMS)
        for name in check_binaries.SHIPPED:
            shutil.copy(PROGRAMS / name, self.folder)
        contents = {"d/tessaplug.dll": content}
        self.refused("d/tessaplug.dll has no PDB file", package.components_of, contents, self.folder)

    def test_file_that_is_no_installer_package_is_told(self):
        path = self.folder / "wrong.msi"
        path.write_text("just text")
        self.refused("msiinfo cannot read wrong.msi", msi_content.files, path)

    def test_package_that_puts_one_file_over_another_is_refused(self):
        msi = self.folder / "test.msi"
        msi.write_bytes(self.msi)
        query = "UPDATE `File` SET `FileName` = 'one' WHERE `File` = '{}'"
        subprocess.run(["msibuild", msi, "-q", query.format("F0"), "-q", query.format("F1")], check=True)
        self.refused("test.msi names 3 files and gives 2", msi_content.files, msi)

    def test_damaged_package_is_refused(self):
        msi = self.folder / "test.msi"
        content = self.msi
        at = content.index(b"MSCF") + 100_000  # within the packed files
        msi.write_bytes(content[:at] + bytes(byte ^ 0xFF for byte in content[at:at + 64]) + content[at + 64:])
        self.refused("test.msi", msi_content.files, msi)


main()
