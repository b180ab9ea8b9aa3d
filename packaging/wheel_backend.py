"""A PEP 517 and PEP 660 backend: packs what CMake installs into a wheel for the interpreter that runs it. Also packs
what was built for Windows.

Needs cmake, ninja, swig, pkg-config and a compiler on the PATH, and only the standard library. A config setting whose
name starts with SKIFFPORT_ becomes a CMake option:
    pip install . --config-settings=SKIFFPORT_DEFAULT_SERVICE_HOST=www.example.org
An editable installation is built in build/editable-<tag>, to which it refers: Python files are links to the sources,
and `cmake --build` in that folder brings the native code up to date.
"""

import ast
import base64
import gzip
import hashlib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import sysconfig
import tarfile
import tempfile
import time
import zipfile
from typing import Any, Dict, List, Mapping, Optional, Union

SOURCE = pathlib.Path(__file__).resolve().parents[1]
Settings = Optional[Mapping[str, Any]]
Table = Dict[str, Union[str, List[str]]]

# What a source distribution holds: all but the folder build and the names that start with a dot.
SOURCES = ("CHANGELOG.md", "CMakeLists.txt", "CMakePresets.json", "CONTRIBUTING.md", "README.md", "SECURITY.md",
           "bench", "cmake", "docs", "examples", "framework", "host", "packaging", "platform", "publish",
           "pyproject.toml", "reply", "scripts", "service", "shell", "standin", "tests", "trace", "upload")
# Debian's package of each tool and header that a build needs.
TOOLS = {"cmake": "cmake", "ninja": "ninja-build", "swig": "swig", "pkg-config": "pkg-config",
         os.environ.get("CXX", "c++"): "g++"}
HEADERS = {"curl/curl.h": "libcurl4-openssl-dev", "openssl/ssl.h": "libssl-dev", "expat.h": "libexpat1-dev",
           "idn2.h": "libidn2-dev", "Python.h": "python3-dev"}

WHEEL = """\
Wheel-Version: 1.0
Generator: {generator}
Root-Is-Purelib: false
Tag: {tag}
"""


def build_wheel(wheel_directory: str, config_settings: Settings = None,
                _metadata_directory: Optional[str] = None) -> str:
    """Builds in a temporary folder and writes the wheel. Returns its file name."""
    with tempfile.TemporaryDirectory(prefix="skiffport-") as scratch:
        staged = pathlib.Path(scratch, "staged")
        build(pathlib.Path(scratch, "build"), config_settings)
        install(pathlib.Path(scratch, "build"), staged, ["--strip"])
        data = staged / f"skiffport-{find_version()}.data" / "data"  # what pip puts below the environment's prefix
        install(pathlib.Path(scratch, "build"), data, [], "command")
        shutil.rmtree(data / "bin")  # the entry point makes that one
        return write_wheel(staged, pathlib.Path(wheel_directory))


def build_editable(wheel_directory: str, config_settings: Settings = None,
                   _metadata_directory: Optional[str] = None) -> str:
    """Builds in the checkout and writes a wheel that only adds a folder of links to the search path."""
    folder = SOURCE / "build" / f"editable-{find_tag()}"
    build(folder, config_settings)
    links = folder / "importable"
    shutil.rmtree(links, ignore_errors=True)
    install(folder, links, [], CMAKE_INSTALL_MODE="ABS_SYMLINK")
    with tempfile.TemporaryDirectory(prefix="skiffport-") as scratch:
        pathlib.Path(scratch, "_skiffport.pth").write_text(f"{links}\n", "utf-8")
        return write_wheel(pathlib.Path(scratch), pathlib.Path(wheel_directory))


def build_sdist(sdist_directory: str, _config_settings: Settings = None) -> str:
    """Writes the archive of the sources. Returns its file name."""
    base = f"skiffport-{find_version()}"

    def select(member: tarfile.TarInfo) -> Optional[tarfile.TarInfo]:
        if "__pycache__" in member.name:
            return None
        member.uid = member.gid = 0
        member.mtime, member.mode = find_time(), 0o755 if member.mode & 0o100 else 0o644
        member.uname = member.gname = "root"
        return member

    with gzip.GzipFile(pathlib.Path(sdist_directory, f"{base}.tar.gz"), "wb", mtime=find_time()) as packed, \
            tarfile.open(fileobj=packed, mode="w", format=tarfile.PAX_FORMAT) as archive, \
            tempfile.TemporaryDirectory(prefix="skiffport-") as scratch:
        for name in SOURCES:
            archive.add(SOURCE / name, f"{base}/{name}", filter=select)
        information = pathlib.Path(scratch, "PKG-INFO")
        information.write_text(describe(), "utf-8")
        archive.add(information, f"{base}/PKG-INFO", filter=select)
    return f"{base}.tar.gz"


def prepare_metadata_for_build_wheel(metadata_directory: str, _config_settings: Settings = None) -> str:
    """Writes what a wheel would say of itself, without a build. Returns the name of the folder."""
    return write_info(pathlib.Path(metadata_directory), find_tag()).name


prepare_metadata_for_build_editable = prepare_metadata_for_build_wheel


def build_windows_wheels(tree: pathlib.Path, wheel_directory: pathlib.Path, objcopy: str) -> List[str]:
    """Writes a wheel for each CPython for Windows that an importable tree was built for. Returns the file names.

    The modules are stripped. An archive beside each wheel has their debug information: the debugger finds a file of it
    that lies beside its module.
    """
    wheels = []
    for tag in (tree.parent / "tags.txt").read_text("utf-8").split():  # cp38-win_amd64
        with tempfile.TemporaryDirectory(prefix="skiffport-") as scratch:
            staged, debug = pathlib.Path(scratch, "staged"), pathlib.Path(scratch, "debug")
            for file in (path for path in tree.rglob("*") if path.is_file()):
                target = staged / file.relative_to(tree)
                if file.name.endswith(f".{tag}.pyd"):
                    split_debug(file, target, debug / target.relative_to(staged), objcopy)
                elif is_installed(target.relative_to(staged)):
                    target.parent.mkdir(parents=True, exist_ok=True)
                    shutil.copy(file, target)
            wheels.append(write_wheel(staged, wheel_directory, f"{tag.partition('-')[0]}-{tag}"))
            write_zip(debug, wheel_directory / f"{wheels[-1][:-len('.whl')]}-debug.zip")
    return wheels


def is_installed(name: pathlib.Path) -> bool:
    """Returns whether a Python file of the tree goes into a wheel: no types beside the modules, which have packages of
    their own, and nothing that an earlier build left."""
    if name.parts[0] == "skiffhost":
        return name.name == "_version.py" or name.suffix != ".pyc" and (SOURCE / "host" / name).exists()
    return name.suffix == ".py" or name.parts[0].endswith("-stubs")


def split_debug(module: pathlib.Path, target: pathlib.Path, debug: pathlib.Path, objcopy: str) -> None:
    """Copies a module without its debug information, which goes into a file of its own with ``.debug`` appended."""
    debug = debug.with_name(debug.name + ".debug")
    for folder in (target.parent, debug.parent):
        folder.mkdir(parents=True, exist_ok=True)
    subprocess.run([objcopy, "--only-keep-debug", module, debug], check=True)
    subprocess.run([objcopy, "--strip-all", f"--add-gnu-debuglink={debug}", module, target], check=True)


def find_version() -> str:
    """Returns the version, which only CMakeLists.txt states."""
    found = re.search(r"project\(Skiffport VERSION ([0-9.]+)", (SOURCE / "CMakeLists.txt").read_text("utf-8"))
    assert found, "CMakeLists.txt states no version"
    return found.group(1)


def find_time() -> int:
    """Returns the time that the files of an archive bear, in seconds since 1970."""
    return int(os.environ.get("SOURCE_DATE_EPOCH", time.time()))


def find_tag() -> str:
    """Returns interpreter, ABI and platform, such as cp38-cp38-linux_x86_64."""
    abi = sysconfig.get_config_var("SOABI").split("-")[1]  # of cpython-38-x86_64-linux-gnu
    platform = re.sub(r"[^A-Za-z0-9]", "_", sysconfig.get_platform())
    return f"cp{sys.version_info.major}{sys.version_info.minor}-cp{abi}-{platform}"


def read_project() -> Dict[str, Table]:
    """Returns the tables of pyproject.toml. Their strings and lists are written alike in TOML and in Python."""
    tables: Dict[str, Table] = {}
    for name, body in re.findall(r"^\[(\S+)\]\n(.*?)(?=^\[|\Z)", (SOURCE / "pyproject.toml").read_text("utf-8"),
                                 re.MULTILINE | re.DOTALL):
        pairs = re.findall(r"^(\S+) = (.*?)(?=^\S+ = |\Z)", body, re.MULTILINE | re.DOTALL)
        tables[name] = {key: ast.literal_eval(value.strip()) for key, value in pairs}
    return tables


def describe() -> str:
    """Returns the core metadata, with the README as its body."""
    project = read_project()["project"]
    lines = ["Metadata-Version: 2.1", f"Name: {project['name']}", f"Version: {find_version()}",
             f"Summary: {project['description']}", f"Requires-Python: {project['requires-python']}",
             *(f"Classifier: {classifier}" for classifier in project["classifiers"])]
    readme = pathlib.Path(SOURCE, str(project["readme"])).read_text("utf-8")
    return "\n".join([*lines, "Description-Content-Type: text/markdown; charset=UTF-8", "", readme])


def build(folder: pathlib.Path, settings: Settings) -> None:
    """Builds for this interpreter only. Ends the process with a plain message if something that it takes is missing."""
    options = [f"-D{name}={value}" for name, value in (settings or {}).items() if name.startswith("SKIFFPORT_")]
    tools = {tool: package for tool, package in TOOLS.items() if not shutil.which(tool)}
    if tools:
        refuse({**tools, **find_missing_headers()})
    # So that no file depends on where it was built.
    names = f"-ffile-prefix-map={folder}=build -ffile-prefix-map={SOURCE}=."
    environment = {**os.environ, "CXXFLAGS": f"{os.environ.get('CXXFLAGS', '')} {names}"}
    configured = subprocess.run(["cmake", "-S", SOURCE, "-B", folder, "-G", "Ninja",
                                 "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DSKIFFPORT_TESTS=OFF",
                                 f"-DSKIFFPORT_PYTHONS={sys.executable}", "-DSKIFFPORT_INSTALL_PYTHONDIR=.", *options],
                                check=False, env=environment)
    if configured.returncode and find_missing_headers():
        refuse(find_missing_headers())
    configured.check_returncode()
    subprocess.run(["cmake", "--build", folder], check=True)


def find_missing_headers() -> Dict[str, str]:
    """Returns the headers, with their packages, that are not in the usual places. CMake may know of others."""
    places = ["/usr/include", "/usr/local/include", f"/usr/include/{sysconfig.get_config_var('MULTIARCH')}",
              sysconfig.get_path("include"), *os.environ.get("CPATH", "").split(":")]
    return {header: package for header, package in HEADERS.items()
            if not any(pathlib.Path(place, header).exists() for place in places)}


def refuse(missing: Mapping[str, str]) -> None:
    """Ends the process. Installers show what a backend prints."""
    raise SystemExit(f"skiffport is built from source, and this system lacks {', '.join(missing)}. On Debian: "
                     f"apt-get install {' '.join(missing.values())}")


def install(folder: pathlib.Path, prefix: pathlib.Path, options: List[str], component: str = "python",
            **environment: str) -> None:
    """Installs what an import needs, or another component."""
    subprocess.run(["cmake", "--install", folder, "--prefix", prefix, "--component", component, *options], check=True,
                   env={**os.environ, **environment})


def write_info(folder: pathlib.Path, tag: str) -> pathlib.Path:
    """Makes the folder of metadata in that folder and returns its path."""
    info = folder / f"skiffport-{find_version()}.dist-info"
    info.mkdir()
    commands = "".join(f"{name} = {entry}\n" for name, entry in read_project()["project.scripts"].items())
    (info / "METADATA").write_text(describe(), "utf-8")
    (info / "WHEEL").write_text(WHEEL.format(generator=__name__, tag=tag), "utf-8")
    (info / "entry_points.txt").write_text(f"[console_scripts]\n{commands}", "utf-8")
    return info


def write_wheel(staged: pathlib.Path, wheel_directory: pathlib.Path, tag: str = "") -> str:
    """Writes every file of the folder into a wheel, by default for this interpreter, then the list of them, as the
    format requires."""
    tag = tag or find_tag()
    record = write_info(staged, tag) / "RECORD"
    wheel = f"skiffport-{find_version()}-{tag}.whl"
    lines = []
    for file in sorted(path for path in staged.rglob("*") if path.is_file()):
        name, content = file.relative_to(staged).as_posix(), file.read_bytes()
        digest = base64.urlsafe_b64encode(hashlib.sha256(content).digest()).rstrip(b"=").decode("ascii")
        lines.append(f"{name},sha256={digest},{len(content)}\n")
    name = record.relative_to(staged).as_posix()
    record.write_text("".join([*lines, f"{name},,\n"]), "utf-8")
    write_zip(staged, wheel_directory / wheel)
    return wheel


def write_zip(folder: pathlib.Path, archive: pathlib.Path) -> None:
    """Packs every file of the folder. Nothing but their content and their rights counts."""
    with zipfile.ZipFile(archive, "w") as packed:
        for file in sorted(path for path in folder.rglob("*") if path.is_file()):
            entry = zipfile.ZipInfo(file.relative_to(folder).as_posix(), time.gmtime(find_time())[:6])
            entry.external_attr = (0o100755 if os.access(file, os.X_OK) else 0o100644) << 16
            entry.compress_type = zipfile.ZIP_DEFLATED
            packed.writestr(entry, file.read_bytes())
