#!/usr/bin/env python3
"""The installer through msiexec, on the machine of WINEPREFIX: installation, update, repair, removal, and what can go
wrong. Arguments: the build folder, and those of unittest."""

import contextlib
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import time
import unittest

build = pathlib.Path(sys.argv[1])
SOURCES = pathlib.Path(__file__).parents[2]
WORK = build / "installer_test"
DRIVE = pathlib.Path(os.environ["WINEPREFIX"]) / "drive_c"
FOLDER = DRIVE / "Program Files" / "Tessaplug"
DATA = DRIVE / "ProgramData" / "Tessaplug"
WINDOWS_FOLDER = "C:\\Program Files\\Tessaplug\\"
STATION = "C:\\tessaplug\\"
LOCAL_MACHINE = ("SYSTEM\\CurrentControlSet\\Services", "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Uninstall",
                 "SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Installer\\UserData",
                 "SOFTWARE\\Classes\\Installer", "SYSTEM\\CurrentControlSet\\Control\\Session Manager",
                 "SOFTWARE\\Tessaplug")
# Exit codes of msiexec, of which Wine hands on the low byte.
FATAL, UNKNOWN = 1603 & 0xFF, 1605 & 0xFF
PROGRAMS = ("tessaplug.dll", "tessahost.exe", "tessactl.exe")
WINE_GAP = {"winegap.dll", "winegapbox.exe"}  # what this machine lacks, beside the programs


def wine(*arguments, timeout=120):
    done = subprocess.run(["/usr/lib/wine/wine64", *arguments], capture_output=True, timeout=timeout)
    return done.returncode, (done.stdout + done.stderr).decode(errors="replace").replace("\r", "")


def host(*arguments):
    return wine(WINDOWS_FOLDER + "tessahost.exe", *arguments)


def tool(*arguments):
    return wine(WINDOWS_FOLDER + "tessactl.exe", *arguments)


def station(program, *arguments):
    return wine(STATION + program + ".exe", *arguments)[1]


def windows_path(file):
    return "C:\\" + str(file.relative_to(DRIVE)).replace("/", "\\")


def msiexec(verb, target, *arguments):
    """@return exit code and log"""
    log = DRIVE / "msiexec.log"
    log.unlink(missing_ok=True)
    code, _ = wine("msiexec", verb, target, "/qn", "/l*v", windows_path(log), *arguments)
    lines = log.read_text(errors="replace").splitlines() if log.exists() else []
    return code, "\n".join(line for line in lines if not line.startswith(("Property(", "Action ", "1: ")))


def version_set(file, patch):
    """Gives a binary's version resource another third number."""
    content = bytearray(file.read_bytes())
    head = "VS_VERSION_INFO".encode("utf-16-le") + bytes(4) + struct.pack("<L", 0xFEEF04BD)
    struct.pack_into("<L", content, content.index(head) + len(head) + 8, patch << 16)
    file.write_bytes(content)


class Package:
    """An installer of some version, on the machine's drive."""

    made = []

    def __init__(self, name, version, change=None):
        files = WORK / f"files-{name}"
        shutil.rmtree(files, ignore_errors=True)
        files.mkdir(parents=True)
        for program in (*PROGRAMS, "tessasetup.dll"):
            shutil.copy(build / "bin" / program, files)
        shutil.copytree(build / "bin" / "tmf", files / "tmf")
        for program in PROGRAMS:
            version_set(files / program, int(version.split(".")[2]))
        if change:
            change(files)
        self.files = files
        self.file = DRIVE / f"{name}.msi"
        subprocess.run([sys.executable, SOURCES / "installer" / "make_msi.py", files, version, self.file], check=True)
        self.path = windows_path(self.file)
        Package.made.append(self)

    def install(self, *properties):
        return msiexec("/i", self.path, *properties)

    def repair(self):
        return self.install("REINSTALL=ALL", "REINSTALLMODE=amus")

    def remove(self):
        return msiexec("/x", self.path)

    def is_installed(self):
        return all((FOLDER / name).exists() and (FOLDER / name).read_bytes() == (self.files / name).read_bytes()
                   for name in PROGRAMS)


def next_version(files):
    next(iter(sorted((files / "tmf").glob("*.tmf")))).unlink()
    (files / "tmf" / "new.tmf").write_text("new")


def tree(folder):
    return {str(path.relative_to(folder)) for path in folder.rglob("*")} if folder.exists() else set()


def registry():
    """All that an installation may touch."""
    lines = set()
    for key in LOCAL_MACHINE:
        for line in wine("reg", "query", "HKLM\\" + key, "/s")[1].splitlines():
            # Removing a part of it, Wine leaves the semicolon before it.
            lines.add(line.strip().rstrip(";"))
    return lines


def state():
    found = re.search(r"^state +(\S+)", host("status")[1], re.M)
    return found.group(1) if found else None


def points(model):
    listed = re.findall(rf"^{model}\(.*?\) +(\S+)", station("q5config", "list"), re.M)
    assert len(listed) == 5, listed
    return set(listed)


def wait_for_points(model, wanted):
    deadline = time.monotonic() + 20
    while points(model) != {wanted}:
        if time.monotonic() > deadline:
            raise AssertionError(f"the access points of {model} do not become {wanted}")
        time.sleep(0.05)


@contextlib.contextmanager
def service(name, command_line):
    """A service that somebody else has installed."""
    key = f"HKLM\\SYSTEM\\CurrentControlSet\\Services\\{name}"
    created = wine("sc", "create", name, "binPath=", command_line)
    assert created[0] == 0, created
    try:
        yield
    finally:
        wine("sc", "delete", name)
        wine("reg", "delete", key, "/f")


class Installer(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.first = Package("first", "21.0.0")
        cls.second = Package("second", "21.0.1", next_version)

    def setUp(self):
        FOLDER.mkdir(parents=True, exist_ok=True)
        for name in WINE_GAP:
            shutil.copy(build / "bin" / name, FOLDER)
        station("adapterctl", "unplug", "NX4120")
        self.addCleanup(self.clean)

    def clean(self):
        if FOLDER.exists() and tree(FOLDER) != WINE_GAP:
            for package in reversed(Package.made):
                package.remove()
        wine("sc", "delete", "tessahost")
        shutil.rmtree(FOLDER, ignore_errors=True)
        shutil.rmtree(DATA, ignore_errors=True)

    def assert_untouched(self):
        """Nothing of the product is there."""
        self.assertEqual(tree(FOLDER), WINE_GAP)
        self.assertFalse(DATA.exists())
        self.assertNotIn("Tessaplug", wine("reg", "query", "HKLM\\" + LOCAL_MACHINE[1], "/s")[1])

    def assert_first_runs(self):
        self.assertTrue(self.first.is_installed())
        self.assertEqual(tree(FOLDER / "tmf"), tree(self.first.files / "tmf"))
        self.assertEqual(state(), "RUNNING")
        self.assertFalse((FOLDER.parent / "Tessaplug.previous").exists())

    def test_installation_sets_everything_up(self):
        code, log = self.first.install()
        self.assertEqual(code, 0, log)
        self.assert_first_runs()
        self.assertTrue({"operators.txt", "security.txt"} <= tree(FOLDER / "docs"))
        told = host("status")[1]
        self.assertRegex(told, r"start +automatic\n")
        self.assertRegex(told, r"about +Runs the adapter plug-in")
        self.assertIn(f'"{WINDOWS_FOLDER}tessaplug.dll"', told)
        path = wine("reg", "query", "HKLM\\" + LOCAL_MACHINE[4] + "\\Environment", "/v", "PATH")[1]
        self.assertTrue(path.strip().endswith(";" + WINDOWS_FOLDER), path)
        source = wine("reg", "query", "HKLM\\" + LOCAL_MACHINE[0] + "\\EventLog\\Application\\tessaplug", "/s")[1]
        self.assertIn(WINDOWS_FOLDER + "tessaplug.dll", source)
        self.assertIn("The adapter service plug-in has started", tool("log")[1])

    def test_installed_product_lets_access_points_follow(self):
        self.first.install()
        station("adapterctl", "plug", "NX4120")
        wait_for_points("NX4120", "visible")
        station("adapterctl", "unplug", "NX4120")
        wait_for_points("NX4120", "hidden")

    def test_removal_leaves_nothing(self):
        keys, files = registry(), tree(DRIVE)
        self.first.install()
        code, log = self.first.remove()
        self.assertEqual(code, 0, log)
        self.assert_untouched()
        self.assertEqual(registry() ^ keys, set())
        # Of the package itself Wine keeps its copy.
        left = {name for name in tree(DRIVE) ^ files if not name.startswith("windows/Installer/")}
        self.assertEqual(left - {"msiexec.log"}, set())

    def test_removal_keeps_dumps_and_recordings_and_names_them(self):
        self.first.install()
        self.assertEqual(tool("trace", "start")[0], 0)
        self.assertEqual(tool("trace", "stop")[0], 0)
        temporary = next(path for path in (DRIVE / "windows" / "temp", DRIVE / "windows" / "Temp") if path.exists())
        dump = temporary / "tessaplug.dll_20260101-010203.dmp"
        dump.write_text("a dump")
        self.addCleanup(dump.unlink)
        code, log = self.first.remove()
        self.assertEqual(code, 0)
        self.assertTrue(dump.exists())
        self.assertEqual(tree(DATA), {"tessaplug.etl"})
        self.assertRegex(log, r"these memory dumps and recordings are kept")
        self.assertIn(dump.name, log)
        self.assertIn("Tessaplug\\tessaplug.etl", log)

    def test_properties_set_start_log_folder_and_whether_it_starts(self):
        code, log = self.first.install("SERVICESTART=manual", "LOGFOLDER=C:\\logs of mine", "STARTSERVICE=0")
        self.assertEqual(code, 0, log)
        self.assertEqual(state(), "STOPPED")
        told = host("status")[1]
        self.assertRegex(told, r"start +manual\n")
        self.assertIn('--log "C:\\logs of mine\\tessahost.log"', told)
        self.first.remove()
        self.assertFalse((DRIVE / "logs of mine").exists())

    def test_properties_that_make_no_sense_are_refused(self):
        for wish, words in (("SERVICESTART=sometimes", "SERVICESTART is automatic, delayed or manual"),
                            ("LOGFOLDER=logs", "LOGFOLDER is the full path of a folder"),
                            ("STARTSERVICE=yes", "STARTSERVICE is 1 or 0")):
            code, log = self.first.install(wish)
            self.assertEqual(code, FATAL, wish)
            self.assertIn(words, log)
            self.assert_untouched()

    def test_update_keeps_settings_and_access_points_follow_again(self):
        self.first.install("LOGFOLDER=C:\\logs of mine", "SERVICESTART=manual", "STARTSERVICE=1")
        station("adapterctl", "plug", "NX4120")
        wait_for_points("NX4120", "visible")
        tool("trace", "start")
        begin = time.monotonic()
        code, log = self.second.install()
        self.assertEqual(code, 0, log)
        station("adapterctl", "unplug", "NX4120")
        wait_for_points("NX4120", "hidden")
        print(f"from the update's begin until access points followed again: {time.monotonic() - begin:.1f} s")
        self.assertEqual(tool("trace", "stop")[0], 0)
        self.assertTrue(self.second.is_installed())
        self.assertEqual(tree(FOLDER / "tmf"), tree(self.second.files / "tmf"))
        self.assertEqual(state(), "RUNNING")
        told = host("status")[1]
        self.assertRegex(told, r"start +manual\n")
        self.assertIn('--log "C:\\logs of mine\\tessahost.log"', told)
        entries = (DRIVE / "logs of mine" / "tessahost.log").read_text()
        self.assertEqual(entries.count("STOPPED"), 1)
        self.assertEqual(wine("reg", "query", "HKLM\\" + LOCAL_MACHINE[1], "/s")[1].count("Tessaplug"), 2)  # name, maker
        code, log = self.second.remove()
        self.assertEqual(code, 0, log)
        (DATA / "tessaplug.etl").unlink()  # is kept
        DATA.rmdir()
        self.assert_untouched()

    def test_update_leaves_visible_what_is_plugged_in(self):
        self.first.install()
        station("adapterctl", "plug", "NX4120")
        wait_for_points("NX4120", "visible")
        self.second.install()
        self.assertEqual(points("NX4120"), {"visible"})

    def test_update_stays_in_the_folder_that_was_chosen(self):
        other = DRIVE / "other place"
        self.addCleanup(shutil.rmtree, other, ignore_errors=True)
        self.assertEqual(self.first.install("INSTALLDIR=C:\\other place")[0], 0)
        self.assertTrue((other / "tessaplug.dll").exists())
        code, log = self.second.install()
        self.assertEqual(code, 0, log)
        self.assertEqual((other / "tessaplug.dll").read_bytes(), (self.second.files / "tessaplug.dll").read_bytes())
        self.assertEqual(tree(FOLDER), WINE_GAP)
        self.assertIn('"C:\\other place\\tessahost.exe" run', wine(
            "reg", "query", "HKLM\\" + LOCAL_MACHINE[0] + "\\tessahost", "/v", "ImagePath")[1])
        self.assertEqual(self.second.remove()[0], 0)
        self.assertFalse(other.exists())

    def test_update_leaves_a_stopped_service_stopped(self):
        self.first.install()
        host("stop")
        self.assertEqual(self.second.install()[0], 0)
        self.assertEqual(state(), "STOPPED")

    @contextlib.contextmanager
    def held_plug_in(self):
        holder = subprocess.Popen(["/usr/lib/wine/wine64", str(build / "bin" / "holds_library.exe"),
                                   WINDOWS_FOLDER + "tessaplug.dll"], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        try:
            self.assertEqual(holder.stdout.readline().strip(), b"held")
            yield
        finally:
            holder.stdin.close()
            holder.stdout.close()
            holder.wait(20)

    def test_update_replaces_a_plug_in_that_is_held(self):
        self.first.install()
        with self.held_plug_in():
            code, log = self.second.install()
            self.assertEqual(code, 0, log)
            self.assertTrue(self.second.is_installed())
            self.assertEqual(state(), "RUNNING")

    def test_removal_of_a_plug_in_that_is_held_is_complete_after_the_next_start(self):
        self.first.install()
        with self.held_plug_in():
            code, log = self.first.remove()
            self.assertEqual(code, 0, log)
            self.assertFalse((FOLDER / "tessaplug.dll").exists())
        wine("wineboot", "-r")
        self.assertEqual(tree(FOLDER), WINE_GAP)

    def test_downgrade_is_refused(self):
        self.second.install()
        code, log = self.first.install()
        self.assertEqual(code, FATAL)
        self.assertIn("Found application", log)
        # Wine does not tell why a launch condition failed where nothing is shown.
        conditions = subprocess.run(["msiinfo", "export", self.first.file, "LaunchCondition"], capture_output=True, text=True)
        self.assertIn("NOT WIX_DOWNGRADE_DETECTED\tA newer version of Tessaplug is installed.", conditions.stdout)
        self.assertIn("Privileged\tTessaplug is installed by an administrator", conditions.stdout)
        self.assertTrue(self.second.is_installed())
        self.assertEqual(state(), "RUNNING")

    def test_repair_brings_back_what_was_deleted(self):
        self.first.install()
        for name in ("tessahost.exe", "tmf/" + sorted(tree(FOLDER / "tmf"))[0]):
            (FOLDER / name).unlink()
        (FOLDER / "docs" / "operators.txt").write_text("changed")
        code, log = self.first.repair()
        self.assertEqual(code, 0, log)
        self.assert_first_runs()
        self.assertNotEqual((FOLDER / "docs" / "operators.txt").read_text(), "changed")

    def test_installation_that_fails_leaves_nothing(self):
        (FOLDER / "docs" / "operators.txt").mkdir(parents=True)  # in the way of a file
        code, log = self.first.install()
        self.assertEqual(code, FATAL, log)
        shutil.rmtree(FOLDER / "docs")
        self.assert_untouched()
        self.assertNotEqual(wine("reg", "query", "HKLM\\" + LOCAL_MACHINE[0] + "\\tessahost")[0], 0)

    def test_update_that_fails_leaves_the_old_version_running(self):
        self.first.install()
        station("adapterctl", "plug", "NX4120")
        (FOLDER / "tmf" / "new.tmf").mkdir()
        code, log = self.second.install()
        self.assertEqual(code, FATAL, log)
        (FOLDER / "tmf" / "new.tmf").rmdir()
        self.assert_first_runs()
        wait_for_points("NX4120", "visible")
        self.assertEqual(self.second.install()[0], 0)
        self.assertTrue(self.second.is_installed())

    @contextlib.contextmanager
    def small_disk(self, size):
        """The product's folder on a disk of its own."""
        mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}k", "tmpfs", FOLDER], capture_output=True)
        if mounted.returncode != 0:
            self.skipTest("a disk of its own cannot be mounted here")
        try:
            for name in WINE_GAP:
                shutil.copy(build / "bin" / name, FOLDER)
            yield
        finally:
            self.clean()
            subprocess.run(["umount", "--lazy", FOLDER], check=True)

    def test_full_disk_at_the_installation_leaves_nothing(self):
        with self.small_disk(2500):
            code, log = self.first.install()
            self.assertEqual(code, FATAL, log)
            self.assertRegex(log, r"there is no room on the disk of .*: \d+ MB are needed, 2 are there")
            self.assert_untouched()

    def test_full_disk_at_the_update_leaves_the_old_version_running(self):
        def grown(files):
            next_version(files)
            (files / "tmf" / "new.tmf").write_bytes(os.urandom(8 << 20))
        larger = Package("larger", "21.0.2", grown)
        with self.small_disk(9000):
            self.assertEqual(self.first.install()[0], 0)
            code, log = larger.install()
            self.assertEqual(code, FATAL, log)
            self.assertIn("there is no room on the disk", log)
            self.assert_first_runs()

    def test_service_of_that_name_that_is_somebody_elses_is_left_alone(self):
        with service("tessahost", "C:\\windows\\system32\\notepad.exe"):
            code, log = self.first.install()
            self.assertEqual(code, FATAL)
            self.assertIn("already that is not this product's: it runs C:\\windows\\system32\\notepad.exe", log)
            self.assert_untouched()
            self.assertIn("notepad", wine("reg", "query", "HKLM\\" + LOCAL_MACHINE[0] + "\\tessahost", "/s")[1])

    def test_service_that_runs_from_another_folder_is_named(self):
        station("tessahost", "install")
        try:
            code, log = self.first.install()
            self.assertEqual(code, FATAL)
            self.assertIn("C:\\tessaplug\\tessahost.exe", log)
            self.assertIn("tessahost uninstall", log)
        finally:
            station("tessahost", "uninstall")

    def test_service_that_does_not_start_is_told_and_stays_installed(self):
        station("tessahost", "install", "--name", "other")
        station("tessahost", "start", "--name", "other")  # one instance for each machine
        try:
            code, log = self.first.install()
            self.assertEqual(code, 0, log)
            self.assertIn("everything is installed, but the service did not start", log)
            self.assertTrue(self.first.is_installed())
            self.assertEqual(state(), "STOPPED")
        finally:
            station("tessahost", "uninstall", "--name", "other")
        self.assertEqual(host("start")[0], 0)

    def test_machine_without_the_configuration_library_is_installed_and_told_of(self):
        library = DRIVE / "korvane" / "bin" / "q5orvix64x.dll"
        library.rename(library.with_suffix(".away"))
        try:
            self.assertEqual(self.first.install()[0], 0)
            self.assertEqual(state(), "RUNNING")
            code, told = tool("doctor")
            self.assertEqual(code, 3)
            self.assertRegex(told, r"configuration library")
        finally:
            library.with_suffix(".away").rename(library)

    def test_service_that_was_removed_by_hand_comes_back_with_the_update(self):
        self.first.install()
        self.assertEqual(host("uninstall")[0], 0)
        code, log = self.second.install()
        self.assertEqual(code, 0, log)
        self.assertTrue(self.second.is_installed())
        self.assertEqual(state(), "RUNNING")

    def test_damaged_installer_is_refused(self):
        damaged = DRIVE / "damaged.msi"
        self.addCleanup(damaged.unlink)
        content = self.first.file.read_bytes()
        for part in (content[:-400000], content[:3000], b""):
            damaged.write_bytes(part)
            self.assertNotEqual(msiexec("/i", windows_path(damaged))[0], 0, len(part))
            self.assert_untouched()


class MakeMsi(unittest.TestCase):
    """What the script refuses."""

    def make(self, files, version):
        output = WORK / "out" / "x.msi"
        done = subprocess.run([sys.executable, SOURCES / "installer" / "make_msi.py", files, version, output],
                              capture_output=True, text=True)
        self.assertEqual(tree(WORK / "out"), set())
        self.assertEqual(done.returncode, 1)
        return done.stderr

    def test_version_that_is_no_version_is_refused(self):
        for version in ("21", "21.0", "21.0.0.0", "latest", "21.0.100", ""):
            self.assertIn("is no version", self.make(build / "bin", version))

    def test_same_files_make_the_same_installer(self):
        installers = []
        for name in ("one", "two"):
            output = WORK / f"{name}.msi"
            subprocess.run([sys.executable, SOURCES / "installer" / "make_msi.py", build / "bin", "21.0.0", output],
                           env={**os.environ, "SOURCE_DATE_EPOCH": "1700000000"}, check=True)
            installers.append(output.read_bytes())
            output.unlink()
            time.sleep(2.1)  # the times of files in a cabinet are even seconds
        self.assertEqual(installers[0], installers[1])

    def test_missing_file_is_named(self):
        self.assertIn("tessaplug.dll is missing", self.make(WORK, "21.0.0"))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]])
