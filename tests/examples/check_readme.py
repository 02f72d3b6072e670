"""Fails unless the program in the README is the quickstart example to the letter."""
import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])
shown = re.search(r"<!-- quickstart -->\n```cpp\n(.*?)```\n<!-- /quickstart -->",
                  (root / "README.md").read_text(), re.DOTALL)
if shown is None or shown.group(1) != (root / "examples/quickstart/main.cpp").read_text():
    sys.exit("the program in README.md differs from examples/quickstart/main.cpp")
