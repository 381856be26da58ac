"""Other programs that write an image to a partition: swupdate's raw handler and rauc's write-slot, each
configured as its manual page describes."""
import os
import shutil
import subprocess
from pathlib import Path

from world import Programs, measured

SIGNER = Path("/tmp/signer")


def missing(*programs: str) -> str:
    """Returns a note with the programs that are not installed; empty if all are."""
    absent = [p for p in programs if shutil.which(p) is None]
    return f"not installed: {', '.join(absent)}" if absent else ""


def quietly(*command, **more) -> None:
    subprocess.run(command, check=True, capture_output=True, **more)


def make_signer() -> None:
    """Creates a key and a certificate with the key usage that swupdate requires of a signer."""
    if SIGNER.exists():
        return
    SIGNER.mkdir()
    # The private root has no configuration of openssl, and that of the host must not be used.
    config = SIGNER / "openssl.cnf"
    config.write_text("[req]\ndistinguished_name = name\n[name]\n")
    os.environ["OPENSSL_CONF"] = str(config)
    quietly("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
            "/CN=bench", "-addext", "extendedKeyUsage=emailProtection", "-addext",
            "keyUsage=digitalSignature", "-keyout", SIGNER / "key.pem", "-out", SIGNER / "cert.pem")


def sign_package(folder: Path, file: Path, handling: str) -> Path:
    """Creates a package for swupdate in `folder`, which contains `file`. `handling`: what is done with it."""
    digest = subprocess.run(["sha256sum", file], check=True, capture_output=True, text=True)
    description = folder / "sw-description"
    description.write_text(
        'software = { version = "1.0"; hardware-compatibility: [ "1.0" ]; '
        f'images: ( {{ filename = "{file.name}"; {handling} sha256 = "{digest.stdout.split()[0]}"; }} ); }}\n')
    quietly("openssl", "cms", "-sign", "-in", description, "-out", folder / "sw-description.sig", "-signer",
            SIGNER / "cert.pem", "-inkey", SIGNER / "key.pem", "-outform", "DER", "-nosmimecap", "-binary")
    package = folder / "camera.swu"
    with open(package, "wb") as out:
        # swupdate requires that the description is the first file.
        subprocess.run(["cpio", "-o", "-L", "-H", "crc"], check=True, cwd=folder, stdout=out,
                       input=f"sw-description\nsw-description.sig\n{file.name}\n".encode(),
                       stderr=subprocess.DEVNULL)
    return package


class Swupdate:
    needs = ("swupdate", "openssl", "cpio")

    def __init__(self, image: Path, device: str, folder: Path = Path("/tmp/swupdate")):
        make_signer()
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir()
        (folder / "kernel.bin").symlink_to(image)
        self.package = sign_package(folder, folder / "kernel.bin", f'device = "{device}"; type = "raw";')

    def run(self, programs: Programs) -> dict[str, float]:
        return measured(programs, ["swupdate", "-l", "1", "-M", "-m", "-H", "camera:1.0", "-k",
                                   SIGNER / "cert.pem", "-i", self.package])


class Rauc:
    needs = ("rauc",)

    def __init__(self, image: Path, device: str):
        self.config = Path("/tmp/rauc.conf")
        self.image = Path("/tmp/rauc.img")  # rauc chooses its way of writing by the suffix
        self.image.unlink(missing_ok=True)
        self.image.symlink_to(image)
        self.config.write_text("[system]\ncompatible=camera\nbootloader=noop\n"
                               f"[slot.kernel.0]\ndevice={device}\ntype=raw\n")

    def run(self, programs: Programs) -> dict[str, float]:
        return measured(programs, ["rauc", "-c", self.config, "write-slot", "kernel.0", self.image])
