#!/usr/bin/env python3
"""Holds an installation to its public headers: they and no others are installed, and whatever the
libraries export is declared in one of them.

    check_installed.py INCLUDE_FOLDER LIST LIBRARY...

LIST is a file that names one public header per line. A class is declared where its body is: one
that a header only announces, such as an Impl, is internal.
"""
import pathlib
import re
import subprocess
import sys

COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/", re.DOTALL)
OPERATOR = re.compile(r"\boperator\s*(?:\(\)|[^\s\w(]+)")
TEMPLATE_ARGUMENTS = re.compile(r"<[^<>]*>")
# What a header consists of, as far as scopes go.
PIECE = re.compile(
    r"\bnamespace\s+(?P<namespace>[\w:]+)\s*{"
    r"|\b(?:class|struct)\s+(?:HALVEX_EXPORT\s+)?(?P<class>\w+)[^;(){}]*{"
    r"|\b(?P<function>\w+)\s*\("
    r"|[{}]")
# What the compiler makes for a class as a whole.
OF_A_CLASS = re.compile(r"^(?:vtable|VTT|typeinfo|typeinfo name) for ")
THUNK = re.compile(r"^(?:non-virtual|virtual) thunk to ")


def declared_in(text):
    """The full names of the classes that have their bodies in a header, and of its functions."""
    classes, functions, scopes = set(), set(), []
    for piece in PIECE.finditer(OPERATOR.sub("operator", COMMENT.sub("", text))):
        name = "::".join(scopes + [piece["function"] or piece["class"] or piece["namespace"] or ""])
        if piece["function"]:
            functions.add(name)
        elif piece[0] == "}":
            scopes.pop()
        else:
            scopes.append(piece["class"] or piece["namespace"] or "")
            if piece["class"]:
                classes.add(name)
    return classes, functions


def full_name(symbol):
    """Without its arguments: Halvex::App::TaskQueue::Add."""
    name = OPERATOR.sub("operator", THUNK.sub("", OF_A_CLASS.sub("", symbol)))
    while TEMPLATE_ARGUMENTS.search(name):
        name = TEMPLATE_ARGUMENTS.sub("", name)
    return re.split(r"[(\[]", name)[0]


def is_declared(symbol, classes, functions):
    name = full_name(symbol)
    if OF_A_CLASS.match(symbol):
        return name in classes
    return name.rpartition("::")[0] in classes or name in functions


def exported_by(library):
    listed = subprocess.run(["nm", "-DC", "--defined-only", library], check=True,
                            capture_output=True, text=True).stdout
    return [line.split(" ", 2)[2] for line in listed.splitlines()]


folder = pathlib.Path(sys.argv[1])
public = set(pathlib.Path(sys.argv[2]).read_text().split())
libraries = sys.argv[3:]

installed = {str(path.relative_to(folder)) for path in folder.rglob("*") if not path.is_dir()}
mistakes = [f"{header} is installed and not public" for header in sorted(installed - public)]
mistakes += [f"{header} is public and not installed" for header in sorted(public - installed)]

all_classes, all_functions = set(), set()
for header in public & installed:
    header_classes, header_functions = declared_in((folder / header).read_text())
    all_classes |= header_classes
    all_functions |= header_functions
for library in libraries:
    symbols = exported_by(library)
    if not symbols:
        mistakes.append(f"{library} exports nothing")
    mistakes += [f"{library} exports what no installed header declares: {symbol}"
                 for symbol in symbols if not is_declared(symbol, all_classes, all_functions)]

for mistake in mistakes:
    print(mistake, file=sys.stderr)
sys.exit(bool(mistakes))
