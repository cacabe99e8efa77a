"""Debian packages that are downloaded once, into the build directory, and only
unpacked on throw-away hosts; nothing is installed on this machine."""

import subprocess

import pytest

from harness import BUILD

CACHE = BUILD / "real-packages"


def download(package):
    """A directory with the package and what it needs and this machine lacks."""
    directory = CACHE / package
    if not list(directory.glob("*.deb")):
        (directory / "partial").mkdir(parents=True, exist_ok=True)
        command = ["apt-get", "install", "-qq", "-y", "--download-only",
                   "--reinstall", "--no-install-recommends", "-o",
                   f"Dir::Cache::archives={directory}", package]
        if subprocess.run(command, capture_output=True).returncode != 0:
            subprocess.run(["apt-get", "update", "-qq"], capture_output=True)
            subprocess.run(command, capture_output=True)
    if not list(directory.glob("*.deb")):
        pytest.skip(f"the package {package} can't be downloaded")
    return directory


def unpack(host, package):
    host.sh(f"for deb in '{download(package)}'/*.deb; do"
            " dpkg-deb --fsys-tarfile \"$deb\" |"
            " tar -x --keep-directory-symlink -C / || exit; done")
