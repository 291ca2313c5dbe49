"""Signs binaries and installer packages as Windows checks them, with osslsigncode."""

import pathlib
import subprocess
import tempfile

from sources import Refused

SYSTEM_CERTIFICATES = pathlib.Path("/etc/ssl/certs/ca-certificates.crt")


def _run(*command, content=None):
    try:
        return subprocess.run(command, input=content, capture_output=True, check=False)
    except FileNotFoundError as error:
        raise Refused(f"{command[0]} is not installed: run scripts/setup.sh") from error


class Signer:
    """A certificate with its key. A PFX file that cannot be used is refused here, before anything is made."""

    def __init__(self, certificate, password_file=None, timestamp=None):
        self._certificate = pathlib.Path(certificate)
        self._password_file = password_file and pathlib.Path(password_file)
        self._timestamp = timestamp
        for path, what in (self._certificate, "certificate"), (self._password_file, "password file"):
            if path is not None and not path.is_file():
                raise Refused(f"the {what} {path} does not exist")
        # Passwords come from a file: the command lines of programs are open to everybody on the machine.
        password = f"file:{self._password_file}" if self._password_file else "pass:"
        self._chain, own = (self._read(password, *which) for which in (("-nokeys",), ("-nokeys", "-clcerts")))
        if b"PRIVATE KEY" not in self._read(password, "-nocerts", "-noenc"):
            raise Refused(f"{self._certificate} holds no key to sign with")
        if b"BEGIN CERTIFICATE" not in own:
            raise Refused(f"{self._certificate} holds no certificate that belongs to its key")
        if _run("openssl", "x509", "-noout", "-checkend", "0", content=own).returncode != 0:
            raise Refused(f"the certificate in {self._certificate} has expired")
        if b"Code Signing" not in _run("openssl", "x509", "-noout", "-ext", "extendedKeyUsage", content=own).stdout:
            raise Refused(f"the certificate in {self._certificate} is not one for code signing")
        fingerprint = _run("openssl", "x509", "-noout", "-fingerprint", "-sha256", content=own).stdout.decode()
        self._fingerprint = fingerprint.partition("=")[2].strip().replace(":", "").lower()

    def _read(self, password, *which):
        # Older Windows exports with ciphers that openssl knows as legacy only.
        done = _run("openssl", "pkcs12", "-legacy", "-in", self._certificate, "-passin", password, *which)
        if done.returncode != 0:
            if b"invalid password" in done.stderr:
                raise Refused(f"the password is not that of {self._certificate}" if self._password_file else
                              f"{self._certificate} has a password: name a file with it (--password-file)")
            raise Refused(f"{self._certificate} is no certificate with its key (a PFX file)")
        return done.stdout

    def sign(self, path, description, date):
        """Signs a file in place and checks it. The date is what the signature claims, in seconds since 1970; Windows
        believes only a time-stamp server's."""
        signed = path.with_name(path.name + ".signed")
        password = ("-readpass", self._password_file) if self._password_file else ("-pass", "")
        timestamp = ("-ts", self._timestamp) if self._timestamp else ()
        try:
            done = _run("osslsigncode", "sign", "-pkcs12", self._certificate, *password, "-h", "sha256",
                        "-n", description, "-time", str(date), *timestamp, "-in", path, "-out", signed)
            if done.returncode != 0:
                raise Refused(f"{path.name} cannot be signed: {_told(done)}")
            self.check(signed, path.name)
            signed.replace(path)
        finally:
            signed.unlink(missing_ok=True)

    def check(self, path, name=None):
        """Refuses a file that is not signed with this certificate, that was changed since, or that lacks the time stamp
        that was asked for. Roots that count are those in the PFX file and the system's."""
        name = name or path.name
        with tempfile.TemporaryDirectory() as folder:
            roots = pathlib.Path(folder) / "roots.pem"
            system = SYSTEM_CERTIFICATES.read_bytes() if SYSTEM_CERTIFICATES.is_file() else b""
            roots.write_bytes(self._chain + system)
            done = _run("osslsigncode", "verify", "-CAfile", roots, "-TSA-CAfile", roots, "-require-leaf-hash",
                        f"sha256:{self._fingerprint}", "-in", path)
        output = done.stdout + done.stderr
        if b"no signature" in output.lower():
            raise Refused(f"{name} is not signed")
        if b"MISMATCH" in output:
            raise Refused(f"{name} was changed after it was signed")
        if b"Leaf hash match: failed" in output:
            raise Refused(f"{name} is signed with another certificate")
        if done.returncode != 0:
            raise Refused(f"the signature of {name} is not valid: {_told(done)}")
        # osslsigncode itself goes on without one.
        if self._timestamp and b"Timestamp Server Signature verification: ok" not in output:
            raise Refused(f"{name} has no time stamp that is valid")


def _told(done):
    """What a program complained of, in one line."""
    lines = (done.stderr + b"\n" + done.stdout).decode(errors="replace").splitlines()
    told = "; ".join(dict.fromkeys(line.strip() for line in lines if line.strip()))
    return told or f"it ended with {done.returncode}"
