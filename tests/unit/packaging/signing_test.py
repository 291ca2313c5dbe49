#!/usr/bin/env python3
"""Binaries are signed with a certificate that is made on the spot, what is damaged or not signed is told, and what
nobody can sign with is refused. Argument: the folder of the programs."""

import http.server
import pathlib
import shutil
import subprocess
import tempfile
import threading
import unittest.mock

from under_test import PROGRAMS, InFolder, main

import signing
from binary_files import PeFile
from signing import Signer
from sources import Refused

PASSWORD = "a secret word"
DATE = 1700000000


def openssl(*arguments):
    subprocess.run(["openssl", *arguments], check=True, capture_output=True)


def make_certificate(folder, name, usage="codeSigning"):
    """A self-signed certificate NAME.pem. All have the same key: making one takes its time."""
    key = folder / "key"
    if not key.exists():
        openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048", "-out", key)
    openssl("req", "-x509", "-key", key, "-out", folder / f"{name}.pem", "-days", "30", "-subj", f"/CN={name}",
            "-addext", f"extendedKeyUsage={usage}")


def make_pfx(folder, name, password=PASSWORD, *options):
    openssl("pkcs12", "-export", *options, "-inkey", folder / "key", "-in", folder / f"{name}.pem", "-out",
            folder / f"{name}.pfx", "-passout", f"pass:{password}")


TSA_SETTINGS = """[tsa]
default_tsa = own
[own]
serial = {folder}/serial
signer_digest = sha256
default_policy = 1.2.3.4
digests = sha256
ess_cert_id_alg = sha256
"""


class TimestampServer(http.server.HTTPServer):
    """Puts the present time to what it is asked for, as RFC 3161 has it."""

    def __init__(self, folder):
        self.folder = folder
        make_certificate(folder, "tsa", usage="critical,timeStamping")
        (folder / "tsa.cnf").write_text(TSA_SETTINGS.format(folder=folder), encoding="utf-8")
        (folder / "serial").write_text("01", encoding="utf-8")
        super().__init__(("127.0.0.1", 0), TimestampAnswer)
        self.url = f"http://127.0.0.1:{self.server_port}/"

    def __enter__(self):
        threading.Thread(target=self.serve_forever).start()
        return self

    def __exit__(self, *_):
        self.shutdown()
        self.server_close()


class TimestampAnswer(http.server.BaseHTTPRequestHandler):
    def do_POST(self):  # the name is the library's
        folder = self.server.folder
        (folder / "query").write_bytes(self.rfile.read(int(self.headers["Content-Length"])))
        openssl("ts", "-reply", "-config", folder / "tsa.cnf", "-queryfile", folder / "query", "-signer",
                folder / "tsa.pem", "-inkey", folder / "key", "-out", folder / "reply")
        self.send_response(200)
        self.send_header("Content-Type", "application/timestamp-reply")
        self.end_headers()
        self.wfile.write((folder / "reply").read_bytes())

    def log_message(self, *_):
        pass


class Signing(InFolder):
    @classmethod
    def setUpClass(cls):
        temporary = tempfile.TemporaryDirectory()
        cls.addClassCleanup(temporary.cleanup)
        cls.certificates = pathlib.Path(temporary.name)
        for name in ("own", "other"):
            make_certificate(cls.certificates, name)
            make_pfx(cls.certificates, name)
        (cls.certificates / "password").write_text(f"{PASSWORD}\n", encoding="utf-8")

    def setUp(self):
        super().setUp()
        self.binary = self.folder / "tessahost.exe"
        shutil.copy(PROGRAMS / "tessahost.exe", self.binary)

    def signer(self, name="own", password="password"):
        return Signer(self.certificates / f"{name}.pfx", password and self.certificates / password)

    def damage(self):
        """Turns a bit in the middle of the first section."""
        content = bytearray(self.binary.read_bytes())
        content[PeFile(bytes(content)).sections[0][4] + 1000] ^= 1
        self.binary.write_bytes(content)

    def test_signed_binary_is_valid_until_a_bit_of_it_changes(self):
        signer = self.signer()
        signer.sign(self.binary, "a description", DATE)
        self.assertEqual(list(self.folder.iterdir()), [self.binary])
        signer.check(self.binary)
        self.damage()
        self.refused("tessahost.exe was changed after it was signed", signer.check, self.binary)

    def test_binary_without_a_signature_is_told(self):
        self.refused("tessahost.exe is not signed", self.signer().check, self.binary)

    def test_signature_of_another_is_told(self):
        self.signer("other").sign(self.binary, "tessaplug", DATE)
        self.refused("tessahost.exe is signed with another certificate", self.signer().check, self.binary)

    def test_signing_twice_gives_the_same_bits(self):
        again = self.folder / "again.exe"
        shutil.copy(self.binary, again)
        for path in (self.binary, again):
            self.signer().sign(path, "tessaplug", DATE)
        self.assertEqual(self.binary.read_bytes(), again.read_bytes())
        self.assertIn(b"231114221320Z", again.read_bytes(), "it claims another time")

    def test_symbols_of_a_signed_binary_are_found_as_before(self):
        before = PeFile(self.binary.read_bytes())
        self.signer().sign(self.binary, "tessaplug", DATE)
        after = PeFile(self.binary.read_bytes())
        self.assertEqual((before.time_stamp, before.image_size, before.pdb_reference()),
                         (after.time_stamp, after.image_size, after.pdb_reference()))

    def test_what_cannot_be_signed_stays_as_it_was(self):
        self.binary.write_bytes(b"just text")
        self.refused("tessahost.exe cannot be signed", self.signer().sign, self.binary, "tessaplug", DATE)
        self.assertEqual(self.binary.read_bytes(), b"just text")
        self.assertEqual(list(self.folder.iterdir()), [self.binary])

    def test_signature_that_is_not_valid_is_not_kept(self):
        before = self.binary.read_bytes()
        signer = self.signer()
        with unittest.mock.patch.object(signer, "check", side_effect=Refused("not valid")):
            self.refused("not valid", signer.sign, self.binary, "tessaplug", DATE)
        self.assertEqual(self.binary.read_bytes(), before)
        self.assertEqual(list(self.folder.iterdir()), [self.binary])

    def test_time_stamp_server_that_does_not_answer_is_an_error(self):
        signer = Signer(self.certificates / "own.pfx", self.certificates / "password", "http://127.0.0.1:9/")
        before = self.binary.read_bytes()
        self.refused("tessahost.exe cannot be signed", signer.sign, self.binary, "tessaplug", DATE)
        self.assertEqual(self.binary.read_bytes(), before)

    def test_time_stamp_of_a_server_is_in_the_signature(self):
        with TimestampServer(self.certificates) as server:
            signer = Signer(self.certificates / "own.pfx", self.certificates / "password", server.url)
            self.refused("tessahost.exe has no time stamp that is valid", signer.sign, self.binary, "tessaplug", DATE)
            with unittest.mock.patch.object(signing, "SYSTEM_CERTIFICATES", self.certificates / "tsa.pem"):
                signer.sign(self.binary, "tessaplug", DATE)
                signer.check(self.binary)
                self.signer().sign(self.binary, "tessaplug", DATE)
                self.refused("tessahost.exe has no time stamp that is valid", signer.check, self.binary)

    def test_wrong_password_and_missing_files_are_refused(self):
        (self.certificates / "wrong").write_text("another word\n", encoding="utf-8")
        self.refused("the password is not that of", self.signer, "own", "wrong")
        self.refused("has a password: name a file with it", self.signer, "own", None)
        self.refused("nobody.pfx does not exist", self.signer, "nobody")
        self.refused("the password file", self.signer, "own", "nothing")

    def test_certificate_without_password_signs(self):
        make_certificate(self.certificates, "open")
        make_pfx(self.certificates, "open", "")
        self.signer("open", None).sign(self.binary, "tessaplug", DATE)

    def test_certificate_with_old_ciphers_signs(self):
        make_certificate(self.certificates, "old")
        make_pfx(self.certificates, "old", PASSWORD, "-legacy")
        self.signer("old").sign(self.binary, "tessaplug", DATE)

    def test_what_nobody_can_sign_with_is_refused(self):
        make_certificate(self.certificates, "server", usage="serverAuth")
        make_pfx(self.certificates, "server")
        self.refused("is not one for code signing", self.signer, "server")
        openssl("pkcs12", "-export", "-nokeys", "-in", self.certificates / "own.pem", "-out",
                self.certificates / "keyless.pfx", "-passout", f"pass:{PASSWORD}")
        self.refused("holds no key to sign with", self.signer, "keyless")
        shutil.copy(self.certificates / "own.pem", self.certificates / "text.pfx")
        self.refused("is no certificate with its key", self.signer, "text")

    def test_expired_certificate_is_refused(self):
        make_certificate(self.certificates, "expired")
        own = self.certificates / "expired.pem"
        openssl("x509", "-in", own, "-signkey", own.with_name("key"), "-days", "0", "-out", own)
        make_pfx(self.certificates, "expired")
        self.refused("has expired", self.signer, "expired")


main()
