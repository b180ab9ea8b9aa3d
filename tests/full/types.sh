#!/usr/bin/env bash
# Checks the types: the stubs against the built modules, the host package against the stubs and Python 3.8, and that a
# type checker reports wrong calls to an installed copy.
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

PYTHONPATH=$tree MYPYPATH=shell/stubs /usr/bin/python3 -m mypy.stubtest _Skiffport
PYTHONPATH=$tree MYPYPATH=shell/stubs /usr/bin/python3 -m mypy.stubtest Skiffport
# A native function has no signature to compare, but its docstring states it.
PYTHONPATH=$tree /usr/bin/python3 -B - <<'END'
import ast, pathlib, re

import _Skiffport

TEXT = ("WCHAR const *", "WCHAR *", "wchar_t const *", "char [_MAX_PATH]")
NUMBER = ("int", "UINT", "BOOL")
POINTER = ("KHLoginData", "KHConnectUtil", "PyPresetUploader", "HINTERNET", "std::map< unsigned int,int >")
TAKEN = {**dict.fromkeys(TEXT, "Optional[str]"), **dict.fromkeys(NUMBER, "int"), **dict.fromkeys(POINTER, "_Pointer"),
         "CString &": "_Self", "PyObject *": "Optional[Callable[..., object]]"}
GIVEN = {**dict.fromkeys(TEXT, "str"), **dict.fromkeys(NUMBER, "int"), **dict.fromkeys(POINTER, "_Pointer"), "": "None"}

compared = 0
for stub in ast.parse(pathlib.Path("shell/stubs/_Skiffport.pyi").read_text("utf-8")).body:
    documentation = isinstance(stub, ast.FunctionDef) and getattr(_Skiffport, stub.name).__doc__
    if documentation:
        inside, result = re.fullmatch(r"\w+\((.*)\)(?: -> (.*))?", documentation).groups("")
        expected = [(name, "_Self" if name == "self" else TAKEN[kind])
                    for kind, _, name in (item.rpartition(" ") for item in inside.split(", ") if item)]
        found = [(argument.arg, ast.unparse(argument.annotation)) for argument in stub.args.posonlyargs]
        assert found == expected, f"{stub.name}: {found} is not {expected}"
        given = ast.unparse(stub.returns)
        assert given == GIVEN.get(result, given), f"{stub.name} does not return {given}"
        compared += 1
assert compared == 43, compared
END
PYTHONPATH=$site MYPYPATH=$site:shell/stubs /usr/bin/python3 -m mypy.stubtest skiffhost._messageloop
(cd "$site" && MYPYPATH=$OLDPWD/shell/stubs /usr/bin/python3 -m mypy --strict --python-version 3.8 -p skiffhost)

# The snippets of the docs, with the types of the built tree.
mkdir "$work/snippets"
printf '[mypy]\n[mypy-gi.*]\nignore_missing_imports = True\n[mypy-skiffhost.*]\nfollow_imports = silent\n' >"$work/mypy.ini"
/usr/bin/python3 -B tests/python/test_docs.py "$work/snippets"
(cd "$work/snippets" && MYPYPATH=$tree:. /usr/bin/python3 -m mypy --strict --config-file ../mypy.ini ./*.py)

cat >"$work/wrong.py" <<'END'
import _Skiffport
import Skiffport
from skiffhost import loop

Skiffport.KHLoginData("10.5", "retail")
_Skiffport.KHLoginData_GetUserName(None)
Skiffport.KHConnectUtil().SyncSendHttpRequestParam("host", "80", "/", "a=b")
Skiffport.PyPresetUploader("", "", "", "", "").SetCallback(5)
loop.wait("1")
END
/usr/bin/python3 -m mypy --strict --python-executable "$work/environment/bin/python" "$work/wrong.py" >"$work/found" && status=0 || status=$?
found=$(sed -n 's/.*wrong\.py:\([0-9]*\): error: .*/\1/p' "$work/found" | paste -sd ' ')
[[ $status == 1 && $found == '5 6 7 8 9' ]] || { cat "$work/found" && echo 'FAILED: not each wrong call was found' && exit 1; }
