"""Fails unless each piece of C++ in the README and the guides stands in the example that it is from,
and the README names every header that is installed.

A piece follows a line that names the file: <!-- examples/quickstart/main.cpp -->. It may be any
lines of it that follow each other, indented less than there.
"""
import pathlib
import re
import sys
import textwrap

BLOCK = re.compile(r"^(?:<!-- (?P<source>\S+) -->\n)?```cpp\n(?P<code>.*?)^```$",
                   re.DOTALL | re.MULTILINE)


def stands_in(code, source):
    """Whether the lines follow each other there, all indented more by the same amount."""
    lines, wanted = source.splitlines(), code.splitlines()
    return any(textwrap.dedent("\n".join(lines[i:i + len(wanted)])).splitlines() == wanted
               for i in range(len(lines) - len(wanted) + 1))


root = pathlib.Path(sys.argv[1])
readme = root / "README.md"
faults = []
for document in [readme, *sorted((root / "docs/guides").glob("*.md"))]:
    blocks = list(BLOCK.finditer(document.read_text()))
    if not blocks:
        faults.append(f"{document}: shows no code")
    for block in blocks:
        if block["source"] is None:
            faults.append(f"{document}: code without the name of its file:\n{block['code']}")
        elif not stands_in(block["code"], (root / block["source"]).read_text()):
            faults.append(f"{document}: this is not in {block['source']}:\n{block['code']}")
quickstart = root / "examples/quickstart/main.cpp"
if quickstart.read_text() not in readme.read_text():
    faults.append(f"{readme}: does not show the whole of {quickstart}")
installed = re.search(r"set\(HALVEX_PUBLIC_HEADERS\n(.*?)\)",
                      (root / "cmake/HalvexInstall.cmake").read_text(), re.DOTALL)[1].split()
faults += [f"{readme}: does not name {header}" for header in [*installed, "Foundation/Version.h"]
           if not re.search(rf"[`/]{re.escape(pathlib.Path(header).name)}`", readme.read_text())]
sys.exit("\n".join(faults) or None)
