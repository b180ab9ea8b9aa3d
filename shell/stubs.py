"""Makes of the proxy's stub what else describes the modules: stubs.py Skiffport.pyi DOCS TREE.

DOCS is Python code that gives the proxy the stub's docstrings and signatures instead of SWIG's: those name types of
C++, and are fixed for the flat functions alone. TREE, the importable one, gets the stub and that of the native
module, whose flat functions take what the proxy's methods and attributes take: beside the modules for what searches
that folder, and as stub packages for what finds the folder as one of installed packages.
"""

import ast
import inspect
import pathlib
import sys

CODE = '''
# What the module, the classes and their members do.
def _describe(described):
    for target, text in described:
        target.__doc__ = text

if KHLoginData.__doc__:  # not with -OO
    __doc__ = %r
    _describe((
%s    ))
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


def parameters_of(function, source):
    """Returns a method's parameters after self, with their types. (ast.unparse needs Python 3.9.)"""
    return [f"{each.arg}: {ast.get_source_segment(source, each.annotation)}" for each in function.args.args[1:]]


def described(cls, source):
    """Yields the expression for each documented member of a class, and its text."""
    name = head = ""
    for node in cls.body:
        text = docstring_of(node)
        if isinstance(node, ast.FunctionDef):
            name, text = node.name, docstring_of(node.body[0])
            parameters = ", ".join(["self", *parameters_of(node, source)])
            head = f"{name}({parameters}) -> {ast.get_source_segment(source, node.returns)}\n\n"
        elif isinstance(node, ast.AnnAssign):
            name = node.target.id
            head = f"{name}: {ast.get_source_segment(source, node.annotation)}\n\n"
        if text:
            yield (f"{cls.name}.{name}" if name else cls.name), head + inspect.cleandoc(text)


def flat_functions(cls, source):
    """Yields the name, the parameters and the result of each flat function of a class."""

    def text_of(node):
        return ast.get_source_segment(source, node)

    for node in cls.body:
        if isinstance(node, ast.FunctionDef) and node.name != "__swig_destroy__":
            parameters = parameters_of(node, source)
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
    module = ast.parse(source)
    classes = [node for node in module.body if isinstance(node, ast.ClassDef)]
    pairs = [pair for cls in classes for pair in described(cls, source)]
    members = "".join(f"        ({target}, {text!r}),\n" for target, text in pairs)
    code = CODE % (ast.get_docstring(module), members)
    pathlib.Path(sys.argv[2]).write_text(code, "utf-8")
    flat = "".join(f"def {name}({', '.join([*parameters, '/'] if parameters else [])}) -> {result}: ...\n"
                   for cls in classes for name, parameters, result in flat_functions(cls, source))
    for name, stub in (("Skiffport", source), ("_Skiffport", STUB + flat)):
        for target in (pathlib.Path(sys.argv[3], f"{name}.pyi"),
                       pathlib.Path(sys.argv[3], f"{name}-stubs", "__init__.pyi")):
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_text(stub, "utf-8")


if __name__ == "__main__":
    main()
