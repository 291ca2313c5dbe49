#!/usr/bin/env python3
"""What of others is in a binary is read from its PDB file, and what nobody has looked up is refused. Argument: the
folder of the programs."""

import unittest.mock

from under_test import PROGRAMS, ROOT, InFolder, main

import run_times
from binary_files import PdbFile

RUN_TIMES = ["libgcc", "libstdc++", "mingw-w64-crt", "winpthreads"]


class RunTimes(InFolder):
    def with_pdb(self, modules=(), streams=()):
        """The components of a PDB file that tells of these."""
        pdb = unittest.mock.Mock(streams=list(streams), **{"modules.return_value": list(modules)})
        with unittest.mock.patch.object(run_times, "PdbFile", return_value=pdb):
            return [component.name for component in run_times.of_pdb(PROGRAMS / "tessahost.pdb")]

    def test_static_run_times_of_a_shipped_binary_are_found(self):
        for name in ("tessaplug.pdb", "tessahost.pdb", "tessactl.pdb"):
            found = run_times.of_pdb(PROGRAMS / name)
            static = [component for component in found if component.relationship == "STATIC_LINK"]
            self.assertEqual([component.name for component in static], RUN_TIMES, name)
            for component in static:
                self.assertRegex(component.package, "mingw-w64")
                self.assertRegex(component.version, r"^\d+\.")

    def test_modules_are_read_to_the_last(self):
        modules = list(PdbFile((PROGRAMS / "tessahost.pdb").read_bytes()).modules())
        self.assertIn(("host\\CMakeFiles\\tessahost.dir\\main.cpp.obj",) * 2, modules)
        self.assertEqual(modules[-1][0], "* Linker *")

    def test_archive_that_nobody_has_looked_up_is_refused(self):
        for archive in ("/usr/x86_64-w64-mingw32/lib/static/libz.a", "/opt/libstdc++.a",
                        "/usr/lib/gcc/x86_64-w64-mingw32/12-posix/libgomp.a"):
            self.refused(f"{archive} is linked in: look up its licence", self.with_pdb, [("a.o", archive)])

    def test_archive_of_no_package_is_refused(self):
        archive = "/usr/x86_64-w64-mingw32/lib/libmade_here.a"
        self.refused(f"{archive} is linked in, and of no package", self.with_pdb, [("a.o", archive)])

    def test_package_that_is_not_installed_is_refused(self):
        self.refused("no-such-package is not installed", run_times.version_of, "no-such-package")

    def test_library_of_headers_is_found_by_its_files(self):
        for folder, name in ((b"CLI\\App.hpp", "CLI11"), (b"build/include/nlohmann/json.hpp", "nlohmann-json")):
            self.assertEqual(self.with_pdb(streams=[b"", b"\0./" + folder + b"\0"]), [name])
        self.assertEqual(self.with_pdb(streams=[b"\0tools/CLI.hpp\0nlohmann\0"]), [])

    def test_every_component_has_its_notice_and_the_text_of_its_licence(self):
        notices = (ROOT / "THIRD_PARTY_NOTICES.md").read_text(encoding="utf-8")
        for name in run_times.COMPONENTS:
            self.assertRegex(notices, rf"(?m)^## .*{name.replace('+', '[+]')}", name)
        texts = run_times.licence_texts(run_times.COMPONENTS.values())
        self.assertEqual(len(texts), 4)
        self.assertTrue(texts["LicenseRef-Keith-Marshall"].startswith("This is free software."))
        self.assertNotIn("```", "".join(texts.values()))

    def test_licence_without_a_text_is_refused(self):
        component = run_times.Component("new", "LicenseRef-new", "", "STATIC_LINK")
        self.refused("lacks the text of LicenseRef-new", run_times.licence_texts, [component])


main()
