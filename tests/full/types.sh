#!/usr/bin/env bash
# Checks the types: the stubs against the built modules and their docstrings, the host package against the stubs and
# Python 3.8, here and on Windows, the snippets of the docs, and that a type checker reports a wrong call to an
# installed copy.
set -euo pipefail
cd "$(dirname "$0")/../.."
scripts/setup --for full
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
tree=$(scripts/build release 2>"$work/log" | tail -n 1) || { cat "$work/log" && exit 1; }
export MYPY_CACHE_DIR=$work/cache
# The checker looks for installed packages in a virtual environment, and only needs the files there.
/usr/bin/python3 -m venv --without-pip "$work/environment"
cmake --install build/release --prefix "$work/installed" --component python >/dev/null
site=$(echo "$work"/environment/lib/python3*/site-packages)
mv "$(dirname "$(find "$work/installed" -name Skiffport.py)")"/* "$site"

mkdir "$work/stubs"
cp "$tree"/*.pyi "$work/stubs"
PYTHONPATH=$site MYPYPATH=$site:$work/stubs /usr/bin/python3 -m mypy.stubtest \
  _Skiffport Skiffport skiffhost._messageloop
for platform in linux win32; do
  (cd "$site" && MYPYPATH=$work/stubs /usr/bin/python3 -m mypy --strict --python-version 3.8 \
    --platform "$platform" -p skiffhost)
done
mkdir "$work/snippets"
printf '%s\n' '[mypy]' '[mypy-gi.*]' 'ignore_missing_imports = True' '[mypy-skiffhost.*]' 'follow_imports = silent' \
  >"$work/mypy.ini"
/usr/bin/python3 -B tests/python/test_docs.py "$work/snippets"
(cd "$work/snippets" && MYPYPATH=$tree:. /usr/bin/python3 -m mypy --strict --config-file ../mypy.ini ./*.py)
wrong=$(/usr/bin/python3 -m mypy --strict --python-executable "$work/environment/bin/python" \
  -c 'import _Skiffport, Skiffport; Skiffport.KHLoginData("1", "x"); _Skiffport.KHLoginData_GetUserName(None)' || true)
grep -q 'Found 2 errors' <<<"$wrong" || { echo "$wrong" && exit 1; }

# A native function has no signature to compare, but its docstring states it.
PYTHONPATH=$tree /usr/bin/python3 -B - <<'END'
import ast, pathlib, re

import _Skiffport

TEXT, NUMBER = ("WCHAR const *", "WCHAR *", "wchar_t const *", "char [_MAX_PATH]"), ("int", "UINT", "BOOL")
POINTER = ("KHLoginData", "KHConnectUtil", "PyPresetUploader", "HINTERNET", "std::map< unsigned int,int >")
GIVEN = {**dict.fromkeys(TEXT, "str"), **dict.fromkeys(NUMBER, "int"), **dict.fromkeys(POINTER, "_Pointer"), "": "None"}
TAKEN = {**GIVEN, **dict.fromkeys(TEXT, "Optional[str]"), "CString &": "_Self",
         "PyObject *": "Optional[Callable[..., object]]"}
for stub in ast.parse(pathlib.Path(_Skiffport.__file__).with_name("_Skiffport.pyi").read_text("utf-8")).body:
    documentation = isinstance(stub, ast.FunctionDef) and getattr(_Skiffport, stub.name).__doc__
    if documentation:
        inside, result = re.fullmatch(r"\w+\((.*)\)(?: -> (.*))?", documentation).groups("")
        expected = [(name, "_Self" if name == "self" else TAKEN[kind])
                    for kind, _, name in (item.rpartition(" ") for item in inside.split(", ") if item)]
        expected.append(GIVEN.get(result, ast.unparse(stub.returns)))
        found = [(argument.arg, ast.unparse(argument.annotation)) for argument in stub.args.posonlyargs]
        assert [*found, ast.unparse(stub.returns)] == expected, f"{stub.name}: {found} is not {expected}"
END
