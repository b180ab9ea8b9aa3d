"""A PEP 517 backend: packs what CMake installs into a wheel for the interpreter that runs it.

Needs cmake, ninja, swig and a compiler on the PATH, and only the standard library. A config setting whose name starts
with SKIFFPORT_ becomes a CMake option:
    pip install . --config-settings=SKIFFPORT_DEFAULT_SERVICE_HOST=www.example.org
"""

import base64
import hashlib
import pathlib
import re
import subprocess
import sys
import sysconfig
import tempfile
import zipfile
from typing import Any, List, Mapping, Optional

SOURCE = pathlib.Path(__file__).resolve().parents[1]

METADATA = """\
Metadata-Version: 2.1
Name: skiffport
Version: {version}
Summary: Links a desktop application to its community web service
Requires-Python: >=3.8
Provides-Extra: bar
Requires-Dist: rich; extra == "bar"
"""
WHEEL = """\
Wheel-Version: 1.0
Generator: {generator}
Root-Is-Purelib: false
Tag: {tag}
"""
ENTRY_POINTS = """\
[console_scripts]
skiffhost = skiffhost.__main__:main
"""


def build_wheel(wheel_directory: str, config_settings: Optional[Mapping[str, Any]] = None,
                _metadata_directory: Optional[str] = None) -> str:
    """Builds in a temporary folder and writes the wheel. Returns its file name."""
    version, tag = find_version(), find_tag()
    options = [f"-D{name}={value}" for name, value in (config_settings or {}).items() if name.startswith("SKIFFPORT_")]
    name = f"skiffport-{version}-{tag}.whl"
    with tempfile.TemporaryDirectory(prefix="skiffport-") as scratch:
        staged = pathlib.Path(scratch, "staged")
        install(pathlib.Path(scratch, "build"), staged, options)
        info = staged / f"skiffport-{version}.dist-info"
        info.mkdir()
        (info / "METADATA").write_text(METADATA.format(version=version), "utf-8")
        (info / "WHEEL").write_text(WHEEL.format(generator=__name__, tag=tag), "utf-8")
        (info / "entry_points.txt").write_text(ENTRY_POINTS, "utf-8")
        pack(staged, info / "RECORD", pathlib.Path(wheel_directory, name))
    return name


def find_version() -> str:
    """Returns the version, which only CMakeLists.txt states."""
    found = re.search(r"project\(Skiffport VERSION ([0-9.]+)", (SOURCE / "CMakeLists.txt").read_text("utf-8"))
    assert found, "CMakeLists.txt states no version"
    return found.group(1)


def find_tag() -> str:
    """Returns interpreter, ABI and platform, such as cp38-cp38-linux_x86_64."""
    abi = sysconfig.get_config_var("SOABI").split("-")[1]  # of cpython-38-x86_64-linux-gnu
    platform = re.sub(r"[^A-Za-z0-9]", "_", sysconfig.get_platform())
    return f"cp{sys.version_info.major}{sys.version_info.minor}-cp{abi}-{platform}"


def install(build: pathlib.Path, staged: pathlib.Path, options: List[str]) -> None:
    """Builds for this interpreter only and installs what an import needs."""
    subprocess.run(["cmake", "-S", SOURCE, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                    "-DSKIFFPORT_TESTS=OFF", f"-DSKIFFPORT_PYTHONS={sys.executable}",
                    "-DSKIFFPORT_INSTALL_PYTHONDIR=.", *options], check=True)
    subprocess.run(["cmake", "--build", build], check=True)
    subprocess.run(["cmake", "--install", build, "--prefix", staged, "--component", "python", "--strip"], check=True)


def pack(staged: pathlib.Path, record: pathlib.Path, wheel: pathlib.Path) -> None:
    """Writes every file of the folder into the wheel, then the list of them, as the format requires."""
    lines = []
    with zipfile.ZipFile(wheel, "w", zipfile.ZIP_DEFLATED) as archive:
        for file in sorted(path for path in staged.rglob("*") if path.is_file()):
            name, content = file.relative_to(staged).as_posix(), file.read_bytes()
            digest = base64.urlsafe_b64encode(hashlib.sha256(content).digest()).rstrip(b"=").decode("ascii")
            lines.append(f"{name},sha256={digest},{len(content)}\n")
            archive.write(file, name)
        name = record.relative_to(staged).as_posix()
        archive.writestr(name, "".join([*lines, f"{name},,\n"]))
