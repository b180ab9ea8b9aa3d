"""Makes of the proxy's stub what else describes the modules: stubs.py Skiffport.pyi DOCS TREE.

DOCS is Python code that appends the stub's docstrings to the proxy's: SWIG gives the flat functions and the proxy the
same ones, and those of the flat functions are fixed. TREE, the importable one, gets the stub and that of the native
module, whose flat functions take what the proxy's methods and attributes take: beside the modules for what searches
that folder, and as stub packages for what finds the folder as one of installed packages.
"""

import ast
import pathlib
import sys

CODE = '''
# What the classes and their members do.
def _describe(described):
    for target, text in described:
        if target.__doc__:  # not with -OO
            target.__doc__ += "\\n\\n" + text

_describe((
%s))
del _describe
'''
STUB = '''\
# Types of the native module's flat functions, which take positional arguments only. None for a str passes a null
# pointer. `self` is what the constructor returned, or an object whose attribute `this` is.
from typing import Any, Callable, Dict, Optional, Protocol, Tuple, Type, TypedDict, Union

# A native pointer, or the box in which a getter returns a HINTERNET or the map.
class _Pointer:
    def own(self, owned: bool = ..., /) -> bool: ...
    def acquire(self) -> None: ...
    def disown(self) -> None: ...
    def append(self, other: _Pointer, /) -> None: ...
    def next(self) -> Optional[_Pointer]: ...
    def __int__(self) -> int: ...

class _Proxy(Protocol):
    @property
    def this(self) -> _Pointer: ...

_Self = Union[_Pointer, _Proxy]

# Empty if host, path or parameters were None. bSucc is 1 if the request was sent; data is present if a reply was read.
class _Reply(TypedDict, total=False):
    bSucc: int
    data: str
    errMsg: str

'''


def docstring_of(node):
    """Returns the text if the node is a string of its own, else an empty one."""
    value = node.value if isinstance(node, ast.Expr) else None
    return value.value if isinstance(value, ast.Constant) and isinstance(value.value, str) else ""


def described(cls):
    """Yields the expression for each documented member of a class, and its text."""
    name = ""
    for node in cls.body:
        text = docstring_of(node)
        if isinstance(node, ast.FunctionDef):
            name, text = node.name, docstring_of(node.body[0])
        elif isinstance(node, ast.AnnAssign):
            name = node.target.id
        if text:
            lines = text.strip().splitlines()
            yield (f"{cls.name}.{name}" if name else cls.name), "\n".join(line.strip() for line in lines)


def flat_functions(cls, source):
    """Yields the name, the parameters and the result of each flat function of a class."""

    def text_of(node):
        return ast.get_source_segment(source, node)

    for node in cls.body:
        if isinstance(node, ast.FunctionDef) and node.name != "__swig_destroy__":
            parameters = [f"{each.arg}: {text_of(each.annotation)}" for each in node.args.args[1:]]
            if node.name == "__init__":
                yield f"new_{cls.name}", parameters, "_Pointer"
                yield f"delete_{cls.name}", ["self: _Self"], "None"
            else:
                yield f"{cls.name}_{node.name}", ["self: _Self", *parameters], text_of(node.returns)
        elif isinstance(node, ast.AnnAssign) and node.target.id.startswith("m_"):
            name, kind = node.target.id, text_of(node.annotation)
            given = "Optional[str]" if kind == "str" else kind
            yield f"{cls.name}_{name}_set", ["self: _Self", f"{name}: {given}"], "None"
            yield f"{cls.name}_{name}_get", ["self: _Self"], kind
    yield f"{cls.name}_swigregister", ["proxy: Type[Any]"], "None"
    yield f"{cls.name}_swiginit", ["proxy: Any", "this: _Pointer"], "None"


def main():
    source = pathlib.Path(sys.argv[1]).read_text("utf-8")
    classes = [node for node in ast.parse(source).body if isinstance(node, ast.ClassDef)]
    pairs = [pair for cls in classes for pair in described(cls)]
    code = CODE % "".join(f"    ({target}, {text!r}),\n" for target, text in pairs)
    pathlib.Path(sys.argv[2]).write_text(code, "utf-8")
    flat = "".join(f"def {name}({', '.join([*parameters, '/'] if parameters else [])}) -> {result}: ...\n"
                   for cls in classes for name, parameters, result in flat_functions(cls, source))
    for module, stub in (("Skiffport", source), ("_Skiffport", STUB + flat)):
        for target in (pathlib.Path(sys.argv[3], f"{module}.pyi"),
                       pathlib.Path(sys.argv[3], f"{module}-stubs", "__init__.pyi")):
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_text(stub, "utf-8")


if __name__ == "__main__":
    main()
