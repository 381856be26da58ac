"""Keys and certificates of one run: for the server, and, with the proxy, for each camera."""
import os
import subprocess
from pathlib import Path

CONFIGURATION = "[req]\ndistinguished_name = name\n[name]\n"
DAYS = "30"
# The names of a server on this machine; the last one is its address for the emulated board.
SERVER_NAMES = "subjectAltName=DNS:localhost,IP:127.0.0.1,IP:10.0.2.2"
CURVE = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes")


class Authority:
    """A certificate authority: NAME.pem, NAME.key and the certificates that it issues, in one folder."""

    def __init__(self, folder: Path, name: str):
        self.folder, self.certificate, self.key = folder, folder / f"{name}.pem", folder / f"{name}.key"
        self.configuration = folder / "openssl.cnf"
        folder.mkdir(parents=True, exist_ok=True)
        self.configuration.write_text(CONFIGURATION)
        self.openssl("req", "-x509", *CURVE, "-days", DAYS, "-subj", f"/CN=Fleet {name}",
                     "-addext", "basicConstraints=critical,CA:true", "-addext",
                     "keyUsage=critical,keyCertSign,cRLSign", "-keyout", self.key, "-out",
                     self.certificate)

    def issue(self, name: str, purpose: str, *extensions: str) -> tuple[Path, Path]:
        """Creates a certificate and its key. `purpose`: serverAuth or clientAuth."""
        certificate, key = self.folder / f"{name}.pem", self.folder / f"{name}.key"
        more = [part for text in (f"extendedKeyUsage={purpose}", "basicConstraints=CA:false",
                                  *extensions) for part in ("-addext", text)]
        self.openssl("req", "-x509", *CURVE, "-days", DAYS, "-CA", self.certificate, "-CAkey",
                     self.key, "-subj", f"/CN={name}", *more, "-keyout", key, "-out", certificate)
        return certificate, key

    def server_store(self, password: str) -> Path:
        """Creates a key store for Java (PKCS #12) with a certificate and key for a server on this machine."""
        certificate, key = self.issue("server", "serverAuth", SERVER_NAMES)
        store = self.folder / "server.p12"
        self.openssl("pkcs12", "-export", "-in", certificate, "-inkey", key, "-out", store,
                     "-passout", f"pass:{password}")
        return store

    def openssl(self, *arguments) -> None:
        done = subprocess.run(["openssl", *arguments], capture_output=True, text=True,
                              env={**os.environ, "OPENSSL_CONF": str(self.configuration)})
        if done.returncode != 0:
            raise OSError(f"openssl {arguments[0]}: {done.stderr.strip()}")
