"""Writes the first C++ program of a Markdown file to a source file.

usage: extract_program.py MARKDOWN OUTPUT
"""

import re
import sys

text = open(sys.argv[1], encoding="utf-8").read()
program = re.search(r"^```cpp\n(.*?)^```$", text, re.DOTALL | re.MULTILINE)
assert program and "int main(" in program.group(1), "no program found"
open(sys.argv[2], "w", encoding="utf-8").write(program.group(1))
