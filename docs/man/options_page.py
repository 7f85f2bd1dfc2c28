#!/usr/bin/env python3
"""Writes the commands and options of a program, as its own help tells them, as chapters of a manual
page in Markdown.

options_page.py PROGRAM PAGE.md
"""
import pathlib
import re
import subprocess
import sys

MARKS = re.compile(r"([\\*_<>\[\]#$|~^`@])")


def plain(text):
    """`text` with everything that Markdown would take for a mark escaped."""
    return MARKS.sub(r"\\\1", text)


def help_of(program, *command):
    return subprocess.run([program, *command, "--help"], check=True, text=True,
                          capture_output=True).stdout


def section(text, name):
    """(term, what it is) of each entry of a section, long entries having their text below."""
    match = re.search(rf"^{name}:\n((?:  .*\n)*)", text, re.M)
    entries = []
    for line in match[1].splitlines() if match else []:
        term, _, meaning = line[2:].partition("  ")
        if line.startswith("   "):
            entries[-1][1] += " " + line.strip()
        else:
            entries.append([term, meaning.strip()])
    return entries


def term_text(term):
    """-q,--quiet FORMAT Excludes: ... as **-q**, **--quiet** *FORMAT*"""
    names, _, value = re.sub(r" (Excludes|Needs):.*", "", term).partition(" ")
    value = re.sub(r"\bTEXT ?|\bREQUIRED ?", "", value).strip()
    shown = ", ".join(f"**{plain(name)}**" for name in names.split(","))
    return shown + (f" *{plain(value)}*" if value else "")


def definitions(entries):
    return [f"{term_text(term)}\n:   {plain(meaning.strip())}\n" for term, meaning in entries]


def footer(text):
    """What stands below the sections: remarks, and the example."""
    last = text.rstrip("\n").split("\n\n")[-1]
    remarks, _, example = last.partition("Example: ")
    return remarks.strip(), example.strip()


def command_chapter(program, command):
    text = help_of(program, command)
    remarks, example = footer(text)
    yield f"### {command}\n"
    yield f"**{plain(re.search(r'^Usage: (.*)$', text, re.M)[1])}**\n"
    yield plain(text.split("\n", 1)[0]) + ".\n"
    yield from definitions(section(text, "Positionals") + section(text, "Options"))
    if remarks:
        yield plain(remarks) + "\n"
    yield f"    {example}\n"


def main():
    program = sys.argv[1]
    text = help_of(program)
    chapters = ["## Options\n", *definitions(section(text, "Options"))]
    for command, _ in section(text, "Subcommands"):
        chapters.extend(command_chapter(program, command))
    pathlib.Path(sys.argv[2]).write_text("\n".join(chapters))


if __name__ == "__main__":
    main()
