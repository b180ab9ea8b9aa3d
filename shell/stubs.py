"""Prints Python code that appends the docstrings of the stub to the proxy's: stubs.py Skiffport.pyi.

SWIG gives the flat functions and the proxy the same docstrings, and those of the flat functions are fixed.
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


def main():
    stub = ast.parse(pathlib.Path(sys.argv[1]).read_text("utf-8"))
    pairs = [pair for node in stub.body if isinstance(node, ast.ClassDef) for pair in described(node)]
    print(CODE % "".join(f"    ({target}, {text!r}),\n" for target, text in pairs), end="")


if __name__ == "__main__":
    main()
