#!/usr/bin/env python3
"""Writes what a public header says, as chapters of a manual page in Markdown.

class_page.py HEADER.h PAGE.md

The header is the contract, so its comments are the text of the page. A header with a class gives
Name, Synopsis, Description and Functions: each comment with the declarations below it. What stands
outside of a class (types.h has none) gives Types: enumerations, records, callbacks and tables.
"""
import pathlib
import re
import sys

NAMESPACE = "ZorvBtrfsUsage"
SEE_ALSO = "## See also\n\n**zorvbtrfssnapusage**(3), **zorvbtrfssnapusage**(5)\n"
MARKS = re.compile(r"([\\*_<>\[\]#$|~^`@])")


def plain(text):
    """`text` with everything that Markdown would take for a mark escaped."""
    return MARKS.sub(r"\\\1", text)


def prose(comment):
    """The paragraphs of comment lines; what stands in backticks there is emphasized."""
    text = "\n".join(re.sub(r"^\s*// ?", "", line) for line in comment)
    pieces = re.split(r"`([^`\n]+)`", text)
    return "".join(f"*{plain(piece)}*" if i % 2 else plain(piece) for i, piece in enumerate(pieces))


def quoted(text):
    """`text`, moved to the right."""
    return "\n".join(f"> {line}".rstrip() for line in text.splitlines())


def one_line(declaration):
    """A declaration without its line breaks, the body of what is defined there, and the marks of
    the compiler's."""
    text = re.sub(r"\s+", " ", " ".join(declaration)).strip()
    text = re.sub(r"\s*\{.*\}$", ";", text)
    text = re.sub(r'\s*__asm__\("\w+"\)', "", text)
    return text.replace("extern ZORV_EXPORT ", "extern ")


def is_complete(declaration):
    text = " ".join(declaration)
    return text.count("(") == text.count(")") and text.rstrip().endswith((";", "}"))


def groups(lines):
    """(comment lines, declarations) of each run of lines without an empty one."""
    comment, declarations, declaration = [], [], []
    for line in [*lines, ""]:
        if not line.strip():
            if comment or declarations:
                yield comment, declarations
            comment, declarations = [], []
        elif line.lstrip().startswith("//"):
            comment.append(line)
        else:
            declaration.append(line)
            if is_complete(declaration):
                declarations.append(one_line(declaration))
                declaration = []


def entry(comment, declarations):
    """Declarations in bold, one a line, and below them what their comment says."""
    if not declarations:  # a heading: // ---- File locks -----
        return "### " + comment[0].strip("/- \n") + "\n"
    head = "\\\n".join(f"**{plain(declaration)}**" for declaration in declarations)
    return head + "\n\n" + (quoted(prose(comment)) + "\n" if comment else "")


def class_page(path, lines):
    start = next(i for i, line in enumerate(lines) if re.match(r"class ZORV_EXPORT \w+", line))
    name = re.match(r"class ZORV_EXPORT (\w+)(.*) \{", lines[start])
    comment = start
    while lines[comment - 1].startswith("//"):
        comment -= 1
    first = lines.index(" public:", start) + 1
    last = next(i for i in range(first, len(lines))
                if lines[i] in ("};", " private:", " protected:"))
    summary = prose(lines[:lines.index(f"#ifndef {guard(path)}")]).replace("\n", " ").rstrip(".")
    full = f"{NAMESPACE}::{name[1]}"
    yield f"## Name\n\n{full} - {summary[0].lower()}{summary[1:]}\n"
    yield ("## Synopsis\n\n"
           f"**#include \\<{path.parent.name}/{plain(path.name)}\\>**\n\n"
           f"**class {full}{plain(name[2])}**\n")
    yield f"## Description\n\n{prose(lines[comment:start])}\n"
    yield "## Functions\n"
    for group in groups(lines[first:last]):
        yield entry(*group)
    yield from types_page(lines[:comment])
    yield SEE_ALSO


def guard(path):
    return re.sub(r"\W", "_", f"{path.parent.name}_{path.name}").upper() + "_"


def values(lines):
    """The enumerators or members between braces, as a list of definitions."""
    for line in lines:
        match = re.match(r"\s+([^/]*?)[,;]\s*//\s*(.*)$", line)
        if not match:
            sys.exit(f"no comment says what this is: {line.strip()}")
        yield f"{plain(match[1])}\n:   {prose([match[2]])}\n"


def types_page(lines):
    """What a header declares outside of its class."""
    blocks = "\n".join(lines[lines.index(f"namespace {NAMESPACE} {{") + 1:]).split("\n\n")
    entries = [text for block in blocks for text in type_entry(block.strip("\n").splitlines())]
    if entries:
        yield "## Types\n"
        yield from entries


def type_entry(block):
    comment = [line for line in block if line.startswith("//")]
    rest = block[len(comment):]
    if not comment or not rest:  # a class that is only named, the end of a namespace
        return
    opening = re.match(r"((?:enum|struct) \w+).*\{$", rest[0])
    if opening:
        yield f"### {plain(opening[1])}\n\n{prose(comment)}\n"
        yield from values(rest[1:-1])
    else:
        yield entry(comment, [one_line(rest)])


def main():
    path = pathlib.Path(sys.argv[1])
    lines = path.read_text().splitlines()
    has_class = any(line.startswith("class ZORV_EXPORT") for line in lines)
    chapters = class_page(path, lines) if has_class else types_page(lines)
    pathlib.Path(sys.argv[2]).write_text("\n".join(chapters))


if __name__ == "__main__":
    main()
